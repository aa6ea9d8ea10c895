// Whole processes: commands that are timed from start to end, and programs that are process 1 of namespaces
// of their own. What fails is thrown as std::runtime_error.
#pragma once

#include <sys/types.h>

#include <string>
#include <vector>

using Command = std::vector<std::string>;

/// Runs a command, found in PATH, whose output goes nowhere. Returns its seconds; throws what it wrote to
/// standard error unless it ends with 0.
double time_command(const Command &command);

/// The lines of a file, without their ends.
std::vector<std::string> lines_of(const std::string &path);

/// Process 1 of new mount and process namespaces, with `root` as its root, descriptor 9 as the way to send
/// beats, and nothing on its console. Like a cabinet, it and all that it starts have one processor. It waits
/// for go() before it becomes the program. Destroying it ends it with all it started.
struct FirstProcess {
    FirstProcess(const std::string &root, const Command &command);
    ~FirstProcess();
    FirstProcess(const FirstProcess &) = delete;
    FirstProcess &operator=(const FirstProcess &) = delete;

    void go() const;
    /// Waits until so many bytes have come through the descriptor.
    void await_beats(size_t count) const;
    /// A number in its /proc/PID/status, 0 when that is gone.
    long status(const std::string &key) const;
    /// Waits until it sleeps for good and returns its peak resident memory in kB.
    double peak_memory_kb() const;

    pid_t pid;
    int go_pipe;
    int beat_pipe;
};
