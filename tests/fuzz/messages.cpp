// The core of the system messages and a peer that sends anything at any moment: confirms, answers, repeats,
// broken messages. What is sent, confirmed, handed on, returned and stopped on must be what the rules say.

#include "fuzz/fuzz.h"
#include "fuzz/rules.h"
#include "support/fake_kernel.h"

#include "qel_tolbrin/qel_sysmsg.h"

namespace
{

constexpr const char *unit = "qel_tolbrin/qel_sysmsg";

struct Peer {
    explicit Peer(FuzzedDataProvider &fuzz_input) : input(fuzz_input)
    {
        kernel.set_time(input.PickValueInArray({1000L, 4294967L, 2147483647L}));
    }

    FuzzedDataProvider &input;
    FakeKernel kernel;
    qel_sysmsg_con con = {handle, take, this, poll, this};
    MessageRules rules;
    uint8_t next_number = 2;
    Bytes request; ///< being sent
    std::vector<long long> sent_at;
    std::string expected_stop;

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
            for (size_t i = 9; i < message.size(); i++)
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
        const Exactly<uint8_t> block(message.data(), message.size());
        qel_sysmsg_receive(&con, block.get(), static_cast<int>(message.size()));
        require(expected_stop.empty(), "no stop", "", expected_stop);
        require(rules.to_confirm.empty(), "not confirmed");
        require(rules.to_hand_on.empty(), "not handed on");
    }

    static void take_expected(std::deque<Bytes> &expected, const Bytes &found, const char *what)
    {
        require(!expected.empty(), what, hex_of(found), "nothing");
        require(found == expected.front(), what, hex_of(found), hex_of(expected.front()));
        expected.pop_front();
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
        require(sent == request, "sent", hex_of(sent), hex_of(request));
        require(sent_at.size() < 3, "a fourth transmission");
        require(sent_at.empty() || now_ms() - sent_at.back() > 999, "repeated too early");
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
        self->kernel.forget_calls();
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
        const Exactly<uint8_t> block(message.data(), message.size());
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
        require(result == static_cast<int>(done), "result", std::to_string(result), std::to_string(done));
        if (!confirmed)
            require(sent_at.size() == 3 && now_ms() - sent_at.back() > 999, "given up too early");
        else if (!done)
            require(now_ms() - sent_at.front() >= 15000, "given up too early on the reply");
        if (done && wants)
            require(memcmp(reply.get(), rules.reply.data(), rules.reply.size()) == 0, "the reply",
                    hex_of(reply.get(), reply.size()), hex_of(rules.reply));
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider input(data, size);
    std::string expected_stop;
    const RunEnd outcome = run([&] {
        Peer peer(input);
        try {
            while (input.remaining_bytes() > 0) {
                switch (input.ConsumeIntegralInRange(0, 7)) {
                case 0:
                    qel_sysmsg_forget_sequence();
                    peer.rules.last = 0;
                    break;
                case 1:
                case 2:
                case 3:
                    peer.deliver();
                    break;
                default:
                    peer.send();
                }
            }
        } catch (...) {
            expected_stop = peer.expected_stop;
            throw;
        }
    });
    require(outcome.text == expected_stop, "the stop", outcome.text, expected_stop);
    require(!outcome.stopped || outcome.unit == unit, "its unit", outcome.unit);
    return 0;
}
