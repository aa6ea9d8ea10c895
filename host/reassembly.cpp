// What became of a packet follows from what the packet link returns and from whether it delivered.

#include "reassembly.h"

#include <string.h>

#include <algorithm>

namespace
{

const size_t first_header_bytes = 6;

void receive(void *context, const void *message, int len)
{
    auto *reassembly = static_cast<Reassembly *>(context);
    reassembly->delivered++;
    reassembly->on_message({static_cast<const uint8_t *>(message), static_cast<size_t>(len)});
}

/// Has the link forget a message in progress: a message of one byte with a wrong CRC starts, and is dropped.
void forget_message(Reassembly &reassembly)
{
    const uint8_t byte = 0;
    auto wrong_crc = static_cast<uint16_t>(~qel_crc16(&byte, 1));
    uint8_t packet[packet_bytes_max] = {
        0, 0, 0, 1, static_cast<uint8_t>(wrong_crc >> 8), static_cast<uint8_t>(wrong_crc), byte};
    reassembly.in_progress = qel_comms_receive_packet(reassembly.comms, packet, first_header_bytes + 1);
}

/// Reads the head of a packet of 1 byte or more.
PacketReport read_head(std::span<const uint8_t> packet)
{
    PacketReport report;
    report.is_first = (packet[0] & 0x80) == 0;
    if (report.is_first && packet.size() >= first_header_bytes) {
        report.message_bytes =
            static_cast<uint32_t>(packet[0] << 24 | packet[1] << 16 | packet[2] << 8 | packet[3]);
        report.crc = static_cast<uint16_t>(packet[4] << 8 | packet[5]);
    }
    return report;
}

/// Returns what keeps the packet from the link, or null.
const char *reason_to_refuse(const Reassembly &reassembly, std::span<const uint8_t> packet,
                             const PacketReport &head)
{
    if (packet.size() > static_cast<size_t>(packet_bytes_max))
        return "longer than packets of this link";
    if (!head.is_first)
        return nullptr;
    if (packet.size() <= first_header_bytes)
        return "a first packet without a byte of its message";
    if (head.message_bytes == 0)
        return "a message of length 0";
    if (head.message_bytes > reassembly.message_bytes_max)
        return "a message longer than can be taken";
    return nullptr;
}

} // namespace

void reassembly_start(Reassembly &reassembly, qel_comms *comms)
{
    reassembly.comms = comms;
    qel_comms_set_receiver(comms, receive, &reassembly);
    forget_message(reassembly);
}

PacketReport reassembly_take(Reassembly &reassembly, std::span<const uint8_t> packet)
{
    PacketReport report;
    if (packet.empty()) {
        report.reason = "empty";
        return report;
    }
    report = read_head(packet);
    bool was_in_progress = reassembly.in_progress > 0;
    report.interrupts = report.is_first && was_in_progress;
    const char *reason = reason_to_refuse(reassembly, packet, report);
    if (reason != nullptr) {
        report.reason = reason;
        if (report.is_first)
            forget_message(reassembly);
        return report;
    }

    // The link copies as if every packet were full, so a short one needs room behind it.
    uint8_t room[packet_bytes_max] = {};
    memcpy(room, packet.data(), packet.size());
    uint32_t delivered_before = reassembly.delivered;
    reassembly.in_progress =
        qel_comms_receive_packet(reassembly.comms, room, static_cast<int>(packet.size()));
    if (reassembly.in_progress > 0)
        report.outcome = PacketOutcome::more;
    else if (reassembly.delivered > delivered_before)
        report.outcome = PacketOutcome::delivered;
    else if (report.is_first || was_in_progress)
        report.outcome = PacketOutcome::crc_wrong;
    else
        report.outcome = PacketOutcome::stray;
    return report;
}
