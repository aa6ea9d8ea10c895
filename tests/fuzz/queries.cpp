// Every query of the catalogue against a peer that confirms and then answers with anything. What is judged:
//
// - The result: a query succeeds exactly when the rules of rules.h let a message of the awaited type through
//   to it within 15 seconds; a text must also have an end, and a plain text a length. Without an answer the
//   request was sent, once, and waited for until the 15 seconds were over, and no longer.
// - What it hands out: all fields and texts, read by this tier's own decoder from what the peer has sent.
//   Where an answer is too short, what it lacks must be zero, or for the three buffers that outlive a query,
//   what earlier answers have left there. A query that fails leaves the caller's variables alone.
// - Stops: the check that the rules name, and none without.
// - Memory, by the sanitizer.
//
// Not judged: what the request says.

#include "fuzz/fuzz.h"
#include "fuzz/rules.h"
#include "support/fake_kernel.h"

#include "qel_tolbrin/qel_sysmsg.h"

#include <sanitizer/asan_interface.h>

#include <algorithm>
#include <optional>

namespace
{

constexpr long long answer_time_usec = 15000000;
constexpr uint32_t plugins_answer = 14;

/// Confirms every request and answers with the messages that the input holds.
struct Peer {
    explicit Peer(FuzzedDataProvider &fuzz_input) : input(fuzz_input)
    {
        kernel.keeps_books = false;
        kernel.set_time(1000);
    }

    FuzzedDataProvider &input;
    FakeKernel kernel;
    qel_sysmsg_con con = {hand_on, take, this, poll, this};
    MessageModel rules;
    long long sent_at = -1; ///< when the request came, -1 before
    size_t plugins_max = 0;

    // The buffers that outlive a query.
    Bytes text_of_24 = Bytes(112), text = Bytes(529), plain;

    // ---- The connection ----

    static void hand_on(qel_sysmsg_con *, const void *)
    {
        REQUIRE(false, "handed on while an answer is awaited");
    }

    static int take(void *peer, const void *message, int len)
    {
        auto *self = static_cast<Peer *>(peer);
        const auto *bytes = static_cast<const uint8_t *>(message);
        const Bytes sent(bytes, bytes + len);
        if (sent[0] == 15) {
            take_expected(self->rules.to_confirm, sent, "confirmed");
            return 0;
        }
        REQUIRE(expected_stop.empty(), "no stop", "", expected_stop);
        REQUIRE(self->sent_at < 0, "sent again although confirmed");
        self->sent_at = self->kernel.clock_usec;
        self->rules.awaited = sent[8];
        return 0;
    }

    static int poll(void *peer)
    {
        auto *self = static_cast<Peer *>(peer);
        REQUIRE(self->rules.waits, "polled after the answer");
        REQUIRE(self->waited_usec() < answer_time_usec, "polled after the time for the answer");
        self->kernel.advance_usec(500000);
        if (self->rules.awaited)
            self->deliver({15, 0, 0, 0, 12, 0, 0, 0, self->rules.awaited, 0, 0, 0});
        if (self->input.remaining_bytes() > 0)
            self->deliver(self->next_answer());
        return 0;
    }

    /// Since the request.
    long long waited_usec() const
    {
        REQUIRE(sent_at >= 0, "no request was sent");
        return kernel.clock_usec - sent_at;
    }

    // ---- The peer's messages ----

    Bytes next_answer()
    {
        const size_t any_size = input.ConsumeIntegralInRange<size_t>(12, 600);
        Bytes message(input.PickValueInArray<size_t>({any_size, any_size, 527, 528}));
        const uint32_t type =
            input.ConsumeIntegral<uint8_t>() < 16 ? input.ConsumeIntegral<uint32_t>() : rules.wanted;
        const uint32_t size = input.ConsumeIntegral<uint8_t>() < 4 ? input.ConsumeIntegral<uint32_t>()
                                                                   : uint32_t(message.size());
        put_word(message, 0, type);
        put_word(message, 4, size);
        message[8] = input.ConsumeIntegralInRange<uint8_t>(0, 9);
        const Bytes body = input.ConsumeBytes<uint8_t>(message.size() - 9);
        std::copy(body.begin(), body.end(), message.begin() + 9);
        if (message.size() >= 16 && input.ConsumeBool()) // the length of what follows, or nearly
            put_word(message, 12,
                     static_cast<uint32_t>(message.size()) - 16 +
                         input.ConsumeIntegralInRange<uint32_t>(0, 8) - 4);
        return message;
    }

