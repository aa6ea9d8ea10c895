// The core of the system messages: connection, numbers, sending, and what it refuses.

#include "support/product_reset.h"
#include "support/sysmsg_fixture.h"

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;

using SysmsgConnection = Sysmsg;
using SysmsgNumbers = Sysmsg;
using SysmsgSend = Sysmsg;
using SysmsgMisuse = Sysmsg;

// ---- Connection ----

TEST_F(SysmsgConnection, HoldsTheFiveValuesItIsMadeOf)
{
    int send_context = 0;
    int poll_context = 0;
    qel_sysmsg_con *con =
        qel_sysmsg_create(peer.con.recv, peer.con.send, &send_context, peer.con.poll, &poll_context);
    EXPECT_EQ(con->recv, peer.con.recv);
    EXPECT_EQ(con->send, peer.con.send);
    EXPECT_EQ(con->send_ctx, &send_context);
    EXPECT_EQ(con->poll, peer.con.poll);
    EXPECT_EQ(con->poll_ctx, &poll_context);
    free(con);
}

TEST_F(SysmsgConnection, IsFiveWordsInThisOrder)
{
    void *words[5];
    ASSERT_EQ(sizeof peer.con, sizeof words);
    memcpy(words, &peer.con, sizeof words);
    EXPECT_EQ(words[0], reinterpret_cast<void *>(peer.con.recv));
    EXPECT_EQ(words[1], reinterpret_cast<void *>(peer.con.send));
    EXPECT_EQ(words[2], peer.con.send_ctx);
    EXPECT_EQ(words[3], reinterpret_cast<void *>(peer.con.poll));
    EXPECT_EQ(words[4], peer.con.poll_ctx);
}

TEST_F(SysmsgConnection, KnowsTheSequencedTypes)
{
    for (uint32_t type = 0; type < 1000; ++type)
        EXPECT_EQ(qel_sysmsg_has_sequence(type), is_sequenced(type) ? 1 : 0) << type;
    for (const uint32_t type : {0x01000002U, 0x80000001U, 0xFFFFFFFFU})
        EXPECT_EQ(qel_sysmsg_has_sequence(type), 0) << type;
}

TEST_F(SysmsgConnection, HasAFlagThatReportsItself)
{
    EXPECT_EQ(qel_sysmsg_flag_on(), 1);
    EXPECT_EQ(qel_sysmsg_flag_off(), 0);
    EXPECT_EQ(qel_sysmsg_flag_off(), 0);
}

TEST_F(SysmsgConnection, TracesOnlyTexts)
{
    qel_sysmsg_trace("x");
    EXPECT_STOPS_ON("message", sysmsg_unit, qel_sysmsg_trace(nullptr));
    EXPECT_STOPS_ON("*message", sysmsg_unit, qel_sysmsg_trace(""));
    EXPECT_THAT(peer.sent, IsEmpty());
}

// ---- Numbers ----

TEST_F(SysmsgNumbers, DoNotStartAgainWhenThoseReceivedAreForgotten)
{
    peer.confirms();
    EXPECT_EQ(request(), 1);
    qel_sysmsg_forget_sequence();
    message = bytes_of(post_22);
    EXPECT_EQ(request(), 1);
    EXPECT_EQ(message.at(8), 3);
}

TEST_F(SysmsgNumbers, AreWrittenIntoTheMessageOfTheCaller)
{
    peer.confirms();
    EXPECT_EQ(request(), 1);
    EXPECT_NE(message.at(8), 0);
    EXPECT_EQ(hex_of(message), hex_of(peer.transmissions[0]));
}

TEST_F(SysmsgNumbers, AreNotSpentByUnsequencedMessages)
{
    peer.confirms();
    qel_sysmsg_send(&peer.con, bytes_of("0B 00 00 00 08 00 00 00").data());
    EXPECT_EQ(request(), 1);
    EXPECT_EQ(message.at(8), 2);
}

// ---- Sending unsequenced ----

TEST_F(SysmsgSend, SendsAnUnsequencedMessageAtOnceAndOnce)
{
    qel_sysmsg_send(&peer.con, bytes_of("05 00 00 00 0C 00 00 00 2A 00 00 00").data());
    EXPECT_THAT(peer.sent, ElementsAre("0 ms: 05 00 00 00 0C 00 00 00 2A 00 00 00"));
    EXPECT_EQ(peer.polls, 0);
}

