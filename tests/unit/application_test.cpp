// Finding the application, starting the X server, and the endless loop. Children are played: fork gives
// what a test says.

#include "support/output.h"
#include "support/scratch_disk.h"
#include "support/stops.h"
#include "support/transcript.h"

#include "qel_application_loader/application.h"

#include <errno.h>
#include <gmock/gmock.h>

#include <algorithm>

using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;

static const char environment[] = "[HOME=/qel_home TERM=linux WINEDEBUG=fixme-all,warn-all "
                                  "LD_LIBRARY_PATH=/usr/xorg/lib DISPLAY=unix:0]";

// ---- Finding it ----

class FindApplication : public OnScratchDisk
{
  protected:
    FindApplication()
    {
        disk.make_folder("/storage");
        disk.make_folder("/disk");
        kernel.on_mount = [](auto...) { return 0; };
        kernel.on_sync = [] {};
        memset(&application, 'x', sizeof application);
    }
    void find()
    {
        printed = output_of([&] { qel_find_application(&application); });
    }

    /// Finds, and gives the calls of these names; a close without its descriptor.
    std::vector<std::string> calls_of_find(const std::string &names)
    {
        find();
        std::vector<std::string> calls = kernel.calls(names);
        for (std::string &call : calls)
            call = call.rfind("close ", 0) == 0 ? "close" : call;
        return calls;
    }

    qel_application application;
    std::string printed;
};

TEST_F(FindApplication, TakesTheOneOnStorageAndRunsItFromThere)
{
    disk.make_file("/storage/qel_application_1");
    find();
    EXPECT_STREQ(application.app_name, "qel_application_1");
    EXPECT_STREQ(application.app_path, "/storage/qel_application_1");
    EXPECT_EQ(printed, "candidate: /storage/qel_application_1\n");
    EXPECT_THAT(kernel.calls("mount"), IsEmpty());
    const std::string whole_name(application.app_name, sizeof application.app_name);
    EXPECT_EQ(whole_name, "qel_application_1" + std::string(1000 - 17, '\0'));
}

TEST_F(FindApplication, RunsOneInAFolderOnStorageWhereItLies)
{
    disk.make_file("/storage/games/qel_application_1");
    find();
    EXPECT_STREQ(application.app_path, "/storage/games/qel_application_1");
    EXPECT_THAT(kernel.calls("mount"), IsEmpty());
}

TEST_F(FindApplication, CopiesANewerOneFromAStickToStorageAndRunsItFromThere)
{
    disk.make_file("/storage/qel_application_1", "old");
    disk.make_file("/disk/sda1/qel_application_2", "new");
    find();
    EXPECT_STREQ(application.app_name, "qel_application_2");
    EXPECT_STREQ(application.app_path, "/storage/qel_application_2");
    EXPECT_EQ(disk.content("/storage/qel_application_2"), "new");
    EXPECT_EQ(disk.mode("/storage/qel_application_2"), 0777U);
    EXPECT_EQ(printed, "candidate: /storage/qel_application_1\n"
                       "candidate: /disk/sda1/qel_application_2\n"
                       "copy: /disk/sda1/qel_application_2 -> /storage/qel_application_2\n");
}

TEST_F(FindApplication, CopiesOneWithTheLongestNameAndPath)
{
    std::string folder = "/disk";
    while (folder.size() < 743)
        folder += "/" + std::string(std::min<size_t>(200, 742 - folder.size()), 'd');
    const std::string name = "qel_application_" + std::string(239, 'z');
    ASSERT_EQ(folder.size() + 1 + name.size(), 999U);
    disk.make_file(folder + "/" + name, "new");
    find();
    EXPECT_EQ(application.app_name, name);
    EXPECT_EQ(application.app_path, "/storage/" + name);
    EXPECT_EQ(disk.content("/storage/" + name), "new");
}

TEST_F(FindApplication, MakesStorageWritableOnlyForTheCopy)
{
    disk.make_file("/disk/sda1/qel_application_2", "new");
    EXPECT_THAT(calls_of_find("mount open close chmod sync"),
                ElementsAre("mount /dev/disk/hdc3 /storage vfat 32 null",
                            "chmod /storage/qel_application_2 0777",
                            "open /disk/sda1/qel_application_2 O_RDONLY",
                            "open /storage/qel_application_2 O_RDWR|O_CREAT|O_TRUNC", "close", "close",
                            "chmod /storage/qel_application_2 0777",
                            "mount /dev/disk/hdc3 /storage vfat 33 null", "sync"));
}

TEST_F(FindApplication, UsesTheOneOnStorageWhenNamesAreEqualAndCopiesNothing)
{
    disk.make_file("/storage/qel_application_1", "installed");
    disk.make_file("/disk/sda1/qel_application_1", "on the stick");
    find();
    EXPECT_STREQ(application.app_path, "/storage/qel_application_1");
    EXPECT_EQ(disk.content("/storage/qel_application_1"), "installed");
    EXPECT_THAT(kernel.calls("mount"), IsEmpty());
}

