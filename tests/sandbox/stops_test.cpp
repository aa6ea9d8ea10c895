// Where the start stops, with what it reports there, and what a stopped loader is like: parked.

#include "sandbox/cabinet.h"

#include <errno.h>
#include <gmock/gmock.h>

using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;

/// Starts the cabinet and returns where it stops, as "UNIT:LINE TEXT".
static std::string stop_of(Cabinet &cabinet)
{
    cabinet.start();
    cabinet.await_lines("stop ");
    return cabinet.transcript().lines("stop ").front().substr(5);
}

// ---- Parked ----

TEST(AParkedLoader, SleepsForEverPrintsNothingAndHasNoChildren)
{
    Cabinet cabinet;
    EXPECT_EQ(stop_of(cabinet), "qel_application_loader:189 *app_file");

    cabinet.await_lines("sleep 1", 3);
    const std::vector<std::string> &lines = cabinet.transcript().lines();
    const size_t stop = lines.size() - cabinet.transcript().lines("sleep 1").size() - 1;
    EXPECT_EQ(lines.at(stop), "stop qel_application_loader:189 *app_file");
    EXPECT_THAT(std::vector<std::string>(lines.begin() + static_cast<long>(stop) + 1, lines.end()),
                Each("sleep 1"));
    cabinet.await("PID 1 asleep", [&] { return cabinet.first_process().state == 'S'; });
    EXPECT_THAT(cabinet.children(), IsEmpty());
}

// ---- Kernel file systems ----

TEST(TheStartStops, WhenAKernelFileSystemCannotBeMounted)
{
    for (int n = 1; n <= 3; n++) {
        Cabinet cabinet;
        cabinet.fail("mount", n, EBUSY);
        EXPECT_EQ(stop_of(cabinet), "qel_utility/qel_filesystem:1964 !err");
        EXPECT_EQ(cabinet.transcript().lines("mount ").size(), static_cast<size_t>(n));
    }
}

TEST(TheStartStops, WhenAMountPointCannotBeMade)
{
    Cabinet cabinet;
    cabinet.fail("mkdir", 1, EROFS);
    EXPECT_EQ(stop_of(cabinet), "qel_utility/qel_filesystem:1959 (*__errno_location ()) == 17");
}

// ---- Nodes ----

TEST(TheStartStops, WithoutTheBoardsDriver)
{
    Cabinet cabinet;
    cabinet.make_file("/machine/proc/devices", "Character devices:\n  1 mem\n\nBlock devices:\n  8 sd\n");
    EXPECT_EQ(stop_of(cabinet), "qel_utility/qel_filesystem:2321 major");
    EXPECT_THAT(cabinet.transcript().lines("mknod"), IsEmpty());
}

TEST(TheStartStops, WhenANodeOfTheBoardExists)
{
    Cabinet cabinet;
    cabinet.make_file("/dev/qellpc_lcd", "");
    EXPECT_EQ(stop_of(cabinet), "qel_utility/qel_filesystem:1914 !err");
    EXPECT_THAT(cabinet.transcript().lines("mknod"),
                ElementsAre("mknod /dev/qellpc_firmware 020666 240:0", "mknod /dev/qellpc_midi 020666 240:1",
                            "mknod /dev/qellpc_lcd 020666 240:2 = EEXIST"));
}

TEST(TheStartStops, WhenTheBoardDoesNotAnswerToItsNode)
{
    Cabinet cabinet;
    cabinet.fail("open64", 1, ENODEV);
    cabinet.start();
    cabinet.await_lines("stop ");
    EXPECT_THAT(cabinet.transcript().lines("stop ").front(),
                testing::MatchesRegex("stop qel_tolbrin/qel_h8_command:[0-9]+ f != -1"));
}

TEST(TheStartStops, WhenTheKernelPublishesNoTwoNumbersForADisk)
{
    Cabinet cabinet;
    cabinet.make_file("/machine/sys/block/hdc/dev", "22\n");
    EXPECT_EQ(stop_of(cabinet), "qel_utility/qel_filesystem:1937 num_matches == 2");
}

