// Device nodes. mknod is played by plain files, so that anyone can run these tests; what was asked of it
// is in the records.

#include "support/output.h"
#include "support/scratch_disk.h"
#include "support/stops.h"

#include "qel_utility/qel_filesystem/device_nodes.h"

#include <errno.h>
#include <gmock/gmock.h>

#include <filesystem>

using testing::ElementsAre;
using testing::IsEmpty;

struct DeviceNodes : OnScratchDisk {
    DeviceNodes()
    {
        disk.make_folder("/dev");
        make_nodes_as_files(kernel, disk);
    }
    /// The nodes asked for: path, mode and numbers.
    std::vector<std::string> nodes() const
    {
        return kernel.calls("mknod");
    }
};

using LpcNode = DeviceNodes;
using LpcNodes = DeviceNodes;
using NodeFromSysfs = DeviceNodes;
using SoundNodes = DeviceNodes;
using DiskNodes = DeviceNodes;

// ---- The board ----

TEST_F(LpcNode, IsAnnouncedByItsWholePathWhenThatHasNoSlash)
{
    kernel.on_mknod = [](auto...) { return 0; };
    EXPECT_EQ(output_of([] { qel_make_lpc_node("qellpc_lcd", 254, 2); }), " qellpc_lcd");
}

TEST_F(LpcNode, HasItsNumbersPackedAsLinuxDoes)
{
    dev_t device = 0;
    kernel.on_mknod = [&](const char *, mode_t, dev_t asked) {
        device = asked;
        return 0;
    };
    output_of([] { qel_make_lpc_node("/dev/x", 0xABC12345, 0x12345678); });
    // low 8 bits of the minor, low 12 of the major, the rest of the minor, the rest of the major
    EXPECT_EQ(device, 0xABC12'123456'345'78ULL);
}

TEST_F(LpcNodes, HaveTheNumberThatTheLastLineWithTheNameAndANumberBeginsWith)
{
    const std::pair<std::string, std::string> cases[] = {
        {"253 qellpc\n252 other\n 17 qellpc_b\n", "17"},
        {"9 xqellpcx\n", "9"},
        {"\t 12qellpc 99\n", "12"},
        {"9 qellpc\nqellpc\n", "9"},
        // Lines of at most 999 bytes: a longer one counts as several.
        {"9 qellpc\n" + std::string(999, ' ') + "7 qellpc\n", "7"},
    };
    for (const auto &[devices, number] : cases) {
        kernel.forget_calls();
        disk.make_file("/proc/devices", devices);
        std::filesystem::remove_all(disk.at("/dev"));
        output_of(qel_make_lpc_nodes);
        EXPECT_EQ(nodes().front(), "mknod /dev/qellpc_firmware 020666 " + number + ":0") << devices;
    }
}

TEST_F(LpcNodes, StopWithoutADriver)
{
    disk.make_file("/proc/devices", "253 other\n");
    EXPECT_STOPS_AT(2321, qel_make_lpc_nodes());
    disk.make_file("/proc/devices", "0 qellpc\n");
    EXPECT_STOPS_AT(2321, qel_make_lpc_nodes());
    EXPECT_THAT(nodes(), IsEmpty());
}

// ---- qel_make_node_from_sysfs ----

TEST_F(NodeFromSysfs, IsOfTheTypeAsked)
{
    disk.make_file("/sys/class/sound/pcm/dev", "116:24");
    output_of([] { qel_make_node_from_sysfs("/sys/class/sound/pcm", "/dev", S_IFCHR); });
    EXPECT_THAT(nodes(), ElementsAre("mknod /dev/pcm 020666 116:24"));
}

TEST_F(NodeFromSysfs, TakesWhiteSpaceAndASignBeforeANumberAndAnythingBehind)
{
    disk.make_file("/sys/block/sda/dev", "\n 8:\t+16x\n");
    output_of([] { qel_make_node_from_sysfs("/sys/block/sda", "/dev", S_IFBLK); });
    EXPECT_THAT(nodes(), ElementsAre("mknod /dev/sda 060666 8:16"));
}

TEST_F(NodeFromSysfs, StopsOnADevFileWithoutTwoNumbers)
{
    for (const char *content : {"", "8", "8:", "x:y", "8 0", "8 :0", ":0", "8:x", "8:-"}) {
        disk.make_file("/sys/block/sda/dev", content);
        EXPECT_STOPS_AT(1937, qel_make_node_from_sysfs("/sys/block/sda", "/dev", S_IFBLK));
    }
    EXPECT_EQ(kernel.count("fclose"), 0);
}

TEST_F(NodeFromSysfs, ChecksTheDevFileEvenWhenTheNodeExists)
{
    disk.make_file("/sys/block/sda/dev", "");
    disk.make_file("/dev/sda");
    EXPECT_STOPS_AT(1937, qel_make_node_from_sysfs("/sys/block/sda", "/dev", S_IFBLK));
}

// ---- qel_make_sound_nodes ----

TEST_F(SoundNodes, AreMadeInDirectoryOrder)
{
    disk.make_file("/sys/class/sound/timer/dev", "116:33\n");
    disk.make_file("/sys/class/sound/controlC0/dev", "116:0\n");
    kernel.on_readdir =
        Listing().add(".", DT_DIR).add("timer", DT_LNK).add("..", DT_DIR).add("controlC0", DT_LNK);
    EXPECT_EQ(output_of(qel_make_sound_nodes), " timer controlC0");
    EXPECT_THAT(nodes(),
                ElementsAre("mknod /dev/snd/timer 020666 116:33", "mknod /dev/snd/controlC0 020666 116:0"));
    EXPECT_EQ(kernel.calls("mkdir").front(), "mkdir /dev/snd 0755");
    EXPECT_EQ(kernel.count("closedir"), 1);
}

TEST_F(SoundNodes, AreNotMadeOfAnEntryWithoutADevFile)
{
    disk.make_folder("/sys/class/sound/card0");
    EXPECT_EQ(output_of(qel_make_sound_nodes), "");
    EXPECT_THAT(nodes(), IsEmpty());
}

TEST_F(SoundNodes, AreNotMadeOfHiddenEntries)
{
    disk.make_file("/sys/class/sound/.hidden/dev", "116:0\n");
    EXPECT_EQ(output_of(qel_make_sound_nodes), "");
    EXPECT_THAT(nodes(), IsEmpty());
}

TEST_F(SoundNodes, MayFindTheirFolderAndThemselvesThere)
{
    disk.make_file("/sys/class/sound/timer/dev", "116:33\n");
    disk.make_file("/dev/snd/timer");
    EXPECT_EQ(output_of(qel_make_sound_nodes), " (timer)");
}

TEST_F(SoundNodes, StopOnFoldersThatCannotBeMadeOrOpened)
{
    EXPECT_STOPS_AT(433, qel_make_sound_nodes());
    kernel.fail("mkdir", EROFS);
    EXPECT_STOPS_AT(2288, qel_make_sound_nodes());
}

// ---- qel_make_disk_nodes ----

/// Calls qel_make_disk_nodes and gives what it printed and returned.
static std::string made(const char *prefix)
{
    int result = -1;
    const std::string printed = output_of([&] { result = qel_make_disk_nodes(prefix); });
    return printed + " = " + std::to_string(result);
}

TEST_F(DiskNodes, AreThoseOfTheDiskAndItsPartitions)
{
    disk.make_file("/sys/block/hdc/dev", "22:0\n");
    disk.make_file("/sys/block/hdc/hdc1/dev", "22:1\n");
    disk.make_file("/sys/block/hdc/hdc2/dev", "22:2\n");
    disk.make_file("/sys/block/hdc/queue/dev", "1:1\n");
    disk.make_file("/sys/block/sda/dev", "8:0\n");
    kernel.on_readdir = Listing()
                            .add("sda", DT_LNK)
                            .add("hdc", DT_LNK)
                            .add("queue", DT_DIR)
                            .add("hdc2", DT_DIR)
                            .add("dev", DT_REG)
                            .add("hdc1", DT_DIR)
                            .end()
                            .end();
    EXPECT_EQ(made("hd"), " hdc hdc2 hdc1 = 1");
    EXPECT_THAT(nodes(), ElementsAre("mknod /dev/disk/hdc 060666 22:0", "mknod /dev/disk/hdc2 060666 22:2",
                                     "mknod /dev/disk/hdc1 060666 22:1"));
    EXPECT_EQ(kernel.calls("mkdir").front(), "mkdir /dev/disk 0755");
    EXPECT_EQ(kernel.count("closedir"), 2);
}

TEST_F(DiskNodes, Return0WhenThereWasNoPartitionToMake)
{
    disk.make_file("/sys/block/sda/dev", "8:0\n");
    EXPECT_EQ(made("sd"), " sda = 0");
    disk.make_file("/sys/block/ram0/dev", "1:0\n");
    EXPECT_EQ(made("hd"), " = 0");
}

TEST_F(DiskNodes, OfASecondCallAreOnlyTheNewOnes)
{
    disk.make_file("/sys/block/sda/dev", "8:0\n");
    disk.make_file("/sys/block/sda/sda1/dev", "8:1\n");
    EXPECT_EQ(made("sd"), " sda sda1 = 1");
    EXPECT_EQ(made("sd"), " (sda) = 0");

    disk.make_file("/sys/block/sdb/dev", "8:16\n");
    disk.make_file("/sys/block/sdb/sdb1/dev", "8:17\n");
    kernel.on_readdir = Listing()
                            .add("sda", DT_LNK)
                            .add("sda1", DT_DIR)
                            .end()
                            .add("sdb", DT_LNK)
                            .add("sdb1", DT_DIR)
                            .end()
                            .end();
    kernel.forget_calls();
    EXPECT_EQ(made("sd"), " (sda) sdb sdb1 = 1");
    EXPECT_THAT(nodes(), ElementsAre("mknod /dev/disk/sdb 060666 8:16", "mknod /dev/disk/sdb1 060666 8:17"));
}

TEST_F(DiskNodes, OfPartitionsThatAreReadableAreNotMentionedAtAll)
{
    disk.make_file("/sys/block/sda/dev", "8:0\n");
    disk.make_file("/sys/block/sda/sda1/dev", "8:1\n");
    disk.make_file("/dev/disk/sda1");
    EXPECT_EQ(made("sd"), " sda = 0");
    EXPECT_THAT(kernel.calls("access"), ElementsAre("access /dev/disk/sda1 4"));
}

TEST_F(DiskNodes, OfPartitionsThatExistButCannotBeReadAreFoundInBrackets)
{
    disk.make_file("/sys/block/sda/dev", "8:0\n");
    disk.make_file("/sys/block/sda/sda1/dev", "8:1\n");
    disk.make_file("/dev/disk/sda1");
    kernel.fail("access", EACCES);
    EXPECT_EQ(made("sd"), " sda (sda1) = 1");
}

TEST_F(DiskNodes, AreNotMadeOfAPartitionWithoutADevFile)
{
    disk.make_file("/sys/block/sda/dev", "8:0\n");
    disk.make_folder("/sys/block/sda/sda_holders");
    EXPECT_EQ(made("sd"), " sda = 0");
}

TEST_F(DiskNodes, LookForPartitionsAlsoOfADiskWithoutADevFile)
{
    disk.make_file("/sys/block/sda/sda1/dev", "8:1\n");
    EXPECT_EQ(made("sd"), " sda1 = 1");
}

TEST_F(DiskNodes, StopOnFoldersThatCannotBeMadeOrOpened)
{
    EXPECT_STOPS_AT(433, qel_make_disk_nodes("sd"));

    disk.make_file("/sys/block/sda/dev", "8:0\n");
    kernel.fail_nth("opendir", 3, EACCES);
    EXPECT_STOPS_AT(433, qel_make_disk_nodes("sd"));

    kernel.fail("mkdir", EROFS);
    EXPECT_STOPS_AT(2351, qel_make_disk_nodes("sd"));
}
