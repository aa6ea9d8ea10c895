// The real loader in update mode and a host that floods it, or breaks the rules of the link.

#include "sandbox/cabinet.h"
#include "sandbox/link_packets.h"

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::MatchesRegex;

static const std::string packet_without_message("\x00\x00\x00\x08\xb2\x55", 6);
/// The beginnings of messages of 2 GB and of 16 MB of which no more comes.
static const std::string lie_of_2_gb = std::string("\x7f\xff\xff\xff\x00\x00", 6) + std::string(29, 'x');
static const std::string lie_of_16_mb = std::string("\x00\xff\xff\xff\x00\x00", 6) + std::string(29, 'x');
/// More than the small lie takes, less than the large one, on any computer.
static constexpr size_t memory_bytes = 1 << 30;

/// Starts the loader, with a program for updaters, and waits until it is in update mode.
static void start_update_mode(Cabinet &cabinet)
{
    cabinet.mode = 3;
    cabinet.add_program("/bin/updater", "exit 7");
    cabinet.start();
    cabinet.await_lines("write /dev/qellpc_lcd \"2\\x00\"");
}

TEST(AHostileHost, FloodsTheLoaderWhichStillAnswersAndTakesAnUpdater)
{
    Cabinet cabinet;
    start_update_mode(cabinet);
    const std::string half = std::string("\x00\x00\x10\x00\x12\x34", 6) + std::string(29, 'x');
    for (size_t round = 1; round <= 10; ++round) {
        for (char i = 0; i < 30; ++i) {
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

TEST(AHostileHost, LiesAboutALengthThatMemoryHoldsAndTheLoaderStillAnswersAndTakesAnUpdater)
{
    Cabinet cabinet;
    start_update_mode(cabinet);
    cabinet.limit_growth(memory_bytes);
    cabinet.send(lie_of_16_mb);
    cabinet.send(connect_packet);
    cabinet.await_lines(answer_line);
    cabinet.send(lie_of_16_mb);
    cabinet.send(script_updater_packet);
    EXPECT_EQ(cabinet.await_end(), 7);
}

/// The loader in update mode with so much memory gets a packet and stops on this check of the packet link;
/// it does not take an updater any more.
static void expect_stop(const std::string &packet, const std::string &check)
{
    Cabinet cabinet;
    start_update_mode(cabinet);
    cabinet.limit_growth(memory_bytes);
    cabinet.send(packet);
    cabinet.send(script_updater_packet);
    cabinet.await_lines("sleep 1", 2); // parked
    EXPECT_THAT(cabinet.transcript().lines("stop "),
                ElementsAre(MatchesRegex("stop qel_tolbrin/qel_comms:[0-9]+ " + check)));
    EXPECT_FALSE(cabinet.has("/tmp/updater"));
}

TEST(AHostileHost, StopsTheLoaderForGoodWithALengthThatMemoryDoesNotHold)
{
    expect_stop(lie_of_2_gb, "buf");
}

TEST(AHostileHost, StopsTheLoaderForGoodWithAPacketThatHoldsNoMessage)
{
    expect_stop(packet_without_message, "len > 6");
}
