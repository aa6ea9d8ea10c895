// The real loader in update mode and a host that floods it, or breaks the rules of the link.

#include "sandbox/cabinet.h"
#include "sandbox/link_packets.h"

#include <gmock/gmock.h>

using testing::StartsWith;

static const std::string packet_without_message("\x00\x00\x00\x08\xb2\x55", 6);

static void await_update_mode(Cabinet &cabinet)
{
    cabinet.await_lines("write /dev/qellpc_lcd \"2\\x00\"");
}

TEST(AHostileHost, FloodsTheLoaderWhichStillAnswersAndTakesAnUpdater)
{
    Cabinet cabinet;
    cabinet.mode = 3;
    cabinet.add_program("/bin/updater", "exit 7");
    cabinet.start();
    await_update_mode(cabinet);
    const std::string half = std::string("\x00\x00\x10\x00\x12\x34", 6) + std::string(29, 'x');
    for (size_t round = 1; round <= 10; round++) {
        for (char i = 0; i < 30; i++) {
            cabinet.send(half);
            cabinet.send("\x80" + std::string(34, i));
            cabinet.send(std::string("\x00\x00\x00\x01\x00\x00z", 7)); // a wrong CRC
        }
        cabinet.send(connect_packet);
        cabinet.await_lines(answer_line, round);
    }
    cabinet.send(script_updater_packet);
    EXPECT_EQ(cabinet.await_end(), 7);
    EXPECT_EQ(cabinet.content("/tmp/updater"), "#!/bin/updater\n");
}

TEST(AHostileHost, StopsTheLoaderForGoodWithAPacketThatHoldsNoMessage)
{
    Cabinet cabinet;
    cabinet.mode = 3;
    cabinet.add_program("/bin/updater", "exit 7");
    cabinet.start();
    await_update_mode(cabinet);
    cabinet.send(packet_without_message);
    cabinet.send(script_updater_packet);
    cabinet.await_lines("sleep 1", 2); // parked
    ASSERT_EQ(cabinet.transcript().lines("stop ").size(), 1U);
    EXPECT_THAT(cabinet.transcript().lines("stop ").front(), StartsWith("stop qel_tolbrin/qel_comms:"));
    EXPECT_FALSE(cabinet.has("/tmp/updater"));
}
