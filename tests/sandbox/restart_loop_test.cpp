// The loop that runs the application forever, the X server, and the processes they leave.

#include "sandbox/cabinet.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <signal.h>

#include <algorithm>

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

static const char loader_environment[] =
    "[HOME=/qel_home TERM=linux WINEDEBUG=fixme-all,warn-all LD_LIBRARY_PATH=/usr/xorg/lib DISPLAY=unix:0]";

static const char application[] = "/qel_application_1";

// ---- Runs ----

TEST(TheApplication, IsStartedAgainAtOnceHoweverItEnded)
{
    Cabinet cabinet;
    cabinet.add_program(Cabinet::storage(application), "exit 0\nexit 1\nexit 255\nkill 9\nkill 11\n");
    cabinet.start();
    cabinet.await_child(7);
    EXPECT_THAT(cabinet.transcript().lines("waitpid"),
                ElementsAre("waitpid 3 0 = 3 exit 0", "waitpid 4 0 = 4 exit 1", "waitpid 5 0 = 5 exit 255",
                            "waitpid 6 0 = 6 signal 9", "waitpid 7 0 = 7 signal 11"));
    EXPECT_THAT(cabinet.transcript().lines("sleep"), IsEmpty());
}

TEST(TheApplication, FindsAFreshWinePrefixInEveryRun)
{
    Cabinet cabinet;
    cabinet.add_program(Cabinet::storage(application), "prefix exit 0\nprefix kill 9\nprefix exit 0\n");
    cabinet.start();
    for (pid_t n = 2; n <= 5; n++)
        EXPECT_THAT(cabinet.await_child(n), Contains("prefix fresh"));
    EXPECT_TRUE(cabinet.matches("restart_with_prefix.txt"));
}

TEST(TheApplication, RunsWhereTheLoaderStandsWhenStorageCannotBeEntered)
{
    Cabinet cabinet;
    cabinet.add_program(Cabinet::storage(application));
    cabinet.fail("chdir", 1, EACCES);
    cabinet.start();
    EXPECT_THAT(cabinet.await_child(2), Contains("folder /"));
}

TEST(TheApplication, ThatCannotBeExecutedIsReportedAndTriedAgain)
{
    Cabinet cabinet;
    cabinet.make_file(Cabinet::storage(application), "no program at all", 0755);
    cabinet.start();
    EXPECT_TRUE(cabinet.matches("exec_failed.txt"));
    EXPECT_THAT(cabinet.transcript().of(3),
                ElementsAre(std::string("execve /storage/qel_application_1 [/storage/qel_application_1] ") +
                                loader_environment,
                            "execve /storage/qel_application_1 = ENOEXEC", "_exit 1"));
}

TEST(TheApplication, CanBecomeExecutableLater)
{
    Cabinet cabinet;
    cabinet.add_program(Cabinet::storage(application));
    const std::string file = cabinet.at(Cabinet::storage(application)), away = file + ".away";
    cabinet.make_file(Cabinet::storage(application) + ".bad", "no program at all", 0755);
    ASSERT_EQ(rename(file.c_str(), away.c_str()), 0);
    ASSERT_EQ(rename((file + ".bad").c_str(), file.c_str()), 0);
    ASSERT_EQ(rename(away.c_str(), cabinet.at("/machine/good").c_str()), 0);
    cabinet.start();
    cabinet.await_lines("console \"exec failed: qel_application_1\\n\"", 3);
    ASSERT_EQ(rename(cabinet.at("/machine/good").c_str(), file.c_str()), 0);
    cabinet.await("a run",
                  [&] { return !cabinet.transcript().processes_with("arguments [/storage").empty(); });
}

// ---- Wine ----

TEST(AWindowsApplication, IsRunByWineUnderTheSameEnvironment)
{
    Cabinet cabinet;
    cabinet.add_program(Cabinet::system("/wine/bin/wine"));
    cabinet.make_file(Cabinet::storage("/qel_application_game.exe.so"), "a Windows program");
    cabinet.start();
    const std::string arguments = "[/usr/wine/bin/wine /storage/qel_application_game.exe.so]";
    EXPECT_THAT(cabinet.await_child(2),
                ElementsAre("execve /usr/wine/bin/wine " + arguments + " " + loader_environment,
                            "arguments " + arguments, std::string("environment ") + loader_environment,
                            "folder /storage", "streams console console console", "prefix fresh"));
}

TEST(AWindowsApplication, IsToldByItsNamesExeSoAnywhereInThePath)
{
    for (const char *path : {"/qel_application_a.exe.so.old", "/a.exe.sound/qel_application_a"}) {
        Cabinet cabinet;
        cabinet.add_program(Cabinet::system("/wine/bin/wine"));
        cabinet.make_file(Cabinet::storage(path), "a Windows program");
        cabinet.start();
        EXPECT_THAT(cabinet.await_child(2),
                    Contains("arguments [/usr/wine/bin/wine /storage" + std::string(path) + "]"));
    }
}

TEST(AWindowsApplication, IsNotToldByLess)
{
    for (const char *name :
         {"qel_application_game.exe", "qel_application_game.so", "qel_application_game.EXE.SO"}) {
        Cabinet cabinet;
        cabinet.add_program(Cabinet::system("/wine/bin/wine"));
        cabinet.add_program(Cabinet::storage("/") + name);
        cabinet.start();
        EXPECT_THAT(cabinet.await_child(2), Contains("arguments [/storage/" + std::string(name) + "]"));
    }
}

