// The board's units at the limits of their buffers and types, and the order of their checks.

#include "support/comms_fixture.h"
#include "support/fake_kernel.h"
#include "support/stops.h"

#include "qel_tolbrin/qel_h8_command.h"
#include "qel_tolbrin/qel_lpc_comms.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <limits.h>
#include <malloc.h>

using testing::ElementsAre;
using testing::IsEmpty;

namespace
{

/// Leaves the byte where the next call has its variables.
[[gnu::noinline]] void soil_the_stack(char soil)
{
    volatile char bytes[8192];
    for (volatile char &byte : bytes)
        byte = soil;
}

/// Has its frame, and all below it, where that byte was left.
[[gnu::noinline]] long read_number_below()
{
    volatile char room[512];
    room[0] = 0;
    return qel_h8_read_number() + room[0];
}

struct BoardLimits : testing::Test {
    BoardLimits()
    {
        kernel.set_time(1000);
        kernel.on_open = [](auto...) { return 5001; };
        kernel.on_close = [](auto...) { return 0; };
        kernel.on_write = [](int, const void *, size_t size) { return static_cast<ssize_t>(size); };
    }
    /// What the H8's decimal text of 64 bytes reads as.
    long number(std::string reply)
    {
        reply.resize(64);
        kernel.on_read = [reply](int, void *bytes, size_t) {
            memcpy(bytes, reply.data(), 64);
            return ssize_t{64};
        };
        soil_the_stack('5');
        return read_number_below();
    }

    FakeKernel kernel;
};

using CommsLimits = Comms;

constexpr const char *lpc_unit = "qel_tolbrin/qel_lpc_comms";

} // namespace

// ---- H8 ----

TEST_F(BoardLimits, NumbersAreDecimalAsLongAsALongAndEndWithTheReply)
{
    EXPECT_EQ(number("010"), 10);
    EXPECT_EQ(number("0x10"), 0);
    EXPECT_EQ(number(std::string(63, '0') + "7"), 7);
    EXPECT_EQ(number("5000000000"), sizeof(long) == 8 ? static_cast<long>(5000000000) : LONG_MAX);
    EXPECT_EQ(number("99999999999999999999"), LONG_MAX);
    EXPECT_EQ(number("-99999999999999999999"), LONG_MIN);
}

TEST_F(BoardLimits, NothingIsOpenedForWhatIsRefusedNorClosedAfterAShortWrite)
{
    EXPECT_STOPS_ON("text", h8_unit, qel_lcd_write_row(-1, nullptr));
    EXPECT_STOPS_ON("row < 4", h8_unit, qel_lcd_write_row(4, ""));
    EXPECT_STOPS_ON("row < 4", h8_unit, qel_lcd_write_row(0x10000, ""));
    EXPECT_THAT(kernel.calls(), IsEmpty());
    kernel.fail("write", EIO);
    EXPECT_STOPS_ON("bytes_written == bytes", h8_unit, qel_lcd_write_row(0, ""));
    EXPECT_THAT(kernel.calls(), ElementsAre("open /dev/qellpc_lcd O_WRONLY", "write 5001 2"));
}

TEST_F(BoardLimits, TheCommandDeviceMayBeDescriptor0)
{
    kernel.on_open = [](auto...) { return 0; };
    EXPECT_EQ(qel_h8_signal(0), 0);
    EXPECT_EQ(qel_h8_signal(7), 0);
    EXPECT_THAT(kernel.calls(), ElementsAre("open /dev/qellpc_command O_RDWR", "write 0 1", "write 0 1"));
}

// ---- Transport ----

TEST_F(BoardLimits, TheTransmitBufferIsHandedOutAsItIs)
{
    auto *buffer = static_cast<uint8_t *>(qel_lpc_get_tx_buf(nullptr));
    memset(buffer, 'x', 64);
    EXPECT_EQ(hex_of(qel_lpc_get_tx_buf(nullptr), 64), hex("78*64"));
    qel_lpc lpc = {9, nullptr, nullptr};
    EXPECT_EQ(qel_lpc_packet_send_end(&lpc, buffer, 64, 0), 64);
    EXPECT_EQ(hex_of(buffer, 64), hex("78*64"));
    memset(buffer, 0, 64);
}

