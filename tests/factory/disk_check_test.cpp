// The disk checker: what it says about a good disk, and about copies of it with one thing wrong.

#include "line.h"

#include <gmock/gmock.h>

#include <filesystem>

using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;

namespace fs = std::filesystem;

namespace
{

class DiskChecker : public testing::Test
{
  protected:
    DiskChecker() : disk(line.make_disk()) {}

    /// The faults, compared with the originals, and without them.
    std::vector<std::string> faults()
    {
        return faults_of({disk, line.delivery.kernel, line.delivery.system_image});
    }
    std::vector<std::string> faults_without_originals()
    {
        return faults_of({disk, "", ""});
    }

    void mtools(const std::string &command, int partition, const std::vector<std::string> &words)
    {
        std::vector<std::string> whole = {command, "-i", mtools_name(disk, partition)};
        whole.insert(whole.end(), words.begin(), words.end());
        run_tool(whole);
    }

    /// Puts `bytes` in the place of a file of a partition.
    void replace(int partition, const std::string &name, const std::string &bytes)
    {
        write_file(line.at("replacement"), bytes);
        mtools("mattrib", partition, {"-r", "-s", "-h", "::" + name});
        mtools("mcopy", partition, {"-o", line.at("replacement"), "::" + name});
    }

    /// Entry `number` of the partition table, field at `offset` in it.
    void patch_table(unsigned number, unsigned offset, const std::string &bytes)
    {
        patch(disk, 446 + 16 * (number - 1) + offset, bytes);
    }

    Line line;
    std::string disk;
};

std::string little_endian(unsigned long number)
{
    std::string bytes;
    for (int i = 0; i < 4; ++i)
        bytes += static_cast<char>(number >> 8 * i & 0xff);
    return bytes;
}

} // namespace

// ---- A good disk ----

TEST_F(DiskChecker, PassesAWellInstalledDisk)
{
    std::vector<std::string> texts;
    for (const Finding &finding : check_disk({disk, line.delivery.kernel, line.delivery.system_image})) {
        EXPECT_TRUE(finding.good) << finding.text;
        texts.push_back(finding.text);
    }
    EXPECT_THAT(
        texts, ElementsAre(
                   "boot record: a boot program and a partition table", "partition 1: 8 MB, type 4, active",
                   "partition 2: 28 MB, type 83", "partition 3: 11 MB, type 6",
                   "boot partition: a FAT file system without errors",
                   "boot partition: the boot loader is installed",
                   "vmlinux: 300000 bytes, the same as " + line.delivery.kernel, "syslinux.cfg: its 55 bytes",
                   "system image: 102400 bytes, the same as " + line.delivery.system_image,
                   "storage partition: a FAT file system without errors", "application: /qel_application_1"));
}

TEST_F(DiskChecker, WithoutTheOriginalsStillLooksAtKernelAndImage)
{
    EXPECT_THAT(faults_without_originals(), IsEmpty());
}

TEST_F(DiskChecker, LeavesTheDiskAlone)
{
    const std::string before = read_file(disk);
    const auto time = fs::last_write_time(disk);
    fs::permissions(disk, fs::perms::owner_read);
    EXPECT_THAT(faults(), IsEmpty());
    EXPECT_TRUE(read_file(disk) == before);
    EXPECT_EQ(fs::last_write_time(disk), time);
}

TEST_F(DiskChecker, FindsTheApplicationInAFolderAndNamesTheNewest)
{
    mtools("mmd", 3, {"::games"});
    write_file(line.at("newer"), "x");
    mtools("mcopy", 3, {line.at("newer"), "::games/qel_application_2"});
    std::vector<Finding> findings = check_disk({disk, "", ""});
    EXPECT_EQ(findings.back().text, "application: /games/qel_application_2");
}

// ---- Boot record and partition table ----

TEST_F(DiskChecker, FindsADiskWithoutAPartitionTable)
{
    patch(disk, 510, std::string(2, '\0'));
    EXPECT_THAT(faults(), ElementsAre("boot record: no 55 aa at its end, so there is no partition table; "
                                      "install this disk"));
    write_file(disk, "");
    EXPECT_THAT(faults(), ElementsAre(StartsWith("boot record: no 55 aa")));
}

TEST_F(DiskChecker, FindsAMissingBootProgram)
{
    patch(disk, 0, std::string(440, '\0'));
    EXPECT_THAT(faults(),
                ElementsAre("boot record: no boot program, and the installer writes none; write one: "
                            "dd if=/usr/lib/SYSLINUX/mbr.bin of=DISK bs=440 count=1 conv=notrunc"));
}

TEST_F(DiskChecker, FindsABootPartitionThatIsNotActive)
{
    patch_table(1, 0, std::string(1, '\0'));
    EXPECT_THAT(faults(), ElementsAre("partition 1: not active"));
}