TEST(AWindowsApplication, FromAStickRunsFromStorageToo)
{
    Cabinet cabinet;
    cabinet.plug_in_stick();
    cabinet.add_program(Cabinet::system("/wine/bin/wine"));
    cabinet.make_file(Cabinet::stick("/qel_application_game.exe.so"), "a Windows program");
    cabinet.start();
    EXPECT_THAT(cabinet.await_child(2),
                Contains("arguments [/usr/wine/bin/wine /storage/qel_application_game.exe.so]"));
    EXPECT_EQ(cabinet.content(Cabinet::storage("/qel_application_game.exe.so")), "a Windows program");
}

TEST(AWindowsApplication, WithoutWineIsReportedAndTriedAgain)
{
    Cabinet cabinet;
    cabinet.make_file(Cabinet::storage("/qel_application_game.exe.so"), "a Windows program");
    cabinet.start();
    EXPECT_TRUE(cabinet.matches("wine_failed.txt"));
    EXPECT_THAT(cabinet.transcript().of(3), Contains("_exit 1"));
}

// ---- The X server ----

TEST(TheXServer, IsStartedOnceHoweverOftenTheApplicationRuns)
{
    Cabinet cabinet;
    cabinet.add_program(Cabinet::storage(application), "exit 0\nexit 0\nexit 0\n");
    cabinet.start();
    cabinet.await_child(5);
    cabinet.await_child(1);
    EXPECT_EQ(cabinet.runs("Xfake"), 1U);
    EXPECT_THAT(cabinet.transcript().processes_with("execve /usr/xorg/bin/Xfake"), ElementsAre(2));
}

TEST(TheXServer, IsNeitherReapedNorStartedAgainWhenItEnds)
{
    Cabinet cabinet;
    cabinet.add_program(Cabinet::system("/xorg/bin/Xfake"), "exit 0\n");
    cabinet.add_program(Cabinet::storage(application), "exit 0\nexit 0\n");
    cabinet.start();
    cabinet.await_child(4);
    cabinet.await("the X server's end", [&] { return cabinet.children().front().state == 'Z'; });
    EXPECT_EQ(cabinet.children().size(), 2U);
    EXPECT_EQ(cabinet.children().front().name, "Xfake");
    EXPECT_EQ(cabinet.runs("Xfake"), 1U);
}

TEST(TheXServer, ThatIsMissingLeavesNoMessageAndTheApplicationRuns)
{
    Cabinet cabinet;
    cabinet.add_block_device("hdc/hdc2", 22, 9);
    cabinet.format("cramfs", 22, 9);
    cabinet.add_program(Cabinet::storage(application));
    cabinet.start();
    cabinet.await_child(2);
    cabinet.await("the child's end", [&] { return cabinet.transcript().of(2).size() >= 3; });
    EXPECT_THAT(
        cabinet.transcript().of(2),
        ElementsAre(std::string("execve /usr/xorg/bin/Xfake [/usr/xorg/bin/Xfake -nolisten tcp -kb] ") +
                        loader_environment,
                    "execve /usr/xorg/bin/Xfake = ENOENT", "_exit 1"));
    EXPECT_THAT(cabinet.transcript().lines("console"), Not(Contains(testing::HasSubstr("failed"))));
}

// ---- Waiting ----

TEST(TheWait, AfterAFailedForkIsForAnyChildAndSleepsASecondAfterEachThatIsNotTheOne)
{
    Cabinet cabinet;
    cabinet.add_program(Cabinet::storage(application));
    cabinet.fail("fork", 2, EAGAIN);
    cabinet.start();
    // Nothing but the X server is left to wait for.
    cabinet.await_child(1);
    cabinet.await_lines("fork = EAGAIN");
    ASSERT_EQ(cabinet.children().size(), 1U);
    EXPECT_THAT(cabinet.transcript().lines("waitpid"), IsEmpty());
    cabinet.signal(cabinet.children().front().pid, SIGKILL);
    EXPECT_TRUE(cabinet.matches("fork_failed.txt"));
}

TEST(TheWait, IsRepeatedASecondAfterItFailed)
{
    Cabinet cabinet;
    cabinet.add_program(Cabinet::storage(application), "exit 0\n");
    cabinet.fail("waitpid", 1, EINTR);
    cabinet.fail("waitpid", 2, EINTR);
    cabinet.start();
    EXPECT_TRUE(cabinet.matches("wait_failed.txt"));
}

// ---- Processes left behind ----

TEST(AnOrphanOfTheApplication, IsAdoptedAndNeverReaped)
{
    Cabinet cabinet;
    cabinet.add_program(Cabinet::storage(application), "orphan exit 0\norphan exit 0\norphan exit 0\n");
    cabinet.start();
    cabinet.await("the last run", [&] { return cabinet.runs("qel_application_1") == 4; });
    const auto dead = [&] {
        const auto children = cabinet.children();
        return std::count_if(children.begin(), children.end(),
                             [](const Sandbox::Process &process) { return process.state == 'Z'; });
    };
    cabinet.await("three orphans dead", [&] { return dead() == 3; });
    // With them, the X server and the running application.
    EXPECT_EQ(cabinet.children().size(), 5U);
}
