// Copying files, and moving blocks between memory and streams.

#include "support/output.h"
#include "support/scratch_disk.h"
#include "support/stops.h"

#include "qel_utility/qel_filesystem/files.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <unistd.h>

using testing::ElementsAre;
using testing::IsEmpty;

/// `size` bytes in which no two pieces of 4096 are alike.
static std::string pattern(size_t size)
{
    std::string text(size, '\0');
    for (size_t i = 0; i < size; ++i)
        text[i] = static_cast<char>(i * 7 + i / 251);
    return text;
}

// ---- qel_copy_file ----

struct CopyFile : OnScratchDisk {
    ~CopyFile() override
    {
        qel_set_fs_hook(nullptr);
    }

    /// Copies, keeps what was printed in `printed`, and returns the result.
    int copy(const char *dst, const char *src)
    {
        int result = -1;
        printed = output_of([&] { result = qel_copy_file(dst, src); });
        return result;
    }

    std::string printed;
};

TEST_F(CopyFile, CopiesEveryByteOfFilesOfEverySize)
{
    for (size_t size : {0UL, 1UL, 4095UL, 4096UL, 4097UL, 8192UL, 10000UL}) {
        disk.make_file("/src", pattern(size));
        EXPECT_EQ(copy("/dst", "/src"), 1);
        EXPECT_EQ(disk.content("/dst"), pattern(size)) << size;
    }
}

TEST_F(CopyFile, OfAMissingFileLeavesTheContentOfTheDestinationAlone)
{
    disk.make_file("/dst", "old", 0444);
    EXPECT_EQ(copy("/dst", "/missing"), 0);
    EXPECT_EQ(disk.content("/dst"), "old");
    EXPECT_EQ(disk.mode("/dst"), 0777U);
}

TEST_F(CopyFile, OverwritesAReadOnlyFile)
{
    disk.make_file("/src", "new");
    disk.make_file("/dst", "a longer old text", 0444);
    EXPECT_EQ(copy("/dst", "/src"), 1);
    EXPECT_EQ(disk.content("/dst"), "new");
    EXPECT_EQ(disk.mode("/dst"), 0777U);
}

TEST_F(CopyFile, TestsNoTypeSoThatADeviceNodeIsSimplyWritten)
{
    disk.make_file("/image", "system image");
    ASSERT_EQ(mkfifo(disk.at("/node").c_str(), 0600), 0);
    const int other_end = real_open(disk.at("/node").c_str(), O_RDONLY | O_NONBLOCK, 0);
    EXPECT_EQ(copy("/node", "/image"), 1);
    char text[100] = "";
    EXPECT_EQ(real_read(other_end, text, sizeof text), 12);
    EXPECT_STREQ(text, "system image");
    real_close(other_end);
}

TEST_F(CopyFile, FollowsALinkToItsContent)
{
    disk.make_file("/file", "text");
    disk.make_link("/link", "file");
    EXPECT_EQ(copy("/dst", "/link"), 1);
    EXPECT_FALSE(disk.is_link("/dst"));
    EXPECT_EQ(disk.content("/dst"), "text");
}

TEST_F(CopyFile, Returns0OnAShortWriteAndLeavesThePartialDestination)
{
    disk.make_file("/src", pattern(10000));
    kernel.shorten_nth("write", 2, 100);
    EXPECT_EQ(copy("/dst", "/src"), 0);
    EXPECT_EQ(disk.content("/dst"), pattern(4196));
    EXPECT_EQ(kernel.count("write"), 2);
    EXPECT_EQ(kernel.count("close"), 2);
}

TEST_F(CopyFile, TakesAReadErrorForTheEndOfTheFile)
{
    disk.make_file("/src", pattern(10000));
    kernel.fail_nth("read", 2, EIO);
    EXPECT_EQ(copy("/dst", "/src"), 1);
    EXPECT_EQ(disk.content("/dst"), pattern(4096));
    EXPECT_EQ(disk.mode("/dst"), 0777U);
}

TEST_F(CopyFile, TakesAFolderForAnEmptyFile)
{
    disk.make_folder("/folder");
    EXPECT_EQ(copy("/dst", "/folder"), 1);
    EXPECT_EQ(disk.content("/dst"), "");
}

TEST_F(CopyFile, PrintsAndCallsTheHookBeforeItChecksTheSourceAndThenTheDestination)
{
    qel_set_fs_hook(recorded_hook);
    const StopResult stop = stop_of([] { qel_copy_file("dst", "src"); });
    EXPECT_EQ(stop.line, 583);
    EXPECT_EQ(stop.output.substr(0, 17), "copy: src -> dst\n");
    EXPECT_THAT(kernel.calls("access"), ElementsAre("access /hook 0"));

    EXPECT_STOPS_AT(583, qel_copy_file("dst", "src"));
    EXPECT_STOPS_AT(584, qel_copy_file("dst", "/src"));
    EXPECT_EQ(kernel.count("chmod"), 0);
}

TEST_F(CopyFile, CallsTheHookOnceAtTheStartAndAfterEveryReadTheEmptyOneIncluded)
{
    disk.make_file("/src", pattern(5000));
    qel_set_fs_hook(recorded_hook);
    copy("/dst", "/src");
    std::vector<std::string> names;
    for (const std::string &call : kernel.calls("access chmod open read write close"))
        names.push_back(call.substr(0, call.find(' ')));
    EXPECT_THAT(names, ElementsAre("access", "chmod", "open", "open", //
                                   "read", "write", "access",         //
                                   "read", "write", "access",         //
                                   "read", "access",                  //
                                   "close", "close", "chmod"));
}