    void deliver(const Bytes &message)
    {
        expected_stop = rules.receive(message);
        const Exactly<uint8_t> block(message);
        qel_sysmsg_receive(&con, block.get(), static_cast<int>(message.size()));
        REQUIRE(expected_stop.empty(), "no stop", "", expected_stop);
        REQUIRE(rules.to_confirm.empty(), "not confirmed");
        REQUIRE(rules.to_hand_on.empty(), "not handed on");
        Bytes number = rules.reply; // also where it is cut short
        number.resize(16);
        if (rules.wanted == plugins_answer && word(number, 12) > plugins_max)
            expected_stop = "msg->num_plugins <= plugin_max";
    }

    // ---- Judging a query ----

    /// Before a query that has `room` bytes for its answer.
    void begin(size_t room)
    {
        rules.waits = true;
        rules.awaited = 0;
        rules.room = static_cast<uint32_t>(room);
        rules.reply.clear();
        sent_at = -1;
    }

    /// After it: whether there was an answer, which then is in `buffer`, over what was there.
    bool end(Bytes &buffer) const
    {
        REQUIRE(expected_stop.empty(), "no stop", "", expected_stop);
        if (rules.reply.empty())
            REQUIRE(waited_usec() >= answer_time_usec, "given up too early");
        buffer.resize(std::max<size_t>(buffer.size(), rules.room));
        std::copy(rules.reply.begin(), rules.reply.end(), buffer.begin());
        return !rules.reply.empty();
    }

