// Starting programs, making links, and dumps.

#include "tapes/golden.h"

#include "qel_utility/qel_filesystem.h"

#include <signal.h>

namespace
{

// ---- Running programs ----

const char *const tool_arguments[] = {"/bin/tool", nullptr};

void run_checked()
{
    qel_exec_wait_checked("/bin/tool", tool_arguments, nullptr, "input");
}

void run_unchecked()
{
    qel_exec_wait("/bin/tool", tool_arguments, nullptr, "input");
}

/// What becomes of a tool that ends with `status`, as wait has it.
Scenario run_to_its_end(const char *name, int status)
{
    const auto run = [=](Ground &ground) {
        ground.ended = {{Ground::child, status}};
        run_checked();
    };
    return cut({name, run}, "waitpid *");
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

Scenario as_child(const char *name, const Piece &piece)
{
    const auto run = [=](Ground &ground) {
        ground.fork_gives_child();
        return piece.run(ground);
    };
    return {name, run};
}

const std::vector<Scenario> programs = {
    {"ExecWaitChecked", run_checked},
    run_to_its_end("ExecWaitCheckedOfAToolThatIsKilled", SIGKILL),
    run_to_its_end("ExecWaitCheckedOfAToolThatFails", 1 << 8),
    as_child("ExecWaitCheckedInTheChild", run_checked),
    {"ExecWait", run_unchecked},
    as_child("ExecWaitInTheChild", run_unchecked),
    {"WineExecCapture", capture, {"nothing", "t", "tex"}},
    as_child("WineExecCaptureInTheChild", capture),
};

// ---- Links and dumps ----

void dump_folder(Ground &ground)
{
    ground.disk.make_file("/a/file", "12345");
    qel_dump_folder("/a");
}

void dump_file(Ground &ground)
{
    ground.disk.make_file("/file", "first\nsecond\n");
    qel_dump_file("/file");
}

void dump_processes(Ground &ground)
{
    ground.disk.make_file("/proc/12/status", "Name: x\n");
    ground.disk.make_file("/proc/version");
    qel_dump_processes();
}

const std::vector<Scenario> dumps = {
    {"DumpFolder", dump_folder},
    {"DumpFile", dump_file},
    {"DumpProcesses", dump_processes},
};

} // namespace

INSTANTIATE_TAPES(programs, programs);
INSTANTIATE_TAPES(links, {{"Symlink", [] { return qel_symlink("/tmp", "/qel_home"); }}});
INSTANTIATE_TAPES(dumps, dumps);
