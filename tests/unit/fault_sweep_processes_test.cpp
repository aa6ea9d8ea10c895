// What failing calls lead to in starting programs, making links, dumps, mounts and device nodes.

#include "support/fault_sweep.h"

#include "qel_utility/qel_filesystem.h"

#include <errno.h>
#include <string.h>
#include <sys/stat.h>

namespace
{

const char *const not_eexist = "(*__errno_location ()) == 17";

/// A folder that cannot be made stops at `line`; one that exists is fine.
std::vector<Rule> mkdir_rules(const std::string &path, int line)
{
    return {{"mkdir " + path + " 0755", error({EEXIST}), ignored()},
            {"mkdir " + path + " 0755", any_fault, stops(not_eexist, filesystem_unit, line)}};
}

// ---- Running programs ----

const char *const tool_arguments[] = {"/bin/tool", nullptr};

std::string run_checked(Ground &)
{
    qel_exec_wait_checked("/bin/tool", tool_arguments, nullptr, "input");
    return "ended";
}

std::string run_unchecked(Ground &)
{
    qel_exec_wait("/bin/tool", tool_arguments, nullptr, "input");
    return "ended";
}

/// The parent writes what the child would.
std::string capture(Ground &ground)
{
    ground.kernel.on_socketpair = [&ground](int domain, int type, int protocol, int *ends) {
        const int result = real_socketpair(domain, type, protocol, ends);
        if (ground.kernel.count("socketpair") == 2) {
            EXPECT_EQ(real_write(ends[0], "text", 4), 4);
        }
        return result;
    };
    const std::string text = qel_wine_exec_capture("regedit.exe", nullptr, 0);
    return text.empty() ? "nothing" : text;
}

std::string as_child(Ground &ground, std::string (*run)(Ground &))
{
    ground.fork_gives_child();
    return run(ground);
}

std::vector<Rule> start_rules(int socketpair_line, int fork_line, int write_line)
{
    return {{"socketpair *", any_fault, stops("!err", filesystem_unit, socketpair_line)},
            {"fork", any_fault, stops("pid != -1", filesystem_unit, fork_line)},
            {"write 5", any_fault, stops("n == data_len", filesystem_unit, write_line)},
            {"shutdown 2", any_fault, ignored()},
            {"close", any_fault, ignored()}};
}

std::vector<Rule> child_rules(int socketpair_line, int exec_line, int fork_line)
{
    return {{"socketpair *", any_fault, stops("!err", filesystem_unit, socketpair_line)},
            {"fork", any_fault, stops("pid != -1", filesystem_unit, fork_line)},
            {"dup2 0", any_fault, ignored()},
            {"execve *", any_fault, stops("0", filesystem_unit, exec_line)}};
}

/// A wait that fails otherwise than by a signal is told, with a status that nobody filled.
std::vector<Rule> unjudged_wait_rules(const std::string &path)
{
    return {{"waitpid 4711 0", error({EINTR}), ignored().goes_on_after({"waitpid 4711 0"})},
            {"waitpid 4711 0", any_fault, ignored().prints("exit 0: " + path + "\n")}};
}

const std::vector<Scenario> programs = {
    {"ExecWaitChecked", "ended", run_checked,
     rules_of({start_rules(2093, 2103, 2109),
               {{"waitpid 4711 0", any_fault, ignored().goes_on_after({"waitpid 4711 0"})}}})},
    {"ExecWaitCheckedInTheChild", "became /bin/tool",
     [](Ground &ground) { return as_child(ground, run_checked); }, child_rules(2093, 2101, 2103)},
    {"ExecWait", "ended", run_unchecked,
     rules_of({start_rules(1686, 1696, 1702), unjudged_wait_rules("/bin/tool")})},
    {"ExecWaitInTheChild", "became /bin/tool", [](Ground &ground) { return as_child(ground, run_unchecked); },
     child_rules(1686, 1694, 1696)},
    {"WineExecCapture", "text", capture,
     rules_of({{{"socketpair * #1", any_fault, stops("!err", filesystem_unit, 1731)},
                {"socketpair * #2", any_fault, stops("!err", filesystem_unit, 1734)},
                {"fork", any_fault, stops("pid != -1", filesystem_unit, 1746)},
                {"shutdown 2", any_fault, ignored()},
                {"read 10239", moves(1), gives("t").goes_on()},
                {"read 10239", moves_a_part, ignored()},
                {"read 10239", error_or_nothing, gives("nothing").goes_on()},
                {"close", any_fault, ignored()}},
               unjudged_wait_rules(QEL_WINE)})},
    {"WineExecCaptureInTheChild",
     "became " QEL_WINE,
     [](Ground &ground) { return as_child(ground, capture); },
     {{"socketpair * #1", any_fault, stops("!err", filesystem_unit, 1731)},
      {"socketpair * #2", any_fault, stops("!err", filesystem_unit, 1734)},
      {"fork", any_fault, stops("pid != -1", filesystem_unit, 1746)},
      {"dup2 0", any_fault, ignored()},
      {"dup2 1", any_fault, ignored()},
      {"execve *", any_fault, stops("0", filesystem_unit, 1744)}}},
};

// ---- Links ----

std::string make_link(Ground &)
{
    return qel_symlink("/tmp", "/qel_home") ? "made" : "0";
}

/// The errors that have a name of their own in the output; all others have only their number.
const std::vector<std::pair<int, const char *>> named_errors = {
    {EEXIST, "EEXIST"}, {EROFS, "EROFS"},     {ENOSPC, "ENOSPC"},
    {EIO, "EIO"},       {EACCES, "EACCES"},   {ENAMETOOLONG, "ENAMETOOLONG"},
    {ENOENT, "ENOENT"}, {ENOTDIR, "ENOTDIR"}, {ELOOP, "ELOOP"},
};

std::vector<Rule> link_rules()
{
    std::vector<Rule> rules = {{"unlink /qel_home", any_fault, ignored()}};
    const Outcome stop = stops(not_eexist, filesystem_unit, 1892);
    for (const auto &[number, name] : named_errors) {
        const std::string printed = std::string("/tmp -> /qel_home\nsymlink error : ") + name +
                                    "\nerror code : " + std::to_string(number) + "\n";
        rules.push_back(
            {"symlink *", error({number}), (number == EEXIST ? ignored() : stop).prints(printed)});
    }
    rules.push_back({"symlink *", error({EPERM}), stop.prints("/tmp -> /qel_home\nerror code : 1\n")});
    return rules;
}

const std::vector<Scenario> links = {{"Symlink", "made", make_link, link_rules()}};

// ---- Dumps ----

std::string dump_folder(Ground &ground)
{
    ground.disk.make_file("/a/file", "12345");
    qel_dump_folder("/a");
    return "dumped";
}

std::string dump_file(Ground &ground)
{
    ground.disk.make_file("/file", "first\nsecond\n");
    qel_dump_file("/file");
    return "dumped";
}

std::string dump_processes(Ground &ground)
{
    ground.disk.make_file("/proc/12/status", "Name: x\n");
    ground.disk.make_file("/proc/version");
    qel_dump_processes();
    return "dumped";
}

#define DASHES "----------------------------------------\n"

const std::vector<Scenario> dumps = {
    {"DumpFolder",
     "dumped",
     dump_folder,
     {{"opendir /a", any_fault, gives("dumped").prints("/a:\n")},
      {"readdir #1", any_fault, gives("dumped").then({"closedir"}).prints("/a:\n")},
      {"readdir #2", any_fault, ignored()},
      {"stat /a/file", any_fault, ignored().prints("/a: file (can't stat)\n")},
      {"closedir", any_fault, ignored()}}},
    {"DumpFile",
     "dumped",
     dump_file,
     {{"fopen /file rb", any_fault, gives("dumped").prints(DASHES "/file\n" DASHES DASHES "\n")},
      {"fgets 1000 #1", any_fault,
       gives("dumped").then({"fclose"}).prints(DASHES "/file\n" DASHES DASHES "\n")},
      {"fgets 1000 #2", any_fault,
       gives("dumped").then({"fclose"}).prints(DASHES "/file\n" DASHES "first\n" DASHES "\n")},
      {"fgets 1000 #3", any_fault, ignored()},
      {"fclose", any_fault, ignored()}}},
    {"DumpProcesses",
     "dumped",
     dump_processes,
     {{"opendir /proc", any_fault, gives("dumped").prints("\n")},
      {"readdir #1", any_fault, gives("dumped").then({"closedir"}).prints("\n")},
      {"readdir", any_fault, gives("dumped").then({"closedir"})},
      {"fopen /proc/12/status rb", any_fault,
       ignored()
           .goes_on_without({"fgets 1000", "fclose"})
           .prints(DASHES "/proc/12/status\n" DASHES DASHES "\n\n")},
      {"fgets 1000 #1", any_fault,
       ignored().goes_on_without({"fgets 1000"}).prints(DASHES "/proc/12/status\n" DASHES DASHES "\n\n")},
      {"fgets 1000 #2", any_fault, ignored()},
      {"fclose", any_fault, ignored()},
      {"closedir", any_fault, ignored()}}},
};

// ---- Mounts ----

std::vector<Rule> mount_rules(const std::string &folder)
{
    return rules_of({mkdir_rules(folder, 1959),
                     {{"mount * " + folder + " *", any_fault, stops("!err", filesystem_unit, 1964)}}});
}

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
};

} // namespace

INSTANTIATE_SWEEP(Programs, programs);
INSTANTIATE_SWEEP(Links, links);
INSTANTIATE_SWEEP(Dumps, dumps);
INSTANTIATE_SWEEP(Mounts, mounts);
INSTANTIATE_SWEEP(Nodes, nodes);
