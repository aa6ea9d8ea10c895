// What a sequenced send waits for, on a virtual clock: confirms, repeats, replies, and what is lost
// meanwhile.

#include "support/sysmsg_fixture.h"

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;

using SysmsgConfirm = Sysmsg;
using SysmsgReply = Sysmsg;

// ---- Confirms ----

TEST_F(SysmsgConfirm, EndsTheSendAsSoonAsItArrives)
{
    peer.on_send = [this](int, const Bytes &sent) { peer.delivers(300, confirm_of(sent)); };
    EXPECT_EQ(request(), 1);
    EXPECT_EQ(peer.now_ms(), 300);
    // The time is read before the first transmission, behind it, and after every poll.
    EXPECT_EQ(peer.kernel.count("gettimeofday"), 2 + 300);
    EXPECT_THAT(peer.sent, ElementsAre(shown("0 ms: " + std::string(sent_post_22))));
    EXPECT_THAT(peer.handled, IsEmpty());
}

TEST_F(SysmsgConfirm, ThatNeverComesIsWaitedForThreeTimesASecond)
{
    EXPECT_EQ(request(), 0);
    const std::string text = sent_post_22;
    EXPECT_THAT(peer.sent,
                ElementsAre(shown("0 ms: " + text), shown("1000 ms: " + text), shown("2000 ms: " + text)));
    EXPECT_EQ(peer.now_ms(), 3000);
    EXPECT_THAT(peer.transmissions, ElementsAre(message, message, message)); // the same number each time
}

TEST_F(SysmsgConfirm, IsStillTakenAt999MillisecondsWithoutARepeat)
{
    peer.on_send = [this](int, const Bytes &sent) { peer.delivers_at(999, confirm_of(sent)); };
    EXPECT_EQ(request(), 1);
    EXPECT_EQ(peer.now_ms(), 999);
    EXPECT_EQ(peer.sent.size(), 1U);
}

TEST_F(SysmsgConfirm, IsTakenAfterAnyOfTheThreeTransmissions)
{
    for (const int wanted : {1, 2, 3}) {
        ScriptedPeer late;
        late.on_send = [&](int n, const Bytes &sent) {
            if (n == wanted)
                late.delivers(10, confirm_of(sent));
        };
        message = bytes_of(post_22);
        EXPECT_EQ(qel_sysmsg_request(&late.con, message.data()), 1);
        EXPECT_EQ(late.now_ms(), 1000 * (wanted - 1) + 10);
    }
}

TEST_F(SysmsgConfirm, IsWaitedForFromTheEndOfATransmission)
{
    peer.on_send = [this](int, const Bytes &) { peer.kernel.advance_usec(300000); };
    EXPECT_EQ(request(), 0);
    const std::string text = sent_post_22;
    EXPECT_THAT(peer.sent,
                ElementsAre(shown("0 ms: " + text), shown("1300 ms: " + text), shown("2600 ms: " + text)));
    EXPECT_EQ(peer.now_ms(), 3900);
}

TEST_F(SysmsgConfirm, OfAnEarlierTransmissionIsAsGood)
{
    peer.on_send = [this](int n, const Bytes &sent) {
        if (n == 1)
            peer.delivers(1500, confirm_of(sent));
    };
    EXPECT_EQ(request(), 1);
    EXPECT_EQ(peer.now_ms(), 1500);
    EXPECT_EQ(peer.sent.size(), 2U);
}

TEST_F(SysmsgConfirm, OfAnotherNumberIsDropped)
{
    peer.on_send = [this](int, const Bytes &sent) {
        peer.delivers(0, confirm_with(static_cast<uint8_t>(sent.at(8) + 1)));
        peer.delivers(0, confirm_with(0));
    };
    EXPECT_EQ(request(), 0);
    EXPECT_EQ(peer.sent.size(), 3U);
    EXPECT_THAT(peer.handled, IsEmpty());
}

