// The transport of the host link, on a device that the test plays: descriptor 9.

#include "support/fake_kernel.h"
#include "support/stops.h"

#include "qel_tolbrin/qel_lpc_comms.h"

#include <errno.h>
#include <gmock/gmock.h>
#include <string.h>

#include <deque>

using testing::ElementsAre;

static constexpr const char *lpc_unit = "qel_tolbrin/qel_lpc_comms";
static const uint8_t sixty_four_bytes[64] = {};

/// A device on descriptor 9 that takes every write whole.
struct LpcWrite : testing::Test {
    LpcWrite()
    {
        kernel.set_time(1000);
        kernel.on_write = [](int, const void *, size_t size) { return static_cast<ssize_t>(size); };
    }

    FakeKernel kernel;
    qel_lpc lpc = {9, nullptr, nullptr};
};

/// A device that gives packets of these sizes, each of bytes of that value.
struct LpcPoll : LpcWrite {
    LpcPoll()
    {
        qel_lpc_set_receiver(&lpc, receive, this);
        kernel.on_read = [this](int, void *bytes, size_t size) -> ssize_t {
            EXPECT_EQ(size, 64U);
            if (packets.empty()) {
                errno = EAGAIN;
                return -1;
            }
            const int packet = packets.front();
            packets.pop_front();
            memset(bytes, packet, static_cast<size_t>(packet));
            return packet;
        };
    }
    static int receive(void *test, const void *bytes, int len)
    {
        static_cast<LpcPoll *>(test)->received.emplace_back(static_cast<const char *>(bytes), len);
        return 4711;
    }

    std::deque<int> packets;
    std::vector<std::string> received;
};

// ---- Opening ----

TEST(LpcOpen, LeavesTheReceiverEmpty)
{
    FakeKernel kernel;
    kernel.on_open = [](const char *, int, mode_t) { return 9; };
    qel_lpc *lpc = qel_lpc_open("/dev/qellpc_host_comms");
    EXPECT_EQ(lpc->recv, nullptr);
    EXPECT_EQ(lpc->recv_ctx, nullptr);
    free(lpc);
}

// ---- The transmit buffer ----

TEST(LpcTransmitBuffer, IsOneForAll)
{
    int one = 1, other = 2;
    EXPECT_EQ(qel_lpc_get_tx_buf(&one), qel_lpc_get_tx_buf(&other));
    EXPECT_EQ(qel_lpc_get_tx_buf(nullptr), qel_lpc_get_tx_buf(&other));
}

TEST_F(LpcWrite, OfThePacketInTheTransmitBufferSendsItWhateverFollows)
{
    auto *packet = static_cast<uint8_t *>(qel_lpc_get_tx_buf(&lpc));
    memset(packet, 0x5A, 64);
    std::vector<std::string> written;
    kernel.on_write = [&](int, const void *bytes, size_t size) {
        written.emplace_back(static_cast<const char *>(bytes), size);
        return static_cast<ssize_t>(size);
    };
    EXPECT_EQ(qel_lpc_packet_send_end(&lpc, packet, 35, 1), 35);
    EXPECT_EQ(qel_lpc_packet_send_end(&lpc, packet, 64, 0), 64);
    EXPECT_THAT(written, ElementsAre(std::string(35, 0x5A), std::string(64, 0x5A)));
}

TEST_F(LpcWrite, OfAPacketBuiltElsewhereStops)
{
    uint8_t packet[64] = {};
    EXPECT_STOPS_ON("packet == tx_buf", lpc_unit, qel_lpc_packet_send_end(&lpc, packet, 35, 0));
    auto *inside = static_cast<uint8_t *>(qel_lpc_get_tx_buf(&lpc)) + 1;
    EXPECT_STOPS_ON("packet == tx_buf", lpc_unit, qel_lpc_packet_send_end(&lpc, inside, 35, 0));
    EXPECT_STOPS_ON("packet == tx_buf", lpc_unit, qel_lpc_packet_send_end(nullptr, nullptr, 0, 0));
    EXPECT_EQ(kernel.count("write"), 0);
}