TEST_F(CopyFile, CallsTheHookAlsoAfterTheReadWhoseWriteFails)
{
    disk.make_file("/src", "text");
    kernel.fail("write", ENOSPC);
    qel_set_fs_hook(recorded_hook);
    copy("/dst", "/src");
    EXPECT_EQ(kernel.count("access"), 2);
}

TEST_F(CopyFile, CallsTheHookOnlyOnceWhenNothingCanBeOpened)
{
    qel_set_fs_hook(recorded_hook);
    copy("/dst", "/missing");
    EXPECT_EQ(kernel.count("access"), 1);
}

TEST_F(CopyFile, WorksWithTheDescriptorsOfTheStandardStreams)
{
    kernel.on_read = [next = 0](auto...) mutable { return ++next % 2; };
    kernel.on_write = [](int, const void *, size_t size) { return static_cast<ssize_t>(size); };
    kernel.on_close = [](int) { return 0; };
    kernel.on_chmod = [](auto...) { return 0; };
    kernel.on_open = [next = 0](auto...) mutable { return next++; };
    EXPECT_EQ(copy("/b", "/a"), 1);
    EXPECT_THAT(kernel.calls("read write close"),
                ElementsAre("read 0 4096", "write 1 1", "read 0 4096", "close 0", "close 1"));
    kernel.on_open = [next = 1](auto...) mutable { return next--; };
    EXPECT_EQ(copy("/b", "/a"), 1);
}

// ---- qel_read_block, qel_write_block ----

/// A scratch file opened as a stream, unbuffered so that errors show at once.
struct Block : OnScratchDisk {
    ~Block() override
    {
        if (file)
            real_fclose(file);
    }
    void open(const char *mode)
    {
        file = real_fopen(disk.at("/file").c_str(), mode);
        setvbuf(file, nullptr, _IONBF, 0);
    }

    FILE *file = nullptr;
    std::string buffer = std::string(20000, '.');
};

using ReadBlock = Block;
using WriteBlock = Block;

TEST_F(ReadBlock, MovesAtMost4096BytesACall)
{
    disk.make_file("/file", pattern(10000));
    open("rb");
    EXPECT_EQ(qel_read_block(buffer.data(), 9000, file), 9000U);
    EXPECT_EQ(buffer.substr(0, 9001), pattern(9000) + ".");
    EXPECT_THAT(kernel.calls("fread"), ElementsAre("fread 1 4096", "fread 1 4096", "fread 1 808"));
}

TEST_F(ReadBlock, StopsWhenACallMovesNothing)
{
    disk.make_file("/file", pattern(5000));
    open("rb");
    EXPECT_EQ(qel_read_block(buffer.data(), 20000, file), 5000U);
    EXPECT_EQ(buffer.substr(0, 5001), pattern(5000) + ".");
    EXPECT_EQ(kernel.count("fread"), 3);
}

TEST_F(ReadBlock, GoesOnAfterAShortCallAtTheNextByte)
{
    disk.make_file("/file", pattern(5000));
    open("rb");
    kernel.shorten_nth("fread", 1, 100);
    EXPECT_EQ(qel_read_block(buffer.data(), 5000, file), 5000U);
    EXPECT_EQ(buffer.substr(0, 5000), pattern(5000));
    EXPECT_THAT(kernel.calls("fread"), ElementsAre("fread 1 4096", "fread 1 4096", "fread 1 804"));
}

TEST_F(ReadBlock, OfNothingReturns0AtOnce)
{
    disk.make_file("/file", "text");
    open("rb");
    EXPECT_EQ(qel_read_block(buffer.data(), 0, file), 0U);
    EXPECT_THAT(kernel.calls("fread"), IsEmpty());
}

TEST_F(ReadBlock, ChecksBufferAndStreamEvenForNothing)
{
    EXPECT_STOPS_AT(307, qel_read_block(nullptr, 0, nullptr));
    EXPECT_STOPS_AT(308, qel_read_block(buffer.data(), 0, nullptr));
}

TEST_F(WriteBlock, MovesAtMost4096BytesACall)
{
    open("wb");
    EXPECT_EQ(qel_write_block(pattern(9000).data(), 9000, file), 9000U);
    EXPECT_EQ(disk.content("/file"), pattern(9000));
    EXPECT_THAT(kernel.calls("fwrite"), ElementsAre("fwrite 1 4096", "fwrite 1 4096", "fwrite 1 808"));
}

TEST_F(WriteBlock, GoesOnAfterAShortCallAtTheNextByte)
{
    open("wb");
    kernel.shorten_nth("fwrite", 1, 100);
    EXPECT_EQ(qel_write_block(pattern(5000).data(), 5000, file), 5000U);
    EXPECT_EQ(disk.content("/file"), pattern(5000));
}

TEST_F(WriteBlock, StopsWhenACallMovesNothing)
{
    open("wb");
    kernel.fail_nth("fwrite", 2, ENOSPC);
    EXPECT_EQ(qel_write_block(pattern(9000).data(), 9000, file), 4096U);
    EXPECT_EQ(disk.content("/file"), pattern(4096));
    EXPECT_EQ(kernel.count("fwrite"), 2);
}

TEST_F(WriteBlock, OfNothingReturns0AtOnce)
{
    open("wb");
    EXPECT_EQ(qel_write_block("x", 0, file), 0U);
    EXPECT_THAT(kernel.calls("fwrite"), IsEmpty());
}

TEST_F(WriteBlock, ChecksBufferAndStreamEvenForNothing)
{
    EXPECT_STOPS_AT(337, qel_write_block(nullptr, 0, nullptr));
    EXPECT_STOPS_AT(338, qel_write_block("x", 0, nullptr));
}
