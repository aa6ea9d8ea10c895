// Every query of the catalogue against a peer that confirms and then answers with anything. A query may read
// what is in its buffer where the answer is too short, but nothing else, and hands out what was answered.

#include "fuzz/fuzz.h"
#include "support/fake_kernel.h"

#include "qel_tolbrin/qel_sysmsg.h"

#include <sanitizer/asan_interface.h>

namespace
{

constexpr const char *unit = "qel_tolbrin/qel_sysmsg";

/// Confirms every request and answers with the messages that the input holds.
struct Peer {
    explicit Peer(FuzzedDataProvider &fuzz_input) : input(fuzz_input)
    {
        kernel.set_time(1000);
    }

    FuzzedDataProvider &input;
    FakeKernel kernel;
    qel_sysmsg_con con = {ignore, take, this, poll, this};
    uint32_t wanted = 0; ///< type of the answer
    uint8_t to_confirm = 0;
    Bytes answer; ///< the last message of that type that was delivered

    static void ignore(qel_sysmsg_con *, const void *) {}
    static int take(void *peer, const void *message, int len)
    {
        const Exactly<uint8_t> all_of_it(message, static_cast<size_t>(len));
        if (all_of_it.get()[0] != 15)
            static_cast<Peer *>(peer)->to_confirm = all_of_it.get()[8];
        return 0;
    }
    static int poll(void *peer)
    {
        auto *self = static_cast<Peer *>(peer);
        self->kernel.forget_calls();
        self->kernel.advance_usec(500000);
        if (self->to_confirm) {
            self->deliver({15, 0, 0, 0, 12, 0, 0, 0, self->to_confirm, 0, 0, 0});
            self->to_confirm = 0;
        }
        if (self->input.remaining_bytes() > 0)
            self->deliver(self->next_answer());
        return 0;
    }

    Bytes next_answer()
    {
        const size_t any_size = input.ConsumeIntegralInRange<size_t>(12, 600);
        Bytes message(input.PickValueInArray<size_t>({any_size, any_size, 527, 528}));
        const uint32_t type =
            input.ConsumeIntegral<uint8_t>() < 16 ? input.ConsumeIntegral<uint32_t>() : wanted;
        const uint32_t size = input.ConsumeIntegral<uint8_t>() < 4 ? input.ConsumeIntegral<uint32_t>()
                                                                   : uint32_t(message.size());
        qel_sysmsg_put32(message.data(), 0, type);
        qel_sysmsg_put32(message.data(), 4, size);
        message[8] = input.ConsumeIntegralInRange<uint8_t>(0, 9);
        const Bytes body = input.ConsumeBytes<uint8_t>(message.size() - 9);
        std::copy(body.begin(), body.end(), message.begin() + 9);
        if (message.size() >= 16 && input.ConsumeBool()) // the length of what follows, or nearly
            qel_sysmsg_put32(message.data(), 12,
                             static_cast<uint32_t>(message.size()) - 16 +
                                 input.ConsumeIntegralInRange<uint32_t>(0, 8) - 4);
        return message;
    }
    void deliver(const Bytes &message)
    {
        if (qel_sysmsg_get32(message.data(), 0) == wanted)
            answer = message;
        const Exactly<uint8_t> block(message.data(), message.size());
        qel_sysmsg_receive(&con, block.get(), static_cast<int>(message.size()));
    }

