// The packet link between a transport and a receiver that the test plays. The CRCs in the literals were
// computed by shifting single bits, apart from the code under test.

#include "support/bytes.h"
#include "support/fake_kernel.h"
#include "support/fresh_process.h"
#include "support/stops.h"

#include "qel_tolbrin/qel_comms.h"

#include <gmock/gmock.h>
#include <string.h>

using testing::ElementsAre;
using testing::IsEmpty;

static constexpr const char *comms_unit = "qel_tolbrin/qel_comms";

/// The bytes 01 02 03 ... in order.
static Bytes counting(size_t size)
{
    Bytes bytes(size);
    for (size_t at = 0; at < size; at++)
        bytes[at] = static_cast<uint8_t>(at + 1);
    return bytes;
}

/// A link of packet size 35 whose transport and receiver are the test.
class Comms : public testing::Test
{
  protected:
    explicit Comms(int packet_size = 35)
        : comms(qel_comms_create(packet_size, begin_packet, end_packet, this, poll_transport, this))
    {
        qel_comms_set_receiver(comms, receive, this);
    }
    ~Comms() override
    {
        free(comms);
    }

    int send(const Bytes &message)
    {
        return qel_comms_send(comms, message.data(), static_cast<int>(message.size()));
    }

    /// Feeds a packet in, in a buffer of 64 bytes as the transport's, filled up with EE.
    int feed(const std::string &packet)
    {
        const Bytes bytes = bytes_of(packet);
        uint8_t buffer[64];
        memset(buffer, 0xEE, sizeof buffer);
        std::copy(bytes.begin(), bytes.end(), buffer);
        return qel_comms_receive_packet(comms, buffer, static_cast<int>(bytes.size()));
    }

    /// Feeds in the packets that were sent.
    void feed_back()
    {
        for (const std::string &packet : packets)
            feed(packet);
    }

    static void *begin_packet(void *test)
    {
        auto *self = static_cast<Comms *>(test);
        self->begun++;
        memset(self->tx_buffer, 0xDD, sizeof self->tx_buffer);
        return self->tx_buffer;
    }
    static int end_packet(void *test, void *packet, int len, int more_follows)
    {
        auto *self = static_cast<Comms *>(test);
        EXPECT_EQ(packet, self->tx_buffer);
        self->packets.push_back(hex_of(packet, static_cast<size_t>(len)));
        self->more.push_back(more_follows);
        return self->end_results.empty() ? len : self->end_results.at(self->packets.size() - 1);
    }
    static int poll_transport(void *test)
    {
        return ++static_cast<Comms *>(test)->polls;
    }
    static void receive(void *test, const void *message, int len)
    {
        static_cast<Comms *>(test)->messages.push_back(hex_of(message, static_cast<size_t>(len)));
    }

    qel_comms *comms;
    uint8_t tx_buffer[1000];
    int begun = 0;
    int polls = 0;
    std::vector<std::string> packets; ///< sent
    std::vector<int> more;            ///< and whether more were to follow
    std::vector<int> end_results;     ///< what the transport answers; the length when empty
    std::vector<std::string> messages;
};

// ---- Making a link ----

TEST_F(Comms, KeepsWhatItIsMadeOf)
{
    EXPECT_EQ(comms->packet_size_max, 35);
    EXPECT_EQ(comms->packet_send_begin, begin_packet);
    EXPECT_EQ(comms->packet_send_end, end_packet);
    EXPECT_EQ(comms->send_ctx, this);
    EXPECT_EQ(comms->poll, poll_transport);
    EXPECT_EQ(comms->poll_ctx, this);
}

TEST_F(Comms, HasNoReceiverAtFirst)
{
    qel_comms *other = qel_comms_create(7, begin_packet, end_packet, nullptr, nullptr, nullptr);
    EXPECT_EQ(other->recv, nullptr);
    EXPECT_EQ(other->recv_ctx, nullptr);
    EXPECT_EQ(other->poll, nullptr);
    free(other);
}

TEST_F(Comms, NeedsAPacketSizeAbove6AndBothSendCallbacks)
{
    EXPECT_STOPS_ON("max_packet_size > 6", comms_unit,
                    qel_comms_create(6, begin_packet, end_packet, this, poll_transport, this));
    EXPECT_STOPS_ON("max_packet_size > 6", comms_unit,
                    qel_comms_create(-35, nullptr, nullptr, nullptr, nullptr, nullptr));
    EXPECT_STOPS_ON("packet_send_begin", comms_unit,
                    qel_comms_create(35, nullptr, nullptr, this, poll_transport, this));
    EXPECT_STOPS_ON("packet_send_end", comms_unit,
                    qel_comms_create(35, begin_packet, nullptr, this, poll_transport, this));
}

