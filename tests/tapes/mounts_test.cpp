// What failing calls lead to in mounts and device nodes.

#include "tapes/golden.h"

#include "qel_utility/qel_filesystem.h"

#include <errno.h>
#include <sys/stat.h>

namespace
{

// ---- Mounts ----

std::string mount_usb_disks(Ground &ground)
{
    ground.disk.make_folder("/disk");
    for (const char *node : {"/dev/disk/hdc", "/dev/disk/sda", "/dev/disk/sda1"})
        ground.disk.make_file(node);
    qel_mount_usb_disks("sd");
    return "tried";
}

const std::vector<Scenario> mounts = {
    {"Mount", [](Ground &) { return std::to_string(qel_mount("proc", "proc", "/proc", 0, nullptr)); }},
    {"MountStorage", [](Ground &) { return std::to_string(qel_mount_storage()); }},
    {"RemountStorageRw", [](Ground &) { return std::to_string(qel_remount_storage_rw()); }},
    {"RemountStorageRo", [](Ground &) { return std::to_string(qel_remount_storage_ro()); }},
    {"MountUsbDisks", mount_usb_disks},
    {"MountUsbDiskThatDoesNotMount",
     [](Ground &ground) {
         ground.kernel.on_mount = [](auto...) {
             errno = EINVAL;
             return -1;
         };
         ground.disk.make_folder("/disk");
         ground.disk.make_file("/dev/disk/sda");
         qel_mount_usb_disks("sd");
         return std::string("tried");
     }},
    {"RemountUsb",
     [](Ground &) {
         qel_remount_usb_rw();
         qel_remount_usb_ro();
         return std::string("done");
     }},
};

// ---- Device nodes ----

/// The folder of a disk, a partition or a sound card in sysfs.
void make_sysfs_folder(Ground &ground, const std::string &path)
{
    ground.disk.make_file(path + "/dev", "22:3\n");
}

std::string make_lpc_nodes(Ground &ground)
{
    ground.disk.make_file("/proc/devices", "Character devices:\n254 qellpc\n  1 mem\n");
    qel_make_lpc_nodes();
    return "made";
}

std::string make_sound_nodes(Ground &ground)
{
    ground.disk.make_folder("/dev");
    make_sysfs_folder(ground, "/sys/class/sound/controlC0");
    make_sysfs_folder(ground, "/sys/class/sound/timer");
    qel_make_sound_nodes();
    return "made";
}

std::string make_disk_nodes(Ground &ground)
{
    ground.disk.make_folder("/dev");
    make_sysfs_folder(ground, "/sys/block/hdc");
    make_sysfs_folder(ground, "/sys/block/hdc/hdc1");
    return std::to_string(qel_make_disk_nodes("hd"));
}

/// The disk and its partition have their nodes from an earlier call.
std::string make_disk_nodes_again(Ground &ground)
{
    ground.disk.make_file("/dev/disk/hdc");
    ground.disk.make_file("/dev/disk/hdc1");
    return make_disk_nodes(ground);
}

const std::vector<Scenario> nodes = {
    {"LpcNode",
     [](Ground &) {
         qel_make_lpc_node("/dev/qellpc_lcd", 254, 2);
         return std::string("made");
     }},
    {"LpcNodes", make_lpc_nodes},
    {"NodeFromSysfs",
     [](Ground &ground) {
         make_sysfs_folder(ground, "/sys/block/hdc");
         return std::to_string(qel_make_node_from_sysfs("/sys/block/hdc", "/dev/disk", S_IFBLK));
     },
     {"0"}},
    {"NodeFromSysfsThatExists",
     [](Ground &ground) {
         make_sysfs_folder(ground, "/sys/block/hdc");
         ground.disk.make_file("/dev/disk/hdc");
         return std::to_string(qel_make_node_from_sysfs("/sys/block/hdc", "/dev/disk", S_IFBLK));
     },
     {"0"}},
    {"SoundNodes", make_sound_nodes},
};

const std::vector<Scenario> disk_nodes = {
    {"DiskNodes", make_disk_nodes, {"0"}},
    {"DiskNodesThatExist", make_disk_nodes_again, {"1"}},
};

} // namespace

INSTANTIATE_TAPES(mounts, mounts);
INSTANTIATE_TAPES(nodes, nodes);
INSTANTIATE_TAPES(disk_nodes, disk_nodes);
