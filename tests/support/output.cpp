// Standard output goes to a file in memory while an Output exists.

#include "support/output.h"
#include "support/fake_kernel.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/mman.h>
#include <unistd.h>

#include <exception>

Output::Output()
{
    exceptions_before = std::uncaught_exceptions();
    fflush(stdout);
    original = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 10);
    caught = memfd_create("output", MFD_CLOEXEC);
    real_dup2(caught, STDOUT_FILENO);
}

Output::~Output()
{
    const std::string all = text();
    real_dup2(original, STDOUT_FILENO);
    real_close(original);
    real_close(caught);
    if (testing::Test::HasFailure() || std::uncaught_exceptions() > exceptions_before)
        printf("%s", all.c_str());
}

std::string Output::text()
{
    fflush(stdout);
    return flushed();
}

std::string Output::flushed() const
{
    std::string all;
    char piece[4096];
    ssize_t count;
    while ((count = pread(caught, piece, sizeof piece, static_cast<off_t>(all.size()))) > 0)
        all.append(piece, static_cast<size_t>(count));
    return all;
}

std::string output_of(const std::function<void()> &statement)
{
    Output output;
    statement();
    return output.text();
}
