// The static loaders, as they go onto the cabinet's RAM disk, do on a kernel without any of the system calls
// that Linux has got since 2.6.20 what they do on this one. Their machine is a prepared tree of files
// (old_kernel.cpp).

#include "sandbox/link_packets.h"
#include "sandbox/sandbox.h"
#include "sandbox/settings.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <pty.h>
#include <termios.h>
#include <unistd.h>

using testing::ElementsAre;

namespace
{

const char *const old = "2.6.20";
const char *const today = "today";

/// What a run left behind: what was printed and reported, and the tree.
using Outcome = std::vector<std::string>;

/// A machine made of files; what mounts would show is there already.
struct FileMachine : Sandbox {
    FileMachine(const std::string &loader, char mode)
    {
        copy_in(loader, "/loader");
        make_folder("/tmp");
        make_folder("/machine/programs");
        make_file("/proc/devices", "Character devices:\n  1 mem\n240 qellpc\n");
        make_folder("/proc/bus/usb");
        // A command of a byte is written over the first one, then the answer is read.
        make_file("/dev/qellpc_command", std::string("?") + mode);
        make_file("/dev/qellpc_lcd", "");
        make_file("/sys/class/sound/timer/dev", "116:33\n");
        make_file("/sys/block/hdc/dev", "22:0\n");
        make_folder("/dev/disk");
        add_program("/usr/xorg/bin/Xfake", "stay");
    }
    void add_program(const std::string &path, const std::string &runs) const
    {
        copy_in(SANDBOX_HELPER_PROGRAM, path);
        make_file("/machine/programs" + path.substr(path.rfind('/')), runs);
    }
    /// A stick that is mounted already.
    void plug_in_stick() const
    {
        make_file("/sys/block/sda/dev", "8:0\n");
        make_file("/sys/block/sda/sda1/dev", "8:1\n");
        make_file("/dev/disk/sda1", "");
    }
    void start_on(const char *kernel, const std::vector<std::string> &arguments = {})
    {
        std::vector<std::string> all = {"old_kernel", kernel, "/loader"};
        all.insert(all.end(), arguments.begin(), arguments.end());
        start(SANDBOX_OLD_KERNEL, all);
    }
    /// Waits for the process `pid` to have reported how it was started.
    std::vector<std::string> await_report(pid_t pid)
    {
        await("the report of process " + std::to_string(pid), [&] {
            const auto lines = transcript().of(pid);
            return !lines.empty() && begins_with(lines.back(), "prefix");
        });
        return transcript().of(pid);
    }
    /// Everything that was printed and what the processes up to `last` reported; then `paths`, with all that
    /// is about them but the time.
    Outcome outcome(pid_t last, const std::vector<std::string> &paths) const
    {
        Outcome result = transcript().lines();
        for (pid_t pid = 2; pid <= last; ++pid) {
            for (const std::string &line : transcript().of(pid))
                result.push_back(std::to_string(pid) + ": " + line);
        }
        for (const std::string &path : paths) {
            const std::string seen = look(path);
            result.push_back(path + " " + seen);
            if (seen[0] == '-')
                result.push_back(content(path));
        }
        return result;
    }
};

std::string loader_of(const std::string &preset)
{
    return QEL_PRODUCTS "/" + preset + "/src/qel_application_loader.stripped";
}

struct OldKernel : testing::TestWithParam<const char *> {
    const std::string loader = loader_of(GetParam());
};

// ---- The start, a copy, a removal, a restart ----

Outcome start(const std::string &loader, const char *kernel)
{
    FileMachine machine(loader, '\x01');
    machine.plug_in_stick();
    machine.make_file("/storage/qel_application_1", "an old one");
    machine.add_program("/disk/sda1/games/qel_application_2", "exit 3\nstay\n");
    for (int i = 0; i < 45; ++i)
        machine.make_file("/tmp/.wine/drive_c/save" + std::to_string(i), "game", 0400);
    machine.start_on(kernel);
    machine.await_report(3); // the X server; 2 is old_kernel's
    machine.await_report(4);
    machine.await_report(5); // the second run
    EXPECT_EQ(machine.names("/tmp"), std::vector<std::string>());
    EXPECT_EQ(machine.content("/storage/qel_application_2"),
              machine.content("/disk/sda1/games/qel_application_2"));
    Outcome outcome =
        machine.outcome(5, {"/storage", "/storage/qel_application_1", "/storage/qel_application_2",
                            "/qel_home", "/disk/sda1", "/dev/snd"});
    // The X server starts while the prefix is being removed: whether it still sees it is chance.
    std::erase_if(outcome, [](const std::string &line) { return begins_with(line, "3: prefix"); });
    return outcome;
}

TEST_P(OldKernel, StartsCopiesRemovesAndRestartsAsOnThisOne)
{
    const Outcome on_old = start(loader, old);
    EXPECT_EQ(on_old, start(loader, today));
    const Outcome printed(on_old.begin(), on_old.begin() + 17);
    EXPECT_THAT(printed,
                ElementsAre("console \"QEL Loader...\\n\"", "console \"mount: /sys /proc\\n\"",
                            "console \"dev:  qellpc_firmware qellpc_midi qellpc_lcd qellpc_command "
                            "qellpc_button qellpc_test qellpc_console qellpc_host_comms qellpc_reserved1 "
                            "qellpc_reserved2\\n\"",
                            "console \"Want console...\\n\"", "console \"dev:  timer hdc sda\\n\"",
                            "console \"mount:sda1 mounted\\n\"", "console \"\\n\"",
                            "console \"mount: /usr /storage\\n\"", "console \"/tmp -> /qel_home\\n\"",
                            "console \"candidate: /storage/qel_application_1\\n\"",
                            "console \"candidate: /disk/sda1/games/qel_application_2\\n\"",
                            "console \"copy: /disk/sda1/games/qel_application_2 -> "
                            "/storage/qel_application_2\\n\"",
                            R"(console "removing dir tree \"/qel_home/.wine\"\n")",
                            R"(console "removing contents of \"/qel_home/.wine\"\n")",
                            R"(console "removing contents of \"/qel_home/.wine/drive_c\"\n")",
                            "console \"run: /storage/qel_application_2\\n\"",
                            R"(console "removing dir tree \"/qel_home/.wine\"\n")"));
}

