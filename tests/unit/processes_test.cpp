// Children fed through a socket pair and waited for, Wine's output, and symbolic links. Where it can be,
// the children are real programs of this machine.

#include "support/output.h"
#include "support/scratch_disk.h"
#include "support/stops.h"
#include "support/transcript.h"

#include "qel_utility/qel_filesystem/processes.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <limits.h>
#include <string.h>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

// ---- What both ways to run a program share ----

static const char cat[] = "/bin/cat";
static const char shell[] = "/bin/sh";

struct Runner {
    const char *name;
    void (*run)(const char *path, const char *const argv[], const char *const envp[], const char *input_text);
};

static void PrintTo(const Runner &runner, std::ostream *stream)
{
    *stream << runner.name;
}

struct ExecWaitBoth : testing::TestWithParam<Runner> {
    void run(const char *path, const std::vector<const char *> &arguments, const char *input_text = nullptr,
             const char *const environment[] = nullptr) const
    {
        std::vector<const char *> argv = arguments;
        argv.push_back(nullptr);
        GetParam().run(path, argv.data(), environment, input_text);
    }
    std::string output(const char *path, const std::vector<const char *> &arguments,
                       const char *input_text = nullptr, const char *const environment[] = nullptr) const
    {
        return output_of([&] { run(path, arguments, input_text, environment); });
    }

    FakeKernel kernel;
};

static const Runner runners[] = {
    {"Checked", qel_exec_wait_checked},
    {"Unchecked", qel_exec_wait},
};
INSTANTIATE_TEST_SUITE_P(, ExecWaitBoth, testing::ValuesIn(runners),
                         [](const auto &runner) { return runner.param.name; });

TEST_P(ExecWaitBoth, GivesTheChildExactlyTheTextAndThenTheEndOfInput)
{
    EXPECT_EQ(output(cat, {cat}, ",8,4,*\n,28,L\n"), ",8,4,*\n,28,L\n");
}

TEST_P(ExecWaitBoth, TakesAnEmptyTextAsGiven)
{
    EXPECT_EQ(output(cat, {cat}), "");
    EXPECT_THAT(kernel.calls("write"), IsEmpty());
    EXPECT_EQ(output(cat, {cat}, ""), "");
    EXPECT_EQ(kernel.count("write"), 1);
}

TEST_P(ExecWaitBoth, HandsOverTheArgumentsAsTheyAre)
{
    EXPECT_EQ(output("/bin/echo", {"called so", "two words", "$HOME", "*"}), "two words $HOME *\n");
}

TEST_P(ExecWaitBoth, GivesNoEnvironmentUnlessItIsGivenOne)
{
    setenv("QEL_TEST_LEAK", "1", 1);
    EXPECT_EQ(output("/usr/bin/env", {"env"}), "");
    const char *const environment[] = {"A=1", "B=two words", nullptr};
    EXPECT_EQ(output("/usr/bin/env", {"env"}, nullptr, environment), "A=1\nB=two words\n");
    unsetenv("QEL_TEST_LEAK");
}

TEST_P(ExecWaitBoth, WaitsForTheEndOfTheChild)
{
    const Scratch scratch;
    const std::string script = "sleep 0.05; echo done > " + scratch.at("mark");
    output(shell, {shell, "-c", script.c_str()});
    EXPECT_EQ(scratch.content("mark"), "done\n");
}

TEST_P(ExecWaitBoth, WritesTheWholeTextInOneGo)
{
    const std::string text(100000, 'x');
    EXPECT_EQ(output(cat, {cat}, text.c_str()), text);
    EXPECT_EQ(kernel.count("write"), 1);
}

// ---- qel_exec_wait_checked ----