TEST_F(SysmsgConfirm, WithoutRoomForANumberIsDropped)
{
    peer.delivers(0, bytes_of("0F 00 00 00 08 00 00 00"));
    EXPECT_EQ(request(), 0);
    peer.on_poll = [this] { // whatever stands behind it
        Bytes confirm = confirm_of(peer.transmissions.back());
        confirm[4] = 8;
        qel_sysmsg_receive(&peer.con, confirm.data(), 8);
    };
    message = bytes_of(post_22);
    EXPECT_EQ(request(), 0);
}

TEST_F(SysmsgConfirm, NeedsNoPadding)
{
    peer.on_send = [this](int, const Bytes &sent) {
        peer.delivers(0, {15, 0, 0, 0, 9, 0, 0, 0, sent.at(8)});
    };
    EXPECT_EQ(request(), 1);
}

TEST_F(SysmsgConfirm, IsPolledForAtLeastOnceAfterEachTransmission)
{
    peer.poll_ms = 5000;
    EXPECT_EQ(request(), 0);
    EXPECT_EQ(peer.polls, 3);
    EXPECT_EQ(peer.sent.size(), 3U);
}

TEST_F(SysmsgConfirm, ThatArrivesInAPollThatTookTooLongCounts)
{
    peer.poll_ms = 5000;
    peer.on_send = [this](int n, const Bytes &sent) {
        if (n == 3)
            peer.delivers(0, confirm_of(sent));
    };
    EXPECT_EQ(request(), 1);
}

TEST_F(SysmsgConfirm, TimeIsMeasuredAcrossTheEndOfThe32BitClock)
{
    peer.starts_at(4294967); // 2^32 milliseconds end 296 ms later
    EXPECT_EQ(request(), 0);
    const std::string text = sent_post_22;
    EXPECT_THAT(peer.sent,
                ElementsAre(shown("0 ms: " + text), shown("1000 ms: " + text), shown("2000 ms: " + text)));
    EXPECT_EQ(peer.now_ms(), 3000);
}

TEST_F(SysmsgConfirm, TimeIsMeasuredInWholeMilliseconds)
{
    peer.starts_at(1000, 1000);
    EXPECT_EQ(request(), 0);
    EXPECT_EQ(peer.now_ms(), 3000);
}

TEST_F(SysmsgConfirm, TimeIsMeasuredWithoutTheFractionOfAMillisecond)
{
    // After the first poll, 1 ms, come 999.6: not more than 999.
    peer.on_poll = [this] {
        if (peer.polls == 1)
            peer.kernel.advance_usec(998600);
    };
    peer.on_send = [this](int n, const Bytes &sent) {
        if (n == 2)
            peer.delivers(0, confirm_of(sent));
    };
    EXPECT_EQ(request(), 1);
    EXPECT_THAT(peer.sent, ElementsAre(testing::StartsWith("0 ms"), testing::StartsWith("1000 ms")));
}

TEST_F(SysmsgConfirm, TimeIsMeasuredIn32Bits)
{
    peer.on_poll = [this] {
        if (peer.polls == 1)
            peer.kernel.advance_usec(4294967296000); // 2^32 ms, which do not show
    };
    EXPECT_EQ(request(), 0);
    EXPECT_EQ(peer.polls, 3000);
}

TEST_F(SysmsgConfirm, TimeIsMeasuredWhateverTheCentury)
{
    for (const time_t start : {time_t{0}, time_t{86399}, time_t{2147483}, time_t{2147483647},
                               time_t{4294967295}, time_t{10000000000}}) {
        ScriptedPeer silent;
        silent.starts_at(start, 999000);
        message = bytes_of(post_22);
        EXPECT_EQ(qel_sysmsg_request(&silent.con, message.data()), 0);
        EXPECT_EQ(silent.now_ms(), 3000) << start;
    }
}