TEST_F(SysmsgSend, SendsAsManyBytesAsTheMessageSays)
{
    qel_sysmsg_send(&peer.con, bytes_of("1E 00 00 00 0C 00 00 00 01 02 03 04 99 99").data());
    EXPECT_THAT(peer.sent, ElementsAre("0 ms: 1E 00 00 00 0C 00 00 00 01 02 03 04"));
}

TEST_F(SysmsgSend, StopsOnASequencedType)
{
    EXPECT_STOPS_ON("!qel_sysmsg_has_sequence(sysmsg->msg_type)", sysmsg_unit,
                    qel_sysmsg_send(&peer.con, message.data()));
    EXPECT_THAT(peer.sent, IsEmpty());
}

TEST_F(SysmsgSend, StopsWithoutAConnectionOrItsSendFunction)
{
    EXPECT_STOPS_ON("con", sysmsg_unit, qel_sysmsg_send(nullptr, message.data()));
    peer.con.send = nullptr;
    EXPECT_STOPS_ON("con->send", sysmsg_unit, qel_sysmsg_send(&peer.con, message.data()));
    EXPECT_STOPS_ON("con->send", sysmsg_unit, qel_sysmsg_send(&peer.con, nullptr));
}

TEST_F(SysmsgSend, PutsAByteBlockBehindItsLength)
{
    qel_sysmsg_send_blob(&peer.con, 0x8102030A, "abcde", 5);
    EXPECT_THAT(peer.sent, ElementsAre(shown("0 ms: 0A 03 02 81 11 00 00 00 05 00 00 00 'abcde'")));
}

TEST_F(SysmsgSend, PutsASequencedByteBlockBehindItsLengthAt12)
{
    peer.confirms();
    EXPECT_EQ(qel_sysmsg_request_blob(&peer.con, 0x31, "abcde", 5), 1);
    EXPECT_THAT(peer.sent,
                ElementsAre(shown("0 ms: 31 00 00 00 15 00 00 00 ## 00 00 00 05 00 00 00 'abcde'")));
    peer.on_send = nullptr;
    EXPECT_EQ(qel_sysmsg_request_blob(&peer.con, 0x31, "abcde", 5), 0);
}

TEST_F(SysmsgSend, StopsOnAByteBlockWithoutConnectionBytesOrLength)
{
    peer.kernel.watches_memory = 1;
    EXPECT_STOPS_ON("con", sysmsg_unit, qel_sysmsg_send_blob(nullptr, 10, nullptr, 0));
    EXPECT_EQ(peer.kernel.count("malloc"), 0); // it stops at once
    EXPECT_STOPS_ON("blob", sysmsg_unit, qel_sysmsg_send_blob(&peer.con, 10, nullptr, 0));
    EXPECT_STOPS_ON("blob_len > 0", sysmsg_unit, qel_sysmsg_send_blob(&peer.con, 10, "x", 0));
    EXPECT_STOPS_ON("blob_len > 0", sysmsg_unit, qel_sysmsg_send_blob(&peer.con, 10, "x", -1));
    EXPECT_STOPS_ON("con", sysmsg_unit, qel_sysmsg_request_blob(nullptr, 2, nullptr, 0));
    EXPECT_STOPS_ON("blob", sysmsg_unit, qel_sysmsg_request_blob(&peer.con, 2, nullptr, 0));
    EXPECT_STOPS_ON("blob_len > 0", sysmsg_unit, qel_sysmsg_request_blob(&peer.con, 2, "x", 0));
    EXPECT_STOPS_ON("blob_len > 0", sysmsg_unit, qel_sysmsg_request_blob(&peer.con, 2, "x", -1));
    EXPECT_THAT(peer.sent, IsEmpty());
}

TEST_F(SysmsgSend, StopsOnAByteBlockOfTheWrongKindOfType)
{
    EXPECT_STOPS_ON("!qel_sysmsg_has_sequence(sysmsg->msg_type)", sysmsg_unit,
                    qel_sysmsg_send_blob(&peer.con, 2, "x", 1));
    EXPECT_STOPS_ON("qel_sysmsg_has_sequence(sysmsg->msg_type)", sysmsg_unit,
                    qel_sysmsg_request_blob(&peer.con, 10, "x", 1));
}