    /// The field of the answer, if it is that long.
    bool says(size_t offset, size_t size, uint64_t value) const
    {
        if (answer.size() < offset + size)
            return true;
        return value == (size == 4 ? qel_sysmsg_get32(answer.data(), static_cast<int>(offset))
                                   : qel_sysmsg_get64(answer.data(), static_cast<int>(offset)));
    }
};

// ---- The queries ----

void get_plugins(Peer &peer)
{
    const Exactly<uint32_t> plugins(peer.input.ConsumeIntegralInRange<size_t>(0, 120));
    uint32_t count = 0;
    if (!qel_sysmsg_get_plugins(&peer.con, plugins.get(), static_cast<int32_t>(plugins.size()), &count))
        return;
    require(peer.says(12, 4, count), "the number of plugins");
    for (size_t i = 0; i < count; i++)
        require(peer.says(16 + 4 * i, 4, plugins.get()[i]), "a plugin");
}

void query_23(Peer &peer)
{
    const size_t count = peer.input.ConsumeIntegralInRange<size_t>(0, 11);
    std::vector<Text> texts;
    std::vector<const char *> items;
    for (size_t i = 0; i < count; i++)
        texts.emplace_back(text_of(peer.input, 120));
    for (const Text &text : texts)
        items.push_back(text.get());
    const Text name(text_of(peer.input, 120));
    const char *result = nullptr;
    if (qel_sysmsg_query_23(&peer.con, name.get(), items.data(), static_cast<uint32_t>(count), &result))
        require(__asan_region_is_poisoned(const_cast<char *>(result), 103) == nullptr, "the text's buffer");
}

void path_exists(Peer &peer)
{
    const Text path("/" + text_of(peer.input, 150));
    uint32_t exists = 0;
    if (qel_sysmsg_tolbrin_path_exists(&peer.con, path.get(), &exists))
        require(peer.says(12, 4, exists), "exists");
}

void get_info(Peer &peer)
{
    qel_sysmsg_info info = {77, 0, 0, 0};
    if (qel_sysmsg_get_info(&peer.con, &info))
        require(peer.says(12, 4, info.a) && peer.says(16, 4, info.b) && peer.says(20, 4, info.c), "the info");
    require(info.own == 77, "the caller's own field");
}

void get_item_size(Peer &peer)
{
    const Text name(text_of(peer.input, 40));
    uint64_t size = 0;
    if (qel_sysmsg_get_item_size(&peer.con, 1, peer.input.ConsumeBool() ? name.get() : nullptr, 2, &size))
        require(peer.says(56, 8, size), "the size");
}

void query_41(Peer &peer)
{
    uint64_t first = 0, second = 0;
    if (qel_sysmsg_query_41(&peer.con, &first, &second))
        require(peer.says(16, 8, first) && peer.says(24, 8, second), "the values");
}

void get_plugin_size(Peer &peer)
{
    uint64_t size = 0;
    if (qel_sysmsg_get_plugin_size(&peer.con, 1 + peer.input.ConsumeIntegral<uint8_t>(), &size))
        require(peer.says(16, 8, size), "the size");
}

void get_text(Peer &peer)
{
    const char *text = qel_sysmsg_get_text(&peer.con);
    if (!text)
        return;
    const Text copy{std::string(text)}; // reads up to the NUL
    const size_t end = 16 + size_t{peer.answer.size() < 16 ? 0 : qel_sysmsg_get32(peer.answer.data(), 12)};
    require(end > peer.answer.size() || (end > 16 && peer.answer[end - 1] == 0), "a text without its end",
            text);
    require(peer.answer.size() < 16 + copy.size() || memcmp(copy.get(), &peer.answer[16], copy.size()) == 0,
            "the text", text);
}

void decipher(Peer &peer)
{
    const Bytes bytes = peer.input.ConsumeBytes<uint8_t>(peer.input.ConsumeIntegralInRange<size_t>(1, 300));
    if (bytes.empty())
        return;
    const Exactly<uint8_t> cipher(bytes.data(), bytes.size());
    const void *plain = cipher.get();
    uint32_t length = 1;
    if (!qel_sysmsg_decipher(&peer.con, cipher.get(), static_cast<int>(bytes.size()), &plain, &length)) {
        require(plain == nullptr && length == 0, "no plain text");
        return;
    }
    require(length > 0 && peer.says(12, 4, length), "the length");
    // The length is the peer's word; what can be read is as long as the question.
    require(__asan_region_is_poisoned(const_cast<void *>(plain), bytes.size()) == nullptr, "the plain text");
}

const struct {
    uint32_t answer;
    void (*ask)(Peer &peer);
} queries[] = {{14, get_plugins},     {24, query_23},      {29, path_exists},
               {37, get_info},        {40, get_item_size}, {42, query_41},
               {44, get_plugin_size}, {47, get_text},      {49, decipher}};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    FuzzedDataProvider input(data, size);
    const Outcome outcome = run([&] {
        Peer peer(input);
        while (input.remaining_bytes() > 0) {
            const auto &query = queries[input.ConsumeIntegralInRange<size_t>(0, std::size(queries) - 1)];
            peer.wanted = query.answer;
            query.ask(peer);
        }
    });
    require_documented(outcome, unit,
                       {"len == sysmsg->msg_size", "confirmed->sequence",
                        "sysmsg->msg_size >= sizeof(struct qel_sysmsg_confirmed)",
                        "sysmsg->msg_size <= wait_buf_size", "msg->num_plugins <= plugin_max", "i < 10",
                        "0"}); // a path that is not absolute
    return 0;
}
