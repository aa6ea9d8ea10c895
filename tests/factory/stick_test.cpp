// Factory sticks: what is on them, and what is refused before one is written.

#include "line.h"

#include <gmock/gmock.h>

#include <filesystem>

using testing::AllOf;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAre;

namespace fs = std::filesystem;

namespace
{

std::string file_on(const std::string &stick, const std::string &name)
{
    ScratchFolder folder;
    run_tool({"mcopy", "-i", mtools_name(stick, 1), "::" + name, folder.path + "/copy"});
    return read_file(folder.path + "/copy");
}

/// A storage folder whose files do not compress.
void fill_storage(Line &line, size_t bytes)
{
    write_file(line.at("storage/data/large"), kernel_of(bytes));
}

} // namespace

// ---- What is on a stick ----

TEST(FactoryStick, HoldsTheDeliveryByteForByte)
{
    Line line;
    std::string stick = line.make_stick();
    EXPECT_TRUE(file_on(stick, "vmlinux") == read_file(line.delivery.kernel));
    EXPECT_TRUE(file_on(stick, "qel_usr.cramfs") == read_file(line.delivery.system_image));
    EXPECT_EQ(file_on(stick, "syslinux.cfg"),
              "DEFAULT vmlinux root=/dev/ram0 usb-storage.delay_use=1 qelinstall\n");
}

TEST(FactoryStick, StartsFromItsActivePartition)
{
    Line line;
    std::string stick = line.make_stick();
    std::string record = read_file(stick).substr(0, 512);
    EXPECT_EQ(record.substr(0, 440), read_file("/usr/lib/SYSLINUX/mbr.bin"));
    EXPECT_EQ(record[446], '\x80');
    EXPECT_EQ(record.substr(510), "\x55\xaa");
    EXPECT_EQ(read_file(stick).substr(start_of(stick, 1) + 3, 8), "SYSLINUX");
    EXPECT_THAT(file_on(stick, "ldlinux.sys"), HasSubstr("SYSLINUX"));
}

TEST(FactoryStick, PacksAStorageFolderWithItsFolders)
{
    Line line;
    std::string stick = line.make_stick();
    write_file(line.at("copy.zip"), file_on(stick, "storage.zip"));
    fs::create_directory(line.at("unpacked"));
    run_tool({"miniunzip", line.at("copy.zip"), "-d", line.at("unpacked")});
    EXPECT_EQ(read_file(line.at("unpacked/qel_application_1")), "application");
    EXPECT_EQ(read_file(line.at("unpacked/data/A long name.txt")), "text");
}

TEST(FactoryStick, TakesAnArchiveAsItIs)
{
    Line line;
    run_tool({"sh", "-c", "cd \"$0\" && zip -q -r ../own.zip .", line.at("storage")});
    line.delivery.storage = line.at("own.zip");
    EXPECT_TRUE(file_on(line.make_stick(), "storage.zip") == read_file(line.at("own.zip")));
}

TEST(FactoryStick, MayBringAnApplicationInsteadOfAnArchive)
{
    Line line;
    line.delivery.storage.clear();
    line.delivery.application = line.at("storage/qel_application_1");
    std::string stick = line.make_stick();
    EXPECT_EQ(file_on(stick, "qel_application_1"), "application");
    EXPECT_THROW(file_on(stick, "storage.zip"), std::runtime_error);
}

TEST(FactoryStick, ReplacesAnOlderImageOnlyOnceItIsComplete)
{
    Line line;
    write_file(line.at("stick.img"), "old");
    EXPECT_EQ(line.refusal(), "");
    EXPECT_GT(fs::file_size(line.at("stick.img")), 3U);
    EXPECT_FALSE(fs::exists(line.at("stick.img.part")));

    write_file(line.at("stick.img"), "old");
    fs::remove(line.delivery.kernel);
    EXPECT_NE(line.refusal(), "");
    EXPECT_EQ(read_file(line.at("stick.img")), "old");
    EXPECT_FALSE(fs::exists(line.at("stick.img.part")));
}

TEST(FactoryStick, IsNeverWrittenToADevice)
{
    Line line;
    EXPECT_THROW(make_factory_stick("/dev/null", line.delivery, [](const std::string &) {}),
                 std::runtime_error);
}

TEST(FactoryStick, TellsItsSteps)
{
    Line line;
    line.make_stick();
    EXPECT_THAT(line.steps,
                ElementsAre("looking at the kernel and the system image", "unpacking the storage archive",
                            "installing onto a disk of 48.0 MB", "writing the stick"));
}

// ---- What is refused ----

TEST(Delivery, WithoutAKernelIsRefused)
{
    Line line;
    fs::remove(line.delivery.kernel);
    EXPECT_EQ(line.refusal(), line.delivery.kernel + ": not found; name the boot file with --kernel; "
                                                     "qel-factory make-kernel makes one");
}

TEST(Delivery, WithAKernelThatIsNoneIsRefused)
{
    Line line;
    write_file(line.delivery.kernel, std::string(100000, 'x'));
    EXPECT_THAT(line.refusal(), StartsWith(line.delivery.kernel + ": not a kernel"));
}

