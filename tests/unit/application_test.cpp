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

struct FindApplication : OnScratchDisk {
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

/// A folder whose path has `size` characters.
static std::string folder_below(std::string folder, size_t size)
{
    while (folder.size() < size)
        folder += "/" + std::string(std::min<size_t>(200, size - 1 - folder.size()), 'd');
    return folder;
}

TEST_F(FindApplication, CutsAPathOfMoreThan999Bytes)
{
    const std::string path = folder_below("/storage", 744) + "/qel_application_" + std::string(239, 'z');
    ASSERT_EQ(path.size(), 1000U);
    disk.make_file(path);
    find();
    EXPECT_EQ(application.app_path, path.substr(0, 999));
}

TEST_F(FindApplication, CopiesOneWithTheLongestNameAndPath)
{
    const std::string name = "qel_application_" + std::string(239, 'z');
    const std::string path = folder_below("/disk", 743) + "/" + name;
    ASSERT_EQ(path.size(), 999U);
    disk.make_file(path, "new");
    find();
    EXPECT_EQ(application.app_name, name);
    EXPECT_EQ(application.app_path, "/storage/" + name);
    EXPECT_EQ(disk.content("/storage/" + name), "new");
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
    EXPECT_STOPS_AT(189, find());
    EXPECT_STREQ(application.app_path, "/"); // made up before it is looked at
}

// ---- The X server ----

using XServer = OnScratchDisk;

// ---- The loop ----

struct RunApplication : OnScratchDisk {
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
