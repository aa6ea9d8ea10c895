// qel-host's end of the link and a peer that sends anything while qel-host asks, sends and listens. Whatever
// comes, no check of the libraries may stop it; what breaks the rules is refused, nothing else is, and what
// reaches a command is the message that came last.

#include "fuzz/fuzz.h"
#include "fuzz/rules.h"
#include "support/fake_kernel.h"

#include "link.h"

#include <map>

namespace
{

/// The sizes of the types that have one.
const std::map<uint32_t, size_t> sizes = {
    {1, 16},    {3, 12},    {5, 12},   {9, 12},   {11, 8},   {12, 8},  {13, 12}, {15, 12},
    {16, 3120}, {17, 3124}, {18, 136}, {19, 136}, {20, 136}, {21, 16}, {22, 12}, {23, 1116},
    {24, 112},  {26, 32},   {27, 32},  {28, 112}, {29, 16},  {30, 12}, {31, 8},  {32, 44},
    {33, 40},   {34, 12},   {36, 12},  {37, 24},  {38, 12},  {39, 64}, {40, 64}, {41, 12},
    {42, 32},   {43, 24},   {44, 24},  {45, 24},  {46, 12}};

/// Where the others have the length of their block, which is the rest of the message; 14 counts words.
const std::map<uint32_t, size_t> blocks = {{2, 12}, {7, 12},  {8, 12},  {10, 8},  {14, 12},
                                           {16, 8}, {17, 12}, {47, 12}, {48, 12}, {49, 12}};

/// Whether a message may reach a command.
bool is_proper(const Bytes &message)
{
    if (message.size() < 8)
        return false;
    const uint32_t type = word(message, 0);
    const auto size = sizes.find(type);
    const auto block = blocks.find(type);
    if (word(message, 4) != message.size() || (size != sizes.end() && size->second != message.size()))
        return false;
    if (is_sequenced(type) && (message.size() < 12 || message[8] == 0))
        return false;
    if (block == blocks.end())
        return true;
    const size_t head = block->second + 4, unit = type == 14 ? 4 : 1;
    return message.size() >= head && word(message, block->second) * unit == message.size() - head;
}

/// The records of a message in proper packets.
void add_message(std::deque<std::vector<uint8_t>> &records, const Bytes &message)
{
    for (const Bytes &packet : packets_of(message))
        records.push_back(packet);
}

/// A message of type `likely`, or of another; most have the size and the length of their block that they
/// should have, or nearly.
Bytes any_message(FuzzedDataProvider &input, uint32_t likely)
{
    // The bytes last: they may take all that is left.
    const bool has_its_size = input.ConsumeBool();
    const auto type_choice = input.ConsumeIntegral<uint8_t>();
    const auto length_choice = input.ConsumeIntegral<uint8_t>();
    Bytes message = input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange<size_t>(1, 700));
    message.resize(std::max<size_t>(message.size(), 12));
    if (type_choice > 64)
        put_word(message, 0, likely);
    else if (type_choice < 50)
        put_word(message, 0, type_choice);
    const uint32_t type = word(message, 0);
    if (has_its_size && sizes.count(type))
        message.resize(sizes.at(type));
    if (length_choice > 32)
        put_word(message, 4, static_cast<uint32_t>(message.size()));
    if (length_choice > 96 && blocks.count(type)) {
        const auto head = static_cast<uint32_t>(blocks.at(type)) + 4;
        const uint32_t off = length_choice < 240 ? 0 : length_choice - 248u;
        put_word(message, head - 4,
                 (static_cast<uint32_t>(message.size()) - head + off) / (type == 14 ? 4 : 1));
    }
    return message;
}

