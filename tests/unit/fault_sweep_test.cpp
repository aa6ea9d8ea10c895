// Every system call fails once. The scenarios are in the other files of this name; here are what runs them
// and the proof that they know every function.

#include "support/fault_run.h"
#include "support/fresh_process.h"

#include "qel_utility/qel_log.h"

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest-spi.h>
#include <signal.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

using testing::HasSubstr;

TEST_P(FaultSweep, EveryCallFailsAsLaidDown)
{
    const Swept swept = sweep(GetParam());
    // For ./check, which adds these up; not on standard output, which is not shown of a fresh process.
    fprintf(stderr, "fault sweep: %d faults in %d calls\n", swept.faults, swept.calls);
}

// ---- What is broken ----

TEST(FaultTable, KnowsEveryCallThatIsWrapped)
{
    EXPECT_EQ(gaps(QEL_WRAPPED_SYMBOLS, kernel_calls(), unbroken_calls()), "");
    for (const KernelCall &call : kernel_calls())
        EXPECT_FALSE(call.errors.empty()) << call.name;
}

TEST(FaultTable, IsFoundIncompleteOrTooLarge)
{
    const std::vector<KernelCall> table = {{"open", {EIO}, 0}};
    EXPECT_EQ(gaps("open open64 sync", table, {{"sync", "has no result"}}), "");
    EXPECT_THAT(gaps("open sync", table, {}), HasSubstr("sync is wrapped, and is never broken"));
    EXPECT_THAT(gaps("sync", table, {{"sync", ""}}), HasSubstr("open is not wrapped"));
    EXPECT_THAT(gaps("open", table, {{"sync", ""}}), HasSubstr("sync is not wrapped"));
    EXPECT_THAT(gaps("open", table, {{"open", ""}}), HasSubstr("open is a needless exception"));
    EXPECT_THAT(gaps("open", {table[0], table[0]}, {}), HasSubstr("open stands twice"));
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

/// Sweeps one call of mkdir, whose ENOSPC alone comes to `outcome`, and all other errors to `others`.
static void sweep_one(const std::function<std::string(Ground &)> &run, const Outcome &outcome,
                      const Outcome &others = gives("not made"))
{
    sweep({"Mkdir", "made", run, {{"mkdir *", error({ENOSPC}), outcome}, {"mkdir *", any_fault, others}}});
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
    EXPECT_NONFATAL_FAILURE(sweep_one(two_calls, gives("not made"), gives("not made").then({"sync"})),
                            "calls expected");
}

TEST(Sweep, FailsOnOtherOutput)
{
    const auto complaint = [](Ground &ground) {
        const std::string result = make_folder(ground);
        printf("%s", result.c_str());
        return result;
    };
    EXPECT_NONFATAL_FAILURE(
        sweep_one(complaint, gives("not made").prints("a complaint"), gives("not made").prints("not made")),
        "run.printed");
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

/// Sweeps a call that can fail in one way only, which leads to `woken` and then to the same result.
static Swept sweep_sleep(const std::function<void(Ground &)> &woken, const Outcome &outcome)
{
    const auto run = [=](Ground &ground) {
        printf("before");
        if (usleep(1))
            woken(ground);
        return std::string("slept");
    };
    return sweep({"Usleep", "slept", run, {{"usleep 1", any_fault, outcome}}});
}

TEST(Sweep, FailsOnOtherCallsBeforeTheFault)
{
    const int runs = memfd_create("runs", MFD_CLOEXEC);
    const auto run = [=](Ground &) {
        // Only the first run, which is the one without a fault, syncs.
        real_write(runs, "x", 1);
        if (lseek(runs, 0, SEEK_CUR) == 1)
            sync();
        return std::string(usleep(1) ? "woken" : "slept");
    };
    EXPECT_NONFATAL_FAILURE(sweep({"Usleep", "slept", run, {{"usleep 1", any_fault, gives("woken")}}}),
                            "another run before the fault");
    real_close(runs);
}

TEST(Sweep, FailsOnAStopThatPrintedAnotherTextThanUpToItsCall)
{
    const auto tell_and_stop = [](Ground &) {
        printf(" after");
        QEL_ASSERT_TEXT_AT(12, "woken", 0);
    };
    const auto stop = [](Ground &) { QEL_ASSERT_TEXT_AT(12, "woken", 0); };
    const Outcome stopped = stops("woken", __FILE__, 12);
    EXPECT_EQ(sweep_sleep(stop, stopped).faults, 1);
    EXPECT_EQ(sweep_sleep(tell_and_stop, stopped.also_prints(" after")).faults, 1);
    EXPECT_NONFATAL_FAILURE(sweep_sleep(tell_and_stop, stopped), "run.printed");
    EXPECT_NONFATAL_FAILURE(sweep_sleep(stop, stopped.also_prints(" after")), "run.printed");
    EXPECT_NONFATAL_FAILURE(sweep_sleep(stop, stopped.prints("bef")), "run.printed");
}

TEST(Sweep, FailsOnATextThatIsNeverPrintedAnyway)
{
    EXPECT_NONFATAL_FAILURE(sweep_sleep([](Ground &) {}, ignored().unprinted("after")), "never printed");
}

TEST(Sweep, FailsOnADescriptorThatStaysOpen)
{
    const auto leak = [](Ground &ground) {
        ground.disk.make_file("/file");
        EXPECT_NE(real_open(ground.disk.at("/file").c_str(), O_RDONLY, 0), -1);
    };
    const auto leak_always = [leak](Ground &ground) {
        leak(ground);
        return std::string("done");
    };
    EXPECT_EQ(sweep_sleep(leak, ignored().leaves_open("/file")).faults, 1);
    EXPECT_NONFATAL_FAILURE(sweep_sleep(leak, ignored()), "run.left_open");
    EXPECT_NONFATAL_FAILURE(sweep_sleep([](Ground &) {}, ignored().leaves_open("/file")), "run.left_open");
    sweep({"Leak", "done", leak_always, {}, 0, "/file"});
    EXPECT_NONFATAL_FAILURE(sweep({"Leak", "done", leak_always, {}}), "clean.left_open");
}

TEST(Sweep, FailsOnWhatIsClosedTwice)
{
    EXPECT_NONFATAL_FAILURE(sweep_sleep([](Ground &) { close(700); }, ignored().then({"close"})),
                            "run.closed_twice");
    // As if closed before: the product has not opened these.
    DIR *const folder = real_opendir("/");
    EXPECT_NONFATAL_FAILURE(sweep_sleep([=](Ground &) { closedir(folder); }, ignored().then({"closedir"})),
                            "run.closed_twice");
    EXPECT_NONFATAL_FAILURE(sweep_sleep([](Ground &) { fclose(stdin); }, ignored().then({"fclose"})),
                            "run.closed_twice");
    real_closedir(folder);
    EXPECT_NONFATAL_FAILURE(sweep({"Close",
                                   "done",
                                   [](Ground &ground) {
                                       ground.closed_twice = "a descriptor";
                                       return std::string("done");
                                   },
                                   {}}),
                            "clean.closed_twice");
}

TEST(Sweep, FailsOnAnExpectationOfTheScenarioItself)
{
    EXPECT_NONFATAL_FAILURE(sweep_sleep([](Ground &) { ADD_FAILURE() << "a complaint"; }, ignored()),
                            "a complaint");
}

TEST(Sweep, FailsOnACrash)
{
    EXPECT_NONFATAL_FAILURE(sweep_sleep([](Ground &) {}, crashes()), "run.result");
}

TEST(Sweep, CountsNoTransferThatFallsShortOfNothing)
{
    const auto read_of = [](const char *content) {
        const auto run = [=](Ground &ground) {
            ground.disk.make_file("/file", content);
            const int file = real_open(ground.disk.at("/file").c_str(), O_RDONLY, 0);
            char bytes[100];
            const ssize_t size = read(file, bytes, sizeof bytes);
            real_close(file);
            return size == static_cast<ssize_t>(strlen(content)) ? "all" : "less";
        };
        return sweep({"Read", "all", run, {{"read 100", any_fault, gives("less")}}}).faults;
    };
    const int errors = static_cast<int>(errors_of("read").size());
    EXPECT_EQ(read_of("ten bytes."), errors + 3);
    EXPECT_EQ(read_of("2."), errors + 2);
    EXPECT_EQ(read_of("1"), errors + 1);
    EXPECT_EQ(read_of(""), errors);
}
