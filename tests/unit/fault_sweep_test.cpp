// Every system call fails once. The scenarios are in the other files of this name; here are what runs them
// and the proof that they know every function.

#include "support/fault_sweep.h"
#include "support/fresh_process.h"

#include "qel_utility/qel_log.h"

#include <errno.h>
#include <gtest/gtest-spi.h>
#include <unistd.h>

TEST_P(FaultSweep, EveryCallFailsAsLaidDown)
{
    if (GetParam().needs_fresh_process && !in_fresh_process())
        return;
    sweep(GetParam());
}

// ---- The sweep does not pass in vain ----

static std::string make_folder(Ground &ground)
{
    ground.disk.make_folder("/old");
    return mkdir("/new", 0755) == 0 ? "made" : "not made";
}

TEST(Sweep, FailsOnAFaultThatNoRuleSpeaksOf)
{
    EXPECT_NONFATAL_FAILURE(
        sweep({"Mkdir", "made", make_folder, {{"mkdir /new *", error_but({ENOSPC}), gives("not made")}}}),
        "nothing is laid down");
}

TEST(Sweep, FailsOnARuleThatSpeaksOfNothing)
{
    EXPECT_NONFATAL_FAILURE(
        sweep({"Mkdir",
               "made",
               make_folder,
               {{"mkdir /new *", any_fault, gives("not made")}, {"rmdir *", any_fault, ignored()}}}),
        "no fault meets the rule");
}

/// Sweeps one call of mkdir with one error.
static void sweep_one(const std::function<std::string(Ground &)> &run, const Outcome &outcome)
{
    sweep({"Mkdir",
           "made",
           run,
           {{"mkdir *", error({ENOSPC}), outcome},
            {"mkdir *", any_fault, gives("not made").whatever_follows()}}});
}

TEST(Sweep, FailsOnAnotherResult)
{
    EXPECT_NONFATAL_FAILURE(sweep_one(make_folder, gives("made")), "run.result");
}

TEST(Sweep, FailsOnOtherCalls)
{
    const auto two_calls = [](Ground &ground) {
        const std::string result = make_folder(ground);
        sync();
        return result;
    };
    EXPECT_NONFATAL_FAILURE(sweep_one(two_calls, gives("not made")), "calls expected");
}

TEST(Sweep, FailsOnOtherOutput)
{
    const auto complaint = [](Ground &ground) {
        const std::string result = make_folder(ground);
        printf("%s", result.c_str());
        return result;
    };
    EXPECT_NONFATAL_FAILURE(sweep_one(complaint, gives("not made").prints("a complaint")), "run.printed");
}

static std::string stop_without_folder(Ground &ground)
{
    const std::string result = make_folder(ground);
    QEL_ASSERT_AT(12, result == "made");
    return result;
}

TEST(Sweep, FailsOnAStopThatNobodyLaidDown)
{
    EXPECT_NONFATAL_FAILURE(sweep({"Mkdir",
                                   "made",
                                   stop_without_folder,
                                   {{"mkdir *", error({ENOSPC}), stops("another text", __FILE__, 12)},
                                    {"mkdir *", any_fault, stops("result == \"made\"", __FILE__, 12)}}}),
                            "run.stop");
}

TEST(Sweep, FailsOnAStopElsewhere)
{
    EXPECT_NONFATAL_FAILURE(sweep({"Mkdir",
                                   "made",
                                   stop_without_folder,
                                   {{"mkdir *", error({ENOSPC}), stops("result == \"made\"", __FILE__, 13)},
                                    {"mkdir *", any_fault, stops("result == \"made\"", __FILE__, 12)}}}),
                            "run.line");
}
