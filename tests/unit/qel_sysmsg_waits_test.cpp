// What a sequenced send waits for, on a virtual clock: confirms, repeats, replies, and what is lost
// meanwhile.

#include "support/sysmsg_fixture.h"

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;

using SysmsgConfirm = Sysmsg;
using SysmsgReply = Sysmsg;

namespace
{

/// A message of the peer's, so long after the product's transmission `n`, or after each of them for 0. "##"
/// stands for the number of the product's message.
struct Arrival {
    int n;
    long ms;
    const char *message;
};

/// A send, and what comes of it: all that is sent and handed on, and the result, each at its time.
struct Wait {
    const char *name;
    std::vector<Arrival> arrivals;
    const char *events;
    long poll_ms = 1;
    long transmission_ms = 0;
    time_t start = 1000;
    long start_usec = 0;
};

void PrintTo(const Wait &wait, std::ostream *stream)
{
    *stream << wait.name;
}

const char *const confirm = "0F 00 00 00 0C 00 00 00 ## 00 00 00";
const char *const reply_42 = "1D 00 00 00 10 00 00 00 09 00 00 00 2A 00 00 00";

struct Waiting : Sysmsg, testing::WithParamInterface<Wait> {
    Waiting()
    {
        peer.poll_ms = GetParam().poll_ms;
        peer.starts_at(GetParam().start, GetParam().start_usec);
        peer.on_send = [this](int, const Bytes &sent) { take(sent); };
        peer.on_handle = [this](const Bytes &handed_on) { note("handed on " + hex_of(handed_on)); };
    }
    void note(const std::string &event)
    {
        events += (events.empty() ? "" : ", ") + std::to_string(peer.now_ms()) + " " + event;
    }
    void take(const Bytes &sent)
    {
        if (sent != message)
            return note(sent == confirm_with(sent.at(8)) ? "confirm " + std::to_string(sent[8])
                                                         : hex_of(sent));
        note("post");
        ++transmissions;
        peer.kernel.advance_usec(GetParam().transmission_ms * 1000);
        for (const Arrival &arrival : GetParam().arrivals) {
            std::string text = arrival.message;
            if (text.find("##") != std::string::npos)
                text.replace(text.find("##"), 2, hex_of(&sent[8], 1));
            if (arrival.n == 0 || arrival.n == transmissions)
                peer.delivers(arrival.ms, bytes_of(text));
        }
    }

    std::string events;
    int transmissions = 0;
};

using ConfirmWait = Waiting;
using ReplyWait = Waiting;

} // namespace

// ---- Confirms ----

TEST_P(ConfirmWait, IsAsItShouldBe)
{
    note("gives " + std::to_string(request()));
    EXPECT_EQ(events, GetParam().events);
}

static const Wait confirm_waits[] = {
    {"EndsAsSoonAsItArrives", {{1, 300, confirm}}, "0 post, 300 gives 1"},
    {"OfASecondThreeTimes", {}, "0 post, 1000 post, 2000 post, 3000 gives 0"},
    {"LastsFor999Milliseconds", {{1, 999, confirm}}, "0 post, 999 gives 1"},
    {"AfterTheSecondTransmission", {{2, 10, confirm}}, "0 post, 1000 post, 1010 gives 1"},
    {"AfterTheThirdTransmission", {{3, 10, confirm}}, "0 post, 1000 post, 2000 post, 2010 gives 1"},
    {"LastsFromTheEndOfATransmission", {}, "0 post, 1300 post, 2600 post, 3900 gives 0", 1, 300},
    {"TakesThatOfAnEarlierTransmission", {{1, 1500, confirm}}, "0 post, 1000 post, 1500 gives 1"},
    {"DropsThatOfAnotherNumber",
     {{0, 0, "0F 00 00 00 0C 00 00 00 03 00 00 00"}, {0, 0, "0F 00 00 00 0C 00 00 00 00 00 00 00"}},
     "0 post, 1000 post, 2000 post, 3000 gives 0"},
    {"DropsOneWithoutRoomForANumber",
     {{0, 0, "0F 00 00 00 08 00 00 00"}},
     "0 post, 1000 post, 2000 post, 3000 gives 0"},
    {"TakesOneWithoutPadding", {{1, 0, "0F 00 00 00 09 00 00 00 ##"}}, "0 post, 1 gives 1"},
    {"PollsOnceAtLeastForEachTransmission", {}, "0 post, 5000 post, 10000 post, 15000 gives 0", 5000},
    {"TakesThatOfAPollThatTookTooLong",
     {{3, 0, confirm}},
     "0 post, 5000 post, 10000 post, 15000 gives 1",
     5000},
    {"AcrossTheEndOfThe32BitClock", {}, "0 post, 1000 post, 2000 post, 3000 gives 0", 1, 0, 4294967},
    {"IsOfWholeMilliseconds", {}, "0 post, 1000 post, 2000 post, 3000 gives 0", 1, 0, 1000, 1000},
    {"AtTheStartOfTheClock", {}, "0 post, 1000 post, 2000 post, 3000 gives 0", 1, 0, 0, 999000},
    {"AtTheEndOfADay", {}, "0 post, 1000 post, 2000 post, 3000 gives 0", 1, 0, 86399, 999000},
    {"Of31Bits", {}, "0 post, 1000 post, 2000 post, 3000 gives 0", 1, 0, 2147483, 999000},
    {"In2038", {}, "0 post, 1000 post, 2000 post, 3000 gives 0", 1, 0, 2147483647, 999000},
    {"In2106", {}, "0 post, 1000 post, 2000 post, 3000 gives 0", 1, 0, time_t{4294967295}, 999000},
    {"In2286", {}, "0 post, 1000 post, 2000 post, 3000 gives 0", 1, 0, time_t{10000000000}, 999000},
    // Sequenced, not even confirmed; unsequenced; too short for its type; of no type.
    {"KeepsEverythingElseOut",
     {{1, 10, "16 00 00 00 0C 00 00 00 4D 00 00 00"},
      {1, 20, "0B 00 00 00 08 00 00 00"},
      {1, 30, "16 00 00 00 08 00 00 00"},
      {1, 40, "FF FF FF FF 08 00 00 00"},
      {1, 50, confirm}},
     "0 post, 50 gives 1"},
};

