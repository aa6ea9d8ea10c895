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

// ---- The environment ----

TEST(LoaderEnvironment, IsTheFiveStringsInOrder)
{
    EXPECT_STREQ(qel_loader_env[0], "HOME=/qel_home");
    EXPECT_STREQ(qel_loader_env[1], "TERM=linux");
    EXPECT_STREQ(qel_loader_env[2], "WINEDEBUG=fixme-all,warn-all");
    EXPECT_STREQ(qel_loader_env[3], "LD_LIBRARY_PATH=/usr/xorg/lib");
    EXPECT_STREQ(qel_loader_env[4], "DISPLAY=unix:0");
    EXPECT_EQ(qel_loader_env[5], nullptr);
}

// ---- What both ways to run a program share ----

static const char cat[] = "/bin/cat";
static const char shell[] = "/bin/sh";

/// The two functions, with the lines of their checks.
struct Runner {
    const char *name;
    void (*run)(const char *path, const char *const argv[], const char *const envp[], const char *input_text);
    int socketpair_line, exec_line, fork_line, write_line;
};

class ExecWaitBoth : public testing::TestWithParam<Runner>
{
  protected:
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
    /// Lets fork answer with a child that does not exist and has ended well.
    void invent_child()
    {
        kernel.on_fork = [] { return 4711; };
        kernel.on_waitpid = [](pid_t process, int *status, int) {
            *status = 0;
            return process;
        };
    }
    /// Plays the child in this process: descriptors stay, nothing is executed.
    void play_child()
    {
        kernel.on_fork = [] { return 0; };
        kernel.on_dup2 = [](int, int to) { return to; };
        kernel.fail("execve", ENOENT);
    }
    /// The calls without their arguments.
    std::vector<std::string> names() const
    {
        std::vector<std::string> all;
        for (const std::string &call : kernel.calls())
            all.push_back(call.substr(0, call.find(' ')));
        return all;
    }

    FakeKernel kernel;
};

static const Runner runners[] = {
    {"Checked", qel_exec_wait_checked, 2093, 2101, 2103, 2109},
    {"Unchecked", qel_exec_wait, 1686, 1694, 1696, 1702},
};
INSTANTIATE_TEST_SUITE_P(, ExecWaitBoth, testing::ValuesIn(runners),
                         [](const auto &runner) { return runner.param.name; });

TEST_P(ExecWaitBoth, GivesTheChildExactlyTheTextAndThenTheEndOfInput)
{
    EXPECT_EQ(output(cat, {cat}, ",8,4,*\n,28,L\n"), ",8,4,*\n,28,L\n");
}

TEST_P(ExecWaitBoth, ClosesTheChildsInputAtOnceWithoutAText)
{
    EXPECT_EQ(output(cat, {cat}), "");
    EXPECT_THAT(kernel.calls("write"), IsEmpty());
}

