// The packet link as the receiving side: how it puts packets together, and what it drops or stops on.

#include "support/comms_fixture.h"
#include "support/product_reset.h"

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;

/// The link as the receiving side.
using CommsReceive = Comms;

TEST_F(CommsReceive, DeliversAMessageOfOnePacketAtOnce)
{
    EXPECT_EQ(feed("00 00 00 05 32 AC 'hello'"), 0);
    EXPECT_THAT(messages, ElementsAre(hex("'hello'")));
}

TEST_F(CommsReceive, PutsPacketsTogetherAndReturnsTheLengthMeanwhile)
{
    const std::string first = "00 00 00 24 DA 57 55*29"; // 36 bytes of 55
    EXPECT_EQ(feed(first), 36);
    EXPECT_THAT(messages, IsEmpty());
    EXPECT_EQ(feed("80 55*7"), 0);
    EXPECT_THAT(messages, ElementsAre("55*36"));
}

TEST_F(CommsReceive, TakesBackWhatItSentForEveryLength)
{
    for (size_t size = 1; size <= 300; ++size) {
        packets.clear();
        messages.clear();
        send(counting(size));
        feed_back();
        ASSERT_THAT(messages, ElementsAre(hex_of(counting(size)))) << size << " bytes";
    }
}

TEST_F(CommsReceive, TakesMoreThan16MegabytesFromASenderThatFeedsItStraight)
{
    static Bytes buffer(35);
    static Bytes first_packet;
    static size_t received;
    first_packet.clear();
    qel_comms_set_sender(
        comms, [](void *) -> void * { return buffer.data(); },
        [](void *link, void *bytes, int len, int) {
            if (first_packet.empty())
                first_packet = buffer;
            return qel_comms_receive_packet(link, bytes, len);
        },
        comms);
    Bytes message(0x01020304);
    for (size_t at = 0; at < message.size(); at += 1000)
        message[at] = static_cast<uint8_t>(at / 1000);
    qel_comms_set_receiver(
        comms,
        [](void *sent, const void *bytes, int len) {
            received = static_cast<size_t>(len);
            EXPECT_EQ(memcmp(bytes, static_cast<Bytes *>(sent)->data(), received), 0);
        },
        &message);
    EXPECT_EQ(send(message), 0);
    EXPECT_EQ(received, 0x01020304U);
    EXPECT_EQ(hex_of(first_packet.data(), 4), "01 02 03 04");
}

TEST_F(CommsReceive, TakesAnyTopBitForAContinuation)
{
    feed("00 00 00 24 DA 57 55*29");
    EXPECT_EQ(feed("FF 55*7"), 0);
    EXPECT_THAT(messages, ElementsAre("55*36"));
}

TEST_F(CommsReceive, IgnoresAContinuationWithoutAMessage)
{
    feed("00 00 00 05 32 AC 'hello'");
    EXPECT_EQ(feed("80 55*34"), 0);
    EXPECT_EQ(feed("80"), 0);
    EXPECT_EQ(feed("00 00 00 05 32 AC 'hello'"), 0);
    EXPECT_THAT(messages, ElementsAre(hex("'hello'"), hex("'hello'")));
}

TEST_F(CommsReceive, IgnoresAContinuationBeforeTheFirstMessageEver)
{
    EXPECT_EQ(feed("80 55*34"), 0);
    EXPECT_THAT(messages, IsEmpty());
}

TEST_F(CommsReceive, DropsAMessageWithAWrongCrcWithoutAWord)
{
    EXPECT_EQ(feed("00 00 00 05 32 AD 'hello'"), 0);
    EXPECT_EQ(feed("00 00 00 05 33 AC 'hello'"), 0);
    EXPECT_EQ(feed("00 00 00 05 32 AC 'hellp'"), 0);
    EXPECT_EQ(feed("00 00 00 01 00 00 41"), 0);
    EXPECT_THAT(messages, IsEmpty());
    EXPECT_EQ(feed("00 00 00 05 32 AC 'hello'"), 0);
    EXPECT_THAT(messages, ElementsAre(hex("'hello'")));
}

TEST_F(CommsReceive, IsIdleAfterADroppedMessage)
{
    feed("00 00 00 24 DA 56 55*29");
    EXPECT_EQ(feed("80 55*7"), 0);
    EXPECT_EQ(feed("80 55*7"), 0);
    EXPECT_THAT(messages, IsEmpty());
}

TEST_F(CommsReceive, StartsOverWithAFirstPacketInTheMiddleOfAMessage)
{
    EXPECT_EQ(feed("00 00 00 24 DA 57 55*29"), 36);
    EXPECT_EQ(feed("00 00 00 05 32 AC 'hello'"), 0);
    EXPECT_EQ(feed("80 55*7"), 0); // the rest of the first one belongs to nothing
    EXPECT_THAT(messages, ElementsAre(hex("'hello'")));
}

