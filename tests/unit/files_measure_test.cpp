// Sizes of trees and file systems, the working folder, and the stopwatch.

#include "support/output.h"
#include "support/scratch_disk.h"
#include "support/stops.h"

#include "qel_utility/qel_filesystem/files.h"

#include <errno.h>
#include <gmock/gmock.h>

using testing::ElementsAre;

// ---- Trees ----

/// Folders count 100 bytes here, whatever the scratch file system says.
struct FolderSize : OnScratchDisk {
    FolderSize()
    {
        kernel.on_stat = [this](const char *path, struct stat *status) {
            const int result = real_stat(kernel.at(path).c_str(), status);
            if (result == 0 && (status->st_mode & 0x4000))
                status->st_size = 100;
            return result;
        };
    }
    int measure(const char *path, int64_t threshold)
    {
        return qel_get_folder_size_with_threshold(path, threshold, &size);
    }

    int64_t size = 0;
};

TEST_F(FolderSize, IsTheSumOfFilesAndFoldersTheTopOneIncluded)
{
    disk.make_file("/a/one", std::string(5, 'x'));
    disk.make_file("/a/b/two", std::string(7, 'x'));
    disk.make_folder("/a/empty");
    EXPECT_EQ(measure("/a", 0), 1);
    EXPECT_EQ(size, 312);
    EXPECT_EQ(qel_get_folder_size("/a"), 312);
}

TEST_F(FolderSize, IsAddedToWhatTheCallerStartedWith)
{
    disk.make_file("/file", std::string(5, 'x'));
    size = 1000;
    EXPECT_EQ(measure("/file", 0), 1);
    EXPECT_EQ(size, 1005);
}

TEST_F(FolderSize, WithThreshold0IsAlwaysTheFullSum)
{
    disk.make_file("/a/file", std::string(5000, 'x'));
    size = 1;
    EXPECT_EQ(measure("/a", 0), 1);
    EXPECT_EQ(size, 5101);
}

TEST_F(FolderSize, WithThreshold1EndsAsSoonAsTheSumExceedsIt)
{
    disk.make_file("/a/file", std::string(5, 'x'));
    EXPECT_EQ(measure("/a", 1), 0);
    EXPECT_EQ(size, 100);
    EXPECT_EQ(kernel.count("stat"), 1);
}

TEST_F(FolderSize, EndsInsideTheTreeWhenTheThresholdIsPassedThere)
{
    for (const char *path : {"/a/1", "/a/2", "/a/3", "/a/4"})
        disk.make_file(path, std::string(10, 'x'));
    EXPECT_EQ(measure("/a", 115), 0);
    EXPECT_EQ(size, 120);
    EXPECT_EQ(kernel.count("opendir"), kernel.count("closedir"));
}

TEST_F(FolderSize, EndsAllLevelsWhenTheThresholdIsPassedInAFolderBelow)
{
    disk.make_file("/a/b/c/file", std::string(10, 'x'));
    EXPECT_EQ(measure("/a", 305), 0);
    EXPECT_EQ(size, 310);
    EXPECT_EQ(kernel.count("opendir"), 3);
    EXPECT_EQ(kernel.count("closedir"), 3);
}

TEST_F(FolderSize, MayEqualTheThreshold)
{
    disk.make_file("/a/file", std::string(10, 'x'));
    EXPECT_EQ(measure("/a", 110), 1);
    EXPECT_EQ(size, 110);
}

TEST_F(FolderSize, IgnoresAMissingPath)
{
    EXPECT_EQ(measure("/missing", 1), 1);
    EXPECT_EQ(size, 0);
}

TEST_F(FolderSize, GoesThroughLinksToFolders)
{
    disk.make_file("/other/file", std::string(5, 'x'));
    disk.make_folder("/a");
    disk.make_link("/a/link", "../other");
    EXPECT_EQ(measure("/a", 0), 1);
    EXPECT_EQ(size, 205);
}

TEST_F(FolderSize, TriesToOpenASocketWhichSharesTheFoldersBit)
{
    disk.make_socket("/a/socket");
    EXPECT_EQ(measure("/a", 0), 1);
    EXPECT_EQ(size, 200);
    EXPECT_THAT(kernel.calls("opendir"), ElementsAre("opendir /a", "opendir /a/socket"));
}