TEST_F(SysmsgConfirm, WhileAwaitedKeepsEverythingElseOut)
{
    peer.delivers(10, numbered(22, 77));                    // sequenced: not even confirmed
    peer.delivers(20, bytes_of("0B 00 00 00 08 00 00 00")); // unsequenced
    peer.delivers(30, bytes_of("16 00 00 00 08 00 00 00")); // too short for its type: not looked at
    peer.delivers(40, bytes_of("FF FF FF FF 08 00 00 00")); // no such type
    peer.on_send = [this](int, const Bytes &sent) { peer.delivers(50, confirm_of(sent)); };
    EXPECT_EQ(request(), 1);
    EXPECT_THAT(peer.sent, ElementsAre(shown("0 ms: " + std::string(sent_post_22))));
    EXPECT_THAT(peer.handled, IsEmpty());

    // What was dropped was not remembered either: its repetition is a new message.
    peer.receive(numbered(22, 77));
    EXPECT_THAT(peer.handled, ElementsAre("16 00 00 00 0C 00 00 00 4D 00 00 00"));
}

TEST_F(SysmsgConfirm, ThatComesTooLateIsAnOrdinaryMessage)
{
    EXPECT_EQ(request(), 0);
    peer.receive(confirm_of(message));
    EXPECT_EQ(peer.handled.size(), 1U);
    EXPECT_EQ(peer.handled.at(0), hex_of(confirm_of(message)));
}

TEST_F(SysmsgConfirm, ThatNeverCameLeavesNothingBehind)
{
    EXPECT_EQ(query(), 0);
    EXPECT_EQ(peer.now_ms(), 3000); // no wait for a reply to something unconfirmed
    peer.receive(numbered(22, 77)); // everything gets in again
    EXPECT_EQ(peer.handled.size(), 1U);
    peer.receive(reply_29(78, 1));
    EXPECT_EQ(peer.handled.size(), 2U);
    peer.confirms();
    message = bytes_of(post_22);
    EXPECT_EQ(request(), 1);
}

// ---- Replies ----

TEST_F(SysmsgReply, IsConfirmedAndCopiedWholeHeaderIncluded)
{
    peer.on_send = [this](int n, const Bytes &sent) {
        if (n == 1) {
            peer.delivers(100, confirm_of(sent));
            peer.delivers(200, reply_29(9, 42));
        }
    };
    EXPECT_EQ(query(), 1);
    EXPECT_EQ(hex_of(reply, sizeof reply), "1D 00 00 00 10 00 00 00 09 00 00 00 2A 00 00 00");
    EXPECT_THAT(peer.sent, ElementsAre(shown("0 ms: " + std::string(sent_post_22)),
                                       "200 ms: 0F 00 00 00 0C 00 00 00 09 00 00 00"));
    EXPECT_EQ(peer.now_ms(), 200);
    EXPECT_THAT(peer.handled, IsEmpty());
}

TEST_F(SysmsgReply, MayComeInTheSamePollAsTheConfirm)
{
    peer.answers("1D 00 00 00 10 00 00 00 09 00 00 00 2A 00 00 00");
    EXPECT_EQ(query(), 1);
    EXPECT_EQ(peer.polls, 1);
}

TEST_F(SysmsgReply, IsAwaitedByAnyWaitButZeroWhileOthersMaySendUnsequencedMessages)
{
    peer.on_poll = [this] { qel_sysmsg_notify_11(&peer.con); };
    peer.on_send = [this](int n, const Bytes &sent) {
        if (n == 1) {
            peer.delivers(10, confirm_of(sent));
            peer.delivers(20, reply_29(9, 42));
        }
    };
    EXPECT_EQ(qel_sysmsg_send_sequenced(&peer.con, message.data(), -256, 29, reply, sizeof reply), 1);
    EXPECT_EQ(reply[12], 42);
}

TEST_F(SysmsgReply, MayBeUnsequenced)
{
    peer.answers("26 00 00 00 0C 00 00 00 2A 00 00 00");
    EXPECT_EQ(qel_sysmsg_send_sequenced(&peer.con, message.data(), 1, 38, reply, sizeof reply), 1);
    EXPECT_EQ(hex_of(reply, sizeof reply), hex("26 00 00 00 0C 00 00 00 2A 00 00 00 00*4"));
    EXPECT_EQ(peer.sent.size(), 1U);
}