TEST_F(CommsReceive, TakesAFirstPacketThatSaysMoreThanItHolds)
{
    EXPECT_EQ(feed("01 02 03 04 12 34 'x'"), 0x01020304);
    EXPECT_EQ(feed("00 00 00 05 32 AC 'hello'"), 0);
    EXPECT_THAT(messages, ElementsAre(hex("'hello'")));
}

// The receiver takes full packets for granted: the sender makes no others.
TEST_F(CommsReceive, CopiesWhatLiesBehindAShortFirstPacket)
{
    // 20 of 36 bytes, then 9 of what is left in the buffer (EE); CRC of 55*20 EE*9 55*7
    EXPECT_EQ(feed("00 00 00 24 FC 3C 55*20"), 36);
    EXPECT_EQ(feed("80 55*7"), 0);
    EXPECT_THAT(messages, ElementsAre("55*20 EE*9 55*7"));
}

TEST_F(CommsReceive, CopiesWhatLiesBehindAShortContinuation)
{
    // CRC of 55*29 56 EE*33 57
    EXPECT_EQ(feed("00 00 00 40 56 6E 55*29"), 64);
    EXPECT_EQ(feed("80 56"), 64);
    EXPECT_EQ(feed("80 57"), 0);
    EXPECT_THAT(messages, ElementsAre("55*29 56 EE*33 57"));
}

TEST_F(CommsReceive, DoesNotMindBytesBehindTheEndOfTheMessage)
{
    EXPECT_EQ(feed("00 00 00 05 32 AC 'hello' 99 99 99"), 0);
    EXPECT_THAT(messages, ElementsAre(hex("'hello'")));
}

TEST_F(CommsReceive, TakesAMessageOfLength0ForNothingOnceThereIsABuffer)
{
    feed("00 00 00 05 32 AC 'hello'");
    feed("00 00 00 24 DA 57 55*29");
    EXPECT_EQ(feed("00 00 00 00 1D 0F 00"), 0);
    EXPECT_EQ(feed("80 55*7"), 0); // it ended the message in progress
    EXPECT_THAT(messages, ElementsAre(hex("'hello'")));
}

TEST_F(CommsReceive, StopsOnAMessageOfLength0BeforeAnyOther)
{
    EXPECT_STOPS_ON("buf", comms_unit, feed("00 00 00 00 1D 0F 00"));
}

TEST_F(CommsReceive, KeepsItsBufferForShorterMessages)
{
    static const void *last_buffer;
    qel_comms_set_receiver(
        comms, [](void *, const void *message, int) { last_buffer = message; }, nullptr);
    send(counting(300));
    feed_back();
    const void *first_buffer = last_buffer;
    last_buffer = nullptr;
    feed("00 00 00 05 32 AC 'hello'");
    EXPECT_EQ(last_buffer, first_buffer);
}

TEST_F(CommsReceive, PassesItsContextToTheReceiver)
{
    static void *context;
    qel_comms_set_receiver(
        comms, [](void *recv_ctx, const void *, int) { context = recv_ctx; }, &messages);
    feed("00 00 00 05 32 AC 'hello'");
    EXPECT_EQ(context, &messages);
}

TEST_F(CommsReceive, StopsOnAPacketThatIsNone)
{
    const std::pair<const char *, std::function<void()>> cases[] = {
        {"len > 6", [this] { feed("00 00 00 05 32 AC"); }},
        {"len <= comms->packet_size_max", [this] { feed("00 00 00 24 DA 57 55*30"); }},
        {"len > 0", [this] { feed(""); }},
        {"packet", [this] { qel_comms_receive_packet(comms, nullptr, 0); }},
        {"comms", [] { qel_comms_receive_packet(nullptr, "\x80", 1); }},
        {"comms->recv", [this] { feed(((comms->recv = nullptr), "80")); }},
        {"len > 0", [this] { feed(((comms->recv = receive, comms->packet_size_max = -5), "")); }},
    };
    for (const auto &each : cases) {
        EXPECT_STOPS_ON(each.first, comms_unit, each.second());
        reset_product(); // it had stopped in the middle of a receipt
    }
}

TEST_F(CommsReceive, LetsTheReceiverSend)
{
    qel_comms_set_receiver(
        comms, [](void *link, const void *message, int len) { qel_comms_send(link, message, len); }, comms);
    feed("00 00 00 05 32 AC 'hello'");
    EXPECT_THAT(packets, ElementsAre(hex("00 00 00 05 32 AC 'hello'")));
}
