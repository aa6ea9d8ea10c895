// Many restarts: nothing in the loader may grow. QEL_SANDBOX_RESTARTS sets their number for longer runs.

#include "sandbox/cabinet.h"

#include <gmock/gmock.h>
#include <signal.h>
#include <stdlib.h>

#include <chrono>

static long restarts_wanted()
{
    const char *text = getenv("QEL_SANDBOX_RESTARTS");
    const long count = text ? atol(text) : 300;
    if (count < 1)
        throw std::runtime_error("QEL_SANDBOX_RESTARTS must be a number of restarts");
    return count;
}

static std::string repeated(long count, const std::string &line)
{
    std::string text;
    for (long i = 0; i < count; ++i)
        text += line;
    return text;
}

struct State {
    std::map<int, std::string> descriptors;
    size_t children;
    long anonymous_kb;
    std::vector<std::string> temporary;
};

/// Waits for the run number `n`, which stays, and looks at the loader.
static State state_at_run(Cabinet &cabinet, long n)
{
    cabinet.await("run " + std::to_string(n),
                  [&] { return cabinet.runs("qel_application_1") >= static_cast<size_t>(n); });
    return {cabinet.descriptors(), cabinet.children().size(), cabinet.anonymous_kb(),
            cabinet.names("/tmp")};
}

static void end_run(const Cabinet &cabinet)
{
    for (const Sandbox::Process &child : cabinet.children()) {
        if (begins_with(child.name, "qel_app"))
            cabinet.signal(child.pid, SIGKILL);
    }
}

TEST(ManyRestarts, LeaveTheLoadersDescriptorsMemoryChildrenAndFilesAsTheyWere)
{
    static const long first_runs = 20;
    const long restarts = restarts_wanted();
    Cabinet cabinet;
    cabinet.patience_s += restarts / 20;
    const std::string run = "quiet prefix exit 0\n", stay = "quiet stay\n";
    cabinet.add_program(Cabinet::storage("/qel_application_1"),
                        repeated(first_runs, run) + stay + repeated(restarts, run) + stay);
    cabinet.start();

    const State before = state_at_run(cabinet, first_runs + 1);
    const auto begin = std::chrono::steady_clock::now();
    end_run(cabinet);
    const State after = state_at_run(cabinet, first_runs + 1 + restarts + 1);
    const double seconds = std::chrono::duration<double>(std::chrono::steady_clock::now() - begin).count();

    EXPECT_EQ(after.descriptors, before.descriptors);
    EXPECT_EQ(after.children, before.children);
    EXPECT_EQ(after.anonymous_kb, before.anonymous_kb);
    EXPECT_EQ(after.temporary, before.temporary);
    // Each run but those that stayed left a prefix of two folders.
    const size_t removed = static_cast<size_t>(2 * (first_runs + restarts));
    cabinet.await_lines("rmdir /qel_home/.wine", removed);
    EXPECT_EQ(cabinet.transcript().lines("rmdir /qel_home/.wine").size(), removed);
    EXPECT_EQ(cabinet.transcript().lines("sleep").size(), 0U);
    printf("%ld restarts in %.2f s, %zu descriptors, %zu children, %ld kB\n", restarts, seconds,
           after.descriptors.size(), after.children, after.anonymous_kb);
}