TEST_F(SysmsgReply, IsKnownByAllBitsOfItsTypeAndSize)
{
    // Type 0x01000126 and 40000 bytes; the same low byte or half is another type.
    Bytes long_reply = bytes_of("26 01 00 01 40 9C 00 00 2A 00*39991");
    std::vector<uint8_t> room(40000);
    peer.on_send = [&](int, const Bytes &sent) {
        peer.delivers(0, confirm_of(sent));
        peer.delivers(0, bytes_of("26 00 00 00 0C 00 00 00 01 00 00 00"));
        peer.delivers(0, bytes_of("26 01 00 00 0C 00 00 00 01 00 00 00"));
        peer.delivers(0, long_reply);
    };
    EXPECT_EQ(qel_sysmsg_send_sequenced(&peer.con, message.data(), 1, 0x01000126, room.data(), 40000), 1);
    EXPECT_EQ(hex_of(room), hex_of(long_reply));
}

TEST_F(SysmsgReply, IsWaitedForUntil15SecondsAfterTheFirstTransmission)
{
    peer.on_send = [this](int n, const Bytes &sent) {
        if (n == 3)
            peer.delivers(500, confirm_of(sent)); // at 2500 ms, which starts no new time
    };
    EXPECT_EQ(query(), 0);
    EXPECT_EQ(peer.now_ms(), 15000);
}

TEST_F(SysmsgReply, IsWaitedForFromTheBeginningOfTheFirstTransmission)
{
    peer.on_send = [this](int, const Bytes &sent) {
        peer.kernel.advance_usec(300000);
        peer.delivers(700, confirm_of(sent));
    };
    EXPECT_EQ(query(), 0);
    EXPECT_EQ(peer.now_ms(), 15000);
}

TEST_F(SysmsgReply, IsTakenInThePollThatReachesTheDeadline)
{
    peer.on_send = [this](int n, const Bytes &sent) {
        if (n == 3)
            peer.delivers(500, confirm_of(sent));
    };
    peer.delivers_at(15000, reply_29(9, 42));
    EXPECT_EQ(query(), 1);
}

TEST_F(SysmsgReply, ThatIsLateIsAnOrdinaryMessage)
{
    peer.confirms();
    peer.delivers_at(15001, reply_29(9, 42));
    EXPECT_EQ(query(), 0);
    EXPECT_EQ(peer.now_ms(), 15000);
    EXPECT_EQ(hex_of(reply, sizeof reply), "00*16");
    peer.con.poll(peer.con.poll_ctx);
    EXPECT_THAT(peer.handled, ElementsAre("1D 00 00 00 10 00 00 00 09 00 00 00 2A 00 00 00"));
}

TEST_F(SysmsgReply, IsNotPolledForWhenTheTimeIsOverWithTheConfirm)
{
    peer.poll_ms = 15000;
    peer.confirms();
    EXPECT_EQ(query(), 0);
    EXPECT_EQ(peer.polls, 1);
}

TEST_F(SysmsgReply, DeadlineIsMeasuredAcrossTheEndOfThe32BitClock)
{
    peer.starts_at(4294960); // ends 7296 ms later
    peer.confirms();
    EXPECT_EQ(query(), 0);
    EXPECT_EQ(peer.now_ms(), 15000);
}

TEST_F(SysmsgReply, BeforeTheConfirmIsDroppedAndTakenWhenItIsRepeated)
{
    peer.on_send = [this](int n, const Bytes &sent) {
        if (n > 1)
            return;
        peer.delivers(100, reply_29(9, 42));
        peer.delivers(200, confirm_of(sent));
        peer.delivers(1100, reply_29(9, 42));
    };
    EXPECT_EQ(query(), 1);
    EXPECT_THAT(peer.sent, ElementsAre(shown("0 ms: " + std::string(sent_post_22)),
                                       "1100 ms: 0F 00 00 00 0C 00 00 00 09 00 00 00"));
    EXPECT_EQ(reply[12], 42);
}