// ---- Installing: fork, socket pairs, waits ----

Outcome install(const std::string &loader, const char *kernel)
{
    FileMachine machine(loader, '\x01');
    machine.plug_in_stick();
    machine.make_file("/disk/sda1/qel_usr.cramfs", std::string(10000, 'i') + "the end");
    machine.make_file("/disk/sda1/vmlinux", "a kernel");
    machine.make_file("/disk/sda1/storage.zip", "an archive");
    machine.add_program("/bin/sfdisk", "input");
    machine.add_program("/bin/mkdosfs", "input\ninput\n");
    machine.add_program("/bin/syslinux", "input");
    machine.add_program("/bin/miniunz", "input folder /storage/unpacked");
    machine.add_program("/storage/qel_application_1", "stay");
    machine.start_on(kernel, {"qelinstall"});
    EXPECT_THAT(machine.await_report(9), testing::Contains("arguments [/storage/qel_application_1]"));
    machine.await_report(8);
    EXPECT_EQ(machine.transcript().of(3).back(), "input \",8,4,*\\n,28,L\\n,,6\\n\", then its end");
    EXPECT_EQ(machine.content("/dev/disk/hdc2"), machine.content("/disk/sda1/qel_usr.cramfs"));
    EXPECT_EQ(machine.transcript().lines("console \"Install complete.").size(), 1U);
    return machine.outcome(9, {"/boot/vmlinux", "/boot/syslinux.cfg", "/dev/disk/hdc2", "/storage/unpacked"});
}

TEST_P(OldKernel, InstallsAsOnThisOne)
{
    EXPECT_EQ(install(loader, old), install(loader, today));
}

// ---- The host link ----

/// Takes `bytes` bytes from the other end of the link.
std::string take(FileMachine &machine, int host, size_t bytes)
{
    std::string taken;
    machine.await("bytes on the link", [&] {
        char buffer[100];
        const ssize_t count = read(host, buffer, bytes - taken.size());
        taken.append(buffer, count > 0 ? static_cast<size_t>(count) : 0);
        return taken.size() == bytes;
    });
    return taken;
}

/// Connects and sends an updater. The link is a terminal: only one packet travels at a time.
Outcome update(const std::string &loader, const char *kernel)
{
    FileMachine machine(loader, '\x02');
    machine.make_link("/dev/qellpc_host_comms",
                      "/machine/process/self/fd/" + std::to_string(host_descriptor));
    machine.add_program("/bin/updater", "exit 7");
    int host;
    struct termios settings = {};
    cfmakeraw(&settings);
    EXPECT_EQ(openpty(&host, &machine.for_the_inside, nullptr, &settings, nullptr), 0);
    fcntl(host, F_SETFL, O_NONBLOCK);
    fcntl(host, F_SETFD, FD_CLOEXEC);
    machine.start_on(kernel);

    const std::string notice = take(machine, host, 14); // the loader is there
    EXPECT_EQ(write(host, connect_packet.data(), connect_packet.size()), 18);
    std::string answer = take(machine, host, 14);
    while (answer == notice)
        answer = take(machine, host, 14);
    answer += take(machine, host, 4);
    EXPECT_EQ(write(host, script_updater_packet.data(), script_updater_packet.size()), 33);
    EXPECT_EQ(machine.await_end(), 7);
    close(host);
    EXPECT_EQ(machine.content("/tmp/updater"), "#!/bin/updater\n");
    Outcome result = machine.outcome(1, {"/tmp/updater", "/dev/qellpc_lcd"});
    result.push_back(notice + answer);
    return result;
}

TEST_P(OldKernel, TalksToItsHostAndStartsAnUpdaterAsOnThisOne)
{
    const Outcome on_old = update(loader, old);
    EXPECT_EQ(on_old, update(loader, today));
    EXPECT_EQ(on_old.back(), std::string("\x00\x00\x00\x08\xb2U\x0b\x00\x00\x00\x08\x00\x00\x00"
                                         "\x00\x00\x00\x0c\x0d\xb9&\x00\x00\x00\x0c\x00\x00\x00xV4\x12",
                                         32));
}

INSTANTIATE_TEST_SUITE_P(Product, OldKernel, testing::Values("product", "product-i586"),
                         [](const auto &about) {
                             return std::string(about.param) == "product" ? "X86_64" : "I586";
                         });

// ---- The filter itself ----

TEST(OldKernelFilter, RefusesEveryNewerCall)
{
    Sandbox sandbox;
    sandbox.copy_in(SANDBOX_NEWER_CALLS, "/calls");
    sandbox.start(SANDBOX_OLD_KERNEL, {"old_kernel", old, "/calls"});
    sandbox.await_lines("console \"1446 calls refused\\n\"");
    EXPECT_EQ(sandbox.transcript().lines().size(), 1U) << sandbox.transcript().text();
}

} // namespace
