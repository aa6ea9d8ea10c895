// What failing calls lead to in the whole sequences: start-up, installing, installing Windows applications,
// finding and running the application.

#include "tapes/golden.h"

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

const std::vector<Scenario> starts = {
    {"SilenceStandardStreams",
     [](Ground &ground) {
         ground.disk.make_file("/dev/null");
         qel_silence_standard_streams();
         return std::string("silent");
     }},
    {"WaitForExternalMedia",
     [](Ground &ground) {
         ground.disk.make_file("/sys/block/sda/sda1");
         qel_wait_for_external_media();
         return std::string("there");
     }},
    {"WaitForExternalMediaThatComeLater",
     [](Ground &ground) {
         ground.kernel.on_access = [&](auto...) { return ground.kernel.count("access") == 1 ? -1 : 0; };
         qel_wait_for_external_media();
         return std::string("there");
     }},
};

const std::vector<Scenario> whole_start_up = {
    {"StartUp", start, {}, "/dev/qellpc_command /dev/qellpc_host_comms"},
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

/// The partition's node, made between these calls.
const std::vector<std::string> partition_calls = {
    "readdir #3", "readdir #4", "access /dev/disk/hdc2 4", "stat /sys/block/hdc/hdc2/dev",
    "fopen *",    "fclose #2",  "stat /dev/disk/hdc2",     "mknod *",
};

const std::vector<Scenario> installs = {
    {"Sfdisk",
     [](Ground &) {
         qel_sfdisk("/dev/disk/hdc", ",8,4,*\n,28,L\n,,6\n");
         return std::string("done");
     }},
    {"Mkdosfs",
     [](Ground &) {
         qel_mkdosfs("/dev/disk/hdc1");
         return std::string("done");
     }},
};

const std::vector<Scenario> whole_install = {
    {"Install", install},
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

#define REMOVING_PREFIX "removing dir tree \"/qel_home/.wine\"\n"

const std::vector<Scenario> applications = {
    {"FindApplicationOnAStick", find_on_stick, {"/storage/qel_application_1"}},
    {"StartXServer",
     [](Ground &) {
         qel_start_x_server();
         return std::string("started");
     }},
    {"StartXServerInTheChild",
     [](Ground &ground) {
         ground.fork_gives_child();
         qel_start_x_server();
         return std::string("started");
     },
     {"exit 1", "started"}},
    {"RunApplication",
     [](Ground &ground) { return run_application(ground, "qel_application_1"); },
     {"exit 1", "left"}},
    {"RunWindowsApplication",
     [](Ground &ground) { return run_application(ground, "qel_application_1.exe.so"); },
     {"exit 1", "left"}},
    {"RunApplicationBesideAnotherChild", run_after_another_child},
};

} // namespace

INSTANTIATE_TAPES(starts, starts);
INSTANTIATE_TAPES(start_up, whole_start_up);
INSTANTIATE_TAPES(installs, installs);
INSTANTIATE_TAPES(install, whole_install);
INSTANTIATE_TAPES(applications, applications);

TEST(StartUp, GoesTheSameWayOnAConsoleThatTakesNothing)
{
    const auto start_unheard = [](Ground &ground) {
        const int full = real_open("/dev/full", O_WRONLY, 0);
        real_dup2(full, STDOUT_FILENO);
        real_close(full);
        return start(ground);
    };
    size_t heard = 0;
    const auto effects_of = [&heard](const std::function<std::string(Ground &)> &run) {
        const Traces traces;
        std::vector<std::string> texts;
        for (const Event &event : run_tape({"StartUp", run}).events) {
            if (event.text.rfind("console ", 0) == 0)
                ++heard;
            else
                texts.push_back(event.text);
        }
        return texts;
    };
    const std::vector<std::string> unheard = effects_of(start_unheard);
    EXPECT_EQ(heard, 0U);
    EXPECT_EQ(unheard, effects_of(start));
    EXPECT_GT(heard, 0U);
}
