// First packet                                    Continuation
//   0  4  message length, top bit 0                 0  1  0x80 (only the top bit counts)
//   4  2  CRC-16 of the whole message               1  n  the next bytes of the message
//   6  n  the first bytes of the message
//
// Numbers are big-endian. Every packet but the last is full: where one is not, what it leaves out counts as
// zeros.

#include "link/reassembly.h"

#include "qel_tolbrin/qel_comms.h"

#include <algorithm>

namespace
{

const size_t first_header_bytes = 6;
const size_t continuation_header_bytes = 1;

/// Reads the head of a packet of 1 byte or more.
PacketReport read_head(ByteView packet)
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

/// What keeps the packet from being taken, or null.
const char *reason_to_refuse(ByteView packet, const PacketReport &head)
{
    if (packet.size() > packet_bytes_max)
        return "longer than packets of this link";
    if (head.is_first && packet.size() <= first_header_bytes)
        return "a first packet without a byte of its message";
    if (head.is_first && head.message_bytes == 0)
        return "a message of length 0";
    return nullptr;
}

/// Adds what the packet carries after its header.
void store(Reassembly &reassembly, ByteView packet, size_t header_bytes)
{
    size_t n = std::min(packet_bytes_max - header_bytes, reassembly.missing);
    ByteView there = packet.subspan(header_bytes, std::min(n, packet.size() - header_bytes));
    reassembly.message.insert(reassembly.message.end(), there.begin(), there.end());
    reassembly.message.resize(reassembly.message.size() + n - there.size());
    reassembly.missing -= n;
}

} // namespace

PacketReport reassembly_take(Reassembly &reassembly, ByteView packet)
{
    if (packet.empty()) {
        PacketReport empty;
        empty.reason = "empty";
        return empty;
    }
    PacketReport report = read_head(packet);
    report.interrupts = report.is_first && reassembly.missing > 0;
    if (report.is_first)
        reassembly.missing = 0;
    report.reason = reason_to_refuse(packet, report);
    if (report.reason != nullptr)
        return report;
    report.reason = "";
    report.outcome = PacketOutcome::stray;
    if (!report.is_first && reassembly.missing == 0)
        return report;
    if (report.is_first) {
        reassembly.message.clear();
        reassembly.missing = report.message_bytes;
        reassembly.crc = report.crc;
    }
    store(reassembly, packet, report.is_first ? first_header_bytes : continuation_header_bytes);
    report.outcome = PacketOutcome::more;
    if (reassembly.missing == 0) {
        uint16_t crc = qel_crc16(reassembly.message.data(), static_cast<int>(reassembly.message.size()));
        report.outcome = crc == reassembly.crc ? PacketOutcome::delivered : PacketOutcome::crc_wrong;
    }
    return report;
}
