// qel-host's end of the link and a peer that sends anything. Whatever comes, no check of the libraries may
// stop it; what breaks the rules of the link is refused, and nothing else is. What it sends, the peer gets.

#include "fuzz/fuzz.h"
#include "fuzz/rules.h"

#include "link/link.h"
#include "output.h"

#include <sys/socket.h>
#include <unistd.h>

namespace
{

/// Whether a message may be handed on.
bool is_proper(const Bytes &message)
{
    if (message.size() < 8 || word(message, 4) != message.size())
        return false;
    return !is_sequenced(word(message, 0)) || (message.size() >= 12 && message[8] != 0);
}

/// Most have the size and the number of what follows that they should have, or nearly.
Bytes any_message(FuzzedDataProvider &input)
{
    // The bytes last: they may take all that is left.
    const auto type = input.ConsumeIntegral<uint8_t>();
    const auto choice = input.ConsumeIntegral<uint8_t>();
    Bytes message = input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange<size_t>(1, 700));
    message.resize(std::max<size_t>(message.size(), 1));
    const CatalogueMessage *known = catalogue_find(type);
    if (known == nullptr || message.size() < 8)
        return message;
    if (choice % 4 > 0 && known->size > 0)
        message.resize(known->size);
    put_word(message, 0, type);
    if (choice > 16)
        put_word(message, 4, static_cast<uint32_t>(message.size()));
    if (choice > 32 && !known->fields.empty() && is_rest(known->fields.back())) {
        const CatalogueField &rest = known->fields.back();
        const auto bytes = static_cast<uint32_t>(message.size()) - rest.offset - rest.size;
        put_word(message, rest.offset, (choice < 240 ? bytes : bytes + choice - 248u) / (choice % 2 ? 4 : 1));
    }
    return message;
}

/// Any bytes must do.
void show(const Bytes &message)
{
    REQUIRE(!describe_message(message).empty(), "a description");
    REQUIRE(message_json(message)["size"] == message.size(), "the size shown", hex_of(message));
    fields_of(message);
}

struct Host {
    Host()
    {
        int ends[2];
        REQUIRE(socketpair(AF_UNIX, SOCK_SEQPACKET | SOCK_NONBLOCK, 0, ends) == 0, "a pair of sockets");
        link.transport.descriptor = ends[0];
        peer = ends[1];
        link.transport.paced = false;
        link.transport.may_go_on = [] {};
        link.on_message = [this](ByteView message, double) {
            handed_on.emplace_back(message.begin(), message.end());
            show(handed_on.back());
        };
    }
    ~Host()
    {
        close(link.transport.descriptor);
        close(peer);
    }
    Host(const Host &) = delete;
    Host &operator=(const Host &) = delete;

    Link link;
    int peer;
    GuardedPackets rules, rules_of_peer;
    uint64_t improper = 0; ///< messages that must have been refused
    std::vector<Bytes> handed_on;
};

void receive(Host &host, const Bytes &record)
{
    REQUIRE(send(host.peer, record.data(), record.size(), 0) == static_cast<ssize_t>(record.size()),
            "a send");
    const unsigned messages_before = host.rules.messages;
    host.rules.take(record);
    const bool has_message = host.rules.messages > messages_before;
    const bool is_handed_on = has_message && is_proper(host.rules.message);
    host.improper += has_message && !is_handed_on;
    host.handed_on.clear();
    REQUIRE(link_poll(host.link, 0), "a record that has come");
    require_same("messages handed on", host.handed_on.size(), is_handed_on);
    REQUIRE(!is_handed_on || host.handed_on[0] == host.rules.message, "the message",
            hex_of(host.rules.message));
    const LinkCounts &counts = host.link.counts;
    require_same("received", counts.messages_received, host.rules.messages);
    require_same("refused", counts.refused, host.rules.refused + host.improper);
    require_same("dropped by CRC", counts.crc_wrong, host.rules.packets.crc_wrong);
    require_same("not complete", counts.incomplete, host.rules.interrupted);
}

void send_message(Host &host, const Bytes &message)
{
    link_send(host.link, message);
    Bytes record(record_bytes_max);
    for (ssize_t n; (n = recv(host.peer, record.data(), record.size(), 0)) > 0;)
        host.rules_of_peer.take({record.begin(), record.begin() + n});
    REQUIRE(host.rules_of_peer.message == message, "what the peer gets", hex_of(host.rules_of_peer.message),
            hex_of(message));
    host.rules_of_peer.message.clear();
}

void act(Host &host, FuzzedDataProvider &input)
{
    switch (input.ConsumeIntegralInRange(0, 5)) {
    case 0:
        send_message(host, any_message(input));
        break;
    case 1:
        link_forget_peer(host.link);
        host.rules.packets.length = 0;
        break;
    case 2:
        show(input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange<size_t>(0, 64)));
        break;
    case 3: {
        Bytes record = input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange<size_t>(1, record_bytes_max));
        record.resize(std::max<size_t>(record.size(), 1));
        receive(host, record);
        break;
    }
    default:
        for (const Bytes &packet : packets_of(any_message(input)))
            receive(host, packet);
    }
}

} // namespace

const int input_bytes_max = 1024; // a message has 700 bytes at most

void work_on(FuzzedDataProvider &input)
{
    output = {.json = input.ConsumeBool(), .quiet = true, .verbose = true};
    run_to_end([&] {
        Host host;
        while (input.remaining_bytes() > 0)
            act(host, input);
    });
}