TEST_F(FindApplication, CopiesOneFromAFolderOfAStickThatIsOnlyCalledStorage)
{
    disk.make_file("/disk/storage/qel_application_1", "new");
    find();
    EXPECT_STREQ(application.app_path, "/storage/qel_application_1");
    EXPECT_EQ(disk.content("/storage/qel_application_1"), "new");
}

TEST_F(FindApplication, StopsWhenThereIsNone)
{
    for (const char *name :
         {"readme", "qel_application", "qel_applications", "QEL_application_1", "1qel_application_1"})
        disk.make_file(std::string("/storage/") + name);
    EXPECT_STOPS("*app_file", loader_unit, 189, find());
    EXPECT_STREQ(application.app_path, "/"); // made up before it is looked at
}

TEST_F(FindApplication, StopsWhenTheCopyFailsAndLeavesStorageWritable)
{
    disk.make_file("/disk/sda1/qel_application_1", "new");
    kernel.fail("write", ENOSPC);
    EXPECT_STOPS("qel_copy_file(storage_path, app_path)", loader_unit, 197, find());
    EXPECT_THAT(kernel.calls("mount"), ElementsAre("mount /dev/disk/hdc3 /storage vfat 32 null"));
}

TEST_F(FindApplication, StopsWhenAPlaceToSearchIsMissing)
{
    FakeKernel elsewhere(disk.at("/empty"));
    EXPECT_STOPS("dir", filesystem_unit, 433, find());
}

// ---- The X server ----

class XServer : public OnScratchDisk
{
};

TEST_F(XServer, IsStartedOnceWithItsArgumentsAndNeverWaitedFor)
{
    kernel.on_fork = [] { return 4711; };
    qel_start_x_server();
    EXPECT_THAT(kernel.calls(), ElementsAre("fork"));

    kernel.on_fork = [] { return 0; };
    kernel.on_execve = [](auto...) -> int { throw LeftProduct(); };
    EXPECT_THROW(qel_start_x_server(), LeftProduct);
    EXPECT_THAT(kernel.calls("execve"), ElementsAre(std::string("execve /usr/xorg/bin/Xfake "
                                                                "[/usr/xorg/bin/Xfake -nolisten tcp -kb] ") +
                                                    environment));
}

TEST_F(XServer, EndsWithStatus1AndWithoutAMessageWhenItCannotBeStarted)
{
    kernel.on_fork = [] { return 0; };
    Output output;
    EXPECT_THROW(qel_start_x_server(), ChildExit);
    EXPECT_EQ(kernel.calls().back(), "_exit 1");
    EXPECT_EQ(output.text(), "");
}

// ---- The loop ----

class RunApplication : public OnScratchDisk
{
  protected:
    RunApplication()
    {
        disk.make_folder("/storage");
        kernel.set_time(0);
        kernel.on_fork = [] { return 4711; };
        kernel.on_waitpid = [](pid_t process, auto...) { return process; };
        kernel.on_chdir = [](const char *) { return 0; };
    }
    /// Sets the application and gives what the loop prints until it is left.
    std::string run(const char *name)
    {
        const std::string path = std::string("/storage/") + name;
        strcpy(application.app_name, path.c_str() + path.rfind('/') + 1);
        strcpy(application.app_path, path.c_str());
        return output_of([&] {
            try {
                qel_run_application_for_ever(&application);
            } catch (const LeftProduct &) {
            } catch (const ChildExit &exit) {
                child_status = exit.status;
            }
        });
    }
    /// The next child is played in this process.
    void play_child()
    {
        kernel.on_fork = [] { return 0; };
    }

    qel_application application = {};
    int child_status = -1;
};

static const char removal[] = "removing dir tree \"/qel_home/.wine\"\n";

TEST_F(RunApplication, RemovesTheWinePrefixSaysWhatItRunsGoesToStorageAndWaitsInEveryPass)
{
    strcpy(application.app_path, "/storage/qel_application_1");
    kernel.leave_at("waitpid", 2);
    Transcript transcript(kernel, "chmod unlink chdir fork waitpid sleep");
    EXPECT_THROW(qel_run_application_for_ever(&application), LeftProduct);
    const std::string said = std::string("> ") + removal + "run: /storage/qel_application_1\n";
    EXPECT_THAT(transcript.lines(), ElementsAre("chmod /qel_home/.wine 0777", "unlink /qel_home/.wine", said,
                                                "chdir /storage", "fork", "waitpid 4711 0", //
                                                "chmod /qel_home/.wine 0777", "unlink /qel_home/.wine", said,
                                                "chdir /storage", "fork", "waitpid 4711 0"));
}