TEST(TheStartStops, WithoutASoundClass)
{
    Cabinet cabinet;
    cabinet.make_file("/machine/sys/class/other", "");
    std::string sound = cabinet.at("/machine/sys/class/sound");
    ASSERT_EQ(rename(sound.c_str(), (sound + "less").c_str()), 0);
    EXPECT_EQ(stop_of(cabinet), "qel_utility/qel_filesystem:433 dir");
}

// ---- Mounts ----

TEST(TheStartStops, WhenTheFolderForDiskNodesIsAFile)
{
    Cabinet cabinet;
    cabinet.make_file("/dev/disk", "");
    cabinet.add_block_device("sda", 8, 0);
    EXPECT_EQ(stop_of(cabinet), "qel_utility/qel_filesystem:1947 !err");
}

TEST(TheStartStops, WhenTheSystemImageDoesNotMount)
{
    Cabinet cabinet;
    cabinet.add_block_device("hdc/hdc2", 22, 9);
    EXPECT_EQ(stop_of(cabinet), "qel_utility/qel_filesystem:1964 !err");
    EXPECT_EQ(cabinet.transcript().lines("mount ").back(), "mount /dev/disk/hdc2 /usr cramfs 1 = EINVAL");
}

TEST(TheStartStops, WhenTheStorageDoesNotMount)
{
    Cabinet cabinet;
    cabinet.add_block_device("hdc/hdc3", 22, 9);
    EXPECT_EQ(stop_of(cabinet), "qel_utility/qel_filesystem:1964 !err");
    EXPECT_EQ(cabinet.transcript().lines("mount ").back(), "mount /dev/disk/hdc3 /storage vfat 1 = EINVAL");
    EXPECT_THAT(cabinet.transcript().lines(), testing::Contains("console \" /storage\\n\""));
}

TEST(TheStartStops, WithoutAnInternalDisk)
{
    Cabinet cabinet;
    const std::string disk = cabinet.at("/machine/sys/block/hdc");
    ASSERT_EQ(rename(disk.c_str(), cabinet.at("/machine/pulled").c_str()), 0);
    EXPECT_EQ(stop_of(cabinet), "qel_utility/qel_filesystem:1964 !err");
    EXPECT_EQ(cabinet.transcript().lines("mount ").back(), "mount /dev/disk/hdc2 /usr cramfs 1 = ENOENT");
}

TEST(TheStartStops, WhenTheHomeLinkCannotBeMade)
{
    Cabinet cabinet;
    cabinet.fail("symlink", 1, ENOSPC);
    EXPECT_EQ(stop_of(cabinet), "qel_utility/qel_filesystem:1892 (*__errno_location ()) == 17");
    EXPECT_THAT(cabinet.transcript().lines(),
                testing::AllOf(testing::Contains("console \"symlink error : ENOSPC\\n\""),
                               testing::Contains("console \"error code : 28\\n\"")));
}

// ---- The application ----

TEST(TheStartStops, WithoutAnApplication)
{
    Cabinet cabinet;
    cabinet.plug_in_stick();
    cabinet.make_file(Cabinet::storage("/my_qel_application_1"), "");
    cabinet.make_file(Cabinet::stick("/qel_applicatio"), "");
    EXPECT_EQ(stop_of(cabinet), "qel_application_loader:189 *app_file");
}

TEST(TheStartStops, WhenTheApplicationCannotBeReadFromTheStick)
{
    Cabinet cabinet;
    cabinet.plug_in_stick();
    cabinet.make_link(Cabinet::stick("/qel_application_2"), "/nowhere");
    EXPECT_EQ(stop_of(cabinet), "qel_application_loader:197 qel_copy_file(storage_path, app_path)");
    EXPECT_THAT(
        cabinet.transcript().lines(),
        testing::Contains("console \"copy: /disk/sda1/qel_application_2 -> /storage/qel_application_2\\n\""));
}
