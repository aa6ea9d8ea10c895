// The packet link as the sending side: how it is made, and how it cuts messages into packets.

#include "support/comms_fixture.h"

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;

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

TEST_F(Comms, SendsMessagesOfUpTo29BytesInOnePacket)
{
    const std::string numbers =
        "01 02 03 04 05 06 07 08 09 0A 0B 0C 0D 0E 0F 10 11 12 13 14 15 16 17 18 19 1A 1B 1C 1D";
    send(counting(1));
    send(counting(29));
    send(counting(30));
    EXPECT_THAT(packets, ElementsAre("00 00 00 01 DC BD 01", hex("00 00 00 1D DF 39 " + numbers),
                                     hex("00 00 00 1E F0 6D " + numbers), "80 1E"));
    EXPECT_THAT(more, ElementsAre(0, 0, 1, 0));
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
    EXPECT_STOPS_ON("len <= 0x7FFFFFFFUL", comms_unit, qel_comms_send(nullptr, "x", -1));
}
