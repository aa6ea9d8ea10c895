// Receiving on a link of any packet size: packets of any bytes and lengths, messages in packets as they
// should be, and such with a fault. What is delivered, returned and stopped on must be what the rules say.

#include "fuzz/fuzz.h"
#include "fuzz/rules.h"

#include "qel_tolbrin/qel_comms.h"

namespace
{

struct Receiver {
    explicit Receiver(size_t packet_size)
        : rules{packet_size, heap_block_bytes_max},
          comms(qel_comms_create(static_cast<int>(packet_size), begin, end, this, nullptr, nullptr)),
          tx_buffer(packet_size)
    {
        qel_comms_set_receiver(comms, receive, this);
    }

    /// Feeds a packet of `len` bytes, in a block of exactly a packet's size.
    void feed(Bytes packet, size_t len)
    {
        packet.resize(rules.packet_size);
        expected_stop = rules.take(packet, len);
        const Exactly<uint8_t> block(packet);
        const int result = qel_comms_receive_packet(comms, block.get(), static_cast<int>(len));
        REQUIRE(expected_stop.empty(), "no stop", "", expected_stop);
        require_same("length in progress", static_cast<uint64_t>(result), rules.length);
        REQUIRE(rules.delivered.empty(), "not delivered");
    }

    static void receive(void *context, const void *message, int len)
    {
        auto *self = static_cast<Receiver *>(context);
        const auto *bytes = static_cast<const uint8_t *>(message);
        take_expected(self->rules.delivered, Bytes(bytes, bytes + len), "delivered");
    }

    static void *begin(void *context)
    {
        return static_cast<Receiver *>(context)->tx_buffer.get();
    }
    static int end(void *context, void *packet, int len, int)
    {
        const auto *bytes = static_cast<const uint8_t *>(packet);
        static_cast<Receiver *>(context)->sent.emplace_back(bytes, bytes + len);
        return len;
    }

    PacketModel rules;
    qel_comms *comms;
    Exactly<uint8_t> tx_buffer;
    std::vector<Bytes> sent;
};

/// Has the link send a message, with a fault on its way if there is one, and receives it.
void send_and_receive(Receiver &receiver, FuzzedDataProvider &input)
{
    Bytes message = input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange<size_t>(1, 300));
    if (message.empty())
        return;
    receiver.sent.clear();
    const Exactly<uint8_t> block(message);
    qel_comms_send(receiver.comms, block.get(), static_cast<int>(message.size()));
    REQUIRE(receiver.sent == packets_of(message, receiver.rules.packet_size), "the packets that are sent");

    const size_t lost = input.ConsumeIntegralInRange<size_t>(0, 8);
    const size_t damaged = input.ConsumeIntegralInRange<size_t>(0, 8);
    for (size_t i = 0; i < receiver.sent.size(); ++i) {
        Bytes packet = receiver.sent[i];
        if (i + 1 == damaged)
            packet[input.ConsumeIntegral<uint8_t>() % packet.size()] ^= input.ConsumeIntegral<uint8_t>();
        if (i + 1 != lost)
            receiver.feed(packet, packet.size());
    }
}

void feed_anything(Receiver &receiver, FuzzedDataProvider &input)
{
    const size_t len = input.ConsumeIntegralInRange<size_t>(0, receiver.rules.packet_size + 1);
    Bytes packet = input.ConsumeBytes<uint8_t>(len);
    if (!packet.empty() && input.ConsumeBool())
        packet[0] |= 0x80;
    receiver.feed(packet, len);
}

} // namespace

const int input_bytes_max = 512; // a message has 300 bytes at most

void work_on(FuzzedDataProvider &input)
{
    expected_unit = "qel_tolbrin/qel_comms";
    run_to_end([&] {
        const size_t any_size = input.ConsumeIntegralInRange<size_t>(7, 80);
        Receiver receiver(input.PickValueInArray<size_t>({any_size, any_size, 35}));
        while (input.remaining_bytes() > 0)
            input.ConsumeBool() ? send_and_receive(receiver, input) : feed_anything(receiver, input);
    });
}
