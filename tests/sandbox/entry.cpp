// What happens between the clone and the program. Nothing here may allocate: the process is a copy of the
// test in the middle of its work.

#include "sandbox/entry.h"
#include "sandbox/settings.h"

#include <errno.h>
#include <fcntl.h>
#include <sched.h>
#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

static void require(int result, const char *what)
{
    if (result < 0) {
        dprintf(transcript_descriptor, "sandbox: %s: %s\n", what, strerror(errno));
        _exit(98);
    }
}

static void bind(const char *from, const char *to, unsigned long flags)
{
    require(mount(from, to, nullptr, MS_BIND, nullptr), from);
    require(mount(nullptr, to, nullptr, MS_REMOUNT | MS_BIND | flags, nullptr), to);
}

/// Moves the root into its place, with what it needs of the host. Any folder of the host will do for the
/// moment in between: it is hidden in this namespace only.
static void enter_root(int root)
{
    require(mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr), "private mounts");
    require(move_mount(root, "", AT_FDCWD, "/tmp", MOVE_MOUNT_F_EMPTY_PATH), "move_mount");
    bind("/lib", "/tmp/lib", MS_RDONLY);
    bind("/lib64", "/tmp/lib64", MS_RDONLY);
    bind("/dev/null", "/tmp/dev/null", 0);
    require(chdir("/tmp"), "chdir");
    require(static_cast<int>(syscall(SYS_pivot_root, ".", ".")), "pivot_root");
    require(umount2(".", MNT_DETACH), "umount");
    require(chdir("/"), "chdir");
    // For a sanitizer, which looks into it before main; the stand-in kernel takes it away again.
    require(mount("proc", "/proc", "proc", 0, nullptr), "proc");
}

[[noreturn]] static void become_program(const Entry &entry)
{
    require(dup2(entry.console, transcript_descriptor), "transcript");
    close(host_descriptor);
    if (entry.for_the_inside >= 0)
        require(dup2(entry.for_the_inside, host_descriptor), "descriptor");
    require(prctl(PR_SET_PDEATHSIG, SIGKILL), "prctl");
    enter_root(entry.root);
    if (*entry.limited_folder)
        require(mount("tmpfs", entry.limited_folder, "tmpfs", MS_NODEV, entry.limit_options), "limit");
    for (int stream = 0; stream <= 2; ++stream)
        require(dup2(entry.console, stream), "console");
    // The kernel starts its first program so: in a session of its own, with this mask.
    setsid();
    umask(022);
    require(close_range(3, transcript_descriptor - 1, 0), "close_range");
    require(close_range(host_descriptor + 1, ~0U, 0), "close_range");
    execve(entry.program, entry.arguments, entry.environment);
    require(-1, entry.program);
    _exit(98);
}

pid_t start_inside(const Entry &entry)
{
    const pid_t pid =
        static_cast<pid_t>(syscall(SYS_clone, CLONE_NEWNS | CLONE_NEWPID | SIGCHLD, 0, 0, 0, 0));
    if (pid == 0)
        become_program(entry);
    return pid;
}