TEST_P(ExecWaitBoth, TakesAnEmptyTextAsGiven)
{
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

TEST_P(ExecWaitBoth, SendsTheTextAndShutsDownBeforeItWaitsAndClosesBothEndsLast)
{
    invent_child();
    run(cat, {cat}, "text");
    EXPECT_THAT(names(), ElementsAre("socketpair", "fork", "write", "shutdown", "waitpid", "close", "close"));
}

TEST_P(ExecWaitBoth, UsesALocalStreamAndShutsItsOwnEndDownBothWays)
{
    invent_child();
    int ends[2] = {-1, -1};
    kernel.on_socketpair = [&](int domain, int type, int protocol, int *pair) {
        const int result = real_socketpair(domain, type, protocol, pair);
        ends[0] = pair[0];
        ends[1] = pair[1];
        return result;
    };
    run(cat, {cat}, "text");
    const std::string own = std::to_string(ends[1]);
    // AF_UNIX, SOCK_STREAM, protocol 0; SHUT_RDWR
    EXPECT_THAT(kernel.calls("socketpair write shutdown close"),
                ElementsAre("socketpair 1 1 0", "write " + own + " 4", "shutdown " + own + " 2",
                            "close " + std::to_string(ends[0]), "close " + own));
}

TEST_P(ExecWaitBoth, WritesTheWholeTextInOneGo)
{
    const std::string text(100000, 'x');
    EXPECT_EQ(output(cat, {cat}, text.c_str()), text);
    EXPECT_EQ(kernel.count("write"), 1);
}

TEST_P(ExecWaitBoth, GivesTheChildTheFirstEndAsItsStandardInput)
{
    play_child();
    int first_end = -1;
    kernel.on_socketpair = [&](int domain, int type, int protocol, int *pair) {
        const int result = real_socketpair(domain, type, protocol, pair);
        first_end = pair[0];
        return result;
    };
    const char *const environment[] = {"A=1", nullptr};
    EXPECT_STOPS("0", filesystem_unit, GetParam().exec_line, run("/no", {"/no", "x"}, "text", environment));
    EXPECT_THAT(kernel.calls("dup2 execve write close"),
                ElementsAre("dup2 " + std::to_string(first_end) + " 0", "execve /no [/no x] [A=1]"));
}

TEST_P(ExecWaitBoth, StopsWithoutASocketPair)
{
    kernel.fail("socketpair", EMFILE);
    EXPECT_STOPS("!err", filesystem_unit, GetParam().socketpair_line, run(cat, {cat}));
    EXPECT_EQ(kernel.count("fork"), 0);
}

TEST_P(ExecWaitBoth, StopsWithoutAChild)
{
    kernel.fail("fork", EAGAIN);
    EXPECT_STOPS("pid != -1", filesystem_unit, GetParam().fork_line, run(cat, {cat}, "text"));
    EXPECT_EQ(kernel.count("write"), 0);
}

TEST_P(ExecWaitBoth, StopsOnAShortOrFailedWrite)
{
    invent_child();
    kernel.shorten_nth("write", 1, 2);
    EXPECT_STOPS("n == data_len", filesystem_unit, GetParam().write_line, run(cat, {cat}, "text"));
    kernel.fail("write", EPIPE);
    EXPECT_STOPS("n == data_len", filesystem_unit, GetParam().write_line, run(cat, {cat}, "text"));
    EXPECT_EQ(kernel.count("shutdown"), 0);
}

TEST_P(ExecWaitBoth, PrintsNothingOfItsOwn)
{
    EXPECT_EQ(output("/bin/true", {"true"}, "text"), "");
}

// ---- qel_exec_wait_checked ----

static const char signal_text[] = "((((__extension__ (((union { __typeof(status) __in; int __i; }) { .__in = "
                                  "(status) }).__i))) & 0x7f) == 0)";
static const char exit_code_text[] =
    "((((__extension__ (((union { __typeof(status) __in; int __i; }) { .__in = "
    "(status) }).__i))) & 0xff00) >> 8) == 0";

class ExecWaitChecked : public testing::Test
{
  protected:
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
    EXPECT_STOPS(exit_code_text, filesystem_unit, 2117, run_script("exit 1"));
    EXPECT_STOPS(exit_code_text, filesystem_unit, 2117, run_script("exit 255"));
}

TEST_F(ExecWaitChecked, StopsOnAChildKilledByASignal)
{
    EXPECT_STOPS(signal_text, filesystem_unit, 2116, run_script("kill -9 $$"));
}

TEST_F(ExecWaitChecked, JudgesTheSignalBeforeTheExitCode)
{
    answer({{4711, 0x0109}});
    EXPECT_STOPS(signal_text, filesystem_unit, 2116, run_script(""));
}

TEST_F(ExecWaitChecked, WaitsUntilItGetsExactlyItsChildWithoutSleeping)
{
    answer({{-1, 0}, {5, 0x0100}, {0, 9}, {4711, 0}});
    run_script("");
    EXPECT_THAT(kernel.calls("waitpid sleep usleep"),
                ElementsAre("waitpid 4711 0", "waitpid 4711 0", "waitpid 4711 0", "waitpid 4711 0"));
}

TEST_F(ExecWaitChecked, WaitsForEverWhenThereIsNoSuchChild)
{
    kernel.on_fork = [] { return 4711; };
    kernel.fail("waitpid", ECHILD);
    kernel.leave_at("waitpid", 1000);
    EXPECT_THROW(run_script(""), LeftProduct);
}

TEST_F(ExecWaitChecked, LooksOnlyAtTheSignalNumberAndTheExitCode)
{
    // 0x80: a core was dumped
    answer({{4711, 0x10080}});
    EXPECT_FALSE(stop_of([] { run_script(""); }).stopped);
}

// ---- qel_exec_wait ----

class ExecWait : public ExecWaitChecked
{
  protected:
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

TEST_F(ExecWait, DoesNotFlushThatLine)
{
    kernel.on_fork = [] { return 4711; };
    kernel.fail("waitpid", ECHILD);
    const char *const argv[] = {shell, nullptr};
    Output output;
    qel_exec_wait(shell, argv, nullptr, nullptr);
    EXPECT_EQ(output.flushed(), "");
    EXPECT_EQ(output.text(), "exit 0: /bin/sh\n");
}

// ---- qel_wine_exec_capture ----

/// Wine is a shell script here.
class WineExecCapture : public testing::Test
{
  protected:
    WineExecCapture()
    {
        kernel.redirect("/usr/wine", disk.path());
    }

    std::string capture(const std::string &script, const std::vector<const char *> &arguments = {})
    {
        disk.make_file("bin/wine", "#!/bin/sh\n" + script, 0755);
        return qel_wine_exec_capture("prog.exe", arguments.data(), static_cast<int>(arguments.size()));
    }
    /// Plays the child in this process.
    void play_child()
    {
        kernel.on_fork = [] { return 0; };
        kernel.on_dup2 = [](int, int to) { return to; };
        kernel.fail("execve", ENOENT);
    }

    Scratch disk;
    FakeKernel kernel;
};

TEST_F(WineExecCapture, GivesWhatTheProgramPrints)
{
    EXPECT_EQ(capture("printf 'some output'"), "some output");
}

TEST_F(WineExecCapture, RunsWineWithTheProgramAndItsArguments)
{
    play_child();
    EXPECT_STOPS("0", filesystem_unit, 1744, capture("", {"/S", "two words"}));
    EXPECT_THAT(kernel.calls("execve"),
                ElementsAre("execve /usr/wine/bin/wine [/usr/wine/bin/wine prog.exe /S two words] "
                            "[HOME=/qel_home TERM=linux WINEDEBUG=fixme-all,warn-all "
                            "LD_LIBRARY_PATH=/usr/xorg/lib DISPLAY=unix:0]"));
}

TEST_F(WineExecCapture, TerminatesTheListAfterTheProgramWhenThereAreNoArguments)
{
    play_child();
    EXPECT_STOPS("0", filesystem_unit, 1744, capture(""));
    EXPECT_THAT(kernel.calls("execve"),
                ElementsAre(StartsWith("execve /usr/wine/bin/wine [/usr/wine/bin/wine prog.exe] [")));
    for (const int count : {-1, -2, -3, INT_MIN}) {
        kernel.forget_calls();
        EXPECT_STOPS("0", filesystem_unit, 1744, qel_wine_exec_capture("prog.exe", nullptr, count));
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
    EXPECT_STOPS("outbuf_count < out_size", filesystem_unit, 1762, capture(""));
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

TEST_F(WineExecCapture, DoesNotJudgeHowTheChildEnded)
{
    EXPECT_EQ(output_of([&] { EXPECT_EQ(capture("printf output; exit 3"), "output"); }), "");
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

TEST_F(WineExecCapture, ShutsTheInputDownReadsShutsTheOutputDownWaitsAndClosesAllEnds)
{
    kernel.on_fork = [] { return 4711; };
    kernel.on_read = [](auto...) { return 0; };
    kernel.on_waitpid = [](auto...) { return 4711; };
    std::vector<int> ends;
    kernel.on_socketpair = [&](int domain, int type, int protocol, int *pair) {
        const int result = real_socketpair(domain, type, protocol, pair);
        ends.insert(ends.end(), {pair[0], pair[1]});
        return result;
    };
    capture("");
    ASSERT_EQ(ends.size(), 4U);
    const auto end = [&](size_t n) { return std::to_string(ends[n]); };
    EXPECT_THAT(kernel.calls("socketpair fork shutdown read waitpid close"),
                ElementsAre("socketpair 1 1 0", "socketpair 1 1 0", "fork", "shutdown " + end(1) + " 2",
                            "read " + end(3) + " 10239", "shutdown " + end(3) + " 2", "waitpid 4711 0",
                            "close " + end(0), "close " + end(1), "close " + end(2), "close " + end(3)));
}

TEST_F(WineExecCapture, GivesTheChildTheFirstEndsAsInputAndOutput)
{
    play_child();
    std::vector<int> first_ends;
    kernel.on_socketpair = [&](int domain, int type, int protocol, int *pair) {
        const int result = real_socketpair(domain, type, protocol, pair);
        first_ends.push_back(pair[0]);
        return result;
    };
    EXPECT_STOPS("0", filesystem_unit, 1744, capture(""));
    ASSERT_EQ(first_ends.size(), 2U);
    EXPECT_THAT(kernel.calls("dup2"), ElementsAre("dup2 " + std::to_string(first_ends[0]) + " 0",
                                                  "dup2 " + std::to_string(first_ends[1]) + " 1"));
}

TEST_F(WineExecCapture, StopsWithoutItsSocketPairsOrItsChild)
{
    kernel.fail_nth("socketpair", 1, EMFILE);
    EXPECT_STOPS("!err", filesystem_unit, 1731, capture(""));
    kernel.fail_nth("socketpair", 3, EMFILE);
    EXPECT_STOPS("!err", filesystem_unit, 1734, capture(""));
    kernel.fail("fork", EAGAIN);
    EXPECT_STOPS("pid != -1", filesystem_unit, 1746, capture(""));
}

// ---- qel_symlink ----

class Symlink : public OnScratchDisk
{
  protected:
    int link(const char *name, const char *target)
    {
        int result = -1;
        printed = output_of([&] { result = qel_symlink(name, target); });
        return result;
    }
    std::string printed;
};

TEST_F(Symlink, MakesTheTargetALinkWhoseContentIsTheName)
{
    EXPECT_NE(link("/tmp", "/qel_home"), 0);
    EXPECT_EQ(disk.link_content("/qel_home"), "/tmp");
    EXPECT_EQ(printed, "/tmp -> /qel_home\n");
}

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

TEST_F(Symlink, UnlinksPlainlyBeforeItPrints)
{
    Transcript transcript(kernel, "chmod unlink symlink");
    transcript.unflushed = true;
    qel_symlink("/tmp", "/qel_home");
    EXPECT_THAT(transcript.lines(),
                ElementsAre("unlink /qel_home", "> /tmp -> /qel_home\n", "symlink /tmp /qel_home"));
}

TEST_F(Symlink, DoesNotFlushWhatItPrints)
{
    Output output;
    qel_symlink("/tmp", "/qel_home");
    kernel.fail("symlink", EEXIST);
    qel_symlink("/tmp", "/qel_home");
    EXPECT_EQ(output.flushed(), "");
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
        {ELOOP, "symlink error : ELOOP\nerror code : 40\n"},
    };
    for (const auto &each : cases) {
        kernel.fail("symlink", each.error);
        const StopResult stop = stop_of([] { qel_symlink("/tmp", "/qel_home"); });
        EXPECT_EQ(stop.text, "(*__errno_location ()) == 17");
        EXPECT_EQ(stop.unit, filesystem_unit);
        EXPECT_EQ(stop.line, 1892);
        EXPECT_EQ(stop.output, std::string("/tmp -> /qel_home\n") + each.lines);
    }
}

TEST_F(Symlink, PrintsTheCodeOfAnyOtherErrorAloneThenStops)
{
    kernel.fail("symlink", EPERM);
    const StopResult stop = stop_of([] { qel_symlink("/tmp", "/qel_home"); });
    EXPECT_EQ(stop.line, 1892);
    EXPECT_EQ(stop.output, "/tmp -> /qel_home\nerror code : 1\n");
}

TEST_F(Symlink, IgnoresAFailedUnlink)
{
    kernel.fail("unlink", EROFS);
    EXPECT_NE(link("/tmp", "/qel_home"), 0);
    EXPECT_TRUE(disk.is_link("/qel_home"));
}

TEST_F(Symlink, ChecksInOrder)
{
    EXPECT_STOPS("name", filesystem_unit, 1852, qel_symlink(nullptr, nullptr));
    EXPECT_STOPS("*name", filesystem_unit, 1853, qel_symlink("", nullptr));
    EXPECT_STOPS("target", filesystem_unit, 1854, qel_symlink("/tmp", nullptr));
    EXPECT_STOPS("*target", filesystem_unit, 1855, qel_symlink("/tmp", ""));
    EXPECT_THAT(kernel.calls(), IsEmpty());
}

TEST_F(Symlink, ChecksNoPathRules)
{
    disk.make_folder("/a");
    const WorkingFolder here(disk.path());
    EXPECT_NE(link("C:\\x", "a//l:nk"), 0);
    EXPECT_EQ(disk.link_content("/a/l:nk"), "C:\\x");
}