    /// A whole query, which must succeed when there is an answer. Returns the answer.
    template <typename Query> std::optional<Bytes> ask(size_t room, Query query)
    {
        begin(room);
        const int result = query();
        Bytes answer;
        const bool answered = end(answer);
        require_same("the result", static_cast<uint64_t>(result), answered);
        return answered ? std::optional(answer) : std::nullopt;
    }
};

/// A variable before the query.
constexpr uint32_t untouched = 0x77777777;

// ---- The queries ----

void get_plugins(Peer &peer)
{
    const Exactly<uint32_t> plugins(peer.input.ConsumeIntegralInRange<size_t>(0, 120));
    uint32_t count = untouched;
    peer.plugins_max = plugins.size();
    const auto answer = peer.ask(16 + 4 * plugins.size(), [&] {
        return qel_sysmsg_get_plugins(&peer.con, plugins.get(), static_cast<int32_t>(plugins.size()), &count);
    });
    require_same("the number of plugins", count, answer ? word(*answer, 12) : untouched);
    for (size_t i = 0; i < plugins.size(); ++i)
        require_same("a plugin", plugins.get()[i], answer && i < count ? word(*answer, 16 + 4 * i) : 0);
}

void query_23(Peer &peer)
{
    const size_t count = peer.input.ConsumeIntegralInRange<size_t>(0, 11);
    std::vector<Text> texts;
    std::vector<const char *> items;
    for (size_t i = 0; i < count; ++i)
        texts.emplace_back(text_of(peer.input, 120));
    for (const Text &text : texts)
        items.push_back(text.get());
    const Text name(text_of(peer.input, 120));
    const char *text = nullptr;
    peer.begin(112);
    expected_stop = count > 10 ? "i < 10" : "";
    const int result =
        qel_sysmsg_query_23(&peer.con, name.get(), items.data(), static_cast<uint32_t>(count), &text);
    const bool answered = peer.end(peer.text_of_24);
    require_same("the result", static_cast<uint64_t>(result), answered);
    REQUIRE((text != nullptr) == answered, "where the text is");
    if (text)
        REQUIRE(memcmp(text, &peer.text_of_24[9], 103) == 0, "the text", hex_of(text, 103),
                hex_of(&peer.text_of_24[9], 103));
}

/// Of a path that begins with a slash.
bool is_valid(const std::string &path)
{
    return path == "/" || (path.back() != '/' && path.find("//") == std::string::npos &&
                           std::all_of(path.begin(), path.end(), is_allowed));
}

void path_exists(Peer &peer)
{
    const std::string path = "/" + text_of(peer.input, 150);
    const Text block(path);
    uint32_t exists = untouched;
    expected_stop = is_valid(path) ? "" : "0"; // a fatal error
    const auto answer =
        peer.ask(16, [&] { return qel_sysmsg_tolbrin_path_exists(&peer.con, block.get(), &exists); });
    require_same("exists", exists, answer ? word(*answer, 12) : untouched);
}

void get_info(Peer &peer)
{
    qel_sysmsg_info info = {77, untouched, untouched, untouched};
    const auto answer = peer.ask(24, [&] { return qel_sysmsg_get_info(&peer.con, &info); });
    require_same("a", info.a, answer ? word(*answer, 12) : untouched);
    require_same("b", info.b, answer ? word(*answer, 16) : untouched);
    require_same("c", info.c, answer ? word(*answer, 20) : untouched);
    require_same("the caller's own field", info.own, 77);
}

void get_item_size(Peer &peer)
{
    const Text name(text_of(peer.input, 40));
    const char *asked = peer.input.ConsumeBool() ? name.get() : nullptr;
    uint64_t size = untouched;
    const auto answer = peer.ask(64, [&] { return qel_sysmsg_get_item_size(&peer.con, 1, asked, 2, &size); });
    require_same("the size", size, answer ? long_word(*answer, 56) : untouched);
}

void query_41(Peer &peer)
{
    uint64_t first = untouched, second = untouched;
    const auto answer = peer.ask(32, [&] { return qel_sysmsg_query_41(&peer.con, &first, &second); });
    require_same("the first", first, answer ? long_word(*answer, 16) : untouched);
    require_same("the second", second, answer ? long_word(*answer, 24) : untouched);
}

void get_plugin_size(Peer &peer)
{
    uint64_t size = untouched;
    const uint32_t plugin = 1 + peer.input.ConsumeIntegral<uint8_t>();
    const auto answer = peer.ask(24, [&] { return qel_sysmsg_get_plugin_size(&peer.con, plugin, &size); });
    require_same("the size", size, answer ? long_word(*answer, 16) : untouched);
}

void get_text(Peer &peer)
{
    peer.begin(528);
    const char *text = qel_sysmsg_get_text(&peer.con);
    // Behind the longest answer there is one more byte, zero, which can end a text.
    const bool answered = peer.end(peer.text);
    const size_t length = word(peer.text, 12);
    const bool has_text = answered && length > 0 && length <= 513 && peer.text[15 + length] == 0;
    require_same("the result", text != nullptr, has_text);
    if (!has_text)
        return;
    const std::string expected(reinterpret_cast<const char *>(&peer.text[16]));
    REQUIRE(text == expected, "the text", text, expected);
}

void decipher(Peer &peer)
{
    const Bytes bytes = peer.input.ConsumeBytes<uint8_t>(peer.input.ConsumeIntegralInRange<size_t>(1, 300));
    if (bytes.empty())
        return;
    const Exactly<uint8_t> cipher(bytes);
    const void *plain = cipher.get();
    uint32_t length = 1;
    peer.begin(16 + bytes.size());
    const int result =
        qel_sysmsg_decipher(&peer.con, cipher.get(), static_cast<int>(bytes.size()), &plain, &length);
    const bool answered = peer.end(peer.plain);
    const bool has_plain = answered && word(peer.plain, 12) > 0;
    require_same("the result", static_cast<uint64_t>(result), has_plain);
    REQUIRE((plain != nullptr) == has_plain, "where the plain text is");
    require_same("the length", length, has_plain ? word(peer.plain, 12) : 0);
    if (!has_plain)
        return;
    // The length is the peer's word; what can be read is as long as the question.
    REQUIRE(__asan_region_is_poisoned(const_cast<void *>(plain), bytes.size()) == nullptr, "the plain text");
    REQUIRE(memcmp(plain, &peer.plain[16], bytes.size()) == 0, "the plain text", hex_of(plain, bytes.size()),
            hex_of(&peer.plain[16], bytes.size()));
}

const struct {
    uint32_t answer;
    void (*ask)(Peer &peer);
} queries[] = {{plugins_answer, get_plugins},
               {24, query_23},
               {29, path_exists},
               {37, get_info},
               {40, get_item_size},
               {42, query_41},
               {44, get_plugin_size},
               {47, get_text},
               {49, decipher}};

} // namespace

const int input_bytes_max = 1024; // an answer has 600 bytes at most

void work_on(FuzzedDataProvider &input)
{
    expected_unit = "qel_tolbrin/qel_sysmsg";
    run_to_end([&] {
        Peer peer(input);
        while (input.remaining_bytes() > 0) {
            const auto &query = queries[input.ConsumeIntegralInRange<size_t>(0, std::size(queries) - 1)];
            peer.rules.wanted = query.answer;
            query.ask(peer);
        }
    });
}
