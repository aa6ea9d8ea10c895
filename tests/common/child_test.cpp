// Children: started, failing to start, and their ends.

#include "common/child.h"

#include <errno.h>
#include <fcntl.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <gmock/gmock.h>

#include <stdexcept>

using testing::HasSubstr;
using testing::StartsWith;
using testing::ThrowsMessage;

namespace
{

bool fork_fails = false;
int kills = 0;

} // namespace

extern "C" {

pid_t __real_fork();
pid_t __wrap_fork();
int __real_kill(pid_t process, int signal);
int __wrap_kill(pid_t process, int signal);

pid_t __wrap_fork()
{
    if (!fork_fails)
        return __real_fork();
    errno = EAGAIN;
    return -1;
}

int __wrap_kill(pid_t process, int signal)
{
    ++kills;
    return __real_kill(process, signal);
}
}

namespace
{

struct WithoutFork {
    WithoutFork()
    {
        fork_fails = true;
        kills = 0;
    }
    ~WithoutFork()
    {
        fork_fails = false;
    }
};

TEST(RunTool, ReturnsWhatTheToolPrintsErrorsIncluded)
{
    EXPECT_EQ(run_tool({"sh", "-c", "echo one; echo two >&2"}), "one\ntwo\n");
}

TEST(RunTool, GivesTheToolItsInput)
{
    EXPECT_EQ(run_tool({"cat"}, "a\nb"), "a\nb");
}

TEST(RunTool, ThrowsWhatAFailingToolHasPrinted)
{
    EXPECT_THAT(
        [] {
            run_tool({"sh", "-c", "echo reason; exit 3"});
        },
        ThrowsMessage<std::runtime_error>(StartsWith("the tool sh failed:\nreason\n")));
}

TEST(RunTool, ThrowsWhenTheFileIsNotAProgram)
{
    EXPECT_THAT([] { run_tool({"/etc/passwd"}); },
                ThrowsMessage<std::runtime_error>("/etc/passwd: cannot be started: Permission denied"));
}

TEST(RunTool, ThrowsWithoutAProcessAndReapsNoOtherChild)
{
    pid_t other = start_child({.words = {"sleep", "60"}});
    {
        const WithoutFork nothing_starts;
        EXPECT_THAT([] { run_tool({"true"}); }, ThrowsMessage<std::runtime_error>(HasSubstr("no process: ")));
        EXPECT_EQ(kills, 0);
    }
    EXPECT_EQ(kill(other, SIGTERM), 0) << "it is there still";
    EXPECT_EQ(wait_for_child(other), SIGTERM);
}

TEST(StartChild, ThrowsWithoutAProcessAndKillsNothing)
{
    const WithoutFork nothing_starts;
    EXPECT_THAT([] { start_child({.words = {"true"}}); },
                ThrowsMessage<std::runtime_error>(HasSubstr("no process: ")));
    EXPECT_EQ(kills, 0);
}

TEST(StartChild, ThrowsWhenTheProgramIsNotThere)
{
    EXPECT_THAT(
        [] { start_child({.words = {"/no/such/program"}}); },
        ThrowsMessage<std::runtime_error>("/no/such/program: cannot be started: No such file or directory"));
    EXPECT_EQ(waitpid(-1, nullptr, WNOHANG), -1) << "nothing is left to wait for";
}

TEST(StartChild, HandsOnOnlyTheDescriptorsNamed)
{
    int ends[2];
    ASSERT_EQ(pipe2(ends, O_CLOEXEC), 0);
    std::string given = std::to_string(ends[1]), kept = std::to_string(ends[0]);
    pid_t child = start_child(
        {.words = {"sh", "-c", "test -e /proc/self/fd/" + given + " && ! test -e /proc/self/fd/" + kept},
         .inherited = {ends[1]}});
    EXPECT_EQ(wait_for_child(child), 0);
    close(ends[0]);
    close(ends[1]);
}

TEST(StartChild, EndsWithTheProcessThatStartedIt)
{
    int ends[2];
    ASSERT_EQ(pipe(ends), 0);
    pid_t parent = fork();
    if (parent == 0) {
        close(ends[0]);
        start_child({.words = {"sleep", "600"}}); // keeps the pipe open as long as it lives
        _exit(0);
    }
    close(ends[1]);
    EXPECT_EQ(wait_for_child(parent), 0);
    char byte;
    EXPECT_EQ(read(ends[0], &byte, 1), 0);
    close(ends[0]);
}

TEST(FindTool, FindsWhatDebianKeepsForRoot)
{
    setenv("PATH", "/usr/bin:/bin", 1);
    EXPECT_THAT(find_tool("sfdisk"), testing::MatchesRegex("(/usr)?/sbin/sfdisk"));
}

TEST(FindTool, ThrowsWithAdviceWhenAProgramIsMissing)
{
    EXPECT_THAT([] { find_tool("no-such-tool"); },
                ThrowsMessage<std::runtime_error>("no-such-tool: not found; run machine/set_up.sh"));
}

} // namespace
