// The first program of the simulated cabinet's kernel. It connects the board driver and the machine's
// attendant to the outside, leaves /proc and /sys unmounted and every descriptor closed as it found
// them, and then becomes the loader, which is thus process 1 on a fresh machine.
//
// What the outside wants done before that arrives as lines on the port "service":
//
//   wait PATH     wait until PATH exists (a disk or a stick that takes its time to appear)
//   old kernel    let the loader, and all that it starts, find no system calls that are newer than
//                 Linux 2.6.20
//   go            become the loader
//
// A machine without that port, started by itself from a stick or its disk, waits for nothing.

#include "inside.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

namespace
{

const char *const loader = "/sbin/qel_application_loader";
const unsigned virtual_console_major = 229; // of /dev/hvc0, which the kernel fixes

void mount_kernel_file_systems()
{
    mkdir("/proc", 0755);
    mkdir("/sys", 0755);
    if (mount("proc", "/proc", "proc", 0, nullptr) != 0 || mount("sysfs", "/sys", "sysfs", 0, nullptr) != 0)
        fail("mounting /proc and /sys");
}

/// The loader makes and mounts these folders itself; left mounted they would stop it.
void unmount_kernel_file_systems()
{
    if (umount("/proc") != 0 || umount("/sys") != 0)
        fail("unmounting /proc and /sys");
    rmdir("/proc");
    rmdir("/sys");
}

int open_board_back_side()
{
    std::ifstream devices("/proc/devices");
    std::string line;
    while (std::getline(devices, line)) {
        unsigned major = 0;
        if (line.find(" qelboard") == std::string::npos || sscanf(line.c_str(), "%u", &major) != 1)
            continue;
        if (mknod("/cabinet/board_driver", S_IFCHR | 0600, makedev(major, 0)) != 0)
            fail("making the board driver's node");
        return open("/cabinet/board_driver", O_RDWR | O_CLOEXEC);
    }
    fail("finding the board driver");
}

/// Returns whether the kernel is to look old.
bool follow_wishes(int service)
{
    bool is_old = false;
    std::string line;
    while (read_line(service, line) && line != "go") {
        if (line.starts_with("wait "))
            while (!std::filesystem::exists(line.substr(5)))
                usleep(20 * 1000);
        else if (line == "old kernel")
            is_old = true;
        else
            fail(("understanding the wish: " + line).c_str());
    }
    return is_old;
}

bool is_child()
{
    pid_t child = fork();
    if (child < 0)
        fail("starting a process");
    return child == 0;
}

/// The loader gets the port "console" as its descriptors 0 to 2, else the kernel's console as it stands.
void take_console(int console)
{
    for (int descriptor = 0; console >= 0 && descriptor <= 2; ++descriptor)
        dup2(console, descriptor);
}

} // namespace

void fail(const char *what)
{
    printf("cabinet: %s failed: %s\n", what, strerror(errno));
    fflush(stdout);
    for (;;)
        pause();
}

int main(int, char **argv, char **environment)
{
    mkdir("/cabinet", 0755);
    mount_kernel_file_systems();
    int service = open_port("service");
    int board = open_port("board");
    int console = open_port("console");
    const bool is_old = service >= 0 && follow_wishes(service);
    if (board >= 0) {
        int back_side = open_board_back_side();
        if (is_child())
            run_board_bridge(back_side, board);
    }
    if (service >= 0 && is_child())
        run_attendant(service);
    if (access("/sys/class/tty/hvc0", F_OK) == 0) {
        mknod("/cabinet/terminal", S_IFCHR | 0600, makedev(virtual_console_major, 0));
        if (is_child())
            run_shell("/cabinet/terminal");
    }
    unmount_kernel_file_systems();
    if (service >= 0)
        dprintf(service, "loader\n");
    take_console(console);
    if (is_old)
        lose_newer_calls();
    execve(loader, argv, environment);
    fail(loader);
}
