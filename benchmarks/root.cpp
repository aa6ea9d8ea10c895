// What stands in a root, and where it comes from.

#include "root.h"

#include "places.h"
#include "process.h"
#include "trees.h"

#include "common/child.h"

#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <filesystem>
#include <fstream>
#include <stdexcept>

namespace fs = std::filesystem;

namespace
{

/// What a delivery has for the storage partition: 200 files, made once.
std::string storage_archive()
{
    std::string archive = scratch("storage.zip"), folder = scratch("storage");
    if (!fs::exists(archive)) {
        make_tree(folder, 10, 20);
        time_command({"sh", "-c", "cd " + folder + " && zip -qr " + archive + " ."});
    }
    return archive;
}

} // namespace

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
    fs::create_directories(root.path + "/machine/none");
    fs::create_directories(root.path + "/machine/sysfs/class/sound/card0");
    root.add_file("/machine/sysfs/class/sound/controlC0/dev", "116:0\n");
    root.add_file("/machine/sysfs/class/sound/pcmC0D0p/dev", "116:16\n");
    root.add_file("/machine/sysfs/block/hdc/dev", "22:0\n");
    for (const char *partition : {"1", "2", "3"})
        root.add_file(std::string("/machine/sysfs/block/hdc/hdc") + partition + "/dev",
                      std::string("22:") + partition + "\n");
    root.add_file("/machine/board", std::string(64, '\0'));
    root.add_program(subject("bench_application"), "/machine/hdc2/xorg/bin/Xfake");
    root.add_program(subject("bench_application"), application_file);
}

void equip_for_install(const Root &root)
{
    equip(root, "/machine/sda1/qel_application_1");
    root.add_file("/machine/sysfs/block/sda/dev", "8:0\n");
    root.add_file("/machine/sysfs/block/sda/sda1/dev", "8:1\n");
    root.add_file("/machine/hdc2.image", "");
    for (const char *partition : {"hdc1", "hdc3"})
        fs::create_directories(root.path + "/machine/" + partition);
    make_file(root.path + "/machine/sda1/vmlinux", 6 << 20);
    make_file(root.path + "/machine/sda1/qel_usr.cramfs", 20 << 20);
    root.add_program(storage_archive(), "/machine/sda1/storage.zip");
    for (const char *tool : {"sfdisk", "mkdosfs", "sync", "syslinux"})
        root.add_program(subject("bench_application"), std::string("/bin/") + tool);
    const std::string unzip = find_tool("miniunzip"), interpreter = "/lib64/ld-linux-x86-64.so.2";
    root.add_program(unzip, "/bin/miniunz");
    root.add_program(fs::canonical(interpreter), interpreter);
    for (const std::string &library : libraries_of(unzip))
        root.add_program(fs::canonical(library), library);
}

void add_busybox(const Root &root)
{
    root.add_program("/bin/busybox", "/bin/busybox");
    for (const char *name :
         {"sh", "cp", "find", "ln", "mkdir", "mknod", "mount", "rm", "sort", "tail", "umount"})
        fs::create_symlink("busybox", root.path + "/bin/" + name);
}
