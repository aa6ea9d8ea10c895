// What failing calls lead to in mounts and device nodes.

#include "support/fault_product_rules.h"

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
    {"Mount", "0", [](Ground &) { return std::to_string(qel_mount("proc", "proc", "/proc", 0, nullptr)); },
     mount_rules("/proc")},
    {"MountStorage", "0", [](Ground &) { return std::to_string(qel_mount_storage()); },
     mount_rules("/storage")},
    {"RemountStorageRw", "0", [](Ground &) { return std::to_string(qel_remount_storage_rw()); },
     mount_rules("/storage")},
    {"RemountStorageRo", "0", [](Ground &) { return std::to_string(qel_remount_storage_ro()); },
     mount_rules("/storage")},
    {"MountUsbDisks", "tried", mount_usb_disks,
     rules_of({mkdir_rules("/disk", 2002),
               mkdir_rules("/disk/sda", 2017),
               mkdir_rules("/disk/sda1", 2017),
               {{"opendir /dev/disk", any_fault, stops("dir", filesystem_unit, 433)},
                {"readdir #1", any_fault, gives("tried").then({"closedir"}).prints("")},
                {"readdir #2", any_fault, gives("tried").then({"closedir"}).prints("")},
                {"readdir #3", any_fault, gives("tried").then({"closedir"}).prints("sda mounted\n")},
                {"readdir #4", any_fault, ignored()},
                {"mount /dev/disk/sda /disk/sda vfat 1 null", any_fault,
                 ignored().goes_on_after({"rmdir /disk/sda"}).prints("sda not mounted\nsda1 mounted\n")},
                {"mount /dev/disk/sda1 /disk/sda1 vfat 1 null", any_fault,
                 ignored().goes_on_after({"rmdir /disk/sda1"}).prints("sda mounted\nsda1 not mounted\n")},
                {"closedir", any_fault, ignored()}}})},
    {"MountUsbDiskThatDoesNotMount", "tried",
     [](Ground &ground) {
         ground.kernel.on_mount = [](auto...) {
             errno = EINVAL;
             return -1;
         };
         ground.disk.make_folder("/disk");
         ground.disk.make_file("/dev/disk/sda");
         qel_mount_usb_disks("sd");
         return std::string("tried");
     },
     rules_of({mkdir_rules("/disk", 2002),
               mkdir_rules("/disk/sda", 2017),
               {{"opendir /dev/disk", any_fault, stops("dir", filesystem_unit, 433)},
                {"readdir #1", any_fault, gives("tried").then({"closedir"}).prints("")},
                {"readdir #2", any_fault, ignored()},
                {"mount *", any_fault, ignored()},
                {"rmdir /disk/sda", any_fault, ignored()},
                {"closedir", any_fault, ignored()}}})},
    {"RemountUsb",
     "done",
     [](Ground &) {
         qel_remount_usb_rw();
         qel_remount_usb_ro();
         return std::string("done");
     },
     {{"mount *", any_fault, ignored()}}},
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

/// The kernel's numbers must be readable, and the node be made; the folder that has none has no node.
std::vector<Rule> node_rules(const std::string &folder, const std::string &node, const std::string &name,
                             const std::string &result)
{
    return {{"stat " + folder + "/dev", any_fault,
             gives(result)
                 .goes_on_without(
                     {"fopen " + folder + "/dev rb", "fclose #1", "stat " + node, "mknod " + node + " *"})
                 .unprinted(" " + name)},
            {"fopen " + folder + "/dev rb", any_fault, stops("f", filesystem_unit, 403)},
            {"fclose", any_fault, ignored()},
            {"stat " + node, any_fault, ignored()},
            {"mknod " + node + " *", any_fault, stops("!err", filesystem_unit, 1947)}};
}