struct ExecWaitChecked : testing::Test {
    static void run_script(const char *script)
    {
        const char *const argv[] = {shell, "-c", script, nullptr};
        qel_exec_wait_checked(shell, argv, nullptr, nullptr);
    }
    /// Lets waitpid give these answers, one after another, each with its status word.
    void answer(const std::vector<std::pair<pid_t, int>> &answers)
    {
        kernel.on_fork = [] { return 4711; };
        kernel.on_waitpid = [answers, next = 0U](pid_t, int *status, int) mutable {
            *status = answers.at(next).second;
            errno = EINTR;
            return answers.at(next++).first;
        };
    }

    FakeKernel kernel;
};

TEST_F(ExecWaitChecked, StopsOnAnExitCodeOtherThan0)
{
    EXPECT_STOPS_AT(2117, run_script("exit 1"));
    EXPECT_STOPS_AT(2117, run_script("exit 255"));
}

TEST_F(ExecWaitChecked, StopsOnAChildKilledByASignal)
{
    EXPECT_STOPS_AT(2116, run_script("kill -9 $$"));
}

TEST_F(ExecWaitChecked, JudgesTheSignalBeforeTheExitCode)
{
    answer({{4711, 0x0109}});
    EXPECT_STOPS_AT(2116, run_script(""));
}

TEST_F(ExecWaitChecked, WaitsUntilItGetsExactlyItsChildWithoutSleeping)
{
    answer({{-1, 0}, {5, 0x0100}, {0, 9}, {4711, 0}});
    run_script("");
    EXPECT_THAT(kernel.calls("waitpid sleep usleep"),
                ElementsAre("waitpid 4711 0", "waitpid 4711 0", "waitpid 4711 0", "waitpid 4711 0"));
}

TEST_F(ExecWaitChecked, LooksOnlyAtTheSignalNumberAndTheExitCode)
{
    // 0x80: a core was dumped
    answer({{4711, 0x10080}});
    EXPECT_FALSE(stop_of([] { run_script(""); }).stopped);
}

// ---- qel_exec_wait ----

struct ExecWait : ExecWaitChecked {
    static std::string run_script(const char *script)
    {
        const char *const argv[] = {shell, "-c", script, nullptr};
        return output_of([&] { qel_exec_wait(shell, argv, nullptr, nullptr); });
    }
};

TEST_F(ExecWait, DoesNotJudgeHowTheChildEnded)
{
    EXPECT_EQ(run_script("exit 1"), "");
    EXPECT_EQ(run_script("kill -9 $$"), "");
}

TEST_F(ExecWait, EndsWithAnyAnswerOf0OrMore)
{
    answer({{5, 0}});
    EXPECT_EQ(run_script(""), "");
    answer({{0, 0}});
    EXPECT_EQ(run_script(""), "");
    EXPECT_EQ(kernel.count("waitpid"), 2);
    EXPECT_EQ(kernel.count("close"), 4);
}

TEST_F(ExecWait, WaitsAgainWhenASignalInterruptsIt)
{
    answer({{-1, 0x0100}, {-1, 0x0100}, {4711, 0}});
    EXPECT_EQ(run_script(""), "");
    EXPECT_EQ(kernel.count("waitpid"), 3);
}

TEST_F(ExecWait, PrintsTheExitCodeByteAndThePathWhenTheWaitItselfFails)
{
    kernel.on_fork = [] { return 4711; };
    kernel.on_waitpid = [](pid_t, int *status, int) {
        *status = 0x1234;
        errno = ECHILD;
        return -1;
    };
    EXPECT_EQ(run_script(""), "exit 18: /bin/sh\n");
    EXPECT_EQ(kernel.count("waitpid"), 1);
    EXPECT_EQ(kernel.count("close"), 2);
}

// ---- qel_wine_exec_capture ----

/// Wine is a shell script here.
struct WineExecCapture : testing::Test {
    WineExecCapture()
    {
        kernel.redirect("/usr/wine", disk.path());
    }

    std::string capture(const std::string &script, const std::vector<const char *> &arguments = {})
    {
        disk.make_file("bin/wine", "#!/bin/sh\n" + script, 0755);
        return qel_wine_exec_capture("prog.exe", arguments.data(), static_cast<int>(arguments.size()));
    }