TEST_F(DiskChecker, FindsAnotherPartitionThatIsActive)
{
    patch_table(3, 0, "\x80");
    EXPECT_THAT(faults(), ElementsAre("partition 3: active"));
}

TEST_F(DiskChecker, FindsWrongPartitionTypes)
{
    patch_table(1, 4, "\x06");
    patch_table(2, 4, "\x82");
    patch_table(3, 4, "\x0e");
    EXPECT_THAT(faults(),
                ElementsAre("partition 1: type 6 instead of 4", "partition 2: type 82 instead of 83",
                            "partition 3: type e instead of 6"));
}

TEST_F(DiskChecker, FindsWrongPartitionSizes)
{
    patch_table(2, 12, little_endian(57344 - 1024));
    EXPECT_THAT(faults(), ElementsAre("partition 2: 27.5 MB instead of 28 MB",
                                      "partition 3: does not directly follow partition 2"));
}

TEST_F(DiskChecker, FindsAMissingAndASuperfluousPartition)
{
    patch(disk, 446 + 32, std::string(16, '\0'));
    patch_table(4, 4, "\x83");
    EXPECT_THAT(faults(), ElementsAre("partition 3: does not exist", "partition 4: must not exist"));
}

TEST_F(DiskChecker, FindsADiskThatIsShorterThanItsPartitions)
{
    fs::resize_file(disk, 47 * mebibyte);
    EXPECT_THAT(faults(), ElementsAre("partition 3: extends past the end of the disk"));
}

TEST_F(DiskChecker, FindsAStorageThatLeavesADiskUnused)
{
    fs::resize_file(disk, 58 * mebibyte);
    EXPECT_THAT(faults(), ElementsAre("partition 3: leaves 10 MB of the disk unused"));
}

// ---- Boot partition ----

TEST_F(DiskChecker, FindsAMissingAnEmptyAndAChangedKernel)
{
    std::string kernel = read_file(line.delivery.kernel);
    kernel[200000] ^= 1;
    replace(1, "vmlinux", kernel);
    EXPECT_THAT(faults(), ElementsAre("vmlinux: 300000 bytes, not the same as " + line.delivery.kernel));
    EXPECT_THAT(faults_without_originals(), IsEmpty());

    replace(1, "vmlinux", "");
    EXPECT_THAT(faults(), ElementsAre("boot partition: vmlinux is empty"));
    mtools("mdel", 1, {"::vmlinux"});
    EXPECT_THAT(faults(), ElementsAre("boot partition: vmlinux is missing"));
}

TEST_F(DiskChecker, FindsAKernelThatIsNoneEvenWithoutTheOriginal)
{
    replace(1, "vmlinux", std::string(1000, 'x'));
    EXPECT_THAT(faults_without_originals(),
                ElementsAre("vmlinux: 1000 bytes, but not a kernel that the boot loader can start"));
}

TEST_F(DiskChecker, FindsAMissingBootLoader)
{
    mtools("mattrib", 1, {"-r", "-s", "-h", "::ldlinux.sys"});
    mtools("mdel", 1, {"::ldlinux.sys"});
    EXPECT_THAT(faults(), ElementsAre("boot partition: ldlinux.sys is missing"));
}

TEST_F(DiskChecker, FindsABootLoaderWhoseSecondFileDidNotFit)
{
    replace(1, "ldlinux.c32", "");
    EXPECT_THAT(faults(), ElementsAre("boot partition: ldlinux.c32 is empty"));
    mtools("mdel", 1, {"::ldlinux.c32"});
    EXPECT_THAT(faults(), ElementsAre("boot partition: ldlinux.c32 is missing"));
}

TEST_F(DiskChecker, DoesNotAskAnOlderBootLoaderForASecondFile)
{
    replace(1, "ldlinux.sys", "\r\nSYSLINUX 4.07 \r\n");
    mtools("mattrib", 1, {"-r", "-s", "-h", "::ldlinux.c32"});
    mtools("mdel", 1, {"::ldlinux.c32"});
    EXPECT_THAT(faults(), IsEmpty());
}

TEST_F(DiskChecker, FindsABootSectorThatDoesNotStartTheBootLoader)
{
    patch(disk, start_of(disk, 1) + 3, "mkfs.fat");
    EXPECT_THAT(faults(), ElementsAre("boot partition: its first sector does not start ldlinux.sys; syslinux "
                                      "has not run"));
}

