// What stands in a root, and where it comes from.

#include "root.h"
#include "contests.h"
#include "trees.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace fs = std::filesystem;

Root::Root() : path(scratch("root"))
{
    for (const char *folder : {"/bin", "/dev", "/etc", "/tmp"})
        fs::create_directories(path + folder);
    if (mknod((path + "/dev/null").c_str(), S_IFCHR | 0666, makedev(1, 3)))
        throw std::runtime_error("no device nodes can be made (the benchmarks need root)");
}

Root::~Root()
{
    fs::remove_all(path);
}

void Root::add_file(const std::string &name, const std::string &content) const
{
    fs::create_directories(fs::path(path + name).parent_path());
    std::ofstream(path + name) << content;
}

void Root::add_program(const std::string &host_file, const std::string &name) const
{
    std::string kept = host_file;
    std::replace(kept.begin(), kept.end(), '/', '_');
    kept = scratch(kept);
    if (!fs::exists(kept))
        fs::copy_file(host_file, kept);
    fs::create_directories(fs::path(path + name).parent_path());
    fs::create_hard_link(kept, path + name);
}

void equip(const Root &root, const std::string &application_file)
{
    root.add_file("/machine/proc/devices",
                  "Character devices:\n  1 qellpc\n116 alsa\n\nBlock devices:\n 22 ide1\n");
    fs::create_directories(root.path + "/machine/proc/bus/usb");
    fs::create_directories(root.path + "/machine/usbfs");
    fs::create_directories(root.path + "/machine/sysfs/class/sound/card0");
    root.add_file("/machine/sysfs/class/sound/controlC0/dev", "116:0\n");
    root.add_file("/machine/sysfs/class/sound/pcmC0D0p/dev", "116:16\n");
    root.add_file("/machine/sysfs/block/hdc/dev", "22:0\n");
    for (const char *partition : {"1", "2", "3"})
        root.add_file(std::string("/machine/sysfs/block/hdc/hdc") + partition + "/dev",
                      std::string("22:") + partition + "\n");
    root.add_file("/machine/board", std::string(64, '\0'));
    root.add_program(subject("bench_application"), "/machine/cramfs/xorg/bin/Xfake");
    root.add_program(subject("bench_application"), application_file);
}

void add_busybox(const Root &root)
{
    root.add_program("/bin/busybox", "/bin/busybox");
    for (const char *name : {"sh", "find", "ln", "mkdir", "mknod", "mount", "rm", "sort", "tail", "sleep"})
        fs::create_symlink("busybox", root.path + "/bin/" + name);
}
