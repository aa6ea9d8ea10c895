// The tests' own ground: every call of the product really goes through the fake kernel, and stops, the
// clock and captured output do what the other tests rely on.

#include "support/fake_kernel.h"
#include "support/output.h"
#include "support/scratch.h"
#include "support/stops.h"

#include "qel_utility/qel_log.h"

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <sstream>

using testing::ElementsAre;

// The spellings that this file, compiled for 64-bit file offsets, does not reach by their plain names.
extern "C" int plain_stat(const char *, struct stat *) __asm__("stat");
extern "C" int plain_statfs(const char *, struct statfs *) __asm__("statfs");
extern "C" int plain_open(const char *, int, ...) __asm__("open");
extern "C" struct dirent *plain_readdir(DIR *) __asm__("readdir");
extern "C" FILE *plain_fopen(const char *, const char *) __asm__("fopen");

/// Makes every call once, on things that are not there or do no harm.
static void call_everything()
{
    struct stat status;
    struct statfs space;
    char text[4] = "";
    int ends[2];
    char *const nothing[] = {nullptr};
    const char *nowhere = "/nowhere/at/all";

    EXPECT_EQ(mount("none", nowhere, "none", 0, nullptr), -1);
    EXPECT_EQ(umount(nowhere), -1);
    sync();
    EXPECT_EQ(mknod(nowhere, 0, 0), -1);
    EXPECT_EQ(mkdir(nowhere, 0755), -1);
    EXPECT_EQ(rmdir(nowhere), -1);
    EXPECT_EQ(unlink(nowhere), -1);
    EXPECT_EQ(chmod(nowhere, 0), -1);
    EXPECT_EQ(symlink("x", nowhere), -1);
    EXPECT_EQ(chdir(nowhere), -1);
    EXPECT_EQ(getcwd(text, 1), nullptr);
    EXPECT_EQ(access(nowhere, R_OK), -1);
    EXPECT_EQ(stat(nowhere, &status), -1);
    EXPECT_EQ(plain_stat(nowhere, &status), -1);
    EXPECT_EQ(statfs(nowhere, &space), -1);
    EXPECT_EQ(plain_statfs(nowhere, &space), -1);
    EXPECT_EQ(open(nowhere, O_RDONLY), -1);
    EXPECT_EQ(plain_open(nowhere, O_RDONLY), -1);
    EXPECT_EQ(read(-1, text, 1), -1);
    EXPECT_EQ(write(-1, text, 1), -1);
    EXPECT_EQ(close(-1), -1);
    EXPECT_EQ(dup2(-1, -1), -1);
    DIR *folder = opendir("/");
    EXPECT_NE(readdir(folder), nullptr);
    EXPECT_NE(plain_readdir(folder), nullptr);
    EXPECT_EQ(closedir(folder), 0);
    EXPECT_EQ(fopen(nowhere, "rb"), nullptr);
    FILE *null = plain_fopen("/dev/null", "r+");
    EXPECT_EQ(fread(text, 1, 1, null), 0U);
    EXPECT_EQ(fgets(text, 4, null), nullptr);
    EXPECT_EQ(fwrite(text, 1, 3, null), 3U);
    EXPECT_EQ(fclose(null), 0);
    EXPECT_EQ(socketpair(-1, -1, -1, ends), -1);
    EXPECT_EQ(shutdown(-1, SHUT_RDWR), -1);
    EXPECT_EQ(fork(), 4711);
    EXPECT_EQ(execve(nowhere, nothing, nothing), -1);
    EXPECT_EQ(waitpid(4711, nullptr, 0), -1);
    EXPECT_THROW(_exit(3), ChildExit);
    free(realloc(malloc(1), 2));
    free(calloc(1, 1));
    sleep(1);
    usleep(1);
    EXPECT_EQ(time(nullptr), 1001);
    const time_t now = 0;
    EXPECT_NE(localtime(&now), nullptr);
    struct timeval clock;
    EXPECT_EQ(gettimeofday(&clock, nullptr), 0);
}

TEST(FakeKernel, IsReachedThroughEverySpellingTheLinkerWraps)
{
    Scratch disk;
    disk.make_file("/dev/null");
    FakeKernel kernel(disk.path());
    kernel.set_time(1000);
    kernel.watches_memory = 1;
    kernel.on_sync = [] {};
    kernel.on_fork = [] { return 4711; };
    kernel.on_waitpid = [](auto...) { return -1; };
    kernel.on_execve = [](auto...) { return -1; };
    call_everything();

    std::istringstream symbols(QEL_WRAPPED_SYMBOLS);
    int count = 0;
    for (std::string symbol; symbols >> symbol; ++count) {
        if (symbol == "qel_assert_fail") {
            EXPECT_STOPS("false", __FILE__, 4711, QEL_ASSERT_AT(4711, false));
        } else if (symbol != "exit" && symbol != "free") { // have tests of their own
            EXPECT_TRUE(kernel.was_reached(symbol)) << symbol;
        }
    }
    EXPECT_EQ(count, 49);
}

