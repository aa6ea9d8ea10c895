/// What the tests of the packet link have in common. The CRCs in their literals were computed by shifting
/// single bits, apart from the code under test.
#pragma once

#include "support/bytes.h"
#include "support/stops.h"

#include "qel_tolbrin/qel_comms.h"

#include <gtest/gtest.h>
#include <string.h>

constexpr const char *comms_unit = "qel_tolbrin/qel_comms";

/// The bytes 01 02 03 ... in order.
inline Bytes counting(size_t size)
{
    Bytes bytes(size);
    for (size_t at = 0; at < size; ++at)
        bytes[at] = static_cast<uint8_t>(at + 1);
    return bytes;
}

/// A link of packet size 35 whose transport and receiver are the test.
struct Comms : testing::Test {
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
