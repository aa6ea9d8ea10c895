// Mounts and device nodes.

#include "tapes/golden.h"

#include "qel_utility/qel_filesystem.h"

#include <errno.h>
#include <sys/stat.h>

namespace
{

// ---- Mounts ----

void mount_usb_disks(Ground &ground)
{
    ground.disk.make_folder("/disk");
    for (const char *node : {"/dev/disk/hdc", "/dev/disk/sda", "/dev/disk/sda1"})
        ground.disk.make_file(node);
    qel_mount_usb_disks("sd");
}

void mount_usb_disk_in_vain(Ground &ground)
{
    ground.kernel.on_mount = [](auto...) {
        errno = EINVAL;
        return -1;
    };
    ground.disk.make_folder("/disk");
    ground.disk.make_file("/dev/disk/sda");
    qel_mount_usb_disks("sd");
}

void remount_usb()
{
    qel_remount_usb_rw();
    qel_remount_usb_ro();
}

const std::vector<Scenario> mounts = {
    {"Mount", [] { return qel_mount("proc", "proc", "/proc", 0, nullptr); }},
    {"MountStorage", [] { return qel_mount_storage(); }},
    {"RemountStorageRw", [] { return qel_remount_storage_rw(); }},
    {"RemountStorageRo", [] { return qel_remount_storage_ro(); }},
    {"MountUsbDisks", mount_usb_disks},
    {"MountUsbDiskThatDoesNotMount", mount_usb_disk_in_vain},
    {"RemountUsb", remount_usb},
};

// ---- Device nodes ----

/// What a disk, a partition or a sound card has in sysfs, and nodes of earlier calls.
Scenario making(const char *name, const Piece &make, const std::vector<const char *> &in_sysfs,
                const std::vector<const char *> &nodes, const std::vector<std::string> &may_end = {})
{
    const auto run = [=](Ground &ground) {
        ground.disk.make_folder("/dev");
        ground.disk.make_file("/proc/devices", "Character devices:\n254 qellpc\n  1 mem\n");
        for (const std::string folder : in_sysfs)
            ground.disk.make_file(folder + "/dev", "22:3\n");
        for (const char *node : nodes)
            ground.disk.make_file(node);
        return make.run(ground);
    };
    return {name, run, may_end};
}

int make_node_from_sysfs()
{
    return qel_make_node_from_sysfs("/sys/block/hdc", "/dev/disk", S_IFBLK);
}

int make_disk_nodes()
{
    return qel_make_disk_nodes("hd");
}

const std::vector<const char *> disk = {"/sys/block/hdc"},
                                partition = {"/sys/block/hdc", "/sys/block/hdc/hdc1"};

const std::vector<Scenario> nodes = {
    {"LpcNode", [] { qel_make_lpc_node("/dev/qellpc_lcd", 254, 2); }},
    making("LpcNodes", [] { qel_make_lpc_nodes(); }, {}, {}),
    making("NodeFromSysfs", make_node_from_sysfs, disk, {}, {"0"}),
    making("NodeFromSysfsThatExists", make_node_from_sysfs, disk, {"/dev/disk/hdc"}, {"0"}),
    making("SoundNodes", [] { qel_make_sound_nodes(); },
           {"/sys/class/sound/controlC0", "/sys/class/sound/timer"}, {}),
};

const std::vector<Scenario> disk_nodes = {
    making("DiskNodes", make_disk_nodes, partition, {}, {"0"}),
    making("DiskNodesThatExist", make_disk_nodes, partition, {"/dev/disk/hdc", "/dev/disk/hdc1"}, {"1"}),
};

} // namespace

INSTANTIATE_TAPES(mounts, mounts);
INSTANTIATE_TAPES(nodes, nodes);
INSTANTIATE_TAPES(disk_nodes, disk_nodes);