TEST_F(BoardLimits, AWriteThatTakesNothingOrFindsTheDeviceBusyStops)
{
    qel_lpc lpc = {9, nullptr, nullptr};
    kernel.on_write = [this](auto...) {
        errno = EAGAIN;
        kernel.leave_at("write", 2);
        return 0;
    };
    EXPECT_STOPS_ON("n == len", lpc_unit, qel_lpc_write(&lpc, "x", 1));
    for (const int error : {EBUSY, ETIMEDOUT, ENOMEM, EPERM}) {
        kernel.forget_calls();
        kernel.fail("write", error);
        EXPECT_STOPS_ON("n == len", lpc_unit, qel_lpc_write(&lpc, "x", 1));
    }
}

TEST_F(BoardLimits, APacketIsFollowedByWhatIsNotOfAnEarlierPoll)
{
    static std::string got;
    qel_lpc lpc = {9, nullptr, nullptr};
    qel_lpc_set_receiver(
        &lpc, [](void *, const void *bytes, int) { return got = hex_of(bytes, 64), 0; }, nullptr);
    for (const size_t size : {64U, 1U}) {
        kernel.on_read = [size, next = 0](int, void *bytes, size_t) mutable {
            memset(bytes, 'a', size);
            return next++ == 0 ? static_cast<ssize_t>(size) : -1;
        };
        soil_the_stack('5');
        EXPECT_EQ(qel_lpc_poll(&lpc), 1);
    }
    EXPECT_EQ(got, hex("61 00*63"));
}

TEST_F(BoardLimits, PacingIsOnForEverythingButZero)
{
    for (const int on : {1, 2, -1, 256}) {
        EXPECT_EQ(qel_lpc_set_pacing(on), 0) << on;
        EXPECT_EQ(qel_lpc_get_pacing(), 1) << on;
    }
}

// ---- Packet link ----

TEST_F(CommsLimits, NestingIsFoundFirstAndCountsFromTheFirstCheckOn)
{
    comms->recv = [](void *, const void *, int) { qel_comms_receive_packet(nullptr, nullptr, 0); };
    EXPECT_STOPS_ON("!reenter", comms_unit, feed("00 00 00 01 94 79 41"));
    EXPECT_STOPS_ON("!reenter", comms_unit, feed("00 00 00 01 94 79 41"));
}

TEST_F(CommsLimits, AStoppedReceiptCountsAsRunning)
{
    comms->recv = nullptr;
    comms->packet_size_max = -5;
    EXPECT_STOPS_ON("comms->recv", comms_unit, qel_comms_receive_packet(comms, nullptr, -1));
    EXPECT_STOPS_ON("!reenter", comms_unit, qel_comms_receive_packet(comms, "", -1));
}

TEST_F(CommsLimits, PollsWithTheContextOfThePoll)
{
    int contexts[2] = {};
    qel_comms *link = qel_comms_create(
        35, begin_packet, end_packet, &contexts[0],
        [](void *context) { return ++*static_cast<int *>(context); }, &contexts[1]);
    EXPECT_EQ(qel_comms_poll(link), 1);
    EXPECT_THAT(contexts, ElementsAre(0, 1));
    free(link);
}

TEST_F(CommsLimits, TheLengthHasAllItsBits)
{
    // One packet takes it all.
    static Bytes packet(0x818283 + 6);
    const Bytes message(0x818283);
    qel_comms *link = qel_comms_create(
        static_cast<int>(packet.size()), [](void *) -> void * { return packet.data(); },
        [](void *, void *, int len, int) { return len; }, nullptr, nullptr, nullptr);
    EXPECT_EQ(qel_comms_send(link, message.data(), 0x818283), 0x818289);
    EXPECT_EQ(hex_of(packet.data(), 4), "00 81 82 83");
    free(link);
}

TEST_F(CommsLimits, TheMessageBufferIsZeroedOfTheExactSizeAndGivenBackWhenItGrows)
{
    {
        FakeKernel kernel;
        kernel.watches_memory = 1;
        for (const char *first_packet :
             {"00 00 00 64 00 00 41", "00 00 00 63 00 00 41", "00 00 00 64 00 00 41", "00 00 00 65 00 00 41",
              "00 01 00 00 00 00 41", "00 00 FF FF 00 00 41"})
            feed(first_packet);
        EXPECT_THAT(kernel.calls(), ElementsAre("calloc 100", "calloc 101", "calloc 65536"));
    }
    feed("00 01 80 00 00 00 41");
    const size_t before = mallinfo2().uordblks;
    for (const char *first_packet :
         {"00 01 80 01 00 00 41", "00 01 80 02 00 00 41", "00 01 80 03 00 00 41", "00 01 80 04 00 00 41"})
        feed(first_packet);
    EXPECT_LT(mallinfo2().uordblks, before + 0x18000); // less than one of the four is still held
}
