// Which application a start finds, and how one from a stick gets onto the storage partition.

#include "sandbox/cabinet.h"

#include <gmock/gmock.h>

using testing::AllOf;
using testing::Contains;
using testing::ElementsAre;
using testing::IsEmpty;

/// Starts the cabinet and returns the path that is run.
static std::string run_by(Cabinet &cabinet)
{
    cabinet.start();
    cabinet.await_lines("chdir /storage");
    const std::string line = cabinet.transcript().lines("console \"run: ").front();
    const std::string before = "console \"run: ", after = "\\n\"";
    return line.substr(before.size(), line.size() - before.size() - after.size());
}

static std::vector<std::string> candidates(const Cabinet &cabinet)
{
    return cabinet.transcript().lines("console \"candidate: ");
}

// ---- The search ----

TEST(Search, TakesTheGreatestNameOnStorageByteByByte)
{
    Cabinet cabinet;
    for (const char *name : {"qel_application_10", "qel_application_2", "qel_application_Z"})
        cabinet.add_program(Cabinet::storage("/") + name);
    EXPECT_EQ(run_by(cabinet), "/storage/qel_application_Z");
    EXPECT_THAT(candidates(cabinet), ElementsAre("console \"candidate: /storage/qel_application_10\\n\"",
                                                 "console \"candidate: /storage/qel_application_2\\n\"",
                                                 "console \"candidate: /storage/qel_application_Z\\n\""));
}

TEST(Search, ReportsOnlyNamesGreaterThanTheOneItHas)
{
    Cabinet cabinet;
    cabinet.list_folders_backwards();
    for (const char *name : {"qel_application_10", "qel_application_2", "qel_application_Z"})
        cabinet.add_program(Cabinet::storage("/") + name);
    EXPECT_EQ(run_by(cabinet), "/storage/qel_application_Z");
    EXPECT_THAT(candidates(cabinet), ElementsAre("console \"candidate: /storage/qel_application_Z\\n\""));
}

TEST(Search, TakesAGreaterNameOnStorageOverOneOnTheStick)
{
    Cabinet cabinet;
    cabinet.plug_in_stick();
    cabinet.add_program(Cabinet::storage("/qel_application_2"));
    cabinet.add_program(Cabinet::stick("/qel_application_10"));
    EXPECT_EQ(run_by(cabinet), "/storage/qel_application_2");
    EXPECT_THAT(cabinet.transcript().lines("console \"copy"), IsEmpty());
}

TEST(Search, TakesTheOneOnStorageOfTwoEqualNamesAndCopiesNothing)
{
    Cabinet cabinet;
    cabinet.plug_in_stick();
    cabinet.add_program(Cabinet::storage("/qel_application_1"));
    cabinet.make_file(Cabinet::stick("/qel_application_1"), "not the one");
    EXPECT_EQ(run_by(cabinet), "/storage/qel_application_1");
    EXPECT_THAT(cabinet.transcript().lines("open /disk"), IsEmpty());
    EXPECT_THAT(cabinet.transcript().lines("mount /dev/disk/hdc3"),
                ElementsAre("mount /dev/disk/hdc3 /storage vfat 1"));
}

TEST(Search, TakesTheFirstThatItMeetsOfEqualNamesInOnePlace)
{
    for (const int backwards : {0, 1}) {
        Cabinet cabinet;
        if (backwards)
            cabinet.list_folders_backwards();
        cabinet.add_program(Cabinet::storage("/a/qel_application_1"));
        cabinet.add_program(Cabinet::storage("/b/qel_application_1"));
        EXPECT_EQ(run_by(cabinet),
                  backwards ? "/storage/b/qel_application_1" : "/storage/a/qel_application_1");
    }
}

TEST(Search, GoesDownIntoFoldersBeforeItGoesOn)
{
    Cabinet cabinet;
    cabinet.add_program(Cabinet::storage("/games/new/qel_application_2"));
    cabinet.add_program(Cabinet::storage("/qel_application_1"));
    EXPECT_EQ(run_by(cabinet), "/storage/games/new/qel_application_2");
    EXPECT_THAT(candidates(cabinet),
                ElementsAre("console \"candidate: /storage/games/new/qel_application_2\\n\""));
}

TEST(Search, DoesNotEnterHiddenFoldersOrLinks)
{
    Cabinet cabinet;
    cabinet.add_program(Cabinet::storage("/qel_application_1"));
    cabinet.add_program(Cabinet::storage("/.hidden/qel_application_2"));
    cabinet.add_program("/elsewhere/qel_application_3");
    cabinet.make_link(Cabinet::storage("/link"), "/elsewhere");
    EXPECT_EQ(run_by(cabinet), "/storage/qel_application_1");
}

TEST(Search, TakesANameThatIsThePrefixAlone)
{
    Cabinet cabinet;
    cabinet.add_program(Cabinet::storage("/qel_application_"));
    EXPECT_EQ(run_by(cabinet), "/storage/qel_application_");
}

TEST(Search, TakesAFolderLikeAFileAndTheLoopTriesToRunIt)
{
    Cabinet cabinet;
    cabinet.add_program(Cabinet::storage("/qel_application_1"));
    cabinet.make_folder(Cabinet::storage("/qel_application_2"));
    EXPECT_EQ(run_by(cabinet), "/storage/qel_application_2");
    cabinet.await_lines("console \"exec failed: qel_application_2\\n\"", 2);
}

// ---- From the stick to the storage ----

TEST(ANewerApplicationOnAStick, IsCopiedToStorageAndRunsFromThere)
{
    Cabinet cabinet;
    cabinet.plug_in_stick();
    cabinet.make_file(Cabinet::storage("/qel_application_1"), "the old one");
    cabinet.add_program(Cabinet::stick("/games/qel_application_2"));
    cabinet.start();
    EXPECT_TRUE(cabinet.matches("newer_on_stick.txt"));
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

TEST(ANewerApplicationOnAStick, IsFoundOnAWholeDiskWithoutPartitionsToo)
{
    Cabinet cabinet;
    cabinet.add_block_device("sda", 8, 0);
    cabinet.format("vfat", 8, 0);
    cabinet.add_program("/machine/vfat/8:0/qel_application_2");
    EXPECT_EQ(run_by(cabinet), "/storage/qel_application_2");
    EXPECT_THAT(cabinet.transcript().lines(),
                Contains("console \"copy: /disk/sda/qel_application_2 -> /storage/qel_application_2\\n\""));
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

TEST(ANewerApplicationOnAStick, CanBeAFolderAndThenArrivesAsAnEmptyFile)
{
    Cabinet cabinet;
    cabinet.plug_in_stick();
    cabinet.make_file(Cabinet::stick("/qel_application_2/inside"), "x");
    EXPECT_EQ(run_by(cabinet), "/storage/qel_application_2");
    cabinet.await_lines("console \"exec failed: qel_application_2\\n\"");
    EXPECT_EQ(cabinet.content(Cabinet::storage("/qel_application_2")), "");
}