TEST_F(Comms, SendsThroughTheSenderThatWasSetLast)
{
    static uint8_t buffer[35];
    int sent = 0;
    qel_comms_set_sender(
        comms, [](void *) -> void * { return buffer; },
        [](void *context, void *bytes, int, int) {
            EXPECT_EQ(bytes, buffer);
            return 4710 + ++*static_cast<int *>(context);
        },
        &sent);
    EXPECT_EQ(send(counting(1)), 4711);
    EXPECT_THAT(packets, IsEmpty());
}

TEST_F(Comms, PollsTheTransportAndReturnsItsResult)
{
    EXPECT_EQ(qel_comms_poll(comms), 1);
    EXPECT_EQ(qel_comms_poll(comms), 2);
}

TEST_F(Comms, CannotPollWithoutAPollCallback)
{
    comms->poll = nullptr;
    EXPECT_STOPS_ON("comms->poll", comms_unit, qel_comms_poll(comms));
}

// ---- Sending ----

TEST_F(Comms, SendsAMessageOf29BytesAsOneFullPacket)
{
    send(counting(29));
    EXPECT_THAT(packets, ElementsAre(hex("00 00 00 1D DF 39 "
                                         "01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10 "
                                         "11 12 13 14 15 16 17 18 19 1A 1B 1C 1D")));
    EXPECT_THAT(more, ElementsAre(0));
}

TEST_F(Comms, SendsThe30thByteInAContinuation)
{
    send(counting(30));
    EXPECT_THAT(packets, ElementsAre(hex("00 00 00 1E F0 6D "
                                         "01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10 "
                                         "11 12 13 14 15 16 17 18 19 1A 1B 1C 1D"),
                                     "80 1E"));
    EXPECT_THAT(more, ElementsAre(1, 0));
}

TEST_F(Comms, SendsASingleByteAsAPacketOf7)
{
    send(counting(1));
    EXPECT_THAT(packets, ElementsAre("00 00 00 01 DC BD 01"));
    EXPECT_THAT(more, ElementsAre(0));
}

TEST_F(Comms, Cuts100BytesInto29And34And34And3)
{
    end_results = {1, 2, 3, 4};
    EXPECT_EQ(send(counting(100)), 4); // the result of the last packet alone
    std::vector<size_t> sizes;
    for (const std::string &sent : packets)
        sizes.push_back(bytes_of(sent).size());
    EXPECT_THAT(sizes, ElementsAre(35U, 35U, 35U, 4U));
    EXPECT_THAT(more, ElementsAre(1, 1, 1, 0));
    EXPECT_EQ(packets[0].substr(0, 17), "00 00 00 64 43 DD");
    EXPECT_EQ(packets[1].substr(0, 5), "80 1E");
    EXPECT_EQ(packets[2].substr(0, 5), "80 40");
    EXPECT_EQ(packets[3], "80 62 63 64");
}

TEST_F(Comms, ThatFillItsPacketsExactlyAreFollowedByNoEmptyOne)
{
    send(counting(63)); // 29 + 34
    EXPECT_THAT(more, ElementsAre(1, 0));
    EXPECT_EQ(bytes_of(packets[1]).size(), 35U);
}

TEST_F(Comms, WritesLengthAndCrcHighByteFirst)
{
    send(counting(300)); // 01 ... FF 00 01 ... 2C
    EXPECT_EQ(packets[0].substr(0, 17), "00 00 01 2C 0D 8D");
}

TEST_F(Comms, GoesOnWhateverTheTransportSays)
{
    end_results = {-1, 0, -1, -5};
    EXPECT_EQ(send(counting(100)), -5);
    EXPECT_EQ(packets.size(), 4U);
}

TEST_F(Comms, AsksForABufferForEveryPacket)
{
    send(counting(100));
    EXPECT_EQ(begun, 4);
}

TEST_F(Comms, OfTheSmallestPacketSizeSendsOneByteFirstThenSix)
{
    comms->packet_size_max = 7;
    send(counting(8));
    EXPECT_THAT(packets, ElementsAre("00 00 00 08 97 95 01", "80 02 03 04 05 06 07", "80 08"));
}

