// Which places of the product each test runs, for tools/mutate.py, which compiles the product with
// -fsanitize-coverage=trace-pc and links this file: a line for each test, with its file, its seconds and the
// places, as offsets in the program, goes to the file that QEL_MUTATE_TABLE names. What a test's children run
// counts as its own.

#include <fcntl.h>
#include <stdint.h>
#include <stdlib.h>
#include <sys/mman.h>
#include <sys/resource.h>
#include <unistd.h>

#include <string>

#include <gtest/gtest.h>

extern "C" const char __executable_start;

namespace
{

constexpr size_t program_bytes_max = 64 << 20, places_max = 1 << 16;

/// The places that have run, as offsets in the program; shared with children.
struct Places {
    size_t count;
    uint32_t offsets[places_max];
    bool is_known[program_bytes_max];
} *const places = static_cast<Places *>(
    mmap(nullptr, sizeof(Places), PROT_READ | PROT_WRITE, MAP_SHARED | MAP_ANONYMOUS | MAP_NORESERVE, -1, 0));

/// Of the processor, children that have ended included.
double seconds_used()
{
    double seconds = 0;
    for (const auto who : {RUSAGE_SELF, RUSAGE_CHILDREN}) {
        struct rusage usage;
        getrusage(who, &usage);
        for (const timeval &part : {usage.ru_utime, usage.ru_stime})
            seconds += static_cast<double>(part.tv_sec) + 1e-6 * static_cast<double>(part.tv_usec);
    }
    return seconds;
}

struct Table : testing::EmptyTestEventListener {
    double started = 0;

    void OnTestStart(const testing::TestInfo &) override
    {
        for (size_t i = 0; i < places->count; ++i)
            places->is_known[places->offsets[i]] = false;
        places->count = 0;
        started = seconds_used();
    }
    void OnTestEnd(const testing::TestInfo &test) override
    {
        std::string row = std::string(test.test_suite_name()) + "." + test.name() + "\t" + test.file() +
                          "\t" + std::to_string(seconds_used() - started) + "\t";
        for (size_t i = 0; i < places->count; ++i)
            row += std::to_string(places->offsets[i]) + " ";
        row += "\n";
        const int file = open(getenv("QEL_MUTATE_TABLE"), O_WRONLY | O_CREAT | O_APPEND, 0666);
        if (write(file, row.data(), row.size()) != static_cast<ssize_t>(row.size()))
            abort();
        close(file);
    }
};

const bool is_listening = [] {
    testing::UnitTest::GetInstance()->listeners().Append(new Table);
    return true;
}();

} // namespace

extern "C" void __sanitizer_cov_trace_pc()
{
    const auto offset =
        static_cast<uint32_t>(static_cast<const char *>(__builtin_return_address(0)) - &__executable_start);
    // Before main, the table may not be there yet.
    if (!places || places->is_known[offset])
        return;
    places->is_known[offset] = true;
    places->offsets[places->count++] = offset;
}