struct Host {
    Host(FuzzedDataProvider &fuzz_input) : input(fuzz_input)
    {
        kernel.set_time(1000);
        kernel.on_usleep = [this](unsigned) { bring_input(); };
        link.outlives_peer = true;
        link.on_message = [this](std::span<const uint8_t> bytes) {
            const Bytes message(bytes.begin(), bytes.end());
            require(message == rules.message, "handed on", hex_of(message), hex_of(rules.message));
            require(is_proper(message), "what no command may see", hex_of(message));
        };
        link_start(link);
        link.reassembly.message_bytes_max = heap_block_bytes_max; // what this computer has
        rules.message_bytes_max = heap_block_bytes_max;
        link.transport.on_record = [this, take = link.transport.on_record](std::span<const uint8_t> record) {
            expect(Bytes(record.begin(), record.end()));
            take(record);
            require(link.counts.refused == refused, "refused", std::to_string(link.counts.refused),
                    std::to_string(refused));
        };
    }

    FuzzedDataProvider &input;
    FakeKernel kernel;
    Link link;
    GuardedPacketRules rules;
    uint64_t refused = 0; ///< packets and messages that must have been, so far
    uint32_t likely = 38; ///< the type that the peer would send
    uint8_t asked = 0;    ///< number of the last question

    void expect(const Bytes &packet)
    {
        const unsigned messages_before = rules.messages, refused_before = rules.refused;
        rules.take(packet);
        refused += rules.refused - refused_before;
        if (rules.messages == messages_before)
            return;
        const bool is_too_long = is_proper(rules.message) && word(rules.message, 0) == link.reply_type &&
                                 rules.message.size() > link.reply_bytes_max;
        refused += !is_proper(rules.message) || is_too_long;
    }

    /// Called when the link finds nothing to read: time goes on, and something comes.
    void bring_input()
    {
        kernel.forget_calls();
        kernel.advance_usec(200000);
        auto &records = link.transport.input;
        if (link.last_sent != asked) {
            asked = link.last_sent;
            add_message(records, {15, 0, 0, 0, 12, 0, 0, 0, asked, 0, 0, 0});
        }
        if (input.remaining_bytes() == 0)
            return;
        if (input.ConsumeBool())
            add_message(records, any_message(input, likely));
        else
            records.push_back(input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange<size_t>(1, 64)));
        if (records.back().empty())
            records.pop_back();
    }

    void expect_answer(uint32_t type, uint32_t bytes_max)
    {
        likely = link.reply_type = type;
        link.reply_bytes_max = bytes_max;
    }

    void act()
    {
        std::vector<uint32_t> ids(20);
        uint32_t number = 0;
        uint64_t values[2] = {};
        const void *bytes = nullptr;
        const char *text = nullptr;
        qel_sysmsg_info info = {};
        switch (input.ConsumeIntegralInRange(0, 11)) {
        case 0:
            expect_answer(14, 16 + 4 * 20);
            qel_sysmsg_get_plugins(link.con, ids.data(), 20, &number);
            break;
        case 1:
            expect_answer(24, 112);
            qel_sysmsg_query_23(link.con, "name", nullptr, 0, &text);
            break;
        case 2:
            expect_answer(29, 16);
            qel_sysmsg_tolbrin_path_exists(link.con, "/path", &number);
            break;
        case 3:
            expect_answer(37, 24);
            qel_sysmsg_get_info(link.con, &info);
            break;
        case 4:
            expect_answer(40, 64);
            qel_sysmsg_get_item_size(link.con, 1, nullptr, 2, values);
            break;
        case 5:
            expect_answer(42, 32);
            qel_sysmsg_query_41(link.con, values, values + 1);
            break;
        case 6:
            expect_answer(44, 24);
            qel_sysmsg_get_plugin_size(link.con, 3, values);
            break;
        case 7:
            expect_answer(47, 528);
            qel_sysmsg_get_text(link.con);
            break;
        case 8:
            expect_answer(49, 20);
            if (qel_sysmsg_decipher(link.con, "1234", 4, &bytes, &number))
                require(number <= 4, "a length beyond the answer", std::to_string(number));
            break;
        case 9:
            qel_sysmsg_connect(link.con, 42);
            break;
        case 10:
            link_forget_peer(link);
            rules.packets.length = 0;
            break;
        default:
            bring_input();
            link_poll(link, 0);
        }
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const Outcome outcome = run([&] {
        Host host(input);
        while (input.remaining_bytes() > 0)
            host.act();
    });
    require(!outcome.stopped, "a stop", outcome.unit + " " + outcome.text);
    return 0;
}