const std::vector<Scenario> nodes = {
    {"LpcNode",
     "made",
     [](Ground &) {
         qel_make_lpc_node("/dev/qellpc_lcd", 254, 2);
         return std::string("made");
     },
     {{"mknod *", any_fault, stops("!err", filesystem_unit, 1914)}}},
    {"LpcNodes",
     "made",
     make_lpc_nodes,
     {{"fopen /proc/devices rb", any_fault, stops("f", filesystem_unit, 403)},
      {"fgets 1000 #1", any_fault, stops("major", filesystem_unit, 2321).then({"fclose"})},
      {"fgets 1000 #2", any_fault, stops("major", filesystem_unit, 2321).then({"fclose"})},
      {"fgets 1000 #3", any_fault, ignored().goes_on_without({"fgets 1000"})},
      {"fgets 1000 #4", any_fault, ignored()},
      {"fclose", any_fault, ignored()},
      {"mknod *", any_fault, stops("!err", filesystem_unit, 1914)}}},
    {"NodeFromSysfs", "1",
     [](Ground &ground) {
         make_sysfs_folder(ground, "/sys/block/hdc");
         return std::to_string(qel_make_node_from_sysfs("/sys/block/hdc", "/dev/disk", S_IFBLK));
     },
     node_rules("/sys/block/hdc", "/dev/disk/hdc", "hdc", "0")},
    {"NodeFromSysfsThatExists",
     "1",
     [](Ground &ground) {
         make_sysfs_folder(ground, "/sys/block/hdc");
         ground.disk.make_file("/dev/disk/hdc");
         return std::to_string(qel_make_node_from_sysfs("/sys/block/hdc", "/dev/disk", S_IFBLK));
     },
     {{"stat /sys/block/hdc/dev", any_fault, gives("0").prints("")},
      {"fopen *", any_fault, stops("f", filesystem_unit, 403)},
      {"fclose", any_fault, ignored()},
      // Passes for missing, and cannot be made then.
      {"stat /dev/disk/hdc", any_fault, stops("!err", filesystem_unit, 1947).then({"mknod *"})}}},
    {"SoundNodes", "made", make_sound_nodes,
     rules_of({mkdir_rules("/dev/snd", 2288),
               {{"opendir /sys/class/sound", any_fault, stops("dir", filesystem_unit, 433)},
                {"readdir #1", any_fault, gives("made").then({"closedir"}).prints("")},
                {"readdir #2", any_fault, gives("made").then({"closedir"}).prints(" controlC0")},
                {"readdir #3", any_fault, ignored()},
                {"closedir", any_fault, ignored()}},
               node_rules("/sys/class/sound/controlC0", "/dev/snd/controlC0", "controlC0", "made"),
               {{"stat /sys/class/sound/timer/dev", any_fault,
                 gives("made").then({"readdir", "closedir"}).unprinted(" timer")},
                {"fopen /sys/class/sound/timer/dev rb", any_fault, stops("f", filesystem_unit, 403)},
                {"stat /dev/snd/timer", any_fault, ignored()},
                {"mknod /dev/snd/timer *", any_fault, stops("!err", filesystem_unit, 1947)}}})},
    {"DiskNodes", "1", make_disk_nodes,
     rules_of(
         {mkdir_rules("/dev/disk", 2351),
          {{"opendir *", any_fault, stops("dir", filesystem_unit, 433)},
           // The disk; the file dev and the partition in it; the end of both folders.
           {"readdir #1", any_fault, gives("0").then({"closedir"}).prints("")},
           {"readdir #2", any_fault, gives("0").then({"closedir", "readdir", "closedir"}).prints(" hdc")},
           {"readdir #3", any_fault, gives("0").then({"closedir", "readdir", "closedir"}).prints(" hdc")},
           {"readdir", any_fault, ignored()},
           {"closedir", any_fault, ignored()},
           {"access /dev/disk/hdc1 4", any_fault, ignored()},
           {"stat /sys/block/hdc/hdc1/dev", any_fault,
            gives("0").then({"readdir", "closedir", "readdir", "closedir"}).prints(" hdc")},
           {"fopen /sys/block/hdc/hdc1/dev rb", any_fault, stops("f", filesystem_unit, 403)},
           {"stat /dev/disk/hdc1", any_fault, ignored()},
           {"mknod /dev/disk/hdc1 *", any_fault, stops("!err", filesystem_unit, 1947)}},
          node_rules("/sys/block/hdc", "/dev/disk/hdc", "hdc", "1")})},
    {"DiskNodesThatExist", "0", make_disk_nodes_again,
     rules_of(
         {mkdir_rules("/dev/disk", 2351),
          {{"opendir *", any_fault, stops("dir", filesystem_unit, 433)},
           // As above.
           {"readdir #1", any_fault, gives("0").then({"closedir"}).prints("")},
           {"readdir #2", any_fault, ignored().goes_on_without({"readdir #3", "readdir #4", "access *"})},
           {"readdir #3", any_fault, ignored().goes_on_without({"readdir #4", "access *"})},
           {"readdir", any_fault, ignored()},
           {"closedir", any_fault, ignored()},
           {"stat /sys/block/hdc/dev", any_fault,
            ignored()
                .goes_on_without({"fopen /sys/block/hdc/dev rb", "fclose", "stat /dev/disk/hdc"})
                .unprinted(" (hdc)")},
           {"fopen *", any_fault, stops("f", filesystem_unit, 403)},
           {"fclose", any_fault, ignored()},
           // Passes for missing, and cannot be made then.
           {"stat /dev/disk/hdc", any_fault, stops("!err", filesystem_unit, 1947).then({"mknod *"})},
           // The same, but it is looked at once more, and found.
           {"access /dev/disk/hdc1 4", any_fault,
            gives("1")
                .goes_on_after({"stat /sys/block/hdc/hdc1/dev", "fopen /sys/block/hdc/hdc1/dev rb", "fclose",
                                "stat /dev/disk/hdc1"})
                .also_prints(" (hdc1)")}}})},
};

} // namespace

INSTANTIATE_SWEEP(Mounts, mounts);
INSTANTIATE_SWEEP(Nodes, nodes);
