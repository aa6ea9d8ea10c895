// The driver of the tapes does not pass in vain: each of its rules is broken here once.

#include "tapes/faults.h"
#include "tapes/golden.h"
#include "tapes/sweep.h"

#include "qel_utility/qel_log.h"

#include <errno.h>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <stdio.h>
#include <stdlib.h>
#include <unistd.h>

using testing::ElementsAre;
using testing::HasSubstr;

namespace
{

const std::vector<KernelCall> table = {{"open", {EIO}, false}};

/// Something in place of a piece of the product: one sleep, whose only fault leads to `woken`.
Scenario one_sleep(const std::function<void(Ground &)> &woken, std::vector<std::string> may_end = {})
{
    const auto run = [=](Ground &ground) {
        ground.disk.make_file("/file", "old");
        printf("before");
        if (usleep(1) == 0)
            return std::string("slept");
        woken(ground);
        return std::string("woken");
    };
    return {"OneSleep", run, may_end.empty() ? std::vector<std::string>{"woken"} : may_end};
}

std::string complaints_when(const std::function<void(Ground &)> &woken)
{
    return sweep(one_sleep(woken)).complaints;
}

} // namespace

TEST(FaultTable, KnowsEveryCallThatIsWrapped)
{
    EXPECT_EQ(gaps(QEL_WRAPPED_SYMBOLS, kernel_calls(), unbroken_calls()), "");
    for (const KernelCall &call : kernel_calls())
        EXPECT_FALSE(call.errors.empty()) << call.name;
}

TEST(FaultTable, IsFoundIncompleteOrTooLarge)
{
    EXPECT_EQ(gaps("open open64 sync", table, {{"sync", "has no result"}}), "");
    EXPECT_THAT(gaps("open sync", table, {}), HasSubstr("sync is wrapped, and is never broken"));
    EXPECT_THAT(gaps("sync", table, {{"sync", ""}}), HasSubstr("open is not wrapped"));
    EXPECT_THAT(gaps("open", table, {{"sync", ""}}), HasSubstr("sync is not wrapped"));
    EXPECT_THAT(gaps("open", table, {{"open", ""}}), HasSubstr("open is a needless exception"));
    EXPECT_THAT(gaps("open", {table[0], table[0]}, {}), HasSubstr("open stands twice"));
}

TEST(FaultTable, LetsATransferFallShortOfWhatItMoved)
{
    const auto spelled_faults = [](long moved) {
        std::vector<std::string> all;
        for (const Fault &fault : faults_of("fread", moved))
            all.push_back(spelled(fault));
        return all;
    };
    EXPECT_THAT(spelled_faults(0), ElementsAre("EAGAIN", "EINTR", "EIO", "EISDIR", "ENOMEM"));
    EXPECT_THAT(spelled_faults(1), testing::Contains("moves 0").Times(1));
    EXPECT_EQ(spelled_faults(10).size(), 5U + 3);
}

TEST(Sweep, WritesCallsWithTheirOutcomes)
{
    const Swept swept = sweep(one_sleep([](Ground &) { printf(" after"); }));
    EXPECT_THAT(swept.lines, ElementsAre("      0  console held \"before\"",
                                         "      0  usleep 1   | any: then console \" after\"; ends woken",
                                         "      0  ends slept"));
    EXPECT_EQ(swept.complaints, "");
    EXPECT_EQ(swept.faults, 1);
    EXPECT_EQ(swept.calls, 1);
}

TEST(Sweep, ShowsAPieceOfARun)
{
    const Scenario whole = {"Whole", [] {
                                sync();
                                usleep(1000);
                                sync();
                                usleep(1000);
                            }};
    EXPECT_THAT(sweep(cut(whole, "usleep *", "sync #2")).lines,
                ElementsAre("      0  usleep 1000   | any: same", "      1  sync", "      1  ends left"));
    EXPECT_THAT(sweep(cut(whole, "fork")).complaints, HasSubstr("it never comes to fork"));
}

TEST(Sweep, ComplainsAboutAnEndingThatNobodyDeclares)
{
    EXPECT_THAT(sweep(one_sleep([](Ground &) {}, {"dreamt"})).complaints,
                HasSubstr("nobody declares that it ends woken"));
    EXPECT_THAT(complaints_when([](Ground &) { QEL_ASSERT_TEXT_AT(12, "unheard of", 0); }),
                HasSubstr("nobody declares that it stops"));
}

