// Virtio ports by name, and the small input and output helpers of the programs inside the machine.

#include "inside.h"

#include <errno.h>
#include <fcntl.h>
#include <stdio.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <filesystem>
#include <fstream>

int open_port(const std::string &name)
{
    std::error_code none;
    for (const auto &entry : std::filesystem::directory_iterator("/sys/class/virtio-ports", none)) {
        std::string found;
        std::getline(std::ifstream(entry.path() / "name"), found);
        if (found != name)
            continue;
        unsigned major = 0, minor = 0;
        std::string numbers;
        std::getline(std::ifstream(entry.path() / "dev"), numbers);
        if (sscanf(numbers.c_str(), "%u:%u", &major, &minor) != 2)
            fail("reading a port's numbers");
        std::string node = "/cabinet/" + name;
        if (mknod(node.c_str(), S_IFCHR | 0600, makedev(major, minor)) != 0)
            fail("making a port's node");
        return open(node.c_str(), O_RDWR | O_CLOEXEC);
    }
    return -1;
}

bool read_line(int descriptor, std::string &line)
{
    line.clear();
    char byte = 0;
    while (read(descriptor, &byte, 1) == 1) {
        if (byte == '\n')
            return true;
        line += byte;
    }
    return false;
}

bool write_all(int descriptor, const void *bytes, size_t size)
{
    const char *next = static_cast<const char *>(bytes);
    while (size > 0) {
        ssize_t written = write(descriptor, next, size);
        if (written < 0 && errno != EINTR)
            return false;
        if (written > 0) {
            next += written;
            size -= static_cast<size_t>(written);
        }
    }
    return true;
}
