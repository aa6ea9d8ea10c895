/// The transcript of a sandbox as a test sees it: what PID 1 did and printed, in order, a line for each,
/// and what every other process reported.
///
///     mkdir /storage 0755 = EEXIST
///     console "mount: /usr"
///
/// Console text becomes a line at its line break or when PID 1's next call follows.
#pragma once

#include <sys/types.h>

#include <map>
#include <string>
#include <vector>

struct Transcript {
    void take(const std::string &bytes);

    /// PID 1 and the console.
    const std::vector<std::string> &lines() const
    {
        return first_process;
    }
    /// Only the lines that begin with `beginning`.
    std::vector<std::string> lines(const std::string &beginning) const;
    /// What the process `pid` of the sandbox reported.
    std::vector<std::string> of(pid_t pid) const;
    /// The processes other than PID 1 that reported a line that begins with `beginning`, in order.
    std::vector<pid_t> processes_with(const std::string &beginning) const;
    /// Everything, for a message.
    std::string text() const;
    void take_record(const std::string &record);
    void end_console_line();

    std::vector<std::string> first_process;
    std::map<pid_t, std::vector<std::string>> others;
    std::string console_line;
    std::string open_record;
    int in_record = 0;
};

/// Returns the lines of `text` that are neither empty nor comments, which begin with "#".
std::vector<std::string> expected_lines(const std::string &text);

/// 1 when `line` begins with `beginning`.
int begins_with(const std::string &line, const std::string &beginning);