TEST(Delivery, WithAKernelThatDoesNotFitIsRefused)
{
    Line line;
    write_file(line.delivery.kernel, kernel_of(9 * mebibyte));
    EXPECT_THAT(line.refusal(), AllOf(StartsWith(line.delivery.kernel + ": 9.0 MB do not fit the 8 MB"),
                                      HasSubstr("make the RAM disk smaller")));
}

TEST(Delivery, WithAKernelThatWouldFitButForTheBootLoaderIsRefused)
{
    Line line;
    write_file(line.delivery.kernel, kernel_of(8 * mebibyte - 150000));
    EXPECT_THAT(line.refusal(), StartsWith(line.delivery.kernel + ": 7.9 MB do not fit the 8 MB"));
    write_file(line.delivery.kernel, kernel_of(8 * mebibyte - 240000));
    EXPECT_EQ(line.refusal(), "");
}

TEST(Delivery, WithoutASystemImageIsRefused)
{
    Line line;
    fs::remove(line.delivery.system_image);
    EXPECT_EQ(line.refusal(), line.delivery.system_image + ": not found; name the system image with "
                                                           "--system-image; qel-factory make-system-image "
                                                           "makes one");
}

TEST(Delivery, WithASystemImageOver28MegabytesIsRefused)
{
    Line line;
    fs::resize_file(line.delivery.system_image, 28 * mebibyte + 1);
    EXPECT_EQ(line.refusal(), line.delivery.system_image + ": 29360129 bytes do not fit the 28 MB system "
                                                           "partition; leave something out");
}

TEST(Delivery, WithASystemImageThatIsNoneOrDamagedIsRefused)
{
    Line line;
    patch(line.delivery.system_image, 90000, "damage");
    EXPECT_THAT(line.refusal(), HasSubstr("this system image is damaged; make it again"));
    write_file(line.delivery.system_image, "text");
    EXPECT_THAT(line.refusal(), HasSubstr("not a cramfs"));
}

TEST(Delivery, WithMoreThanTheStorageHoldsIsRefusedUnlessTheDiskIsLarger)
{
    Line line;
    fill_storage(line, 12 * mebibyte);
    EXPECT_EQ(line.refusal(), "the storage partition of a disk of 48.0 MB would have 11.0 MB, which does not "
                              "hold the 12.0 MB of the unpacked storage; leave something out, or name the "
                              "disk's size with --disk-size");
    line.delivery.disk_bytes = 56 * mebibyte;
    EXPECT_EQ(line.refusal(), "");
}

TEST(Delivery, ForADiskOfAnImpossibleSizeIsRefused)
{
    Line line;
    line.delivery.disk_bytes = 30 * mebibyte;
    EXPECT_EQ(line.refusal(), "a disk of 30.0 MB is too small; see --disk-size");
    line.delivery.disk_bytes = 38 * mebibyte;
    EXPECT_THAT(line.refusal(), HasSubstr("which is too much or too little for FAT16; see --disk-size"));
    line.delivery.disk_bytes = 10000 * mebibyte;
    EXPECT_THAT(line.refusal(), HasSubstr("which is too much or too little for FAT16; see --disk-size"));
}

TEST(Delivery, WithoutAnApplicationIsRefused)
{
    Line line;
    fs::rename(line.at("storage/qel_application_1"), line.at("storage/application_1"));
    const char *refusal = "there is no application: the loader wants a file whose name begins with "
                          "qel_application_ in the storage archive; add it there, or name one with "
                          "--application";
    EXPECT_EQ(line.refusal(), refusal);
    line.delivery.storage.clear();
    EXPECT_EQ(line.refusal(), refusal);
}

TEST(Delivery, MayHaveItsApplicationInAFolder)
{
    Line line;
    fs::rename(line.at("storage/qel_application_1"), line.at("storage/data/qel_application_1"));
    EXPECT_EQ(line.refusal(), "");
}

TEST(Delivery, WithAFolderNamedLikeAnApplicationIsRefused)
{
    Line line;
    fs::create_directory(line.at("storage/data/qel_application_data"));
    EXPECT_EQ(line.refusal(),
              "the storage archive holds a folder qel_application_data, which the loader would "
              "take for an application; rename it");
}

TEST(Delivery, WithAnApplicationOfAnotherNameIsRefused)
{
    Line line;
    line.delivery.application = line.at("file");
    EXPECT_THAT(line.refusal(), HasSubstr("the loader only takes files whose names begin with"));
    line.delivery.application = line.at("qel_application_missing");
    EXPECT_THAT(line.refusal(), HasSubstr("not found; name an application with --application"));
}

TEST(Delivery, WithAnArchiveThatCannotBeUnpackedIsRefused)
{
    Line line;
    write_file(line.at("broken.zip"), "this is not an archive");
    line.delivery.storage = line.at("broken.zip");
    EXPECT_THAT(line.refusal(), HasSubstr("the cabinet's miniunz cannot unpack this archive"));
    line.delivery.storage = line.at("missing.zip");
    EXPECT_THAT(line.refusal(), HasSubstr("not found; name a folder or an archive with --storage"));
}

TEST(Delivery, WithAnEmptyStorageFolderIsRefused)
{
    Line line;
    fs::create_directory(line.at("empty"));
    line.delivery.storage = line.at("empty");
    EXPECT_THAT(line.refusal(), HasSubstr("cannot be packed; is the folder empty?"));
}
