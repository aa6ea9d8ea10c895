// qel-factory from the command line: its exit codes and what it prints.

#include "line.h"

#include <gmock/gmock.h>

#include <filesystem>

using testing::EndsWith;
using testing::HasSubstr;
using testing::StartsWith;

namespace
{

/// Runs the tool and returns what it prints, followed by "exit CODE".
std::string run(std::vector<std::string> options)
{
    std::vector<std::string> command = {"sh", "-c", "\"$0\" \"$@\"; echo exit $?", FACTORY_TEST_TOOL};
    command.insert(command.end(), options.begin(), options.end());
    return run_tool(command);
}

} // namespace

TEST(FactoryTool, ExplainsItself)
{
    for (const char *command :
         {"make-stick", "make-disk", "make-kernel", "make-system-image", "check-disk", "install"}) {
        EXPECT_THAT(run({"--help"}), HasSubstr(command));
        EXPECT_THAT(run({command, "--help"}), EndsWith("exit 0\n"));
    }
}

TEST(FactoryTool, EndsWith2ForAWrongCall)
{
    EXPECT_THAT(run({}), EndsWith("exit 2\n"));
    EXPECT_THAT(run({"make-coffee"}), EndsWith("exit 2\n"));
    EXPECT_THAT(run({"check-disk"}), EndsWith("exit 2\n"));
    EXPECT_THAT(run({"check-disk", "disk", "--kernel", "/missing"}), EndsWith("exit 2\n"));
    EXPECT_THAT(run({"make-stick", "stick", "--disk-size", "many"}), EndsWith("exit 2\n"));
    EXPECT_THAT(run({"make-kernel", "kernel", "--target", "mips"}),
                "--target: mips not in {x86-64,i586}\nRun with --help for more information.\nexit 2\n");
}

TEST(FactoryTool, MakesAStickAndWarnsOfIt)
{
    Line line;
    std::string output =
        run({"make-stick", line.at("stick.img"), "--kernel", line.delivery.kernel, "--system-image",
             line.delivery.system_image, "--storage", line.delivery.storage});
    EXPECT_THAT(output, HasSubstr("dd if=" + line.at("stick.img") + " of=/dev/sdX bs=4M conv=fsync\n"));
    EXPECT_THAT(output, EndsWith("WARNING: a cabinet that is started from this stick wipes its internal disk "
                                 "without asking.\nexit 0\n"));
    EXPECT_TRUE(std::filesystem::exists(line.at("stick.img")));
}

TEST(FactoryTool, SaysWhyItMakesNoStick)
{
    Line line;
    std::string output =
        run({"make-stick", line.at("stick.img"), "--kernel", line.delivery.kernel, "--system-image",
             line.delivery.system_image, "--storage", line.delivery.storage, "--disk-size", "30"});
    EXPECT_THAT(output, HasSubstr("\nerror: a disk of 30.0 MB is too small; see --disk-size\n"));
    EXPECT_THAT(output, EndsWith("exit 1\n"));
    EXPECT_FALSE(std::filesystem::exists(line.at("stick.img")));
}

TEST(FactoryTool, MakesADiskThatItsCheckerPasses)
{
    Line line;
    std::string output =
        run({"make-disk", line.at("disk.img"), "--kernel", line.delivery.kernel, "--system-image",
             line.delivery.system_image, "--storage", line.delivery.storage, "--disk-size", "64"});
    EXPECT_THAT(output, EndsWith(line.at("disk.img") + ": 64.0 MB\nexit 0\n"));

    output = run({"check-disk", line.at("disk.img"), "--kernel", line.delivery.kernel, "--system-image",
                  line.delivery.system_image});
    EXPECT_THAT(output, StartsWith("ok     boot record: a boot program and a partition table\n"
                                   "ok     partition 1: 8 MB, type 4, active\n"));
    EXPECT_THAT(output, EndsWith("ok     application: /qel_application_1\n" + line.at("disk.img") +
                                 " is a well installed cabinet disk\nexit 0\n"));
}

TEST(FactoryTool, EndsWith1ForADiskWithFaults)
{
    Line line;
    std::string disk = line.make_disk();
    patch(disk, 446, std::string(1, '\0'));
    std::string output = run({"check-disk", disk});
    EXPECT_THAT(output, HasSubstr("FAULT  partition 1: not active\n"));
    EXPECT_THAT(output, EndsWith(disk + " is not: 1 fault\nexit 1\n"));
}

TEST(FactoryTool, IsContentOnceTheBootProgramIsWritten)
{
    Line line;
    std::string disk = line.make_disk();
    patch(disk, 0, std::string(440, '\0'));
    EXPECT_THAT(run({"check-disk", disk}), EndsWith(disk + " is not: 1 fault\nexit 1\n"));
    run_tool({"dd", "if=/usr/lib/SYSLINUX/mbr.bin", "of=" + disk, "bs=440", "count=1", "conv=notrunc"});
    EXPECT_THAT(run({"check-disk", disk}), EndsWith(disk + " is a well installed cabinet disk\nexit 0\n"));
}

TEST(FactoryTool, EndsWith1ForADiskThatCannotBeRead)
{
    EXPECT_EQ(run({"check-disk", "/missing"}), "error: /missing: No such file or directory\nexit 1\n");
}

TEST(FactoryTool, PacksASystemImageFromAFolder)
{
    Line line;
    EXPECT_THAT(run({"make-system-image", line.at("image"), line.at("storage")}), EndsWith("exit 0\n"));
    EXPECT_EQ(read_file(line.at("image")).substr(0, 4), "\x45\x3d\xcd\x28");
}

TEST(FactoryTool, SaysSoWhenASystemImageIsTooLarge)
{
    Line line;
    write_file(line.at("storage/one"), kernel_of(15 * mebibyte));
    write_file(line.at("storage/two"), kernel_of(14 * mebibyte));
    std::string output = run({"make-system-image", line.at("image"), line.at("storage")});
    EXPECT_THAT(output, HasSubstr(" do not fit the 28 MB system partition; leave something out\n"));
    EXPECT_THAT(output, EndsWith("exit 1\n"));
}

TEST(FactoryTool, SaysSoWhenAFileIsTooLargeForASystemImage)
{
    Line line;
    write_file(line.at("storage/large"), std::string(16 * mebibyte, 'x'));
    std::string output = run({"make-system-image", line.at("image"), line.at("storage")});
    EXPECT_THAT(output, HasSubstr(": large is larger than 16 MB, the most that a cramfs holds; leave it out\n"));
    EXPECT_THAT(output, EndsWith("exit 1\n"));
}