TEST_F(DiskChecker, FindsAChangedALongerAndAMissingConfiguration)
{
    const char *fault = "syslinux.cfg: not the 55 bytes of: DEFAULT vmlinux root=/dev/ram0 "
                        "usb-storage.delay_use=1";
    replace(1, "syslinux.cfg", "DEFAULT vmlinux root=/dev/ram0 usb-storage.delay_use=2\n");
    EXPECT_THAT(faults(), ElementsAre(fault));
    replace(1, "syslinux.cfg", "DEFAULT vmlinux root=/dev/ram0 usb-storage.delay_use=1\n\n");
    EXPECT_THAT(faults(), ElementsAre(fault));
    mtools("mdel", 1, {"::syslinux.cfg"});
    EXPECT_THAT(faults(), ElementsAre("boot partition: syslinux.cfg is missing"));
}

TEST_F(DiskChecker, FindsABootFileSystemWhoseTablesDiffer)
{
    // The boot sector says at byte 14 how many sectors stand before the first table.
    unsigned long long start = start_of(disk, 1);
    auto sectors = static_cast<unsigned char>(read_file(disk)[start + 14]);
    patch(disk, start + sectors * 512ULL + 100, "xx");
    std::vector<std::string> found = faults();
    ASSERT_EQ(found.size(), 1U);
    EXPECT_THAT(found[0], StartsWith("boot partition: the tool fsck.fat failed: "));
    EXPECT_THAT(found[0], HasSubstr("FATs differ"));
}

// ---- System image ----

TEST_F(DiskChecker, FindsOneChangedByteOfTheSystemImage)
{
    std::string image = read_file(line.delivery.system_image);
    image[50000] ^= 1;
    patch(disk, start_of(disk, 2) + 50000, image.substr(50000, 1));
    EXPECT_THAT(faults(), ElementsAre("system image: differs from " + line.delivery.system_image +
                                      " at byte 50000 of 102400 bytes"));
    std::vector<std::string> found = faults_without_originals();
    ASSERT_EQ(found.size(), 1U);
    EXPECT_THAT(found[0], StartsWith("system image: the tool fsck.cramfs failed: "));
}

TEST_F(DiskChecker, FindsASystemImageThatWasNotWritten)
{
    patch(disk, start_of(disk, 2), std::string(4096, '\0'));
    EXPECT_THAT(faults(), ElementsAre("system image: differs from " + line.delivery.system_image +
                                      " at byte 0 of 102400 bytes"));
    EXPECT_THAT(faults_without_originals(),
                ElementsAre("system image: partition 2 does not begin with a cramfs"));
}

TEST_F(DiskChecker, FindsASystemImageWhoseEndIsMissing)
{
    patch(disk, start_of(disk, 2) + 81920, std::string(102400 - 81920, '\0'));
    EXPECT_THAT(faults(), ElementsAre(StartsWith("system image: differs from ")));
    EXPECT_THAT(faults_without_originals(), ElementsAre(StartsWith("system image: the tool fsck.cramfs")));
}

// ---- Storage ----

TEST_F(DiskChecker, FindsAStorageThatWasNotFormatted)
{
    patch(disk, start_of(disk, 3), std::string(512, '\0'));
    EXPECT_THAT(faults(), ElementsAre(StartsWith("storage partition: the tool fsck.fat failed: ")));
}

TEST_F(DiskChecker, FindsAStorageThatWasNotUnmountedCleanly)
{
    patch(disk, start_of(disk, 3) + 37, "\x01"); // the state byte of a FAT16 boot sector: "dirty"
    std::vector<std::string> found = faults();
    ASSERT_EQ(found.size(), 1U);
    EXPECT_THAT(found[0], HasSubstr("Dirty bit is set"));
}

TEST_F(DiskChecker, FindsAStorageWithoutAnApplication)
{
    const char *fault = "application: nothing on the storage partition has a name beginning with "
                        "qel_application_";
    mtools("mren", 3, {"::qel_application_1", "::qel_app"});
    EXPECT_THAT(faults(), ElementsAre(fault));
    make_vfat(disk, 3, {});
    EXPECT_THAT(faults(), ElementsAre(fault));
}

TEST_F(DiskChecker, FindsAFolderThatTheLoaderWouldTakeForTheApplication)
{
    mtools("mmd", 3, {"::data/qel_application_0"});
    EXPECT_THAT(faults(), IsEmpty()); // the real one has the greater name
    mtools("mmd", 3, {"::data/qel_application_2"});
    EXPECT_THAT(faults(), ElementsAre("application: the loader would take the folder "
                                      "/data/qel_application_2/ for it; rename that folder"));
}

// ---- Wrong calls ----

TEST(DiskCheckerCall, NamesADiskOrAnOriginalThatCannotBeRead)
{
    Line line;
    EXPECT_THROW(check_disk({line.at("missing"), "", ""}), std::runtime_error);
    std::string disk = line.make_disk();
    EXPECT_THROW(check_disk({disk, line.at("missing"), ""}), std::runtime_error);
    EXPECT_THROW(check_disk({disk, "", line.at("missing")}), std::runtime_error);
}
