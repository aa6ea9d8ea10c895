// The system calls of a start-up, as strace sees them, in two groups: what the start-up has to do, call by
// call, and what libc adds for itself, by number.

#include "start_up_calls.h"

#include "places.h"
#include "process.h"
#include "root.h"

#include "common/child.h"

#include <signal.h>
#include <stdio.h>
#include <sys/wait.h>
#include <unistd.h>

#include <map>
#include <set>
#include <regex>
#include <stdexcept>

namespace
{

/// Memory for streams and open folders, the mark that a folder is not inherited, the place of a stream that
/// is closed before its end, the signals that fork holds back, and the start of every program.
const std::regex
    of_libc("(brk|mmap|munmap|lseek|fcntl|rt_sigprocmask|arch_prctl|set_tid_address|ioctl)\\(.*");

/// Lets strace write what process 1 does until its application runs.
void trace(const FirstProcess &process, const std::string &log)
{
    const pid_t tracer =
        start_child({.words = {"strace", "-q", "-s", "200", "-o", log, "-p", std::to_string(process.pid)}});
    while (process.status("TracerPid") != tracer) {
        if (waitpid(tracer, nullptr, WNOHANG) != 0)
            throw std::runtime_error("strace cannot follow process 1");
        usleep(1000);
    }
    process.go();
    process.await_beats(1);
    usleep(100000);
    kill(tracer, SIGTERM);
    wait_for_child(tracer);
}

/// What a call is and does, without addresses, sizes of buffers, results, and what is in a record.
std::string essence(const std::string &line)
{
    std::string text = std::regex_replace(line, std::regex("0x[0-9a-f]{5,}"), "...");
    text = std::regex_replace(text, std::regex("(\\[)?\\{.*\\}(\\], 2)?"), "...");
    text = std::regex_replace(text, std::regex("\\|?O_LARGEFILE"), "");
    return std::regex_replace(text, std::regex(" += (-1 )?([A-Z0-9]+).*"), " = $2");
}

std::vector<std::string> start_up_calls()
{
    const Root root;
    equip(root);
    root.add_program(subject("bench_loader"), "/init");
    const FirstProcess process(root.path, {"/init"});
    const std::string log = scratch("calls");
    trace(process, log);

    std::vector<std::string> calls;
    std::map<std::string, int> own;
    int has_begun = 0, forks = 0;
    for (const std::string &line : lines_of(log)) {
        has_begun |= line.rfind("execve(", 0) == 0;
        if (!has_begun)
            continue;
        std::smatch parts;
        if (std::regex_match(line, parts, of_libc))
            ++own[parts[1]];
        else
            calls.push_back(essence(line));
        forks += line.rfind("fork(", 0) == 0 || line.rfind("clone(", 0) == 0;
        if (forks == 2)
            break;
    }
    for (const auto &[name, count] : own)
        calls.push_back("libc: " + std::to_string(count) + " x " + name);
    return calls;
}

} // namespace

int print_start_up_calls(const std::string &expected_path)
{
    const std::vector<std::string> calls = start_up_calls(), expected = lines_of(expected_path);
    for (const std::string &call : calls)
        printf("%s\n", call.c_str());
    // The order of a folder's entries is the file system's.
    std::multiset<std::string> made(calls.begin(), calls.end());
    if (made == std::multiset<std::string>(expected.begin(), expected.end()))
        return 0;
    fprintf(stderr, "error: that is not the list in %s; compare them\n", expected_path.c_str());
    return 1;
}
