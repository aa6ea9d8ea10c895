// qel-host's end of the link and a peer that sends anything while qel-host asks, sends and listens. Whatever
// comes, no check of the libraries may stop it, and what reaches a command is as the catalogue has it.

#include "fuzz/fuzz.h"
#include "support/fake_kernel.h"
#include "support/link_referee.h"

#include "catalogue.h"
#include "link.h"

namespace
{

/// The records of a message in proper packets.
void add_message(std::deque<std::vector<uint8_t>> &records, const Bytes &message)
{
    const unsigned crc = LinkReferee::crc16(message);
    const auto size = static_cast<uint16_t>(message.size());
    records.push_back({0, 0, static_cast<uint8_t>(size >> 8), static_cast<uint8_t>(size),
                       static_cast<uint8_t>(crc >> 8), static_cast<uint8_t>(crc)});
    for (const uint8_t byte : message) {
        if (records.back().size() == 35)
            records.push_back({0x80});
        records.back().push_back(byte);
    }
}

/// A message of type `likely`, or of another; half of them are as long as they say.
Bytes any_message(FuzzedDataProvider &input, uint32_t likely)
{
    Bytes message = input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange<size_t>(1, 700));
    message.resize(std::max<size_t>(message.size(), 12));
    const CatalogueMessage *known = catalogue_find(likely);
    if (known && known->size && input.ConsumeBool())
        message.resize(known->size);
    if (input.ConsumeIntegral<uint8_t>() > 64)
        qel_sysmsg_put32(message.data(), 0, likely);
    if (input.ConsumeIntegral<uint8_t>() > 32)
        qel_sysmsg_put32(message.data(), 4, static_cast<uint32_t>(message.size()));
    return message;
}

struct Host {
    Host(FuzzedDataProvider &fuzz_input) : input(fuzz_input)
    {
        kernel.set_time(1000);
        kernel.on_usleep = [this](unsigned) { bring_input(); };
        link.outlives_peer = true;
        link.on_message = [](std::span<const uint8_t> message) {
            require(catalogue_check(message).empty(), "handed on", hex_of(message.data(), message.size()));
        };
        link_start(link);
        link.reassembly.message_bytes_max = heap_block_bytes_max; // what this computer has
    }

    FuzzedDataProvider &input;
    FakeKernel kernel;
    Link link;
    uint32_t likely = 38; ///< the type that the peer would send
    uint8_t asked = 0;    ///< number of the last question

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