TEST_F(Comms, RefusesToSendNothing)
{
    const uint8_t byte = 1;
    EXPECT_STOPS_ON("data", comms_unit, qel_comms_send(comms, nullptr, 1));
    EXPECT_STOPS_ON("len", comms_unit, qel_comms_send(comms, &byte, 0));
    EXPECT_STOPS_ON("len <= 0x7FFFFFFFUL", comms_unit, qel_comms_send(comms, &byte, -1));
    EXPECT_STOPS_ON("len <= 0x7FFFFFFFUL", comms_unit, qel_comms_send(comms, &byte, INT32_MIN));
    EXPECT_STOPS_ON("comms", comms_unit, qel_comms_send(nullptr, &byte, 1));
}

TEST_F(Comms, RefusesToSendWithoutSendCallbacks)
{
    const uint8_t byte = 1;
    comms->packet_send_end = nullptr;
    EXPECT_STOPS_ON("comms->packet_send_end", comms_unit, qel_comms_send(comms, &byte, 1));
    comms->packet_send_begin = nullptr;
    EXPECT_STOPS_ON("comms->packet_send_begin", comms_unit, qel_comms_send(comms, &byte, 1));
}

TEST_F(Comms, ChecksTheMessageBeforeTheLink)
{
    EXPECT_STOPS_ON("data", comms_unit, qel_comms_send(nullptr, nullptr, 0));
    EXPECT_STOPS_ON("len", comms_unit, qel_comms_send(nullptr, "x", 0));
}

// ---- Receiving ----

/// The link as the receiving side.
class CommsReceive : public Comms
{
};

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
    for (size_t size = 1; size <= 300; size++) {
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
    if (!in_fresh_process())
        return;
    EXPECT_EQ(feed("80 55*34"), 0);
    EXPECT_THAT(messages, IsEmpty());
}

TEST_F(CommsReceive, DropsAMessageWithAWrongCrcWithoutAWord)
{
    EXPECT_EQ(feed("00 00 00 05 32 AD 'hello'"), 0);
    EXPECT_EQ(feed("00 00 00 05 33 AC 'hello'"), 0);
    EXPECT_EQ(feed("00 00 00 05 32 AC 'hellp'"), 0);
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
    if (!in_fresh_process())
        return;
    EXPECT_STOPS_ON("buf", comms_unit, feed("00 00 00 00 1D 0F 00"));
}

TEST_F(CommsReceive, KeepsItsBufferForShorterMessages)
{
    if (!in_fresh_process())
        return;
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

TEST_F(CommsReceive, StopsOnAFirstPacketOf6Bytes)
{
    if (!in_fresh_process())
        return;
    EXPECT_STOPS_ON("len > 6", comms_unit, feed("00 00 00 05 32 AC"));
}

TEST_F(CommsReceive, StopsOnAPacketThatIsTooLong)
{
    if (!in_fresh_process())
        return;
    EXPECT_STOPS_ON("len <= comms->packet_size_max", comms_unit, feed("00 00 00 24 DA 57 55*30"));
}

TEST_F(CommsReceive, StopsOnAnEmptyPacket)
{
    if (!in_fresh_process())
        return;
    EXPECT_STOPS_ON("len > 0", comms_unit, feed(""));
}

TEST_F(CommsReceive, StopsWithoutAPacket)
{
    if (!in_fresh_process())
        return;
    EXPECT_STOPS_ON("packet", comms_unit, qel_comms_receive_packet(comms, nullptr, 7));
}

TEST_F(CommsReceive, StopsWithoutALink)
{
    if (!in_fresh_process())
        return;
    EXPECT_STOPS_ON("comms", comms_unit, qel_comms_receive_packet(nullptr, "\x80", 1));
}

TEST_F(CommsReceive, StopsWithoutAReceiver)
{
    if (!in_fresh_process())
        return;
    comms->recv = nullptr;
    EXPECT_STOPS_ON("comms->recv", comms_unit, feed("80"));
}

TEST_F(CommsReceive, StopsOnAReceiverThatFeedsAPacketIn)
{
    if (!in_fresh_process())
        return;
    qel_comms_set_receiver(
        comms, [](void *link, const void *, int) { qel_comms_receive_packet(link, "\x80", 1); }, comms);
    EXPECT_STOPS_ON("!reenter", comms_unit, feed("00 00 00 05 32 AC 'hello'"));
}

TEST_F(CommsReceive, LetsTheReceiverSend)
{
    qel_comms_set_receiver(
        comms, [](void *link, const void *message, int len) { qel_comms_send(link, message, len); }, comms);
    feed("00 00 00 05 32 AC 'hello'");
    EXPECT_THAT(packets, ElementsAre(hex("00 00 00 05 32 AC 'hello'")));
}