// ---- Misuse of the sequenced send ----

TEST_F(SysmsgMisuse, StopsOnWhatCannotBeSent)
{
    EXPECT_STOPS_ON("con", sysmsg_unit,
                    qel_sysmsg_request(nullptr, bytes_of("0B 00 00 00 08 00 00 00").data()));
    const std::pair<const char *, const char *> cases[] = {
        {"0B 00 00 00 08 00 00 00", "qel_sysmsg_has_sequence(sysmsg->msg_type)"},
        {"16 00 00 00 0B 00 00 00 00 00 00 00", "sysmsg->msg_size >= sizeof(struct qel_sysmsg_confirmed)"},
        {"16 00 00 00 0C 00 00 00 05 00 00 00", "sysmsg->sequence == 0"},
    };
    for (const auto &[bytes, text] : cases) {
        message = bytes_of(bytes);
        EXPECT_STOPS_ON(text, sysmsg_unit, request());
        reset_product(); // the last one had stopped in the middle of a send
    }
    EXPECT_THAT(peer.sent, IsEmpty());
    peer.con.send = nullptr;
    EXPECT_STOPS_ON("con->send", sysmsg_unit, request());
    EXPECT_STOPS_ON("con->send", sysmsg_unit, qel_sysmsg_request(&peer.con, nullptr));
}

TEST_F(SysmsgMisuse, StopsOnAMessageThatWasSentAlready)
{
    peer.confirms();
    EXPECT_EQ(request(), 1);
    EXPECT_STOPS_ON("sysmsg->sequence == 0", sysmsg_unit, request());
}

TEST_F(SysmsgMisuse, StopsOnAWaitWithoutABuffer)
{
    message[8] = 5; // the number is looked at later
    EXPECT_STOPS_ON("buf", sysmsg_unit,
                    qel_sysmsg_send_sequenced(&peer.con, message.data(), 1, 29, nullptr, 0));
    for (const int size : {0, -1}) {
        reset_product(); // it had stopped in the middle of a send
        EXPECT_STOPS_ON("buf_size > 0", sysmsg_unit,
                        qel_sysmsg_send_sequenced(&peer.con, message.data(), 1, 29, reply, size));
    }
}

TEST_F(SysmsgMisuse, ASendWhileAConfirmIsAwaited)
{
    peer.on_poll = [this] { qel_sysmsg_request(&peer.con, bytes_of(post_22).data()); };
    EXPECT_STOPS_ON("!pending_ack", sysmsg_unit, query());
}

TEST_F(SysmsgMisuse, AShortMessageWhileAConfirmIsAwaited)
{
    peer.on_poll = [this] {
        qel_sysmsg_request(&peer.con, bytes_of("16 00 00 00 0B 00 00 00 00 00 00 00").data());
    };
    EXPECT_STOPS_ON("sysmsg->msg_size >= sizeof(struct qel_sysmsg_confirmed)", sysmsg_unit, query());
}

TEST_F(SysmsgMisuse, ASendWhileAReplyIsAwaited)
{
    peer.confirms();
    peer.on_poll = [this] { qel_sysmsg_request(&peer.con, bytes_of(post_22).data()); };
    EXPECT_STOPS_ON("!pending_wait", sysmsg_unit, query());
}

TEST_F(SysmsgMisuse, ASendFromTheHandlerInsideASend)
{
    peer.answers("0B 00 00 00 08 00 00 00");
    peer.on_handle = [this](const Bytes &) { qel_sysmsg_request(&peer.con, bytes_of(post_22).data()); };
    EXPECT_STOPS_ON("!reenter", sysmsg_unit, request());
    EXPECT_EQ(peer.sent.size(), 1U); // the outer send's
}

TEST_F(SysmsgMisuse, ASendThatWaitsFromTheHandler)
{
    // Outside of a send it starts, but the confirm it polls for cannot be received any more.
    peer.confirms();
    peer.on_handle = [this](const Bytes &) { request(); };
    EXPECT_STOPS_ON("!reenter", sysmsg_unit, peer.receive("0B 00 00 00 08 00 00 00"));
}
