// Starting and watching processes.

#include "process.h"

#include "common/child.h"
#include "common/clock.h"
#include "common/files.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>

namespace
{

constexpr int beat_descriptor = 9, go_descriptor = 10;
constexpr int patience_ms = 20000;

[[noreturn]] void give_up(const std::string &what)
{
    throw std::runtime_error(what + ": " + strerror(errno));
}

std::vector<char *> pointers(const std::vector<std::string> &texts)
{
    std::vector<char *> result;
    for (const std::string &text : texts)
        result.push_back(const_cast<char *>(text.c_str()));
    result.push_back(nullptr);
    return result;
}

} // namespace

// ---- Commands ----

double time_command(const Command &command)
{
    const Descriptor nowhere = {open("/dev/null", O_WRONLY | O_CLOEXEC)},
                     messages = {memfd_create("messages", MFD_CLOEXEC)};
    const double start = seconds_now();
    const int status =
        wait_for_child(start_child({.words = command, .output = nowhere.number, .errors = messages.number}));
    const double end = seconds_now();
    if (status != 0)
        throw std::runtime_error(command[0] + " failed: " + read_file(path_of(messages)));
    return end - start;
}

std::vector<std::string> lines_of(const std::string &path)
{
    std::ifstream file(path);
    if (!file)
        give_up(path);
    std::vector<std::string> lines;
    for (std::string line; std::getline(file, line);)
        lines.push_back(line);
    return lines;
}

// ---- Process 1 ----

namespace
{

/// In the child. Nothing here allocates.
[[noreturn]] void become(const char *root, char *const *arguments, int go, int beats)
{
    static char *const environment[] = {const_cast<char *>("PATH=/bin"), nullptr};
    const int null = open("/dev/null", O_RDWR);
    for (int stream = 0; stream <= 2; ++stream)
        dup2(null, stream);
    // Move both clear of the target numbers.
    const int beat_copy = fcntl(beats, F_DUPFD, go_descriptor + 1);
    dup3(fcntl(go, F_DUPFD, go_descriptor + 1), go_descriptor, O_CLOEXEC);
    dup2(beat_copy, beat_descriptor);
    close_range(3, beat_descriptor - 1, 0);
    close_range(go_descriptor + 1, ~0U, 0);
    cpu_set_t one;
    CPU_ZERO(&one);
    CPU_SET(0, &one);
    char byte;
    if (sched_setaffinity(0, sizeof one, &one) || prctl(PR_SET_PDEATHSIG, SIGKILL) ||
        mount(nullptr, "/", nullptr, MS_REC | MS_PRIVATE, nullptr) ||
        mount(root, root, nullptr, MS_BIND, nullptr) || chdir(root) || syscall(SYS_pivot_root, ".", ".") ||
        umount2(".", MNT_DETACH) || chdir("/") || read(go_descriptor, &byte, 1) != 1)
        _exit(98);
    execve(arguments[0], arguments, environment);
    _exit(99);
}

} // namespace

FirstProcess::FirstProcess(const std::string &root, const Command &command)
{
    const std::vector<char *> arguments = pointers(command);
    int go_ends[2], beat_ends[2];
    if (pipe2(go_ends, O_CLOEXEC) || pipe2(beat_ends, O_CLOEXEC))
        give_up("pipe");
    pid = static_cast<pid_t>(syscall(SYS_clone, CLONE_NEWNS | CLONE_NEWPID | SIGCHLD, 0, 0, 0, 0));
    if (pid == 0)
        become(root.c_str(), arguments.data(), go_ends[0], beat_ends[1]);
    if (pid < 0)
        give_up("no namespaces");
    close(go_ends[0]);
    close(beat_ends[1]);
    go_pipe = go_ends[1];
    beat_pipe = beat_ends[0];
}

FirstProcess::~FirstProcess()
{
    kill(pid, SIGKILL);
    waitpid(pid, nullptr, 0);
    close(go_pipe);
    close(beat_pipe);
}

void FirstProcess::go() const
{
    if (write(go_pipe, "!", 1) != 1)
        give_up("process 1");
}

void FirstProcess::await_beats(size_t count) const
{
    while (count > 0) {
        pollfd wanted = {beat_pipe, POLLIN, 0};
        char beats[512];
        const ssize_t come =
            poll(&wanted, 1, patience_ms) == 1 ? read(beat_pipe, beats, std::min(count, sizeof beats)) : 0;
        if (come <= 0)
            throw std::runtime_error("process 1 does not start its program");
        count -= static_cast<size_t>(come);
    }
}

namespace
{

/// A number in a file of /proc/PID, behind "key:".
long number_in(pid_t pid, const std::string &name, const std::string &key)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/" + name);
    long number = 0;
    for (std::string word; file >> word;) {
        if (word == key + ":")
            file >> number;
    }
    return number;
}

} // namespace

long FirstProcess::status(const std::string &key) const
{
    return number_in(pid, "status", key);
}

double FirstProcess::peak_memory_kb() const
{
    double peak = 0, before = -1;
    while (peak != before) {
        before = peak;
        usleep(200000);
        // Some kernels count the peak roughly, but all count exactly what is there now.
        peak = static_cast<double>(std::max(status("VmHWM"), number_in(pid, "smaps_rollup", "Rss")));
    }
    if (peak == 0)
        throw std::runtime_error("process 1 has ended");
    return peak;
}