// ---- Writing ----

TEST_F(LpcWrite, Accepts1To64Bytes)
{
    EXPECT_EQ(qel_lpc_write(&lpc, sixty_four_bytes, 1), 1);
    EXPECT_EQ(qel_lpc_write(&lpc, sixty_four_bytes, 64), 64);
    EXPECT_THAT(kernel.calls("write"), ElementsAre("write 9 1", "write 9 64"));
}

TEST_F(LpcWrite, StopsOnOtherLengths)
{
    EXPECT_STOPS_ON("len <= 64", lpc_unit, qel_lpc_write(&lpc, sixty_four_bytes, 65));
    EXPECT_STOPS_ON("len > 0", lpc_unit, qel_lpc_write(&lpc, sixty_four_bytes, 0));
    EXPECT_STOPS_ON("len > 0", lpc_unit, qel_lpc_write(&lpc, sixty_four_bytes, -1));
    EXPECT_THAT(kernel.calls(), ElementsAre());
}

TEST_F(LpcWrite, StopsWithoutATransportBeforeItLooksAtTheLength)
{
    EXPECT_STOPS_ON("lpc", lpc_unit, qel_lpc_write(nullptr, sixty_four_bytes, 0));
}

TEST_F(LpcWrite, TriesAgainWithoutLimit)
{
    for (int n = 1; n <= 10000; ++n)
        kernel.fail_nth("write", n, EAGAIN);
    EXPECT_EQ(qel_lpc_write(&lpc, sixty_four_bytes, 35), 35);
    EXPECT_EQ(kernel.count("write"), 10001);
    EXPECT_EQ(kernel.slept_usec, 15000);
}

// ---- Polling ----

TEST_F(LpcPoll, HandsOnEveryPacketAsItIsFramed)
{
    packets = {64, 36};
    EXPECT_EQ(qel_lpc_poll(&lpc), 1);
    EXPECT_THAT(received, ElementsAre(std::string(64, 64), std::string(36, 36)));
    EXPECT_EQ(qel_lpc_poll(&lpc), 0);
}

TEST_F(LpcPoll, EndsAtTheFirstErrorWithoutAWord)
{
    for (const int error : {EAGAIN, EINTR, EIO, EBADF}) {
        received.clear();
        kernel.forget_calls();
        packets = {10, 20};
        kernel.fail_nth("read", 2, error);
        EXPECT_EQ(qel_lpc_poll(&lpc), 1);
        EXPECT_THAT(received, ElementsAre(std::string(10, 10)));
        EXPECT_EQ(qel_lpc_poll(&lpc), 1); // the rest, next time
    }
}

TEST_F(LpcPoll, EndsAtAReadOf0Bytes)
{
    kernel.on_read = [](int, void *, size_t) { return 0; };
    EXPECT_EQ(qel_lpc_poll(&lpc), 0);
    EXPECT_EQ(kernel.count("read"), 1);
    EXPECT_THAT(received, ElementsAre());
}

// ---- Pacing ----

TEST(LpcPacing, IsOnAtStart)
{
    EXPECT_EQ(qel_lpc_get_pacing(), 1);
}

TEST(LpcPacing, IsSwitchedForAllTransportsAndReportsTheOpposite)
{
    EXPECT_EQ(qel_lpc_set_pacing(0), 1);
    EXPECT_EQ(qel_lpc_get_pacing(), 0);
    EXPECT_EQ(qel_lpc_set_pacing(-5), 0);
    EXPECT_EQ(qel_lpc_get_pacing(), 1);
}

TEST_F(LpcWrite, DoesNotPauseWhilePacingIsOff)
{
    qel_lpc_set_pacing(0);
    EXPECT_EQ(qel_lpc_write(&lpc, sixty_four_bytes, 35), 35);
    qel_lpc_set_pacing(1);
    EXPECT_EQ(qel_lpc_write(&lpc, sixty_four_bytes, 34), 34);
    EXPECT_THAT(kernel.calls(), ElementsAre("write 9 35", "usleep 15000", "write 9 34"));
}
