// Devices. The driver's nodes lead to a board that answers by script, block devices to files. Which
// device it is, is told by the node's numbers, not by its name, as in a kernel.

#include "sandbox/settings.h"
#include "sandbox/stand_in/stand_in.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/sysmacros.h>
#include <unistd.h>

enum {
    record_bytes_max = 64,
    descriptors_max = 256,
    command_minor = 3,
    host_comms_minor = 7,
    get_mode_command = 5,
};

/// The devices that the board plays, by their minor numbers; the others cannot be opened.
static const char *const board_names[10] = {nullptr, nullptr, "/dev/qellpc_lcd", "/dev/qellpc_command",
                                            nullptr, nullptr, nullptr,           "/dev/qellpc_host_comms"};

/// The minor number behind each open descriptor, plus 1; 0 for what is no device of the board.
static unsigned char minor_of[descriptors_max];
/// The first byte of what was last written to the command device.
static unsigned char last_command;

// ---- Opening ----

static int is_board_driver(const struct stat *status)
{
    const char *driver = getenv(major_setting);
    return S_ISCHR(status->st_mode) && driver && major(status->st_rdev) == (unsigned)atoi(driver);
}

/// Opens the way to the host, which is the test.
static int open_host_comms(int flags)
{
    const int file = dup(host_descriptor);
    if (file >= 0)
        fcntl(file, F_SETFL, flags);
    return file;
}

static int open_board_device(unsigned number, int flags)
{
    if (number >= sizeof board_names / sizeof board_names[0] || !board_names[number]) {
        errno = ENXIO;
        return -1;
    }
    const int file = number == host_comms_minor ? open_host_comms(flags) : real_open64("/dev/null", flags);
    if (file >= 0)
        minor_of[file] = (unsigned char)(number + 1);
    return file;
}

int stand_in_open(const char *path, int flags, mode_t mode)
{
    struct stat status;
    if (real_stat64(path, &status) == 0) {
        if (is_board_driver(&status))
            return open_board_device(minor(status.st_rdev), flags);
        char raw[100];
        snprintf(raw, sizeof raw, "/machine/raw/%u:%u", major(status.st_rdev), minor(status.st_rdev));
        if (S_ISBLK(status.st_mode))
            return real_open64(raw, flags & ~(O_CREAT | O_TRUNC));
    }
    return real_open64(path, flags, mode);
}

// ---- The board ----

const char *board_device(int file)
{
    const int number = file >= 0 && file < descriptors_max ? minor_of[file] : 0;
    return number ? board_names[number - 1] : nullptr;
}

ssize_t board_write(int file, const void *buffer, size_t size)
{
    if (size > record_bytes_max) {
        errno = EINVAL;
        return -1;
    }
    if (minor_of[file] == host_comms_minor + 1)
        return real_write(file, buffer, size);
    if (minor_of[file] == command_minor + 1 && size > 0)
        last_command = *(const unsigned char *)buffer;
    return (ssize_t)size;
}

ssize_t board_read(int file, void *buffer, size_t size)
{
    if (minor_of[file] == host_comms_minor + 1)
        return real_read(file, buffer, size);
    const char *mode = getenv(mode_setting);
    if (minor_of[file] != command_minor + 1 || last_command != get_mode_command || !mode || size == 0)
        return 0;
    *(char *)buffer = (char)atoi(mode);
    return 1;
}

void board_close(int file)
{
    if (file >= 0 && file < descriptors_max)
        minor_of[file] = 0;
}
