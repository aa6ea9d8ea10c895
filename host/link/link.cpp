// While a message goes out, what comes is only read: a confirm in between would cut the message in two.

#include "link/link.h"

#include "common/clock.h"
#include "output.h"

#include "qel_tolbrin/qel_comms.h"

namespace
{

const double read_every_s = 0.01;

void *begin_packet(void *context)
{
    return static_cast<Link *>(context)->packet.data();
}

int end_packet(void *context, void *packet, int len, int)
{
    auto &link = *static_cast<Link *>(context);
    const auto *bytes = static_cast<const uint8_t *>(packet);
    bool is_first = (bytes[0] & 0x80) == 0;
    link.transport.may_go_on();
    transport_send(link.transport, {bytes, static_cast<size_t>(len)});
    link.message_sent += static_cast<uint64_t>(len - (is_first ? 6 : 1));
    if (link.on_progress)
        link.on_progress(link.message_sent, link.message_bytes);
    if (seconds_now() >= link.read_at + read_every_s) {
        transport_read(link.transport);
        link.read_at = seconds_now();
    }
    return len;
}

void refuse(Link &link, const std::string &what)
{
    ++link.counts.refused;
    note("ignored: " + what);
}

void take_message(Link &link, ByteView message, double time)
{
    ++link.counts.messages_received;
    show_passing(Way::in, message);
    if (!broken_rule(message).empty())
        return refuse(link, "a message: " + describe_message(message));
    link.on_message(message, time);
}

void take_record(Link &link, const Record &record)
{
    ByteView packet = {record.bytes.data(), record.size};
    PacketReport report = reassembly_take(link.reassembly, packet);
    link.counts.incomplete += report.interrupts;
    link.counts.crc_wrong += report.outcome == PacketOutcome::crc_wrong;
    if (report.outcome == PacketOutcome::refused)
        refuse(link, std::string("a packet: ") + report.reason + ": " + hex_bytes(packet));
    if (report.outcome == PacketOutcome::delivered)
        take_message(link, link.reassembly.message, record.time);
}

} // namespace

void link_send(Link &link, ByteView message)
{
    if (link.comms == nullptr)
        link.comms = qel_comms_create(packet_bytes_max, begin_packet, end_packet, &link, nullptr, nullptr);
    show_passing(Way::out, message);
    link.message_bytes = message.size();
    link.message_sent = 0;
    qel_comms_send(link.comms, message.data(), static_cast<int>(message.size()));
}

bool link_poll(Link &link, double wait_s)
{
    transport_poll(link.transport, wait_s);
    bool anything = !link.transport.input.empty();
    while (!link.transport.input.empty()) {
        Record record = link.transport.input.front();
        link.transport.input.pop_front();
        take_record(link, record);
    }
    return anything;
}

void link_forget_peer(Link &link)
{
    link.reassembly = {};
}

Json counts_json(const Link &link)
{
    const LinkCounts &counts = link.counts;
    return {{"packets_sent", link.transport.records_sent},
            {"packets_received", link.transport.records_received},
            {"messages_sent", counts.messages_sent},
            {"messages_received", counts.messages_received},
            {"resent", counts.resent},
            {"crc_wrong", counts.crc_wrong},
            {"incomplete", counts.incomplete},
            {"duplicates", counts.duplicates},
            {"unseen", counts.unseen},
            {"refused", counts.refused}};
}

std::string counts_text(const Link &link)
{
    std::string text = "link:";
    const Json counts = counts_json(link);
    for (const auto &[name, count] : counts.items()) {
        std::string words = name;
        for (char &character : words)
            character = character == '_' ? ' ' : character;
        text += (text.size() == 5 ? " " : ", ") + words + " " + count.dump();
    }
    return text;
}
