// The dumps for debugging a machine in the field.

#include "support/output.h"
#include "support/scratch_disk.h"

#include "qel_utility/qel_filesystem/diagnostics.h"

#include <errno.h>
#include <gtest/gtest.h>

#define DASHES "----------------------------------------\n"

using DumpFolder = OnScratchDisk;
using DumpFile = OnScratchDisk;
using DumpProcesses = OnScratchDisk;

// ---- qel_dump_folder ----

TEST_F(DumpFolder, ListsNamesAndSizesOnOneLineInDirectoryOrder)
{
    disk.make_file("/boot/vmlinux", std::string(1234, 'x'));
    disk.make_file("/boot/a", "12345");
    kernel.on_readdir = Listing().add("vmlinux", DT_REG).add("a", DT_REG);
    EXPECT_EQ(output_of([] { qel_dump_folder("/boot"); }), "/boot: vmlinux (1234) a (5)\n");
}

TEST_F(DumpFolder, ListsTheFoldersOwnEntriesToo)
{
    disk.make_folder("/boot");
    kernel.on_stat = [](const char *, struct stat *status) {
        status->st_size = 5'000'000'000;
        return 0;
    };
    const std::string text = output_of([] { qel_dump_folder("/boot"); });
    EXPECT_NE(text.find(" . (5000000000)"), std::string::npos) << text;
    EXPECT_NE(text.find(" .. (5000000000)"), std::string::npos) << text;
}

// ---- qel_dump_file ----

TEST_F(DumpFile, PrintsLongLinesAndAnUnfinishedLastLineWhole)
{
    const std::string content = std::string(2500, 'x') + "\nlast";
    disk.make_file("/file", content);
    EXPECT_EQ(output_of([] { qel_dump_file("/file"); }), DASHES "/file\n" DASHES + content + DASHES "\n");
}

TEST_F(DumpFile, ReadsLinesOfAtMost999Bytes)
{
    disk.make_file("/file", std::string(1500, 'x'));
    output_of([] { qel_dump_file("/file"); });
    EXPECT_EQ(kernel.calls("fgets").front(), "fgets 1000");
    EXPECT_EQ(kernel.count("fgets"), 3);
}

// ---- qel_dump_processes ----

TEST_F(DumpProcesses, DumpsTheStatusOfEveryEntryThatBeginsWithADigit)
{
    disk.make_file("/proc/0/status", "Name: loader\n");
    disk.make_file("/proc/97/status", "Name: Xfake\n");
    disk.make_file("/proc/self/status", "no\n");
    disk.make_file("/proc/x1/status", "no\n");
    kernel.on_readdir =
        Listing().add(".", DT_DIR).add("97", DT_DIR).add("self", DT_LNK).add("x1", DT_DIR).add("0", DT_DIR);
    EXPECT_EQ(output_of(qel_dump_processes), DASHES "/proc/97/status\n" DASHES "Name: Xfake\n" DASHES "\n" //
              DASHES "/proc/0/status\n" DASHES "Name: loader\n" DASHES "\n"                                //
                                                    "\n");
}

TEST_F(DumpProcesses, DumpsAProcessThatIsGoneAsFramesAlone)
{
    disk.make_folder("/proc/1");
    EXPECT_EQ(output_of(qel_dump_processes), DASHES "/proc/1/status\n" DASHES DASHES "\n\n");
    EXPECT_EQ(kernel.count("closedir"), 1);
}