TEST_F(RunApplication, RemovesTheWinePrefixOfEveryRun)
{
    disk.make_file("/qel_home/.wine/drive_c/old");
    kernel.on_fork = [this] {
        EXPECT_FALSE(disk.has("/qel_home/.wine"));
        disk.make_file("/qel_home/.wine/system.reg");
        return 4711;
    };
    kernel.leave_at("waitpid", 3);
    run("qel_application_1");
    EXPECT_EQ(kernel.count("fork"), 3);
}

TEST_F(RunApplication, IgnoresAFailedChangeOfFolder)
{
    kernel.fail("chdir", EIO);
    kernel.leave_at("waitpid", 1);
    run("qel_application_1");
    EXPECT_EQ(kernel.count("fork"), 1);
}

TEST_F(RunApplication, WaitsForExactlyItsChildSleepingASecondAfterEveryOtherAnswer)
{
    const std::vector<pid_t> answers = {-1, 12, 0, 4711};
    kernel.on_waitpid = [&, next = 0U](auto...) mutable { return answers.at(next++); };
    kernel.leave_at("waitpid", 5);
    run("qel_application_1");
    EXPECT_THAT(kernel.calls("fork waitpid sleep"),
                ElementsAre("fork", "waitpid 4711 0", "sleep 1", "waitpid 4711 0", "sleep 1",
                            "waitpid 4711 0", "sleep 1", "waitpid 4711 0", //
                            "fork", "waitpid 4711 0"));
}

TEST_F(RunApplication, DoesNotLookAtHowTheApplicationEnded)
{
    kernel.on_waitpid = [](pid_t process, int *status, int) {
        *status = 0x0100;
        return process;
    };
    kernel.leave_at("waitpid", 2);
    const std::string pass = std::string(removal) + "run: /storage/qel_application_1\n";
    EXPECT_EQ(run("qel_application_1"), pass + pass);
}

TEST_F(RunApplication, WithoutAChildWaitsForAnyUntilThereIsNone)
{
    kernel.on_fork = [] { return -1; };
    const std::vector<pid_t> answers = {12, -1};
    kernel.on_waitpid = [&, next = 0U](auto...) mutable { return answers.at(next++); };
    kernel.leave_at("waitpid", 3);
    run("qel_application_1");
    EXPECT_THAT(kernel.calls("fork waitpid sleep"),
                ElementsAre("fork", "waitpid -1 0", "sleep 1", "waitpid -1 0", "fork", "waitpid -1 0"));
}

TEST_F(RunApplication, ExecutesItDirectly)
{
    play_child();
    EXPECT_EQ(run("qel_application_1"), std::string(removal) + "run: /storage/qel_application_1\n"
                                                               "exec failed: qel_application_1\n");
    EXPECT_EQ(child_status, 1);
    EXPECT_THAT(kernel.calls("execve"), ElementsAre(std::string("execve /storage/qel_application_1 "
                                                                "[/storage/qel_application_1] ") +
                                                    environment));
}

TEST_F(RunApplication, RunsAnExeSoUnderWine)
{
    play_child();
    EXPECT_EQ(run("qel_application_game.exe.so"), std::string(removal) +
                                                      "run: /storage/qel_application_game.exe.so\n"
                                                      "wine failed: qel_application_game.exe.so\n");
    EXPECT_EQ(child_status, 1);
    EXPECT_THAT(kernel.calls("execve"),
                ElementsAre(std::string("execve /usr/wine/bin/wine [/usr/wine/bin/wine "
                                        "/storage/qel_application_game.exe.so] ") +
                            environment));
}

TEST_F(RunApplication, TakesExeSoAnywhereInThePath)
{
    play_child();
    run("dir.exe.so.d/qel_application_1");
    EXPECT_THAT(kernel.calls("execve"), ElementsAre(StartsWith("execve /usr/wine/bin/wine ")));
}

TEST_F(RunApplication, TakesAnyOtherExtensionForAProgram)
{
    play_child();
    for (const char *name :
         {"qel_application_game.exe", "qel_application_game.EXE.SO", "qel_application.so"}) {
        kernel.forget_calls();
        run(name);
        EXPECT_THAT(kernel.calls("execve"),
                    ElementsAre(StartsWith("execve /storage/" + std::string(name) + " ")));
    }
}

TEST_F(RunApplication, FlushesTheMessageOfAChildThatCannotStart)
{
    play_child();
    kernel.leave_at("_exit", 1);
    strcpy(application.app_name, "name");
    Output output;
    EXPECT_THROW(qel_run_application_for_ever(&application), LeftProduct);
    EXPECT_EQ(output.flushed(), std::string(removal) + "run: \nexec failed: name\n");
}
