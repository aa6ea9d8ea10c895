// The shell beside the loader: busybox on the machine's terminal, with job control.

#include "inside.h"

#include <fcntl.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

[[noreturn]] void become_shell(const char *path)
{
    setsid();
    int terminal = open(path, O_RDWR);
    if (terminal < 0)
        _exit(1);
    ioctl(terminal, TIOCSCTTY, 0);
    for (int descriptor = 0; descriptor <= 2; ++descriptor)
        dup2(terminal, descriptor);
    if (terminal > 2)
        close(terminal);
    const char *arguments[] = {"sh", nullptr};
    const char *environment[] = {"PS1=cabinet \\w # ", "TERM=linux", "HOME=/tmp", "PATH=/bin:/sbin", nullptr};
    execve("/bin/busybox", const_cast<char **>(arguments), const_cast<char **>(environment));
    _exit(1);
}

} // namespace

void run_shell(const char *path)
{
    for (;;) {
        pid_t shell = fork();
        if (shell == 0)
            become_shell(path);
        waitpid(shell, nullptr, 0);
        sleep(1);
    }
}
