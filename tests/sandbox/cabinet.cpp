// The cabinet's equipment, in the places where the stand-in kernel looks for it.

#include "sandbox/cabinet.h"
#include "sandbox/settings.h"

#include <sys/socket.h>
#include <unistd.h>

#include <filesystem>
#include <stdexcept>

static const char proc_devices[] = "Character devices:\n"
                                   "  1 mem\n"
                                   "  5 /dev/tty\n"
                                   "116 alsa\n"
                                   "240 qellpc\n"
                                   "\n"
                                   "Block devices:\n"
                                   "  8 sd\n"
                                   " 22 ide1\n";

Cabinet::Cabinet()
{
    make_folder("/tmp");
    make_folder("/machine/programs");
    make_file("/machine/proc/devices", proc_devices);
    make_folder("/machine/proc/bus/usb");

    make_folder("/machine/sys/class/sound/card0");
    make_file("/machine/sys/class/sound/controlC0/dev", "116:0\n");
    make_file("/machine/sys/class/sound/pcmC0D0p/dev", "116:16\n");

    add_block_device("hdc", 22, 0);
    for (unsigned partition = 1; partition <= 3; ++partition)
        add_block_device("hdc/hdc" + std::to_string(partition), 22, partition);
    make_folder("/machine/sys/block/hdc/queue");
    add_block_device("loop0", 7, 0);
    format("cramfs", 22, 2);
    format("vfat", 22, 3);
    add_program(system("/xorg/bin/Xfake"));

    int ends[2];
    if (socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC, 0, ends))
        throw std::runtime_error("cabinet: no socket pair");
    host = ends[0];
    for_the_inside = ends[1];
}

Cabinet::~Cabinet()
{
    close(host);
}

// ---- Equipment ----

void Cabinet::add_block_device(const std::string &name, unsigned major, unsigned minor)
{
    make_file("/machine/sys/block/" + name + "/dev",
              std::to_string(major) + ":" + std::to_string(minor) + "\n");
}

void Cabinet::format(const std::string &type, unsigned major, unsigned minor)
{
    make_folder("/machine/" + type + "/" + std::to_string(major) + ":" + std::to_string(minor));
}

void Cabinet::plug_in_stick()
{
    format("vfat", 8, 1);
    // At once: the loader may be looking.
    make_file("/machine/sda/dev", "8:0\n");
    make_file("/machine/sda/sda1/dev", "8:1\n");
    std::filesystem::rename(at("/machine/sda"), at("/machine/sys/block/sda"));
}

void Cabinet::limit_storage(size_t bytes)
{
    limit(storage(""), bytes);
}

void Cabinet::fail(const std::string &name, int n, int error)
{
    failures += (failures.empty() ? "" : ", ") + name + " " + std::to_string(n) + " " + std::to_string(error);
    set(fail_setting, failures);
}

// ---- Programs ----

void Cabinet::add_program(const std::string &path, const std::string &runs)
{
    copy_in(SANDBOX_HELPER_PROGRAM, path);
    if (!runs.empty())
        make_file("/machine/programs/" + std::filesystem::path(path).filename().string(), runs);
}

size_t Cabinet::runs(const std::string &name) const
{
    std::error_code none_yet;
    const auto runs_so_far = std::filesystem::file_size(at("/machine/programs/" + name + ".runs"), none_yet);
    return none_yet ? 0 : runs_so_far;
}

void Cabinet::start(const std::vector<std::string> &arguments)
{
    set(mode_setting, std::to_string(mode));
    set(major_setting, "240");
    std::vector<std::string> all = {"/init"};
    all.insert(all.end(), arguments.begin(), arguments.end());
    Sandbox::start(SANDBOX_LOADER, all);
}

std::vector<std::string> Cabinet::await_child(pid_t n)
{
    const pid_t pid = n + 1;
    await("the report of process " + std::to_string(pid), [&] {
        const auto lines = transcript().of(pid);
        return !lines.empty() && begins_with(lines.back(), "prefix");
    });
    return transcript().of(pid);
}

void Cabinet::send(const std::string &packet) const
{
    if (write(host, packet.data(), packet.size()) != static_cast<ssize_t>(packet.size()))
        throw std::runtime_error("cabinet: the loader does not take packets");
}
