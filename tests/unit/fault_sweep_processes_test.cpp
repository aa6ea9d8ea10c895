// What failing calls lead to in starting programs, making links and dumps.

#include "support/fault_product_rules.h"

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

std::vector<Rule> start_rules(int socketpair_line, int fork_line, int write_line)
{
    return {{"socketpair *", any_fault, stops("!err", filesystem_unit, socketpair_line)},
            {"fork", any_fault, stops("pid != -1", filesystem_unit, fork_line)},
            {"write 5", any_fault, stops("n == data_len", filesystem_unit, write_line)},
            {"shutdown 2", any_fault, ignored()}};
}

/// Waited for until its end is known.
const Rule checked_wait_rule = {"waitpid 4711 0", any_fault, ignored().goes_on_after({"waitpid 4711 0"})};
const Rule close_rule = {"close", any_fault, ignored()};

std::vector<Rule> child_rules(int socketpair_line, int exec_line, int fork_line)
{
    return {{"socketpair *", any_fault, stops("!err", filesystem_unit, socketpair_line)},
            {"fork", any_fault, stops("pid != -1", filesystem_unit, fork_line)},
            {"dup2 0", any_fault, ignored()},
            {"execve *", any_fault, stops("0", filesystem_unit, exec_line)}};
}

/// A wait that fails otherwise than by a signal is told, with a status that nobody filled.
std::vector<Rule> unjudged_wait_rules(const std::string &path)
{
    return {{"waitpid 4711 0", error({EINTR}), ignored().goes_on_after({"waitpid 4711 0"})},
            {"waitpid 4711 0", any_fault, ignored().prints("exit 0: " + path + "\n")}};
}

/// What a child, or a stop, has in hand: the pair for the input.
const char *const both_ends = "socket socket";

const std::vector<Rule> killed_tool_rules = rules_of({start_rules(2093, 2103, 2109), {checked_wait_rule}});

const std::vector<Scenario> programs = {
    {"ExecWaitChecked", "ended", run_checked,
     rules_of({start_rules(2093, 2103, 2109), {checked_wait_rule, close_rule}})},
    {"ExecWaitCheckedOfAToolThatIsKilled", "stopped at 2116",
     [](Ground &ground) { return run_to_its_end(ground, SIGKILL); }, killed_tool_rules, 0, both_ends},
    {"ExecWaitCheckedOfAToolThatFails", "stopped at 2117",
     [](Ground &ground) { return run_to_its_end(ground, 1 << 8); }, killed_tool_rules, 0, both_ends},
    {"ExecWaitCheckedInTheChild", "became /bin/tool",
     [](Ground &ground) { return as_child(ground, run_checked); }, child_rules(2093, 2101, 2103), 0,
     both_ends},
    {"ExecWait", "ended", run_unchecked,
     rules_of({start_rules(1686, 1696, 1702), unjudged_wait_rules("/bin/tool"), {close_rule}})},
    {"ExecWaitInTheChild", "became /bin/tool", [](Ground &ground) { return as_child(ground, run_unchecked); },
     child_rules(1686, 1694, 1696), 0, both_ends},
    {"WineExecCapture", "text", capture,
     rules_of({{{"socketpair * #1", any_fault, stops("!err", filesystem_unit, 1731)},
                {"socketpair * #2", any_fault, stops("!err", filesystem_unit, 1734)},
                {"fork", any_fault, stops("pid != -1", filesystem_unit, 1746)},
                {"shutdown 2", any_fault, ignored()},
                {"read 10239", moves(1), gives("t").goes_on()},
                {"read 10239", moves(3), gives("tex").goes_on()},
                {"read 10239", error_or_nothing, gives("nothing").goes_on()},
                {"close", any_fault, ignored()}},
               unjudged_wait_rules("/usr/wine/bin/wine")})},
    {"WineExecCaptureInTheChild",
     "became /usr/wine/bin/wine",
     [](Ground &ground) { return as_child(ground, capture); },
     {{"socketpair * #1", any_fault, stops("!err", filesystem_unit, 1731)},
      {"socketpair * #2", any_fault, stops("!err", filesystem_unit, 1734)},
      {"fork", any_fault, stops("pid != -1", filesystem_unit, 1746)},
      {"dup2 0", any_fault, ignored()},
      {"dup2 1", any_fault, ignored()},
      {"execve *", any_fault, stops("0", filesystem_unit, 1744)}},
     0,
     "socket socket socket socket"},
};

// ---- Links ----

std::string make_link(Ground &)
{
    return qel_symlink("/tmp", "/qel_home") ? "made" : "0";
}

const std::vector<Scenario> links = {
    {"Symlink", "made", make_link,
     rules_of({{{"unlink /qel_home", any_fault, ignored()}}, symlink_rules(ignored())})}};

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
    {"DumpFolder",
     "dumped",
     dump_folder,
     {{"opendir /a", any_fault, gives("dumped").prints("/a:\n")},
      {"readdir #1", any_fault, gives("dumped").then({"closedir"}).prints("/a:\n")},
      {"readdir #2", any_fault, ignored()},
      {"stat /a/file", any_fault, ignored().prints("/a: file (can't stat)\n")},
      {"closedir", any_fault, ignored()}}},
    {"DumpFile",
     "dumped",
     dump_file,
     {{"fopen /file rb", any_fault, gives("dumped").prints(DASHES "/file\n" DASHES DASHES "\n")},
      {"fgets 1000 #1", any_fault,
       gives("dumped").then({"fclose"}).prints(DASHES "/file\n" DASHES DASHES "\n")},
      {"fgets 1000 #2", any_fault,
       gives("dumped").then({"fclose"}).prints(DASHES "/file\n" DASHES "first\n" DASHES "\n")},
      {"fgets 1000 #3", any_fault, ignored()},
      {"fclose", any_fault, ignored()}}},
    {"DumpProcesses",
     "dumped",
     dump_processes,
     {{"opendir /proc", any_fault, gives("dumped").prints("\n")},
      {"readdir #1", any_fault, gives("dumped").then({"closedir"}).prints("\n")},
      {"readdir", any_fault, gives("dumped").then({"closedir"})},
      {"fopen /proc/12/status rb", any_fault,
       ignored()
           .goes_on_without({"fgets 1000", "fclose"})
           .prints(DASHES "/proc/12/status\n" DASHES DASHES "\n\n")},
      {"fgets 1000 #1", any_fault,
       ignored().goes_on_without({"fgets 1000"}).prints(DASHES "/proc/12/status\n" DASHES DASHES "\n\n")},
      {"fgets 1000 #2", any_fault, ignored()},
      {"fclose", any_fault, ignored()},
      {"closedir", any_fault, ignored()}}},
};

} // namespace

INSTANTIATE_SWEEP(Programs, programs);
INSTANTIATE_SWEEP(Links, links);
INSTANTIATE_SWEEP(Dumps, dumps);
