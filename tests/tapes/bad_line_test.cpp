// Thousands of exchanges on the whole link over a bad line, in one process: both ends ask, answer and repeat,
// and the model keeps the books, so that every message is accounted for. QEL_LINK_EXCHANGES sets their number
// for longer runs.

#include "support/product_reset.h"
#include "support/stops.h"
#include "tapes/bad_line.h"
#include "tapes/host.h"

#include <errno.h>
#include <stdlib.h>
#include <string.h>

#include <algorithm>
#include <stdexcept>
#include <utility>

namespace
{

// A run ends with the first thing that is wrong: no wait of the product is the longer for it.
void require(bool holds, const std::string &what)
{
    if (!holds)
        throw std::runtime_error(what);
}

void take_expected(std::deque<Bytes> &expected, const Bytes &found, const std::string &what)
{
    require(!expected.empty() && found == expected.front(),
            what + " " + hex_of(found) + ", not " +
                (expected.empty() ? "nothing" : hex_of(expected.front())));
    expected.pop_front();
}

// ---- The product and its books ----

struct Exchanges {
    Exchanges(Fates fates, uint32_t seed, bool host_asks)
        : host{{fates, std::mt19937(seed)}, host_asks}, line{fates, std::mt19937(seed + 1)}, random(seed + 2)
    {
        reset_product();
        ground.kernel.keeps_books = false;
        ground.kernel.on_read = [this](int, void *bytes, size_t) { return read(bytes); };
        ground.kernel.on_write = [this](int, const void *bytes, size_t size) {
            const auto *packet = static_cast<const uint8_t *>(bytes);
            note_packet(Bytes(packet, packet + size));
            return static_cast<ssize_t>(size);
        };
        qel_lpc_set_pacing(0);
        running = this;
        link.con.recv = [](qel_sysmsg_con *, const void *message) { running->handle(message); };
    }

    const LeaksAllowed buffers_stay; ///< the link keeps them for the life of the process
    Ground ground;
    Link link{ground};
    PlayedEnd host;
    Line line; ///< from the product to the host
    std::mt19937 random;
    inline static Exchanges *running;

    // The books: what the product must make of the packets that have arrived, and what it sends.
    PacketModel packets, packets_sent;
    MessageModel messages;
    Bytes buffer = Bytes(64);              ///< the transport's, which is empty when it begins to read
    std::vector<Bytes> sent;               ///< packets of the message that it is sending
    Bytes request;                         ///< that it is sending
    std::vector<long long> transmitted_at; ///< in ms
    uint32_t asked = 0;                    ///< query of the host that waits for its answer
    unsigned handed_on = 0, succeeded = 0, failed = 0, repeated = 0, answered = 0;

    long long now() const
    {
        return ground.kernel.clock_usec;
    }
    long long now_ms() const
    {
        return now() / 1000; // as the product counts
    }

    ssize_t read(void *bytes)
    {
        require(messages.to_confirm.empty(), "not confirmed");
        require(messages.to_hand_on.empty(), "not handed on");
        if (host.line.due() > now()) {
            buffer.assign(64, 0);
            let_time_pass();
            errno = EAGAIN;
            return -1;
        }
        const Bytes packet = host.line.delivers();
        std::copy(packet.begin(), packet.end(), static_cast<uint8_t *>(bytes));
        std::copy(packet.begin(), packet.end(), buffer.begin());
        require(packets.take(buffer, packet.size()).empty(), "a packet that stops");
        for (; !packets.delivered.empty(); packets.delivered.pop_front())
            require(messages.receive(packets.delivered.front()).empty(), "a message that stops");
        return static_cast<ssize_t>(packet.size());
    }
    void let_time_pass()
    {
        const long long next = std::min(host.line.due(), line.due());
        ground.kernel.clock_usec = std::clamp(next, now() + 1000, now() + 50000);
        while (line.due() <= now())
            host.receives(line.delivers(), now());
        host.goes_on(now());
    }

    void handle(const void *message)
    {
        const auto *bytes = static_cast<const uint8_t *>(message);
        const Bytes handed(bytes, bytes + qel_sysmsg_get32(message, 4));
        take_expected(messages.to_hand_on, handed, "handed on");
        ++handed_on;
        if (handed[0] == 43)
            asked = word(handed, 12);
    }

