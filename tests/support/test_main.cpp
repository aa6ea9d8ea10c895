// The test programs' main: every test begins in the same folder, with the product as a process starts it.

#include "support/fake_kernel.h"
#include "support/product_reset.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <stdio.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

/// What the product held when a test was over: its buffers stay to the end of the process, and are no leaks.
auto *const states = new std::vector<std::vector<char>>;

struct FreshProduct : testing::EmptyTestEventListener {
    void OnTestStart(const testing::TestInfo &) override
    {
        states->push_back(product_state());
        reset_product();
        EXPECT_EQ(fchdir(folder), 0);
    }

    const int folder = real_open(".", O_PATH | O_DIRECTORY | O_CLOEXEC, 0);
};

} // namespace

int main(int argc, char **argv)
{
    // The same buffering everywhere, so that a test can tell flushed from unflushed output.
    setvbuf(stdout, nullptr, _IOFBF, 1 << 16);
    // The usual umask, so that a test knows what becomes of a mode.
    umask(022);
    testing::InitGoogleMock(&argc, argv);
    testing::UnitTest::GetInstance()->listeners().Append(new FreshProduct);
    return RUN_ALL_TESTS();
}