    Scratch disk;
    FakeKernel kernel;
};

TEST_F(WineExecCapture, RunsWineWithTheProgramAndItsArgumentsOrNone)
{
    // The child in this process: descriptors stay, nothing is executed.
    kernel.on_fork = [] { return 0; };
    kernel.on_dup2 = [](int, int to) { return to; };
    kernel.fail("execve", ENOENT);
    EXPECT_STOPS_AT(1744, capture("", {"/S", "two words"}));
    EXPECT_THAT(kernel.calls("execve"),
                ElementsAre("execve /usr/wine/bin/wine [/usr/wine/bin/wine prog.exe /S two words] "
                            "[HOME=/qel_home TERM=linux WINEDEBUG=fixme-all,warn-all "
                            "LD_LIBRARY_PATH=/usr/xorg/lib DISPLAY=unix:0]"));
    for (const int count : {0, -1, -2, -3, INT_MIN}) {
        kernel.forget_calls();
        EXPECT_STOPS_AT(1744, qel_wine_exec_capture("prog.exe", nullptr, count));
        EXPECT_THAT(kernel.calls("execve"),
                    ElementsAre(StartsWith("execve /usr/wine/bin/wine [/usr/wine/bin/wine prog.exe] [")))
            << count;
    }
}

TEST_F(WineExecCapture, HandsTheArgumentsToTheRealChild)
{
    EXPECT_EQ(capture("printf '%s,' \"$@\" \"$HOME\"", {"/S", "two words"}),
              "prog.exe,/S,two words,/qel_home,");
}

TEST_F(WineExecCapture, GivesTheChildNoInput)
{
    EXPECT_EQ(capture("cat; printf 'end of input'"), "end of input");
}

TEST_F(WineExecCapture, LeavesWhatIsNotPrintedYetAlone)
{
    Output output;
    printf("not yet");
    EXPECT_EQ(capture("echo text"), "text\n");
    EXPECT_EQ(output.flushed(), "");
    EXPECT_EQ(output.text(), "not yet");
}

TEST_F(WineExecCapture, LeavesTheErrorStreamOfTheChildAlone)
{
    testing::internal::CaptureStderr();
    EXPECT_EQ(capture("echo error >&2; printf output"), "output");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "error\n");
}

TEST_F(WineExecCapture, CutsOutputAtWhatTheFirstReadReturned)
{
    kernel.shorten_nth("read", 1, 4);
    EXPECT_EQ(capture("printf 'longer output'"), "long");
    EXPECT_EQ(kernel.count("read"), 1);
}

TEST_F(WineExecCapture, ReadsAtMost10239BytesAndTerminatesThem)
{
    kernel.on_read = [](int, void *buffer, size_t size) {
        memset(buffer, 'x', size);
        return static_cast<ssize_t>(size);
    };
    EXPECT_EQ(capture(""), std::string(10239, 'x'));
}

TEST_F(WineExecCapture, StopsOnAReadThatFillsTheWholeBuffer)
{
    kernel.on_read = [](auto...) { return 10240; };
    EXPECT_STOPS_AT(1762, capture(""));
}

TEST_F(WineExecCapture, IsEmptyAfterAReadThatFailsOrGivesNothing)
{
    kernel.on_read = [](auto...) { return 0; };
    EXPECT_EQ(capture("printf output"), "");
    kernel.on_read = nullptr;
    EXPECT_EQ(capture("printf output"), "output");
    kernel.fail("read", EIO);
    EXPECT_EQ(capture("printf output"), "");
}

TEST_F(WineExecCapture, OverwritesItsOneBuffer)
{
    disk.make_file("bin/wine", "#!/bin/sh\nprintf \"$1\"", 0755);
    const char *first = qel_wine_exec_capture("first", nullptr, 0);
    EXPECT_STREQ(first, "first");
    const char *second = qel_wine_exec_capture("2nd", nullptr, 0);
    EXPECT_EQ(first, second);
    EXPECT_STREQ(first, "2nd");
}

