// Starting and watching processes.

#include "process.h"
#include "trees.h"

#include <errno.h>
#include <fcntl.h>
#include <poll.h>
#include <sched.h>
#include <signal.h>
#include <spawn.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <sys/wait.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>

static constexpr int beat_descriptor = 9, go_descriptor = 10;
static constexpr int patience_ms = 20000;

[[noreturn]] static void give_up(const std::string &what)
{
    throw std::runtime_error(what + ": " + strerror(errno));
}

double now()
{
    struct timespec time;
    clock_gettime(CLOCK_MONOTONIC, &time);
    return static_cast<double>(time.tv_sec) + static_cast<double>(time.tv_nsec) * 1e-9;
}

static std::vector<char *> pointers(const std::vector<std::string> &texts)
{
    std::vector<char *> result;
    for (const std::string &text : texts)
        result.push_back(const_cast<char *>(text.c_str()));
    result.push_back(nullptr);
    return result;
}

// ---- Commands ----

double time_command(const std::vector<std::string> &command)
{
    const std::vector<char *> arguments = pointers(command);
    const std::string messages = scratch("messages");
    posix_spawn_file_actions_t streams;
    posix_spawn_file_actions_init(&streams);
    posix_spawn_file_actions_addopen(&streams, 1, "/dev/null", O_WRONLY, 0);
    posix_spawn_file_actions_addopen(&streams, 2, messages.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    const double start = now();
    pid_t pid;
    const int error = posix_spawnp(&pid, arguments[0], &streams, nullptr, arguments.data(), environ);
    posix_spawn_file_actions_destroy(&streams);
    if (error)
        throw std::runtime_error(command[0] + " does not start: " + strerror(error));
    int status;
    waitpid(pid, &status, 0);
    const double end = now();
    if (!WIFEXITED(status) || WEXITSTATUS(status) != 0) {
        std::string all = command[0] + " failed:";
        for (const std::string &line : lines_of(messages))
            all += "\n" + line;
        throw std::runtime_error(all);
    }
    return end - start;
}

void run_command(const std::vector<std::string> &command)
{
    time_command(command);
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

std::vector<std::string> libraries_of(const std::string &program)
{
    std::vector<std::string> libraries;
    FILE *list = popen(("ldd " + program + " 2>/dev/null").c_str(), "r");
    char word[1000];
    while (list && fscanf(list, "%999s", word) == 1) {
        if (word[0] == '/')
            libraries.push_back(word);
    }
    if (list)
        pclose(list);
    return libraries;
}

// ---- Process 1 ----

/// In the child. Nothing here allocates.
[[noreturn]] static void become(const char *root, char *const *arguments, int go, int beats)
{
    static char *const environment[] = {const_cast<char *>("PATH=/bin"), nullptr};
    const int null = open("/dev/null", O_RDWR);
    for (int stream = 0; stream <= 2; stream++)
        dup2(null, stream);
    // Out of each other's way first.
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

FirstProcess::FirstProcess(const std::string &root, const std::vector<std::string> &command)
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

/// A number in a file of /proc/PID, behind "key:".
static long number_in(pid_t pid, const std::string &name, const std::string &key)
{
    std::ifstream file("/proc/" + std::to_string(pid) + "/" + name);
    long number = 0;
    for (std::string word; file >> word;) {
        if (word == key + ":")
            file >> number;
    }
    return number;
}

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