TEST(Sweep, ComplainsAboutAnotherRunBeforeTheFault)
{
    int runs = 0;
    const auto sync_first = [&runs](Ground &) {
        if (++runs <= 2) // the usual one, and the same again
            sync();
        return std::string(usleep(1) ? "woken" : "slept");
    };
    EXPECT_THAT(sweep({"Sync", sync_first, {"woken"}}).complaints, HasSubstr("before the fault: not sync"));
}

TEST(Sweep, ComplainsAboutWhatStaysOpenOrIsClosedTwice)
{
    EXPECT_THAT(complaints_when([](Ground &ground) {
                    EXPECT_NE(real_open(ground.disk.at("/file").c_str(), O_RDONLY, 0), -1);
                }),
                HasSubstr("stays open: /file"));
    EXPECT_THAT(complaints_when([](Ground &) { close(700); }), HasSubstr("closed twice: a descriptor"));
    EXPECT_THAT(complaints_when([](Ground &) { fclose(stdin); }), HasSubstr("closed twice: a stream"));
}

TEST(Sweep, ComplainsAboutBlocksThatAreNotGivenBack)
{
    std::vector<void *> kept;
    const auto keep = [&kept](Ground &) {
        if (usleep(1))
            kept.push_back(malloc(1));
        return std::string("slept");
    };
    EXPECT_THAT(sweep({"Keep", keep}).complaints, HasSubstr("blocks of the heap"));
    for (void *block : kept)
        real_free(block);
}

TEST(Sweep, ComplainsAboutARunThatDoesNotEnd)
{
    EXPECT_THAT(complaints_when([](Ground &) {
                    for (;;)
                        sync();
                }),
                HasSubstr("it does not end"));
}

TEST(Sweep, ComplainsAboutContentThatIsNeitherOldNorNew)
{
    EXPECT_THAT(complaints_when([](Ground &ground) { ground.disk.make_file("/file", "other"); }),
                HasSubstr("/file holds neither"));
    EXPECT_THAT(complaints_when([](Ground &ground) { unlink(ground.disk.at("/file").c_str()); }),
                HasSubstr("/file is gone"));
}

TEST(Sweep, ComplainsWhenTheSameAgainGoesAnotherWay)
{
    bool was_woken = false;
    const auto remember = [&was_woken](Ground &) {
        if (was_woken)
            sync();
        was_woken = usleep(1) != 0;
        return std::string("slept");
    };
    EXPECT_THAT(sweep({"Remember", remember}).complaints, HasSubstr("the same again is not as"));
    EXPECT_EQ(sweep({"Remember", remember, {}, "it was woken"}).complaints, "");
}

TEST(Sweep, ComplainsAboutAnExpectationOfTheScenario)
{
    EXPECT_THAT(complaints_when([](Ground &) { ADD_FAILURE() << "a complaint"; }), HasSubstr("a complaint"));
}

TEST(Difference, NamesWhatIsMissingAndWhatIsNewPlaceByPlace)
{
    EXPECT_EQ(difference({"a", "b"}, {"a", "b"}), "same");
    EXPECT_EQ(difference({"a", "b", "c"}, {"a", "c"}), "after a: without b");
    EXPECT_EQ(difference({"a", "b"}, {"x", "a", "b"}), "first x");
    EXPECT_EQ(difference({"a", "b", "c"}, {"a", "x", "c"}), "after a: x for b");
    EXPECT_EQ(difference({"a", "b"}, {"x", "y"}), "then x; y");
    EXPECT_EQ(difference({"a", "b"}, {"stops here"}), "stops here");
}

TEST(Goldens, AreJudgedByFile)
{
    const Scratch folder;
    folder.make_file("/a.tape", "# Without a link.\n\n== Known\n     0  sync\n\n== Unknown\n# Why.\n");
    EXPECT_EQ(complaints_about_goldens(folder.path(), {"a.Known"}),
              "a does not say where docs/ promises this: FILE.md#SECTION\n"
              "a.Known has no sentence that justifies it\n"
              "a.Unknown has no test\n");
}