TEST_F(WineExecCapture, WaitsAgainOnlyWhenASignalInterruptsIt)
{
    kernel.on_fork = [] { return 4711; };
    kernel.on_read = [](auto...) { return 0; };
    int count = 0;
    kernel.on_waitpid = [&](pid_t, int *status, int) {
        *status = 0x0500;
        errno = ++count < 3 ? EINTR : ECHILD;
        return -1;
    };
    EXPECT_EQ(output_of([&] { EXPECT_EQ(capture(""), ""); }), "exit 5: /usr/wine/bin/wine\n");
    EXPECT_EQ(count, 3);
}

// ---- qel_symlink ----

struct Symlink : OnScratchDisk {
    int link(const char *name, const char *target)
    {
        int result = -1;
        printed = output_of([&] { result = qel_symlink(name, target); });
        return result;
    }
    std::string printed;
};

TEST_F(Symlink, ReplacesAnExistingLinkAndAnExistingFile)
{
    disk.make_link("/qel_home", "elsewhere");
    EXPECT_NE(link("/tmp", "/qel_home"), 0);
    EXPECT_EQ(disk.link_content("/qel_home"), "/tmp");

    disk.make_file("/file", "text");
    EXPECT_NE(link("/tmp", "/file"), 0);
    EXPECT_EQ(disk.link_content("/file"), "/tmp");
}

TEST_F(Symlink, OntoAFolderPrintsEexistAndReturnsNormally)
{
    disk.make_folder("/qel_home");
    EXPECT_NE(link("/tmp", "/qel_home"), 0);
    EXPECT_EQ(printed, "/tmp -> /qel_home\nsymlink error : EEXIST\nerror code : 17\n");
    EXPECT_TRUE(disk.is_folder("/qel_home"));
}

TEST_F(Symlink, NamesTheErrorThenStops)
{
    static const struct {
        int error;
        const char *lines;
    } cases[] = {
        {EROFS, "symlink error : EROFS\nerror code : 30\n"},
        {ENOSPC, "symlink error : ENOSPC\nerror code : 28\n"},
        {EIO, "symlink error : EIO\nerror code : 5\n"},
        {EACCES, "symlink error : EACCES\nerror code : 13\n"},
        {ENAMETOOLONG, "symlink error : ENAMETOOLONG\nerror code : 36\n"},
        {ENOENT, "symlink error : ENOENT\nerror code : 2\n"},
        {ENOTDIR, "symlink error : ENOTDIR\nerror code : 20\n"},
        {EPERM, "error code : 1\n"},
        {ELOOP, "symlink error : ELOOP\nerror code : 40\n"},
    };
    for (const auto &each : cases) {
        kernel.fail("symlink", each.error);
        const StopResult stop = stop_of([] { qel_symlink("/tmp", "/qel_home"); });
        EXPECT_EQ(stop.line, 1892);
        EXPECT_EQ(stop.output, std::string("/tmp -> /qel_home\n") + each.lines);
    }
}

TEST_F(Symlink, ChecksInOrder)
{
    EXPECT_STOPS_AT(1852, qel_symlink(nullptr, nullptr));
    EXPECT_STOPS_AT(1853, qel_symlink("", nullptr));
    EXPECT_STOPS_AT(1854, qel_symlink("/tmp", nullptr));
    EXPECT_STOPS_AT(1855, qel_symlink("/tmp", ""));
    EXPECT_THAT(kernel.calls(), IsEmpty());
}

TEST_F(Symlink, ChecksNoPathRules)
{
    disk.make_folder("/a");
    const WorkingFolder here(disk.path());
    EXPECT_NE(link("C:\\x", "a//l:nk"), 0);
    EXPECT_EQ(disk.link_content("/a/l:nk"), "C:\\x");
}