TEST(FakeKernel, LeavesTheProductAtExitIfAsked)
{
    FakeKernel kernel;
    kernel.throws_at_exit = true;
    // Declared as throwing nothing, which holds for libc's own.
    void (*volatile leave)(int) = exit;
    EXPECT_THROW(leave(3), ProductExit);
}

TEST(FakeKernel, KeepsTheBooksOfTheHeap)
{
    FakeKernel kernel;
    void *first = malloc(1);
    void *second = realloc(calloc(1, 1), 2);
    EXPECT_THAT(kernel.blocks, testing::UnorderedElementsAre(first, second));
    free(first);
    free(second);
    EXPECT_THAT(kernel.blocks, testing::IsEmpty());
}

TEST(FakeKernel, RecordsTheProductsArgumentsAndMovesItsPathsIntoTheScratchFolder)
{
    Scratch disk;
    FakeKernel kernel(disk.path());
    EXPECT_EQ(mkdir("/storage", 0755), 0);
    EXPECT_EQ(close(open("/storage/file", O_RDWR | O_CREAT, 0600)), 0);

    EXPECT_THAT(kernel.calls("mkdir open"),
                ElementsAre("mkdir /storage 0755", "open /storage/file O_RDWR|O_CREAT"));
    EXPECT_THAT(disk.tree("/"), ElementsAre("storage/", "storage/file"));
    EXPECT_EQ(disk.mode("/storage/file"), 0600U);
}

TEST(FakeKernel, LeavesPathsThatAlreadyLieInTheScratchFolderAlone)
{
    Scratch disk;
    FakeKernel kernel(disk.path());
    EXPECT_EQ(mkdir(disk.at("/storage").c_str(), 0755), 0);
    EXPECT_THAT(disk.tree("/"), ElementsAre("storage/"));
}

TEST(FakeKernel, MovesOnlyWholeComponentsOfAPrefix)
{
    FakeKernel kernel;
    kernel.redirect("/dev", "/scratch/d");
    EXPECT_EQ(kernel.at("/dev"), "/scratch/d");
    EXPECT_EQ(kernel.at("/dev/snd"), "/scratch/d/snd");
    EXPECT_EQ(kernel.at("/device"), "/device");
    EXPECT_EQ(kernel.at("dev"), "dev");
}

TEST(FakeKernel, LetsTheNthCallFailWithoutDoingIt)
{
    Scratch disk;
    FakeKernel kernel(disk.path());
    kernel.fail_nth("mkdir", 2, ENOSPC);
    EXPECT_EQ(mkdir("/a", 0755), 0);
    EXPECT_EQ(mkdir("/b", 0755), -1);
    EXPECT_EQ(errno, ENOSPC);
    EXPECT_EQ(mkdir("/c", 0755), 0);
    EXPECT_THAT(disk.tree("/"), ElementsAre("a/", "c/"));
}

TEST(FakeKernel, LetsACloseFailThatClosesAllTheSame)
{
    FakeKernel kernel;
    const int file = open("/", O_RDONLY);
    kernel.fail("close", EIO);
    errno = 0;
    EXPECT_EQ(close(file), -1);
    EXPECT_EQ(errno, EIO);
    EXPECT_EQ(fcntl(file, F_GETFD), -1);
}

TEST(FakeKernel, LetsASleepEndBeforeItsTime)
{
    FakeKernel kernel;
    kernel.set_time(100);
    kernel.fail("sleep", EINTR);
    kernel.fail("usleep", EINTR);
    EXPECT_EQ(sleep(5), 5U);
    errno = 0;
    EXPECT_EQ(usleep(5), -1);
    EXPECT_EQ(errno, EINTR);
    EXPECT_EQ(kernel.slept_usec, 0);
    EXPECT_EQ(time(nullptr), 100);
}

TEST(FakeKernel, LetsMemoryRunOutWhereATestWatchesIt)
{
    FakeKernel kernel;
    kernel.fail("malloc", ENOMEM);
    void *block = malloc(1);
    EXPECT_NE(block, nullptr);
    free(block);
    kernel.watches_memory = 1;
    EXPECT_EQ(malloc(7), nullptr);
    EXPECT_THAT(kernel.calls(), ElementsAre("malloc 7"));
}

TEST(FakeKernel, LetsATestGiveTheBlocksOfCalloc)
{
    FakeKernel kernel;
    char block[6];
    kernel.on_calloc = [&](size_t count, size_t size) { return count * size == 6 ? block : nullptr; };
    void *of_libc = calloc(2, 3);
    EXPECT_NE(of_libc, block);
    free(of_libc);
    kernel.watches_memory = 1;
    EXPECT_EQ(calloc(2, 3), block);
    EXPECT_EQ(calloc(2, 4), nullptr);
}