TEST_F(FolderSize, IsA64BitSum)
{
    disk.make_folder("/a");
    kernel.on_readdir = Listing().add("one", DT_REG).add("two", DT_REG);
    kernel.on_stat = [](const char *path, struct stat *status) {
        *status = {};
        status->st_mode = strcmp(path, "/a") == 0 ? S_IFDIR : S_IFREG;
        status->st_size = 5'000'000'000;
        return 0;
    };
    EXPECT_EQ(qel_get_folder_size("/a"), 15'000'000'000);
}

TEST_F(FolderSize, ChecksThePathsItComposesLikeTheFirst)
{
    disk.make_file("/a/b:c");
    EXPECT_STOPS_AT(645, measure("/a", 0));
}

TEST_F(FolderSize, ChecksInOrder)
{
    EXPECT_STOPS_AT(644, qel_get_folder_size_with_threshold(nullptr, 0, nullptr));
    EXPECT_STOPS_AT(645, qel_get_folder_size_with_threshold("a", 0, nullptr));
    EXPECT_STOPS_AT(646, qel_get_folder_size_with_threshold("/a", 0, nullptr));
}

// ---- File systems ----

struct DiskSpace : OnScratchDisk {
    DiskSpace()
    {
        give(10, 20, 4096);
    }

    /// What statfs answers. What only root may fill is never asked for.
    void give(uint64_t available, uint64_t blocks, uint64_t block_size)
    {
        kernel.on_statfs = [=](const char *, struct statfs *space) {
            *space = {};
            space->f_bavail = available;
            space->f_bfree = available + 1;
            space->f_blocks = blocks;
            space->f_bsize = static_cast<decltype(space->f_bsize)>(block_size);
            return 0;
        };
    }

    int64_t free_bytes = -1;
    int64_t total_bytes = -1;
};

TEST_F(DiskSpace, IsWhatAnOrdinaryUserMayStillFillAndTheWholeSize)
{
    disk.make_folder("/storage");
    qel_get_disk_space("/storage", &free_bytes, &total_bytes);
    EXPECT_EQ(free_bytes, 40960);
    EXPECT_EQ(total_bytes, 81920);
    EXPECT_EQ(qel_get_free_disk_space("/storage"), 40960);
}

TEST_F(DiskSpace, OfAMissingTopLevelPathIsThatOfTheRoot)
{
    qel_get_disk_space("/missing", &free_bytes, nullptr);
    EXPECT_THAT(kernel.calls("statfs"), ElementsAre("statfs /"));
}

TEST_F(DiskSpace, FillsOnlyWhatTheCallerWants)
{
    qel_get_disk_space("/", &free_bytes, nullptr);
    EXPECT_EQ(free_bytes, 40960);
    qel_get_disk_space("/", nullptr, &total_bytes);
    EXPECT_EQ(total_bytes, 81920);
    qel_get_disk_space("/", nullptr, nullptr);
    EXPECT_EQ(kernel.count("statfs"), 3);
}

TEST_F(DiskSpace, IsA64BitProduct)
{
    give(3'000'000'000, 5'000'000'000, 4096);
    qel_get_disk_space("/", &free_bytes, &total_bytes);
    EXPECT_EQ(free_bytes, 12'288'000'000'000);
    EXPECT_EQ(total_bytes, 20'480'000'000'000);
}

TEST_F(DiskSpace, TakesTheBlockSizeAsASigned32BitNumber)
{
    give(1, 2, 0x80000000);
    qel_get_disk_space("/", &free_bytes, &total_bytes);
    EXPECT_EQ(free_bytes, -2147483648LL);
    EXPECT_EQ(total_bytes, -4294967296LL);
}

// ---- Working folder ----

using CurrentDir = OnScratchDisk;

TEST_F(CurrentDir, IsWrittenToTheBufferAndPrinted)
{
    kernel.on_getcwd = [](char *buffer, size_t) { return strcpy(buffer, "/storage"); };
    char folder[100] = "";
    int result = 0;
    EXPECT_EQ(output_of([&] { result = qel_get_current_dir(folder, sizeof folder); }),
              "Got current directory: \"/storage\".\n");
    EXPECT_STREQ(folder, "/storage");
    EXPECT_EQ(result, 35);
    EXPECT_THAT(kernel.calls(), ElementsAre("getcwd 100"));
}

TEST_F(CurrentDir, MayBeChangedToARelativePath)
{
    disk.make_folder("/storage");
    const WorkingFolder here(disk.path());
    output_of([] { qel_set_current_dir("storage"); });
    char folder[1000] = "";
    EXPECT_EQ(real_getcwd(folder, sizeof folder), disk.at("/storage"));
}

TEST_F(CurrentDir, ToNowhereStopsBeforePrinting)
{
    const StopResult stop = stop_of([] { qel_set_current_dir(nullptr); });
    EXPECT_EQ(stop.line, 1119);
    EXPECT_EQ(stop.output, "");
}

// ---- Stopwatch ----

TEST(ElapsedUsec, Is0AtFirstThenTheMicrosecondsSince)
{
    FakeKernel kernel;
    kernel.set_time(1709622489, 5);
    EXPECT_EQ(qel_elapsed_usec(), 0U);
    EXPECT_EQ(qel_elapsed_usec(), 0U);
    kernel.advance_usec(1);
    EXPECT_EQ(qel_elapsed_usec(), 1U);
    kernel.advance_usec(29'999'999);
    EXPECT_EQ(qel_elapsed_usec(), 30'000'000U);
}

TEST(ElapsedUsec, WrapsToAHugeValueAcrossTheTurnOf600Seconds)
{
    FakeKernel kernel;
    kernel.set_time(599, 500000);
    EXPECT_EQ(qel_elapsed_usec(), 0U);
    kernel.advance_usec(600000);
    // 100000 - 599500000, modulo 2^32
    EXPECT_EQ(qel_elapsed_usec(), 3695567296U);
    kernel.advance_usec(599'400'000);
    EXPECT_EQ(qel_elapsed_usec(), 0U);
}

TEST(ElapsedUsec, StartsAgainAfterAFirstCallRightAtTheTurn)
{
    FakeKernel kernel;
    kernel.set_time(1200, 0);
    EXPECT_EQ(qel_elapsed_usec(), 0U);
    kernel.advance_usec(7);
    EXPECT_EQ(qel_elapsed_usec(), 0U);
    kernel.advance_usec(7);
    EXPECT_EQ(qel_elapsed_usec(), 7U);
}
