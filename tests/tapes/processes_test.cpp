// What failing calls lead to in starting programs, making links and dumps.

#include "support/stops.h"
#include "tapes/golden.h"

#include "qel_utility/qel_filesystem.h"

#include <errno.h>
#include <signal.h>

namespace
{

// ---- Running programs ----

const char *const tool_arguments[] = {"/bin/tool", nullptr};

std::string run_checked(Ground &)
{
    qel_exec_wait_checked("/bin/tool", tool_arguments, nullptr, "input");
    return "ended";
}

/// What becomes of a tool that ends with `status`, as wait has it; the stop that this leads to is the result.
std::string run_to_its_end(Ground &ground, int status)
{
    ground.kernel.on_waitpid = [=](pid_t process, int *how, int) {
        *how = status;
        return process;
    };
    try {
        return run_checked(ground);
    } catch (const Stop &stop) {
        if (ground.kernel.count("waitpid") == 0)
            throw;
        return "stopped at " + std::to_string(stop.line);
    }
}

std::string run_unchecked(Ground &)
{
    qel_exec_wait("/bin/tool", tool_arguments, nullptr, "input");
    return "ended";
}

/// The parent writes what the child would.
std::string capture(Ground &ground)
{
    ground.kernel.on_socketpair = [&ground](int domain, int type, int protocol, int *ends) {
        const int result = real_socketpair(domain, type, protocol, ends);
        if (ground.kernel.count("socketpair") == 2) {
            EXPECT_EQ(real_write(ends[0], "text", 4), 4);
        }
        return result;
    };
    const std::string text = qel_wine_exec_capture("regedit.exe", nullptr, 0);
    return text.empty() ? "nothing" : text;
}

std::string as_child(Ground &ground, std::string (*run)(Ground &))
{
    ground.fork_gives_child();
    return run(ground);
}

/// What a child, or a stop, has in hand: the pair for the input.

const std::vector<Scenario> programs = {
    {"ExecWaitChecked", run_checked},
    {"ExecWaitCheckedOfAToolThatIsKilled", [](Ground &ground) { return run_to_its_end(ground, SIGKILL); }},
    {"ExecWaitCheckedOfAToolThatFails", [](Ground &ground) { return run_to_its_end(ground, 1 << 8); }},
    {"ExecWaitCheckedInTheChild", [](Ground &ground) { return as_child(ground, run_checked); }},
    {"ExecWait", run_unchecked},
    {"ExecWaitInTheChild", [](Ground &ground) { return as_child(ground, run_unchecked); }},
    {"WineExecCapture", capture, {"nothing", "t", "tex"}},
    {"WineExecCaptureInTheChild", [](Ground &ground) { return as_child(ground, capture); }},
};

// ---- Links ----

std::string make_link(Ground &)
{
    return qel_symlink("/tmp", "/qel_home") ? "made" : "0";
}

const std::vector<Scenario> links = {
    {"Symlink", make_link},
};

// ---- Dumps ----

std::string dump_folder(Ground &ground)
{
    ground.disk.make_file("/a/file", "12345");
    qel_dump_folder("/a");
    return "dumped";
}

std::string dump_file(Ground &ground)
{
    ground.disk.make_file("/file", "first\nsecond\n");
    qel_dump_file("/file");
    return "dumped";
}

std::string dump_processes(Ground &ground)
{
    ground.disk.make_file("/proc/12/status", "Name: x\n");
    ground.disk.make_file("/proc/version");
    qel_dump_processes();
    return "dumped";
}

#define DASHES "----------------------------------------\n"

const std::vector<Scenario> dumps = {
    {"DumpFolder", dump_folder},
    {"DumpFile", dump_file},
    {"DumpProcesses", dump_processes},
};

} // namespace

INSTANTIATE_TAPES(programs, programs);
INSTANTIATE_TAPES(links, links);
INSTANTIATE_TAPES(dumps, dumps);