    void note_packet(Bytes packet)
    {
        line.takes(packet, now());
        sent.push_back(packet);
        const size_t size = packet.size();
        packet.resize(35);
        packets_sent.take(packet, size);
        if (packets_sent.delivered.empty())
            return;
        const Bytes message = packets_sent.delivered.front();
        packets_sent.delivered.clear();
        require(sent == packets_of(message), "the packets of " + hex_of(message));
        sent.clear();
        if (message[0] == 15)
            take_expected(messages.to_confirm, message, "confirmed");
        else if (is_sequenced(message[0]))
            note_transmission(message);
    }
    void note_transmission(const Bytes &message)
    {
        require(transmitted_at.size() < 3, "a fourth transmission");
        if (transmitted_at.empty())
            request = message;
        else
            require(now_ms() - transmitted_at.back() >= 1000, "repeated too early");
        require(message == request, "sent " + hex_of(message) + ", not " + hex_of(request));
        repeated += !transmitted_at.empty();
        messages.awaited = message[8];
        transmitted_at.push_back(now_ms());
    }

    // ---- What it does ----

    void exchange(uint32_t serial)
    {
        uint64_t size = 0;
        const Bytes block(1 + random() % 200, static_cast<uint8_t>(serial));
        switch (random() % 4) {
        case 0:
            send(0, [&] { return qel_sysmsg_post_21(&link.con, serial); });
            break;
        case 1:
            send(0, [&] {
                return qel_sysmsg_transfer_data(&link.con, block.data(), static_cast<int>(block.size()));
            });
            break;
        case 2:
            if (send(44, [&] { return qel_sysmsg_get_plugin_size(&link.con, serial, &size); }))
                require(size == long_word(messages.reply, 16) &&
                            size == word(messages.reply, 12) * bytes_for_each_id,
                        "an answer");
            break;
        default:
            qel_sysmsg_connect(&link.con, serial);
            for (size_t polls = random() % 100; polls > 0; --polls)
                poll_and_answer();
        }
    }
    void poll_and_answer()
    {
        qel_comms_poll(&link.comms);
        const uint32_t id = std::exchange(asked, 0);
        if (id)
            answered += send(0, [&] { return qel_sysmsg_reply_plugin_size(&link.con, id, 5); });
    }
    /// Sends something, and judges the result.
    bool send(uint32_t wanted, const std::function<int()> &operation)
    {
        transmitted_at.clear();
        messages.waits = wanted != 0;
        messages.wanted = wanted;
        messages.room = 24;
        messages.reply.clear();
        const int result = operation();
        require(!transmitted_at.empty(), "nothing sent");
        const bool is_confirmed = !messages.awaited,
                   done = is_confirmed && (!wanted || !messages.reply.empty());
        require(result == static_cast<int>(done), "result " + std::to_string(result));
        require(done || now_ms() - transmitted_at.front() >= (is_confirmed ? 15000 : 3000),
                "given up too early");
        messages.awaited = 0;
        messages.waits = false;
        (done ? succeeded : failed)++;
        return done;
    }
    void run(uint32_t exchanges)
    {
        for (uint32_t serial = 1; serial <= exchanges; ++serial)
            exchange(serial);
    }
};

} // namespace

class BadLine : public testing::TestWithParam<uint32_t>
{
};

TEST_P(BadLine, LosesAndRepeatsMessagesAndEachIsAccountedFor)
{
    const char *wanted = getenv("QEL_LINK_EXCHANGES");
    Exchanges ends({20, 20, 20, 30, 15}, GetParam(), true);
    ends.run(wanted ? static_cast<uint32_t>(atoi(wanted)) : 3000);
    printf("    %u sends succeeded, %u failed; %u messages handed on; dropped: %u by CRC, %u repeats, "
           "%u while a confirm was awaited, %u while a reply was\n",
           ends.succeeded, ends.failed, ends.handed_on, ends.packets.crc_wrong, ends.messages.repeats,
           ends.messages.dropped_unconfirmed, ends.messages.dropped_waiting);
    // Everything that can go wrong has gone wrong, and most has gone well.
    EXPECT_GT(ends.succeeded, ends.failed);
    for (const unsigned count :
         {ends.failed, ends.repeated, ends.answered, ends.handed_on, ends.packets.crc_wrong,
          ends.messages.repeats, ends.messages.dropped_unconfirmed, ends.messages.dropped_waiting})
        EXPECT_GT(count, 0U);
}

INSTANTIATE_TEST_SUITE_P(Seeds, BadLine, testing::Values(1U, 20040101U, 4711U),
                         [](const auto &seed) { return "Seed" + std::to_string(seed.param); });

TEST(GoodLine, LosesNothingAndRepeatsNothing)
{
    Exchanges ends({}, 1, false);
    ends.run(1000);
    EXPECT_EQ(ends.failed, 0U);
    EXPECT_EQ(ends.repeated, 0U);
    EXPECT_EQ(ends.packets.crc_wrong + ends.messages.repeats + ends.messages.dropped_unconfirmed, 0U);
}
