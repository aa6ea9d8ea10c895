// The application: how one from a stick gets onto the storage partition, the loop that runs it forever, the X
// server, and the processes they leave.

#include "sandbox/cabinet.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <signal.h>

#include <algorithm>

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::Not;

static const char application[] = "/qel_application_1";

TEST(ANewerApplicationOnAStick, IsCopiedToStorageAndRunsFromThere)
{
    Cabinet cabinet;
    cabinet.plug_in_stick();
    cabinet.make_file(Cabinet::storage("/qel_application_1"), "the old one");
    cabinet.add_program(Cabinet::stick("/games/qel_application_2"));
    cabinet.start();
    EXPECT_THAT(cabinet.await_child(2),
                AllOf(Contains("arguments [/storage/qel_application_2]"), Contains("folder /storage")));
    EXPECT_EQ(cabinet.content(Cabinet::storage("/qel_application_2")),
              cabinet.content(Cabinet::stick("/games/qel_application_2")));
    EXPECT_EQ(cabinet.look(Cabinet::storage("/qel_application_2")), "-rwxrwxrwx");
    EXPECT_EQ(cabinet.content(Cabinet::storage("/qel_application_1")), "the old one");
}

TEST(ANewerApplicationOnAStick, LeavesTheStorageReadOnly)
{
    Cabinet cabinet;
    cabinet.plug_in_stick();
    cabinet.add_program(Cabinet::stick("/qel_application_2"), "folder /storage/new\n");
    cabinet.start();
    cabinet.await_lines("waitpid");
    EXPECT_THAT(cabinet.transcript().of(3), Contains("helper program: folder: Read-only file system"));
}

TEST(ANewerApplicationOnAStick, StaysOutWhenTheStorageIsFullAndTheStartStops)
{
    Cabinet cabinet;
    cabinet.plug_in_stick();
    cabinet.limit_storage(16384);
    cabinet.add_program(Cabinet::stick("/qel_application_2"));
    cabinet.start();
    cabinet.await_lines("stop ");
    EXPECT_EQ(cabinet.transcript().lines("stop ").front(),
              "stop qel_application_loader:197 qel_copy_file(storage_path, app_path)");
    // What was copied stays, and /storage stays writable: nothing follows the stop.
    EXPECT_EQ(cabinet.content("/storage/qel_application_2").size(), 16384U);
    EXPECT_EQ(cabinet.transcript().lines("mount ").back(), "mount /dev/disk/hdc3 /storage vfat 32");
}

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
    for (pid_t n = 2; n <= 5; ++n)
        EXPECT_THAT(cabinet.await_child(n), Contains("prefix fresh"));
}

TEST(TheApplication, ThatCannotBeExecutedIsReportedAndTriedAgain)
{
    Cabinet cabinet;
    cabinet.make_file(Cabinet::storage(application), "no program at all", 0755);
    cabinet.start();
    EXPECT_TRUE(cabinet.matches("exec_failed.txt"));
    EXPECT_THAT(cabinet.transcript().of(3),
                ElementsAre("execve /storage/qel_application_1 [/storage/qel_application_1] " LOADER_ENV,
                            "execve /storage/qel_application_1 = ENOEXEC", "_exit 1"));
}

TEST(AWindowsApplication, IsRunByWineUnderTheSameEnvironment)
{
    Cabinet cabinet;
    cabinet.add_program(Cabinet::system("/wine/bin/wine"));
    cabinet.make_file(Cabinet::storage("/qel_application_game.exe.so"), "a Windows program");
    cabinet.start();
    EXPECT_THAT(cabinet.await_child(2),
                testing::IsSupersetOf({"arguments [/usr/wine/bin/wine /storage/qel_application_game.exe.so]",
                                       "environment " LOADER_ENV, "folder /storage"}));
}

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
    EXPECT_THAT(cabinet.transcript().of(2),
                ElementsAre("execve /usr/xorg/bin/Xfake [/usr/xorg/bin/Xfake -nolisten tcp -kb] " LOADER_ENV,
                            "execve /usr/xorg/bin/Xfake = ENOENT", "_exit 1"));
    EXPECT_THAT(cabinet.transcript().lines("console"), Not(Contains(testing::HasSubstr("failed"))));
}

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
    // It gets the X server, and after a second finds that no child is left, the -1 it waits for.
    cabinet.await_lines("fork", 3);
    EXPECT_THAT(cabinet.transcript().lines("waitpid"),
                ElementsAre("waitpid -1 0 = 2 signal 9", "waitpid -1 0 = ECHILD"));
    EXPECT_THAT(cabinet.transcript().lines("sleep"), ElementsAre("sleep 1"));
}

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
