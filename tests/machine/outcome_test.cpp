// What ./run says of an application, from events at given times.

#include "machine/view/outcome.h"

#include <gtest/gtest.h>

namespace
{

Event started(double seconds, int process, const std::string &words = "/storage/qel_application_1")
{
    return {Event::program_started, seconds, process, words};
}

Event ended(double seconds, int process, const std::string &how)
{
    return {Event::program_ended, seconds, process, how};
}

std::string outcome(const std::vector<Event> &events, double now, const std::string &console = "")
{
    Cabinet cabinet;
    cabinet.events = events;
    cabinet.console = console;
    return why_it_did_not_run(cabinet, now);
}

} // namespace

TEST(Outcome, IsGoodWhenOneRunLivedLongerThanASecond)
{
    EXPECT_EQ(
        outcome({started(2, 70), ended(3.1, 70, "exit 1"), started(3.2, 71), ended(3.3, 71, "exit 1")}, 4),
        "");
}

TEST(Outcome, IsGoodWhileTheFirstRunHasNotEnded)
{
    EXPECT_EQ(outcome({started(2, 70)}, 2.1), "");
}

TEST(Outcome, IsGoodWhenTheLastRunHasLivedLongEnough)
{
    EXPECT_EQ(outcome({started(2, 70), ended(2.1, 70, "exit 1"), started(2.2, 71)}, 3.3), "");
}

TEST(Outcome, TellsHowTheLastRunEndedWhenNoneLastedLongerThanASecond)
{
    const std::vector<Event> events = {started(2, 60, "/usr/xorg/bin/Xfake"), started(2, 70),
                                       ended(3, 70, "exit 127"), started(3, 71), ended(3.2, 71, "signal 11")};
    const std::string none =
        "no run of the application lasted longer than a second; the last one ended with ";
    EXPECT_EQ(outcome(events, 9), none + "signal 11");
    // A run that has just begun does not make up for those that ended at once.
    std::vector<Event> longer = events;
    longer.push_back(started(8.5, 72));
    EXPECT_EQ(outcome(longer, 9), none + "signal 11");
    EXPECT_EQ(outcome(events, 9,
                      "run: /storage/qel_application_1\n"
                      "a: error while loading shared libraries: libX99.so.9: cannot open\n"
                      "run: /storage/qel_application_1\n"),
              none + "signal 11: error while loading shared libraries: libX99.so.9: cannot open");
}

TEST(Outcome, TellsWhyTheApplicationWasNeverStarted)
{
    const std::vector<Event> events = {started(2, 60, "/usr/xorg/bin/Xfake")};
    EXPECT_EQ(outcome(events, 9), "the application was never started");
    for (const std::string reason :
         {"exec failed: qel_application_1", "wine failed: qel_application_1.exe.so"})
        EXPECT_EQ(outcome(events, 9, "run: /storage/x\n" + reason + "\nrun: /storage/x\n"),
                  "the application was never started: " + reason);
}

TEST(Outcome, CountsTheStartsOfProcessesAndNotOfThePrograms)
{
    Cabinet cabinet;
    cabinet.events = {started(2, 70, "/bin/sh /usr/wine/bin/wine /storage/x.exe.so"),
                      started(2.1, 70, "/usr/lib/wine /storage/x.exe.so"),
                      started(2.2, 60, "/usr/xorg/bin/Xfake"), ended(3, 70, "exit 1"),
                      started(3.1, 71, "/bin/sh /usr/wine/bin/wine /storage/x.exe.so")};
    EXPECT_EQ(application_starts(cabinet), 2);
}