INSTANTIATE_TEST_SUITE_P(Sysmsg, ConfirmWait, testing::ValuesIn(confirm_waits),
                         [](const auto &test) { return std::string(test.param.name); });

TEST_F(SysmsgConfirm, TimeIsReadBeforeTheFirstTransmissionBehindItAndAfterEachPoll)
{
    peer.on_send = [this](int, const Bytes &sent) { peer.delivers(300, confirm_of(sent)); };
    EXPECT_EQ(request(), 1);
    EXPECT_EQ(peer.kernel.count("gettimeofday"), 2 + 300);
}

TEST_F(SysmsgConfirm, HasANumberThatStandsInTheMessage)
{
    EXPECT_EQ(request(), 0);
    peer.on_poll = [this] { // whatever stands behind it
        Bytes short_one = confirm_of(peer.transmissions.back());
        short_one[4] = 8;
        qel_sysmsg_receive(&peer.con, short_one.data(), 8);
    };
    message = bytes_of(post_22);
    EXPECT_EQ(request(), 0);
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

// What was dropped was not remembered either: its repetition is a new message.
TEST_F(SysmsgConfirm, WhileAwaitedKeepsNumbersOutAsWell)
{
    peer.delivers(10, numbered(22, 77));
    peer.on_send = [this](int, const Bytes &sent) { peer.delivers(50, confirm_of(sent)); };
    EXPECT_EQ(request(), 1);
    peer.receive(numbered(22, 77));
    EXPECT_THAT(peer.handled, ElementsAre("16 00 00 00 0C 00 00 00 4D 00 00 00"));
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

TEST_P(ReplyWait, IsAsItShouldBe)
{
    const int result = query();
    note("gives " + std::to_string(result));
    EXPECT_EQ(events, GetParam().events);
    EXPECT_EQ(hex_of(reply, sizeof reply), result ? reply_42 : "00*16");
}

static const Wait reply_waits[] = {
    {"EndsAsSoonAsItArrives", {{1, 100, confirm}, {1, 200, reply_42}}, "0 post, 200 confirm 9, 200 gives 1"},
    {"EndsInThePollOfTheConfirm", {{1, 0, confirm}, {1, 0, reply_42}}, "0 post, 1 confirm 9, 1 gives 1"},
    {"LastsFor15SecondsFromTheFirstTransmission",
     {{3, 500, confirm}},
     "0 post, 1000 post, 2000 post, 15000 gives 0"},
    {"LastsFromTheBeginningOfTheTransmission", {{0, 700, confirm}}, "0 post, 15000 gives 0", 1, 300},
    {"TakesThatOfThePollThatReachesTheDeadline",
     {{3, 500, confirm}, {1, 15000, reply_42}},
     "0 post, 1000 post, 2000 post, 15000 confirm 9, 15000 gives 1"},
    {"DoesNotPollWhenTheTimeIsOverWithTheConfirm", {{0, 0, confirm}}, "0 post, 15000 gives 0", 15000},
    {"AcrossTheEndOfThe32BitClock", {{0, 0, confirm}}, "0 post, 15000 gives 0", 1, 0, 4294960},
    {"DropsWhatComesBeforeTheConfirmAndTakesItsRepetition",
     {{1, 100, reply_42}, {1, 200, confirm}, {1, 1100, reply_42}},
     "0 post, 1100 confirm 9, 1100 gives 1"},
    // Sequenced, confirmed and lost; unsequenced and lost; a confirm that nobody awaits, lost.
    {"LosesMessagesOfOtherTypesAfterConfirmingThem",
     {{1, 0, confirm},
      {1, 10, "16 00 00 00 0C 00 00 00 32 00 00 00"},
      {1, 20, "0B 00 00 00 08 00 00 00"},
      {1, 30, "0F 00 00 00 0C 00 00 00 63 00 00 00"},
      {1, 40, reply_42}},
     "0 post, 10 confirm 50, 40 confirm 9, 40 gives 1"},
    {"TakesOneWithTheLastNumberForARepetition",
     {{1, 0, confirm},
      {1, 5, "16 00 00 00 0C 00 00 00 08 00 00 00"},
      {1, 10, "1D 00 00 00 10 00 00 00 08 00 00 00 29 00 00 00"},
      {1, 20, reply_42}},
     "0 post, 5 confirm 8, 10 confirm 8, 20 confirm 9, 20 gives 1"},
};

INSTANTIATE_TEST_SUITE_P(Sysmsg, ReplyWait, testing::ValuesIn(reply_waits),
                         [](const auto &test) { return std::string(test.param.name); });

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

TEST_F(SysmsgReply, ThatComesTwiceIsNotHandedOnAfterwards)
{
    peer.answers("1D 00 00 00 10 00 00 00 09 00 00 00 2A 00 00 00");
    EXPECT_EQ(query(), 1);
    peer.receive(reply_29(9, 42));
    EXPECT_EQ(peer.sent.back(), std::to_string(peer.now_ms()) + " ms: 0F 00 00 00 0C 00 00 00 09 00 00 00");
    EXPECT_THAT(peer.handled, IsEmpty());
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
