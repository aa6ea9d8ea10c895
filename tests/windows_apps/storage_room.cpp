// The room's namespaces and mounts. They are private to the product's process and vanish with it; what it
// left in the scratch folder stays for the test to look at.

#include "windows_apps/storage_room.h"
#include "support/fake_kernel.h"
#include "support/stops.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/wait.h>
#include <unistd.h>

#include <stdexcept>

/// The folders of the host that its programs need. /usr itself is the room's, so that Wine can be where the
/// cabinet has it.
static const char *const host_folders[] = {"/usr/bin",   "/usr/lib", "/usr/lib64",
                                           "/usr/share", "/etc",     "/dev"};

StorageRoom::StorageRoom()
{
    for (const char *folder : host_folders)
        disk.make_folder(folder);
    disk.make_folder("/proc");
    disk.make_folder("/tmp");
    disk.make_folder("/storage");
    disk.make_link("/lib", "usr/lib");
    disk.make_link("/lib64", "usr/lib64");
    disk.make_link("/qel_home", "/tmp");
    disk.make_link("/bin/miniunz", "/usr/bin/miniunzip");
    // Debian's loader goes by its own name and place, so that a link would not do.
    disk.make_link("/bin/sh", "/usr/bin/sh");
    disk.make_file("/usr/wine/bin/wine", "#!/bin/sh\nexec /usr/lib/wine/wine64 \"$@\"\n", 0755);
}

// ---- Inside ----

static void require(bool done, const char *what)
{
    if (done)
        return;
    dprintf(STDOUT_FILENO, "the room: %s: %s (it needs root)\n", what, strerror(errno));
    real__exit(98);
}

/// The exit code of a process in which the product stopped.
static constexpr int stopped_code = 99;
/// Where it stopped, "UNIT:LINE"; a file in the room.
static constexpr char stop_file[] = "/stopped_at";

static void enter(const Scratch &disk)
{
    require(real_mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) == 0, "private mounts");
    for (const char *folder : host_folders)
        require(real_mount(folder, disk.at(folder).c_str(), nullptr, MS_BIND | MS_REC, nullptr) == 0, folder);
    require(real_mount("proc", disk.at("/proc").c_str(), "proc", 0, nullptr) == 0, "/proc");
    require(chroot(disk.path().c_str()) == 0 && real_chdir("/") == 0, "chroot");
}

[[noreturn]] static void run_inside(const Scratch &disk, int output, const std::function<void()> &statement)
{
    fflush(stdout);
    real_dup2(output, STDOUT_FILENO);
    real_dup2(output, STDERR_FILENO);
    enter(disk);
    tests_run_here();
    int code = 0;
    try {
        statement();
    } catch (const Stop &stop) {
        const int file = real_open(stop_file, O_WRONLY | O_CREAT | O_TRUNC, 0600);
        require(dprintf(file, "%s:%d", stop.unit.c_str(), stop.line) > 0, stop_file);
        code = stopped_code;
    }
    fflush(stdout);
    real__exit(code);
}

// ---- Outside ----

static int exit_code_of(pid_t child)
{
    int status = 0;
    if (real_waitpid(child, &status, 0) != child)
        throw std::runtime_error(std::string("the room: waitpid: ") + strerror(errno));
    return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

std::string StorageRoom::run(const std::function<void()> &statement)
{
    const int file =
        real_open(disk.at("/output").c_str(), O_RDWR | O_CREAT | O_TRUNC | O_APPEND | O_CLOEXEC, 0600);
    const pid_t keeper = real_fork();
    if (keeper == 0) {
        // The first child after this is process 1 of its own namespace; its end ends all others there.
        require(unshare(CLONE_NEWNS | CLONE_NEWPID) == 0, "namespaces");
        const pid_t first = real_fork();
        if (first == 0)
            run_inside(disk, file, statement);
        real__exit(exit_code_of(first));
    }
    const int result = exit_code_of(keeper);
    real_close(file);
    output = disk.content("/output");
    if (result == stopped_code && disk.has(stop_file))
        return "stopped at " + disk.content(stop_file);
    return result == 0 ? ended : "exit code " + std::to_string(result);
}

void StorageRoom::zip(const std::string &folder, const std::string &archive) const
{
    const std::string command = "cd '" + disk.at(folder) + "' && zip -q -r - . >'" + disk.at(archive) + "'";
    if (system(command.c_str()) != 0)
        throw std::runtime_error("cannot make an archive: " + command);
}