TEST_F(SysmsgReply, WhileAwaitedLosesMessagesOfOtherTypesAfterConfirmingThem)
{
    peer.on_send = [this](int n, const Bytes &sent) {
        if (n > 1)
            return;
        peer.delivers(0, confirm_of(sent));
        peer.delivers(10, numbered(22, 50));                    // confirmed and lost
        peer.delivers(20, bytes_of("0B 00 00 00 08 00 00 00")); // lost
        peer.delivers(30, confirm_with(99));                    // nobody awaits it: lost
        peer.delivers(40, reply_29(51, 42));
    };
    EXPECT_EQ(query(), 1);
    EXPECT_THAT(peer.sent, ElementsAre(shown("0 ms: " + std::string(sent_post_22)),
                                       "10 ms: 0F 00 00 00 0C 00 00 00 32 00 00 00",
                                       "40 ms: 0F 00 00 00 0C 00 00 00 33 00 00 00"));
    EXPECT_THAT(peer.handled, IsEmpty());
}

TEST_F(SysmsgReply, WithTheNumberOfTheMessageBeforeIsTakenForARepeat)
{
    peer.receive(numbered(22, 9));
    peer.sent.clear();
    peer.on_send = [this](int n, const Bytes &sent) {
        if (n > 1)
            return;
        peer.delivers(0, confirm_of(sent));
        peer.delivers(10, reply_29(9, 41)); // confirmed, but not taken
        peer.delivers(20, reply_29(10, 42));
    };
    EXPECT_EQ(query(), 1);
    EXPECT_EQ(reply[12], 42);
}

TEST_F(SysmsgReply, ThatComesTwiceIsNotHandedOnAfterwards)
{
    peer.answers("1D 00 00 00 10 00 00 00 09 00 00 00 2A 00 00 00");
    EXPECT_EQ(query(), 1);
    peer.receive(reply_29(9, 42));
    EXPECT_EQ(peer.sent.back(), std::to_string(peer.now_ms()) + " ms: 0F 00 00 00 0C 00 00 00 09 00 00 00");
    EXPECT_THAT(peer.handled, IsEmpty());
}

TEST_F(SysmsgReply, MayFillTheBufferExactly)
{
    peer.answers("1D 00 00 00 10 00 00 00 09 00 00 00 2A 00 00 00");
    EXPECT_EQ(qel_sysmsg_send_sequenced(&peer.con, message.data(), 1, 29, reply, 16), 1);
}

TEST_F(SysmsgReply, StopsWhenItIsOneByteTooLong)
{
    peer.answers("1D 00 00 00 11 00 00 00 09 00 00 00 2A 00 00 00 00");
    EXPECT_STOPS_ON("sysmsg->msg_size <= wait_buf_size", sysmsg_unit, query());
    EXPECT_EQ(reply[0], 0); // before anything is copied
}

TEST_F(SysmsgReply, StopsWhenItIsOneByteTooLongForABigBuffer)
{
    std::vector<uint8_t> room(40001);
    peer.answers("1D 00 00 00 41 9C 00 00 09 00*39992");
    EXPECT_STOPS_ON("sysmsg->msg_size <= wait_buf_size", sysmsg_unit,
                    qel_sysmsg_send_sequenced(&peer.con, message.data(), 1, 29, room.data(), 40000));
}

TEST_F(SysmsgReply, DoesNotMatterToASendThatWantsNone)
{
    peer.on_send = [this](int n, const Bytes &sent) {
        if (n > 1)
            return;
        peer.delivers(0, confirm_of(sent));
        peer.delivers(0, reply_29(9, 42));
    };
    EXPECT_EQ(qel_sysmsg_send_sequenced(&peer.con, message.data(), 0, 29, nullptr, 0), 1);
    EXPECT_EQ(peer.handled.size(), 1U);
}
