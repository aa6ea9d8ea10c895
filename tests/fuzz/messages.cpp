// The core of the system messages and a peer that sends anything at any moment: confirms, answers, repeats,
// broken messages. What is sent, confirmed, handed on, returned and stopped on must be what the rules say.

#include "fuzz/fuzz.h"
#include "fuzz/rules.h"
#include "support/fake_kernel.h"

#include "qel_tolbrin/qel_sysmsg.h"

namespace
{

struct Peer {
    explicit Peer(FuzzedDataProvider &fuzz_input) : input(fuzz_input)
    {
        kernel.keeps_books = false;
        kernel.set_time(input.PickValueInArray({1000L, 4294967L, 2147483647L}));
    }

    FuzzedDataProvider &input;
    FakeKernel kernel;
    qel_sysmsg_con con = {handle, take, this, poll, this};
    MessageModel rules;
    uint8_t next_number = 2;
    Bytes request; ///< being sent
    std::vector<long long> sent_at;

    // ---- The peer's messages ----

    Bytes any_message()
    {
        const uint32_t type = input.PickValueInArray({0u, 1u, 2u, 3u}) == 0
                                  ? input.ConsumeIntegral<uint32_t>()
                                  : input.PickValueInArray<uint32_t>({15, rules.wanted, 22, 29, 5, 11, 49});
        const size_t any_size = input.ConsumeIntegralInRange<size_t>(0, 40);
        Bytes message(input.PickValueInArray<size_t>({any_size, any_size, 12, rules.room, rules.room + 1}));
        put_word(message, 0, type);
        put_word(message, 4, static_cast<uint32_t>(message.size()));
        if (message.size() > 8) {
            message[8] = input.PickValueInArray<uint8_t>({rules.awaited, rules.last, 0, 1, 7});
            for (size_t i = 9; i < message.size(); ++i)
                message[i] = static_cast<uint8_t>(i);
        }
        if (input.ConsumeIntegral<uint8_t>() == 0)
            put_word(message, 4, input.ConsumeIntegral<uint32_t>());
        return message;
    }

    void deliver()
    {
        const Bytes message = any_message();
        expected_stop = rules.receive(message);
        const Exactly<uint8_t> block(message);
        qel_sysmsg_receive(&con, block.get(), static_cast<int>(message.size()));
        REQUIRE(expected_stop.empty(), "no stop", "", expected_stop);
        REQUIRE(rules.to_confirm.empty(), "not confirmed");
        REQUIRE(rules.to_hand_on.empty(), "not handed on");
    }

    static void handle(qel_sysmsg_con *connection, const void *message)
    {
        auto *self = static_cast<Peer *>(connection->poll_ctx);
        const auto *bytes = static_cast<const uint8_t *>(message);
        const uint32_t size = qel_sysmsg_get32(message, 4);
        take_expected(self->rules.to_hand_on, Bytes(bytes, bytes + size), "handed on");
    }

    static int take(void *peer, const void *message, int len)
    {
        auto *self = static_cast<Peer *>(peer);
        const auto *bytes = static_cast<const uint8_t *>(message);
        const Bytes sent(bytes, bytes + len);
        if (sent[0] == 15)
            take_expected(self->rules.to_confirm, sent, "confirmed");
        else
            self->check_transmission(sent);
        return 0;
    }

    void check_transmission(const Bytes &sent)
    {
        REQUIRE(sent == request, "sent", hex_of(sent), hex_of(request));
        REQUIRE(sent_at.size() < 3, "a fourth transmission");
        REQUIRE(sent_at.empty() || now_ms() - sent_at.back() > 999, "repeated too early");
        rules.awaited = request[8];
        sent_at.push_back(now_ms());
    }

    // ---- Sending ----

    long long now_ms() const
    {
        return kernel.clock_usec / 1000;
    }

    static int poll(void *peer)
    {
        auto *self = static_cast<Peer *>(peer);
        self->kernel.advance_usec(
            self->input.PickValueInArray({400LL, 100LL, 50LL, 999LL, 1000LL, 3000LL, 15000LL}) * 1000);
        if (self->input.remaining_bytes() > 0 && self->input.ConsumeBool())
            self->deliver();
        return 0;
    }

    void send()
    {
        Bytes message(input.ConsumeIntegralInRange<size_t>(12, 20));
        put_word(message, 0, input.PickValueInArray<uint32_t>({22, 1, 13, 49}));
        put_word(message, 4, static_cast<uint32_t>(message.size()));
        request = message;
        request[8] = next_number;
        next_number = next_number == 255 ? 1 : static_cast<uint8_t>(next_number + 1);
        sent_at.clear();
        rules.waits = input.ConsumeBool();
        rules.wanted = rules.waits ? input.PickValueInArray<uint32_t>({29, 22, 15, 11}) : 0;
        rules.room = input.ConsumeIntegralInRange<uint32_t>(1, 40);
        rules.reply.clear();
        const bool wants = rules.waits;
        const Exactly<uint8_t> reply(rules.room);
        const Exactly<uint8_t> block(message);
        const int result = qel_sysmsg_send_sequenced(&con, block.get(), wants, rules.wanted, reply.get(),
                                                     static_cast<int>(rules.room));
        check_result(result, wants, reply);
        rules.awaited = 0;
        rules.waits = false;
        rules.wanted = 0;
    }

    void check_result(int result, bool wants, const Exactly<uint8_t> &reply) const
    {
        const bool confirmed = rules.awaited == 0;
        const bool done = confirmed && (!wants || !rules.reply.empty());
        REQUIRE(result == static_cast<int>(done), "result", std::to_string(result), std::to_string(done));
        if (!confirmed)
            REQUIRE(sent_at.size() == 3 && now_ms() - sent_at.back() > 999, "given up too early");
        else if (!done)
            REQUIRE(now_ms() - sent_at.front() >= 15000, "given up too early on the reply");
        if (done && wants)
            REQUIRE(memcmp(reply.get(), rules.reply.data(), rules.reply.size()) == 0, "the reply",
                    hex_of(reply.get(), reply.size()), hex_of(rules.reply));
    }
};

} // namespace

const int input_bytes_max = 3072; // enough sends for their numbers to start again after 255

void work_on(FuzzedDataProvider &input)
{
    expected_unit = "qel_tolbrin/qel_sysmsg";
    run_to_end([&] {
        Peer peer(input);
        while (input.remaining_bytes() > 0) {
            const int choice = input.ConsumeIntegralInRange(0, 7);
            if (choice == 0) {
                qel_sysmsg_forget_sequence();
                peer.rules.last = 0;
            } else {
                choice < 4 ? peer.deliver() : peer.send();
            }
        }
    });
}
