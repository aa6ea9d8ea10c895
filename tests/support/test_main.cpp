// The test programs' main, and the way to a process in which nothing has happened yet.

#include "support/fresh_process.h"
#include "support/fake_kernel.h"
#include "support/output.h"

#include <gmock/gmock.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <string>

static const char fresh_mark[] = "QEL_TEST_FRESH_PROCESS";

int in_fresh_process()
{
    if (getenv(fresh_mark))
        return 1;

    const testing::TestInfo *test = testing::UnitTest::GetInstance()->current_test_info();
    const std::string filter = std::string("--gtest_filter=") + test->test_suite_name() + "." + test->name();
    Output output; // shown only when something went wrong
    const pid_t child = real_fork();
    if (child == 0) {
        setenv(fresh_mark, "1", 1);
        // In a part of all tests, the one there would count as another part's.
        unsetenv("GTEST_TOTAL_SHARDS");
        unsetenv("GTEST_SHARD_INDEX");
        execl("/proc/self/exe", "unit_tests", filter.c_str(), "--gtest_brief=1", nullptr);
        real__exit(98);
    }
    int status = 0;
    EXPECT_EQ(real_waitpid(child, &status, 0), child);
    EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0) << "the test failed in its own process";
    return 0;
}

int main(int argc, char **argv)
{
    // The same buffering everywhere, so that a test can tell flushed from unflushed output.
    setvbuf(stdout, nullptr, _IOFBF, 1 << 16);
    // The usual umask, so that a test knows what becomes of a mode.
    umask(022);
    testing::InitGoogleMock(&argc, argv);
    const int result = RUN_ALL_TESTS();
    // A fresh process in which the test has not run has shown nothing.
    const bool has_run = testing::UnitTest::GetInstance()->successful_test_count() > 0;
    return getenv(fresh_mark) && !has_run ? 1 : result;
}
