#include "stops.h"

#include "inside.h"

#include <fcntl.h>
#include <stdio.h>
#include <sys/mount.h>
#include <time.h>
#include <unistd.h>

namespace
{

/// Bytes of a file below the watch's /proc, from `offset` on; at most `size`.
std::string read_process_file(int processes, const std::string &name, off_t offset, size_t size)
{
    int file = openat(processes, name.c_str(), O_RDONLY | O_CLOEXEC);
    std::string bytes(size, '\0');
    size_t have = 0;
    ssize_t got = 0;
    while (file >= 0 && have < size &&
           (got = pread(file, &bytes[have], size - have, offset + static_cast<off_t>(have))) > 0)
        have += static_cast<size_t>(got);
    if (file >= 0)
        close(file);
    bytes.resize(have);
    return bytes;
}

/// Empty when the process is gone.
std::string stack_of(int processes, int process)
{
    const size_t maps_bytes_max = size_t{64} * 1024;
    std::string folder = std::to_string(process);
    std::string maps = read_process_file(processes, folder + "/maps", 0, maps_bytes_max);
    size_t name = maps.find("[stack]"), line = maps.rfind('\n', name);
    unsigned long start = 0, end = 0;
    if (name == maps.npos || sscanf(&maps[line == maps.npos ? 0 : line + 1], "%lx-%lx", &start, &end) != 2)
        return "";
    return read_process_file(processes, folder + "/mem", static_cast<off_t>(start), end - start);
}

/// The code that stands on a stack as a text of its own; empty when none does.
std::string code_on(const std::string &stack)
{
    for (size_t at = 0; (at = stack.find("ERROR ", at)) != stack.npos; ++at) {
        char letters[4] = "";
        int line = 0, length = 0;
        if (sscanf(&stack[at], "ERROR %3[A-Z]%d%n", letters, &line, &length) == 2 && letters[2] != '\0' &&
            at + static_cast<size_t>(length) < stack.size() &&
            stack[at + static_cast<size_t>(length)] == '\0')
            return letters + std::to_string(line);
    }
    return "";
}

time_t clock_seconds()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return now.tv_sec;
}

} // namespace

void begin_to_watch(StopWatch &watch)
{
    int proc = fsopen("proc", FSOPEN_CLOEXEC);
    if (proc < 0 || fsconfig(proc, FSCONFIG_CMD_CREATE, nullptr, nullptr, 0) != 0 ||
        (watch.processes = fsmount(proc, FSMOUNT_CLOEXEC, 0)) < 0)
        fail("opening a /proc to find stopped programs");
    close(proc);
}

std::map<int, std::string> new_stops(StopWatch &watch, const std::set<int> &children)
{
    std::map<int, std::string> found;
    if (watch.processes < 0 || clock_seconds() < watch.next_look)
        return found;
    watch.next_look = clock_seconds() + 1;
    std::set<int> looked_at = children;
    looked_at.insert(1);
    // The number of a process that has ended may come again.
    std::erase_if(watch.reported, [&](int process) { return !looked_at.contains(process); });
    for (int process : looked_at) {
        std::string code = code_on(stack_of(watch.processes, process));
        if (!code.empty() && watch.reported.insert(process).second)
            found[process] = code;
    }
    return found;
}