TEST(FakeKernel, LetsEveryCallOfANameFail)
{
    FakeKernel kernel;
    kernel.fail("access", EIO);
    for (int i = 0; i < 3; ++i) {
        errno = 0;
        EXPECT_EQ(access("/", R_OK), -1);
        EXPECT_EQ(errno, EIO);
    }
}

TEST(FakeKernel, LetsTheNthTransferFallShort)
{
    Scratch disk;
    disk.make_file("/file", "0123456789");
    FakeKernel kernel(disk.path());
    kernel.shorten_nth("read", 1, 3);
    const int file = open("/file", O_RDONLY);
    char text[16];
    EXPECT_EQ(read(file, text, sizeof text), 3);
    EXPECT_EQ(read(file, text, sizeof text), 7);
    EXPECT_EQ(close(file), 0);
    EXPECT_EQ(kernel.moved(1), 3);
    EXPECT_EQ(kernel.moved(2), 7);
    EXPECT_EQ(kernel.moved(3), -1);
}

TEST(FakeKernel, AsksTheTestForAnAnswer)
{
    FakeKernel kernel;
    kernel.on_mount = [](const char *, const char *folder, auto...) {
        return strcmp(folder, "/good") == 0 ? 0 : -1;
    };
    EXPECT_EQ(mount("d", "/good", "vfat", 1, nullptr), 0);
    EXPECT_EQ(mount("d", "/bad", "vfat", 1, nullptr), -1);
    EXPECT_THAT(kernel.calls(), ElementsAre("mount d /good vfat 1 null", "mount d /bad vfat 1 null"));
}

TEST(FakeKernel, LeavesTheProductAtACall)
{
    FakeKernel kernel;
    kernel.leave_at("open", 2);
    EXPECT_EQ(open("/nowhere/at/all", O_RDONLY), -1);
    EXPECT_THROW(open("/nowhere/at/all", O_RDONLY), LeftProduct);
}

TEST(FakeKernel, KeepsAClockThatOnlySleepMoves)
{
    FakeKernel kernel;
    kernel.set_time(100, 999999);
    sleep(2);
    usleep(1);
    EXPECT_EQ(time(nullptr), 103);
    struct timeval now;
    gettimeofday(&now, nullptr);
    EXPECT_EQ(now.tv_sec, 103);
    EXPECT_EQ(now.tv_usec, 0);
    EXPECT_EQ(kernel.slept_usec, 2000001);
}

TEST(Output, HoldsFlushedAndUnflushedTextApart)
{
    Output output;
    printf("not yet");
    EXPECT_EQ(output.flushed(), "");
    EXPECT_EQ(output.text(), "not yet");
    EXPECT_EQ(output.flushed(), "not yet");
}

TEST(Stops, AreReportedWithTheirTextUnitAndLine)
{
    const StopResult stop = stop_of([] { QEL_ASSERT_TEXT_AT(12, "a text", 1 + 1 == 3); });
    EXPECT_TRUE(stop.stopped);
    EXPECT_EQ(stop.text, "a text");
    EXPECT_EQ(stop.unit, __FILE__);
    EXPECT_EQ(stop.line, 12);
}

TEST(Stops, AreNotExpectedInVain)
{
    EXPECT_FALSE(stops_at("x", "u", 1, [] {}));
    EXPECT_FALSE(stops_at("x", __FILE__, 1, [] { QEL_ASSERT_TEXT_AT(1, "y", 0); }));
    EXPECT_FALSE(stops_at("x", __FILE__, 1, [] { QEL_ASSERT_TEXT_AT(2, "x", 0); }));
    EXPECT_FALSE(stops_at("x", "unit", 1, [] { QEL_ASSERT_TEXT_AT(1, "x", 0); }));
    EXPECT_TRUE(stops_at("x", __FILE__, 1, [] { QEL_ASSERT_TEXT_AT(1, "x", 0); }));
    EXPECT_TRUE(stops_at("x", __FILE__, any_line, [] { QEL_ASSERT_TEXT_AT(1, "x", 0); }));
}

TEST(Stops, WithAMessageAreNotExpectedInVain)
{
    const auto statement = [] { QEL_FATAL_ERROR_AT(7, "Bad: \"%s\"\n", "x"); };
    EXPECT_TRUE(stops_with_message("Bad: \"x\"\n", "operator()", __FILE__, 7, statement));
    EXPECT_FALSE(stops_with_message("Bad: \"y\"\n", "operator()", __FILE__, 7, statement));
    EXPECT_FALSE(stops_with_message("Bad: \"x\"\n", "other", __FILE__, 7, statement));
    EXPECT_FALSE(stops_with_message("Bad: \"x\"\n", "operator()", __FILE__, 8, statement));
    EXPECT_FALSE(
        stops_with_message("Bad: \"x\"\n", "operator()", __FILE__, 7, [] { QEL_ASSERT_TEXT_AT(7, "0", 0); }));
}
