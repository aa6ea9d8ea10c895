/// A place in which a program is PID 1: fresh mount and process namespaces, a tmpfs as the root, the
/// host's libraries in /lib, read-only, /dev/null, and a terminal that nobody edits as its console. Nothing
/// in there can open a device of the host. Needs root.
///
/// Paths are those inside; the test may fill and inspect the sandbox at any time. Whatever goes wrong
/// outside the product is thrown as std::runtime_error with the transcript so far.
#pragma once

#include "sandbox/transcript.h"

#include <gtest/gtest.h>
#include <sys/types.h>

#include <functional>
#include <map>
#include <string>
#include <vector>

struct Sandbox {
    Sandbox();
    /// Ends every process inside. A sanitizer's report fails the test.
    ~Sandbox();

    // ---- Its files; parents are made as needed ----

    /// Where the test finds `path`. Links inside that are absolute lead the test astray.
    std::string at(const std::string &path) const;
    void make_folder(const std::string &path) const;
    void make_file(const std::string &path, const std::string &content, mode_t mode = 0644) const;
    void make_link(const std::string &path, const std::string &content) const;
    /// Makes `path` a file system of its own with room for so many bytes, empty, when PID 1 starts. One only.
    void limit(const std::string &path, size_t bytes);
    /// Copies a file of the host.
    void copy_in(const std::string &host_path, const std::string &path) const;
    /// 1 when there is an entry, a dangling link included.
    int has(const std::string &path) const;
    std::string content(const std::string &path) const;
    /// "drwxr-xr-x", as ls shows it, with "MAJOR:MINOR" for nodes and "-> CONTENT" for links.
    std::string look(const std::string &path) const;
    /// The names in a folder, sorted.
    std::vector<std::string> names(const std::string &path) const;

    // ---- Running ----

    /// Sets a variable in the environment of PID 1.
    void set(const std::string &name, const std::string &value);
    /// A descriptor that PID 1 gets as host_descriptor; start() closes it. -1 for none.
    int for_the_inside = -1;
    /// Starts a program of the host as PID 1, with `arguments` from argv[0] on.
    void start(const std::string &host_program, const std::vector<std::string> &arguments);
    /// How long a wait may take.
    long patience_s = 30;
    /// Waits until `is_there` holds, and throws when that takes too long or everything inside has ended.
    void await(const std::string &what, const std::function<bool()> &is_there);
    /// Waits for `count` lines of PID 1 that begin with `beginning`.
    void await_lines(const std::string &beginning, size_t count = 1);
    /// Waits until everything inside has ended. Returns the exit code of PID 1, -1 after a signal.
    int await_end();

    const Transcript &transcript() const
    {
        return output;
    }
    /// The lines of expected/`file` must be what PID 1 does from the first of them on, without a gap;
    /// waits for as many. A mismatch leaves the whole transcript in the build folder.
    testing::AssertionResult matches(const std::string &file);

    // ---- PID 1 and its children, as the host sees them ----

    struct Process {
        pid_t pid;
        std::string name;
        char state;
    };
    Process first_process() const;
    std::vector<Process> children() const;
    /// The open descriptors of PID 1 but for the sandbox's own, and where they lead.
    std::map<int, std::string> descriptors() const;
    /// Its memory that is backed by no file, in kB.
    long anonymous_kb() const;
    /// From now on PID 1 gets at most so many bytes of memory more than it has, touched or not.
    void limit_growth(size_t bytes) const;
    /// Sends a signal to a process given by the host's number.
    void signal(pid_t pid, int number) const;
    /// Takes what has arrived, waiting a little when that is nothing. Returns 0 when all has ended.
    int take_output();
    void end();
    void report_sanitizers() const;
    /// A line of /proc/PID/status of PID 1, in kB.
    long status_kb(const std::string &name) const;

    int root = -1;
    int console = -1;
    pid_t first_pid = -1;
    int wait_status = 0;
    std::map<std::string, std::string> environment;
    std::string limited_folder, limit_options;
    Transcript output;
};
