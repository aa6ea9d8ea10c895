// What failing calls lead to in the whole sequences: start-up, installing, installing Windows applications,
// finding and running the application.

#include "support/fault_product_rules.h"
#include "support/fault_run.h"
#include "support/fresh_process.h"

#include "qel_application_loader/application.h"
#include "qel_application_loader/installer.h"
#include "qel_application_loader/start_up.h"
#include "qel_utility/qel_filesystem.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

/// The loader's main under another name.
int qel_loader_main(int argc, char **argv);

namespace
{

const Rule closedir_rule = {"closedir", any_fault, ignored()};
const Rule close_rule = {"close", any_fault, ignored()};
const Rule opendir_rule = {"opendir *", any_fault, stops("dir", filesystem_unit, 433)};
const Rule fopen_rule = {"fopen *", any_fault, stops("f", filesystem_unit, 403)};
const Rule fclose_rule = {"fclose", any_fault, ignored()};

// ---- The start-up ----

/// A cabinet without a stick: an application on /storage; the mode byte asks for the console.
std::string start(Ground &ground)
{
    ground.disk.make_folder("/proc/bus");
    ground.disk.make_file("/proc/devices", "254 qellpc\n");
    for (const char *folder : {"/sys/class/sound", "/sys/block", "/dev/disk", "/disk", "/storage"})
        ground.disk.make_folder(folder);
    ground.disk.make_file("/storage/qel_application_1");
    ground.kernel.on_read = [](int, void *bytes, size_t size) -> ssize_t {
        memset(bytes, 1, size);
        return static_cast<ssize_t>(size);
    };
    ground.kernel.on_waitpid = [](pid_t process, int *, int) {
        errno = ECHILD;
        return process;
    };
    // The update mode's wait, and the second round of the application.
    ground.kernel.on_access = [](auto...) -> int { throw LeftProduct(); };
    ground.kernel.leave_at("chdir", 2);
    char name[] = "loader";
    char *arguments[] = {name, nullptr};
    qel_loader_main(1, arguments);
    return "returned";
}

const std::vector<Rule> board_rules = {
    fopen_rule,
    {"fgets 1000 #1", any_fault, stops("major", filesystem_unit, 2321).then({"fclose"})},
    {"fgets 1000 #2", any_fault, ignored()},
    fclose_rule,
    {"mknod *", any_fault, stops("!err", filesystem_unit, 1914)},
    {"open /dev/qellpc_command O_RDWR", any_fault, stops("f != -1", h8_unit)},
    {"write 1", any_fault, stops("n == len", h8_unit)},
    {"read 64", any_error, stops("n >= 0", h8_unit)},
    // A microcontroller that says nothing leaves the filler, AB: console and update mode.
    {"read 64", moves(0),
     ignored()
         .then({"open /dev/qellpc_host_comms *", "open /dev/qellpc_lcd *", "write 2", "close",
                "open /dev/qellpc_lcd *", "write 19", "close", "open /dev/qellpc_lcd *", "write 2", "close",
                "access /sys/block/sda 4"})
         .prints("QEL Loader...\nmount: /sys /proc\ndev:  qellpc_firmware qellpc_midi qellpc_lcd "
                 "qellpc_command qellpc_button qellpc_test qellpc_console qellpc_host_comms "
                 "qellpc_reserved1 qellpc_reserved2\nWant console...\n")
         .leaves_open("/dev/qellpc_command /dev/qellpc_host_comms")},
    {"read 64", any_fault, ignored()},
};

const std::vector<Rule> application_rules = {
    // The Wine prefix that is not there.
    {"stat /qel_home/.wine", any_fault, ignored()},
    {"chmod /qel_home/.wine 0777", any_fault, ignored()},
    {"unlink /qel_home/.wine", any_fault, ignored()},
    {"chdir /storage", any_fault, ignored()},
};

const std::vector<Scenario> starts = {
    {"StartUp", "left", start,
     rules_of(
         {mount_rules("/sys"),
          mount_rules("/proc"),
          mount_rules("/proc/bus/usb"),
          board_rules,
          mkdir_rules("/dev/snd", 2288),
          mkdir_rules("/dev/disk", 2351),
          mkdir_rules("/disk", 2002),
          mount_rules("/usr"),
          mount_rules("/storage"),
          symlink_rules(ignored()),
          application_rules,
          {opendir_rule,
           closedir_rule,
           {"unlink /qel_home", any_fault, ignored()},
           // Of all folders, only /storage holds anything.
           {"readdir #5", any_fault,
            stops("*app_file", loader_unit, 189).then({"closedir", "opendir /disk", "readdir", "closedir"})},
           {"readdir", any_fault, ignored()},
           {"fork #1", any_fault, ignored()},
           {"fork #2", any_fault,
            ignored().then({"waitpid -1 0", "stat /qel_home/.wine", "chmod *", "unlink *", "chdir *"})},
           {"waitpid 4711 0", any_fault, ignored().goes_on_after({"sleep 1", "waitpid 4711 0"})}}}),
     1, "/dev/qellpc_command"},
    {"SilenceStandardStreams",
     "silent",
     [](Ground &ground) {
         ground.disk.make_file("/dev/null");
         qel_silence_standard_streams();
         return std::string("silent");
     },
     {{"open /dev/null O_RDWR|O_NOCTTY", any_fault, ignored().goes_on_without({"close"})},
      {"dup2 *", any_fault, ignored()},
      close_rule}},
    {"WaitForExternalMedia",
     "there",
     [](Ground &ground) {
         ground.disk.make_file("/sys/block/sda/sda1");
         qel_wait_for_external_media();
         return std::string("there");
     },
     {{"access /sys/block/sda/sda1 4", any_fault,
       ignored().goes_on_after({"sleep 1", "access /sys/block/sda/sda1 4"}).also_prints(".")}}},
    {"WaitForExternalMediaThatComeLater",
     "there",
     [](Ground &ground) {
         ground.kernel.on_access = [&](auto...) { return ground.kernel.count("access") == 1 ? -1 : 0; };
         qel_wait_for_external_media();
         return std::string("there");
     },
     {{"access * #1", any_fault, ignored()},
      {"access * #2", any_fault,
       ignored().goes_on_after({"sleep 1", "access /sys/block/sda/sda1 4"}).also_prints(".")},
      {"sleep 1", any_fault, ignored()}}},
};

// ---- Installing ----

std::string install(Ground &ground)
{
    ground.disk.make_file("/sys/block/hdc/dev", "22:0\n");
    ground.disk.make_file("/sys/block/hdc/hdc2/dev", "22:2\n");
    ground.disk.make_file("/dev/disk/hdc");
    ground.disk.make_file("/disk/sda1/qel_usr.cramfs", "the system image");
    ground.disk.make_file("/disk/sda1/vmlinux", "the kernel");
    ground.disk.make_file("/disk/sda1/storage.zip");
    ground.disk.make_folder("/boot");
    qel_install();
    return "installed";
}

/// Each tool must start, and is waited for until its end is known.
const std::vector<Rule> rules_without_input = {
    {"socketpair *", any_fault, stops("!err", filesystem_unit, 2093)},
    {"fork", any_fault, stops("pid != -1", filesystem_unit, 2103)},
    {"shutdown 2", any_fault, ignored()},
    {"waitpid 4711 0", any_fault, ignored().goes_on_after({"waitpid 4711 0"})},
    close_rule,
};

const std::vector<Rule> tool_rules =
    rules_of({rules_without_input, {{"write 17", any_fault, stops("n == data_len", filesystem_unit, 2109)}}});

/// The partition's node, made between these calls.
const std::vector<std::string> partition_calls = {
    "readdir #3", "readdir #4", "access /dev/disk/hdc2 4", "stat /sys/block/hdc/hdc2/dev",
    "fopen *",    "fclose #2",  "stat /dev/disk/hdc2",     "mknod *",
};

const std::vector<Rule> partition_rules = {
    opendir_rule,
    closedir_rule,
    fopen_rule,
    fclose_rule,
    // The disk; the file dev and the partition in it; the end of both folders.
    {"readdir #1", any_fault,
     ignored()
         .goes_on_without({"readdir", "stat *", "fopen *", "fclose", "opendir *", "access /dev/disk/hdc2 4",
                           "mknod *", "closedir #2"})
         .unprinted(" (hdc) hdc2")},
    {"readdir #2", any_fault, ignored().goes_on_without(partition_calls).unprinted(" hdc2")},
    {"readdir #3", any_fault, ignored().goes_on_without(partition_calls).unprinted(" hdc2")},
    {"readdir", any_fault, ignored()},
    {"stat /sys/block/hdc/dev", any_fault,
     ignored()
         .goes_on_without({"fopen /sys/block/hdc/dev rb", "fclose #1", "stat /dev/disk/hdc"})
         .unprinted(" (hdc)")},
    {"stat /dev/disk/hdc", any_fault, stops("!err", filesystem_unit, 1947).then({"mknod *"})},
    {"access /dev/disk/hdc2 4", any_fault, ignored()},
    {"stat /sys/block/hdc/hdc2/dev", any_fault,
     ignored().goes_on_without({"fopen *", "fclose", "stat /dev/disk/hdc2", "mknod *"}).unprinted(" hdc2")},
    {"stat /dev/disk/hdc2", any_fault, ignored()},
    {"mknod *", any_fault, stops("!err", filesystem_unit, 1947)},
};

/// A copy of `size` bytes that must succeed, its two reads among all reads; what cannot be read ends it like
/// the end of the file.
std::vector<Rule> copy_rules(const std::string &src, const std::string &dst, size_t size,
                             const std::vector<std::string> &reads, const Outcome &stop)
{
    const std::string write = "write " + std::to_string(size);
    const std::vector<Rule> rules = {
        {"chmod " + dst + " 0777", any_fault, ignored()},
        {"open " + src + " O_RDONLY", any_fault, stop},
        {"open " + dst + " *", any_fault, stop.then({"close"})},
        {reads[0], error_or_nothing, ignored().goes_on_without({reads[1], write})},
        {reads[1], any_fault, ignored()},
        {write, any_fault, stop.then({"close", "close"})}};
    return rules_of({rules, short_read_rules(reads[0], size)});
}

const Outcome image_stop =
    stops("qel_copy_file(\"/dev/disk/hdc2\", \"/disk/sda1/qel_usr.cramfs\")", loader_unit, 144);
const Outcome kernel_stop =
    stops("qel_copy_file(\"/boot/vmlinux\", \"/disk/sda1/vmlinux\")", loader_unit, 150);

const std::vector<Scenario> installs = {
    {"Sfdisk", "done",
     [](Ground &) {
         qel_sfdisk("/dev/disk/hdc", ",8,4,*\n,28,L\n,,6\n");
         return std::string("done");
     },
     tool_rules},
    {"Mkdosfs", "done",
     [](Ground &) {
         qel_mkdosfs("/dev/disk/hdc1");
         return std::string("done");
     },
     rules_without_input},
    {"Install", "installed", install,
     rules_of({tool_rules,
               mkdir_rules("/dev/disk", 2351),
               partition_rules,
               copy_rules("/disk/sda1/qel_usr.cramfs", "/dev/disk/hdc2", 16, {"read 4096 #1", "read 4096 #2"},
                          image_stop),
               mount_rules("/boot"),
               copy_rules("/disk/sda1/vmlinux", "/boot/vmlinux", 10, {"read 4096 #3", "read 4096 #4"},
                          kernel_stop),
               {{"open /boot/syslinux.cfg *", any_fault, ignored()}, {"write 55", any_fault, ignored()}},
               {{"access /disk/sda1/storage.zip 4", any_fault,
                 ignored()
                     .goes_on_without({"mkdir /storage *", "mount *", "socketpair *", "fork", "shutdown 2",
                                       "waitpid *", "close", "umount /storage"})
                     .unprinted("Found storage.zip\n")}},
               mount_rules("/storage"),
               {{"umount *", any_fault, ignored()}}})},
};

// ---- Finding and running the application ----

/// The first child whose end is learned is another one.
std::string run_after_another_child(Ground &ground)
{
    qel_application application = {};
    strcpy(application.app_path, "/storage/app");
    ground.kernel.on_waitpid = [&](pid_t process, int *, int) {
        return ground.kernel.count("waitpid") == 1 ? 99 : process;
    };
    ground.kernel.leave_at("chdir", 2);
    qel_run_application_for_ever(&application);
}

std::string find_on_stick(Ground &ground)
{
    ground.disk.make_file("/storage/qel_application_1");
    ground.disk.make_file("/disk/sda1/qel_application_2", "7 bytes");
    qel_application application;
    qel_find_application(&application);
    return application.app_path;
}

const Outcome app_stop = stops("qel_copy_file(storage_path, app_path)", loader_unit, 197);

/// As the child of the second fork, or the parent when there is none.
std::string run_application(Ground &ground, const char *name)
{
    qel_application application = {};
    strcpy(application.app_name, name);
    strcpy(application.app_path, (std::string("/storage/") + name).c_str());
    ground.fork_gives_child();
    ground.kernel.on_waitpid = [](auto...) -> pid_t { throw LeftProduct(); };
    qel_run_application_for_ever(&application);
}

std::vector<Rule> run_rules(const std::string &message)
{
    return rules_of({application_rules,
                     {{"fork", any_fault, gives("left").then({"waitpid -1 0"})},
                      {"execve *", any_fault, gives("exit 1").then({"_exit 1"}).prints(message)}}});
}

#define REMOVING_PREFIX "removing dir tree \"/qel_home/.wine\"\n"

const std::vector<Scenario> applications = {
    {"FindApplicationOnAStick", "/storage/qel_application_2", find_on_stick,
     rules_of(
         {{opendir_rule,
           closedir_rule,
           // On /storage: the application, the end. On /disk: sda1, the application, both ends.
           {"readdir #1", any_fault,
            ignored().goes_on_without({"readdir #2"}).unprinted("candidate: /storage/qel_application_1\n")},
           {"readdir #3", any_fault,
            gives("/storage/qel_application_1")
                .then({"closedir"})
                .prints("candidate: /storage/qel_application_1\n")},
           {"readdir #4", any_fault,
            gives("/storage/qel_application_1")
                .then({"closedir", "readdir", "closedir"})
                .prints("candidate: /storage/qel_application_1\n")},
           {"readdir", any_fault, ignored()}},
          mount_rules("/storage"),
          copy_rules("/disk/sda1/qel_application_2", "/storage/qel_application_2", 7,
                     {"read 4096 #1", "read 4096 #2"}, app_stop),
          {close_rule}})},
    {"StartXServer",
     "started",
     [](Ground &) {
         qel_start_x_server();
         return std::string("started");
     },
     {{"fork", any_fault, ignored()}}},
    {"StartXServerInTheChild",
     "became /usr/xorg/bin/Xfake",
     [](Ground &ground) {
         ground.fork_gives_child();
         qel_start_x_server();
         return std::string("started");
     },
     {{"fork", any_fault, gives("started")}, {"execve *", any_fault, gives("exit 1").then({"_exit 1"})}}},
    {"RunApplication", "became /storage/qel_application_1",
     [](Ground &ground) { return run_application(ground, "qel_application_1"); },
     run_rules(REMOVING_PREFIX "run: /storage/qel_application_1\nexec failed: qel_application_1\n")},
    {"RunWindowsApplication", "became /usr/wine/bin/wine",
     [](Ground &ground) { return run_application(ground, "qel_application_1.exe.so"); },
     run_rules(REMOVING_PREFIX
               "run: /storage/qel_application_1.exe.so\nwine failed: qel_application_1.exe.so\n")},
    {"RunApplicationBesideAnotherChild", "left", run_after_another_child,
     rules_of({application_rules,
               {{"fork", any_fault,
                 ignored().then({"waitpid -1 0", "sleep 1", "waitpid -1 0", "stat /qel_home/.wine", "chmod *",
                                 "unlink *", "chdir *"})},
                {"waitpid 4711 0 #1", any_fault, ignored()},
                {"waitpid 4711 0 #2", any_fault, ignored().goes_on_after({"sleep 1", "waitpid 4711 0"})},
                {"sleep 1", any_fault, ignored()}}})},
};

} // namespace

INSTANTIATE_SWEEP(Starts, starts);
INSTANTIATE_SWEEP(Installs, installs);
INSTANTIATE_SWEEP(Applications, applications);

TEST(StartUp, GoesTheSameWayOnAConsoleThatTakesNothing)
{
    if (!in_fresh_process())
        return;
    const auto start_unheard = [](Ground &ground) {
        const int full = real_open("/dev/full", O_WRONLY, 0);
        real_dup2(full, STDOUT_FILENO);
        real_close(full);
        return start(ground);
    };
    const auto calls_of = [](const std::function<std::string(Ground &)> &run, size_t &printed) {
        const ::Run whole = run_once({"", "", run, {}}, nullptr);
        EXPECT_EQ(whole.result, "left");
        printed = whole.printed.size();
        std::vector<std::string> texts;
        for (const Call &call : whole.calls)
            texts.push_back(call.text);
        return texts;
    };
    size_t heard = 0, unheard = 0;
    EXPECT_EQ(calls_of(start_unheard, unheard), calls_of(start, heard));
    EXPECT_GT(heard, 0U);
    EXPECT_EQ(unheard, 0U);
}
