// What becomes of a message that arrives: confirmed, dropped, handed on, or the end of the program.

#include "support/product_reset.h"
#include "support/sysmsg_fixture.h"

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;

using SysmsgReceive = Sysmsg;

// ---- Receiving ----

TEST_F(SysmsgReceive, HandsAnUnsequencedMessageOnWithoutAConfirm)
{
    peer.receive("0B 00 00 00 08 00 00 00");
    peer.receive("0B 00 00 00 08 00 00 00");
    peer.receive("32 00 00 00 0B 00 00 00 'abc'"); // type 50
    EXPECT_THAT(peer.handled, ElementsAre("0B 00 00 00 08 00 00 00", "0B 00 00 00 08 00 00 00",
                                          hex("32 00 00 00 0B 00 00 00 'abc'")));
    EXPECT_THAT(peer.sent, IsEmpty());
}

TEST_F(SysmsgReceive, TakesMessagesOfMoreThan65535Bytes)
{
    Bytes long_one = bytes_of("0B 00 00 00 70 11 01 00");
    long_one.resize(70000);
    peer.receive(long_one);
    EXPECT_EQ(peer.handled.size(), 1U);
}

TEST_F(SysmsgReceive, ConfirmsASequencedMessageBeforeItHandsItOn)
{
    peer.on_handle = [this](const Bytes &) {
        EXPECT_THAT(peer.sent, ElementsAre("0 ms: 0F 00 00 00 0C 00 00 00 4D 00 00 00"));
    };
    peer.receive("16 00 00 00 0C 00 00 00 4D 99 99 99"); // padding is nobody's business
    EXPECT_THAT(peer.handled, ElementsAre("16 00 00 00 0C 00 00 00 4D 99 99 99"));
}

TEST(SysmsgFirstMessage, MayHaveAnyNumber)
{
    ScriptedPeer peer; // nothing has been forgotten yet
    peer.receive(numbered(22, 1));
    EXPECT_THAT(peer.handled, ElementsAre("16 00 00 00 0C 00 00 00 01 00 00 00"));
}

TEST_F(SysmsgReceive, StopsWithoutASendFunctionForItsConfirm)
{
    peer.con.send = nullptr;
    EXPECT_STOPS_ON("con->send", sysmsg_unit, peer.receive(numbered(22, 1)));
}

TEST_F(SysmsgReceive, DoesNotForgetTheNumberOverUnsequencedMessages)
{
    peer.receive(numbered(22, 77));
    peer.receive("0B 00 00 00 08 00 00 00");
    peer.receive(numbered(22, 77));
    EXPECT_EQ(peer.handled.size(), 2U);
}

TEST_F(SysmsgReceive, HandsOnAConfirmThatNobodyAwaits)
{
    peer.receive(confirm_with(5));
    peer.receive("0F 00 00 00 08 00 00 00");
    EXPECT_THAT(peer.handled, ElementsAre("0F 00 00 00 0C 00 00 00 05 00 00 00", "0F 00 00 00 08 00 00 00"));
    EXPECT_THAT(peer.sent, IsEmpty());
}

TEST_F(SysmsgReceive, LetsTheHandlerSendUnsequencedMessages)
{
    peer.on_handle = [this](const Bytes &received) { qel_sysmsg_connect_answer(&peer.con, received.data()); };
    peer.receive("05 00 00 00 0C 00 00 00 2A 00 00 00");
    EXPECT_THAT(peer.sent, ElementsAre("0 ms: 26 00 00 00 0C 00 00 00 2A 00 00 00"));
}

TEST_F(SysmsgReceive, StopsOnAMessageThatIsNone)
{
    const char *const wrong_length = "len == sysmsg->msg_size";
    const std::pair<const char *, std::function<void()>> cases[] = {
        {wrong_length, [this] { peer.receive("0B 00 00 00 09 00 00 00"); }},
        {wrong_length, [this] { peer.receive("0B 00 00 00 08 00 00 00 00"); }},
        {wrong_length, [this] { peer.receive("0B"); }},
        {wrong_length,
         [this] { qel_sysmsg_receive(&peer.con, bytes_of("0B 00 00 00 05 00 00 00").data(), 5); }},
        {wrong_length,
         [this] { qel_sysmsg_receive(&peer.con, bytes_of("0B 00 00 00 07 00 00 00").data(), 7); }},
        {"sysmsg->msg_size >= sizeof(struct qel_sysmsg_confirmed)",
         [this] { peer.receive("16 00 00 00 0B 00 00 00 00 00 00"); }}, // before the number is
        {"confirmed->sequence", [this] { peer.receive(numbered(22, 0)); }},
        {"con", [this] { qel_sysmsg_receive(nullptr, message.data(), 12); }},
        {"con->recv", [this] { peer.receive(((peer.con.recv = nullptr), "0B 00 00 00 08 00 00 00")); }},
    };
    for (const auto &each : cases) {
        EXPECT_STOPS_ON(each.first, sysmsg_unit, each.second());
        reset_product(); // it had stopped in the middle of a receipt
    }
    EXPECT_THAT(peer.sent, IsEmpty());
}

TEST_F(SysmsgReceive, ChecksTheLengthEvenWhileAConfirmIsAwaited)
{
    peer.delivers(0, bytes_of("0B 00 00 00 09 00 00 00"));
    EXPECT_STOPS_ON("len == sysmsg->msg_size", sysmsg_unit, request());
}

TEST_F(SysmsgReceive, StopsOnAHandlerThatLetsAnotherMessageIn)
{
    peer.on_handle = [this](const Bytes &) { peer.con.poll(peer.con.poll_ctx); };
    peer.delivers(0, bytes_of("0B 00 00 00 08 00 00 00"));
    EXPECT_STOPS_ON("!reenter", sysmsg_unit, peer.receive("0C 00 00 00 08 00 00 00"));
    EXPECT_STOPS_ON("!reenter", sysmsg_unit, qel_sysmsg_receive(nullptr, nullptr, 0)); // looked at first
}
