// The update mode: the display, the host at the other end of the link, an updater that takes the loader's
// place.

#include "sandbox/cabinet.h"
#include "sandbox/link_packets.h"

#include <gmock/gmock.h>

using testing::ElementsAre;

static const char notice_line[] =
    "write /dev/qellpc_host_comms \"\\x00\\x00\\x00\\x08\\xb2U\\x0b\\x00\\x00\\x00"
    "\\x08\\x00\\x00\\x00\"";
static const std::string bad_updater_packet("\x00\x00\x00\x16\xe1\xce"
                                            "\x0a\x00\x00\x00\x16\x00\x00\x00\x0a\x00\x00\x00"
                                            "no program",
                                            28);

static std::string row(const std::string &text)
{
    return "write /dev/qellpc_lcd \"" + text + "\\x00\"";
}

TEST(TheUpdateMode, ShowsAndAnswersAHostThatConnects)
{
    Cabinet cabinet;
    cabinet.mode = 2;
    cabinet.start();
    cabinet.await_lines(row("2"));
    cabinet.send(connect_packet);
    cabinet.await_lines(answer_line);
    EXPECT_THAT(cabinet.transcript().lines("write /dev/qellpc_lcd"),
                ElementsAre(row("0"), row("1TOLBRIN Update..."), row("2"), row("2*Connected*")));
    // Then the host is silent: two whole seconds later the row is cleared, and the notices begin again.
    cabinet.await_lines(row("2"), 2);
    cabinet.await_lines(notice_line);
    EXPECT_EQ(cabinet.transcript().lines("write /dev/qellpc_lcd").size(), 5U);
}

TEST(TheUpdateMode, GivesItsPlaceToAnUpdaterFromTheHost)
{
    Cabinet cabinet;
    cabinet.mode = 3;
    cabinet.add_program("/bin/updater", "exit 7");
    cabinet.start();
    cabinet.await_lines(row("2"));
    cabinet.send(script_updater_packet);
    EXPECT_EQ(cabinet.await_end(), 7);
    EXPECT_TRUE(cabinet.matches("update_updater.txt"));
    EXPECT_EQ(cabinet.content("/tmp/updater"), "#!/bin/updater\n");
    EXPECT_EQ(cabinet.look("/tmp/updater"), "-rwxr-xr-x");
}

TEST(TheUpdateMode, EndsTheLoaderWhenTheUpdaterCannotBeExecuted)
{
    Cabinet cabinet;
    cabinet.mode = 3;
    cabinet.start();
    cabinet.await_lines(row("2"));
    cabinet.send(bad_updater_packet);
    EXPECT_EQ(cabinet.await_end(), 1);
    EXPECT_EQ(cabinet.transcript().lines().back(), "console \"exec failed: /tmp/updater\\n\"");
    EXPECT_EQ(cabinet.content("/tmp/updater"), "no program");
}
