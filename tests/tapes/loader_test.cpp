// The installer; finding and running the application.

#include "tapes/golden.h"

#include "qel_application_loader/application.h"
#include "qel_application_loader/installer.h"

#include <signal.h>
#include <string.h>

#include <algorithm>

namespace
{

// ---- Installing ----

/// A cabinet whose disk has, in sysfs, a second partition, and its node only if it `is_installed`.
void make_cabinet(Ground &ground, bool has_archive, bool is_installed)
{
    const Scratch &disk = ground.disk;
    disk.make_file("/sys/block/hdc/dev", "22:0\n");
    disk.make_file("/sys/block/hdc/hdc2/dev", "22:2\n");
    disk.make_file("/dev/disk/hdc");
    disk.make_file("/disk/sda1/qel_usr.cramfs", "the system image");
    disk.make_file("/disk/sda1/vmlinux", "the kernel");
    if (has_archive)
        disk.make_file("/disk/sda1/storage.zip");
    if (is_installed)
        disk.make_file("/dev/disk/hdc2", "an earlier, longer system image");
    disk.make_folder("/boot");
}

void install(Ground &ground)
{
    make_cabinet(ground, true, false);
    qel_install();
}

void install_again(Ground &ground)
{
    make_cabinet(ground, false, true);
    qel_install();
}

/// As the child that becomes the tool number `n`.
Scenario tool(const char *name, int n)
{
    const auto become = [=](Ground &ground) {
        ground.fork_gives_child(n);
        install(ground);
    };
    return cut({name, become}, "fork");
}

/// The tool number `n` ends with this status, as wait has it.
Scenario failing_tool(const char *name, size_t n, int status)
{
    const auto fail = [=](Ground &ground) {
        ground.ended.assign(n - 1, {Ground::child, 0});
        ground.ended.emplace_back(Ground::child, status);
        install(ground);
    };
    return cut({name, fail}, "shutdown pair" + std::to_string(n) + ".1 *");
}

const std::vector<Scenario> installs = {
    {"Sfdisk", [] { qel_sfdisk("/dev/disk/hdc", ",8,4,*\n,28,L\n,,6\n"); }},
    {"Mkdosfs", [] { qel_mkdosfs("/dev/disk/hdc1"); }},
    cut({"NodesOfAnInstalledDisk", install_again}, "sync", "socketpair * #2"),
    cut({"ImageOnAnInstalledDisk", install_again}, "open /disk/sda1/qel_usr.cramfs *",
        "chmod /dev/disk/hdc2 * #2"),
    cut({"WithoutAnArchive", install_again}, "access /disk/sda1/storage.zip *"),
};

const std::vector<Scenario> tools = {
    tool("SfdiskInTheChild", 1),
    tool("MkdosfsOfBootInTheChild", 2),
    tool("MkdosfsOfStorageInTheChild", 3),
    tool("SyslinuxInTheChild", 4),
    tool("MiniunzInTheChild", 5),
    failing_tool("SfdiskFails", 1, 1 << 8),
    failing_tool("MkdosfsOfBootFails", 2, 1 << 8),
    failing_tool("MkdosfsOfStorageFails", 3, 1 << 8),
    failing_tool("SyslinuxFails", 4, 1 << 8),
    failing_tool("MiniunzFails", 5, 1 << 8),
    failing_tool("MiniunzIsKilled", 5, SIGKILL),
};

// ---- Finding the application ----

std::string find(Ground &ground, const std::string &on_storage, const std::string &on_stick)
{
    ground.disk.make_folder("/disk");
    ground.disk.make_file("/storage/" + on_storage, "installed");
    ground.disk.make_file("/disk/sda1/" + on_stick, "7 bytes");
    qel_application application;
    qel_find_application(&application);
    return application.app_path;
}

std::string find_on_stick(Ground &ground)
{
    return find(ground, "qel_application_1", "qel_application_2");
}

std::string find_equal_names(Ground &ground)
{
    return find(ground, "qel_application_1", "qel_application_1");
}

/// A name as long as names can be.
std::string longest(const std::string &start, char rest)
{
    return start + std::string(255 - start.size(), rest);
}

std::string find_long_names(Ground &ground)
{
    const std::string path = find(
        ground, "other", longest("", 'a') + "/" + longest("", 'b') + "/" + longest("qel_application_", 'c'));
    return path.substr(0, 26) + std::to_string(path.size());
}

// ---- Running it ----

/// As the child, or the parent when there is none.
std::string run(const char *name)
{
    qel_application application = {};
    strcpy(application.app_name, name);
    strcpy(application.app_path, (std::string("/storage/") + name).c_str());
    qel_run_application_for_ever(&application);
}

/// As the child.
Scenario child(const char *scenario, const char *name)
{
    const auto become = [=](Ground &ground) {
        ground.fork_gives_child();
        ground.kernel.on_waitpid = [](auto...) -> pid_t { throw LeftProduct(); };
        return run(name);
    };
    return {scenario, become, {"exit 1", "left"}};
}

/// As the parent; `ended` are the children whose end is learned, fork gives `started`.
Scenario parent(const char *scenario, const std::deque<std::pair<pid_t, int>> &ended,
                const std::string &until, pid_t started = Ground::child)
{
    const auto wait = [=](Ground &ground) {
        ground.disk.make_folder("/storage");
        ground.ended = ended;
        ground.kernel.on_fork = [=] { return started; };
        return run("qel_application_1");
    };
    return cut({scenario, wait}, "chdir *", until);
}

const std::vector<Scenario> applications = {
    {"FindApplicationOnAStick", find_on_stick, {"/storage/qel_application_1"}},
    {"StartXServer", [] { qel_start_x_server(); }},
    {"StartXServerInTheChild",
     [](Ground &ground) {
         ground.fork_gives_child();
         qel_start_x_server();
     },
     {"exit 1", "done"}},
    child("RunApplication", "qel_application_1"),
    child("RunWindowsApplication", "qel_application_1.exe.so"),
    parent("RunApplicationBesideAnotherChild", {{99, 0}}, "chdir * #2"),
};

const std::vector<Scenario> application_ends = {
    parent("ApplicationEndsInAnyWay", {{Ground::child, 0}, {Ground::child, 1 << 8}, {Ground::child, SIGSEGV}},
           "fork #4"),
    parent("ForkFails", {{99, 0}}, "fork #2", -1),
    cut({"EqualNamesOnStorageAndStick", find_equal_names}, "closedir /storage"),
    cut({"NamesOf255BytesAtEveryLevel", find_long_names}, "opendir /disk"),
};

} // namespace

INSTANTIATE_TAPES(installs, installs);
INSTANTIATE_TAPES(install, {{"Install", install}});
INSTANTIATE_TAPES(tools, tools);
INSTANTIATE_TAPES(applications, applications);
INSTANTIATE_TAPES(application_ends, application_ends);
