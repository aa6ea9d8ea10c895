// Two real ends of the host link over a bad line, thousands of exchanges, every message accounted for; and
// over a good one in real time. QEL_LINK_EXCHANGES sets the number of exchanges on the bad line for longer
// runs.

#include "support/two_ends.h"

#include <signal.h>
#include <stdlib.h>

/// Everything that can go wrong must have gone wrong, and most must have gone well.
static void expect_a_telling_run(const TwoEnds &ends)
{
    const TwoEnds::Side &asking = ends.sides[0];
    const TwoEnds::Side &serving = ends.sides[1];
    EXPECT_GT(asking.succeeded, asking.sent / 2);
    EXPECT_GT(asking.failed, 0);
    EXPECT_GT(asking.transmissions, asking.sent);
    EXPECT_GT(serving.succeeded, 0);
    EXPECT_GT(serving.handed_on, asking.succeeded);
    EXPECT_GT(asking.books.dropped_by_crc, 0);
    EXPECT_GT(serving.books.dropped_by_crc, 0);
    EXPECT_GT(serving.books.dropped_as_repeat, 0);
    EXPECT_GT(asking.books.dropped_while_unconfirmed, 0);
}

static void show(const TwoEnds &ends)
{
    printf("    %d messages on the line\n", ends.sides[0].messages + ends.sides[1].messages);
    for (const TwoEnds::Side &side : ends.sides) {
        printf("    %s end: %d sends (%d good, %d failed), %d transmissions, %d messages handed on; dropped: "
               "%d by CRC, %d repeats, %d while a confirm was awaited, %d while a reply was\n",
               &side == ends.sides ? "asking" : "serving", side.sent, side.succeeded, side.failed,
               side.transmissions, side.handed_on, side.books.dropped_by_crc, side.books.dropped_as_repeat,
               side.books.dropped_while_unconfirmed, side.books.dropped_while_waiting);
    }
}

static int exchanges_wanted(int usual)
{
    const char *text = getenv("QEL_LINK_EXCHANGES");
    return text ? atoi(text) : usual;
}

static constexpr Faults bad_line = {20, 20, 20, 30, 15};

struct HostLinkEnds : testing::TestWithParam<uint32_t> {
};

TEST_P(HostLinkEnds, AccountForEveryMessageOnABadLine)
{
    TwoEnds ends(bad_line, GetParam(), exchanges_wanted(1500), 0);
    ends.run();
    show(ends);
    expect_a_telling_run(ends);
}

TEST_P(HostLinkEnds, AccountForEveryMessageWhenBothAskAtOnce)
{
    TwoEnds ends(bad_line, GetParam(), exchanges_wanted(500), 1);
    ends.run();
    show(ends);
    expect_a_telling_run(ends);
}

INSTANTIATE_TEST_SUITE_P(Seeds, HostLinkEnds, testing::Values(1U, 20040101U, 4711U),
                         [](const auto &seed) { return "Seed" + std::to_string(seed.param); });

TEST(HostLinkEndsOnAGoodLine, LoseNothingAndRepeatNothing)
{
    TwoEnds ends({0, 0, 0, 0, 0}, 1, 1000, 0);
    ends.run();
    show(ends);
    EXPECT_EQ(ends.sides[0].failed, 0);
    EXPECT_EQ(ends.sides[1].failed, 0);
    EXPECT_EQ(ends.sides[0].transmissions, ends.sides[0].sent);
    EXPECT_EQ(ends.sides[0].books.dropped_by_crc, 0);
}

// ---- In real time ----

/// The stack on a socket, with the real clock and pacing.
static qel_sysmsg_con *real_connection(int socket)
{
    static qel_lpc lpc;
    lpc.fd = socket;
    qel_comms *comms =
        qel_comms_create(35, qel_lpc_get_tx_buf, qel_lpc_packet_send_end, &lpc, qel_lpc_poll, &lpc);
    qel_lpc_set_receiver(&lpc, qel_comms_receive_packet, comms);
    qel_sysmsg_con *con = qel_sysmsg_create([](qel_sysmsg_con *, const void *) {}, qel_comms_send, comms,
                                            qel_comms_poll, comms);
    qel_comms_set_receiver(comms, qel_sysmsg_receive, con);
    return con;
}

TEST(HostLinkEndsInRealTime, ConfirmAMessagePacedPacketByPacket)
{
    int ends[2];
    ASSERT_EQ(real_socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, ends), 0);
    const pid_t peer = real_fork();
    if (peer == 0) {
        const qel_sysmsg_con *con = real_connection(ends[1]);
        for (;;)
            con->poll(con->poll_ctx);
    }
    qel_sysmsg_con *con = real_connection(ends[0]);
    const Bytes block(300, 0x5A); // a message of 316 bytes: 29 + 8 x 34 + 15, ten packets

    struct timeval start, end;
    real_gettimeofday(&start, nullptr);
    EXPECT_EQ(qel_sysmsg_transfer_data(con, block.data(), 300), 1);
    real_gettimeofday(&end, nullptr);

    const auto elapsed_ms = (end.tv_sec - start.tv_sec) * 1000 + (end.tv_usec - start.tv_usec) / 1000;
    EXPECT_GE(elapsed_ms, 165); // ten packets and one for the confirm, 15 ms each
    kill(peer, SIGKILL);
    real_waitpid(peer, nullptr, 0);
    real_close(ends[0]);
    real_close(ends[1]);
}
