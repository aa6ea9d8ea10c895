// Packets from an untrusted peer or file put together to messages, as the packet link of the loader does it,
// for any number of directions at once. What would stop the loader is refused here.
#pragma once

#include "fields.h"

#include <stdint.h>

/// The largest packet of this link, in bytes.
constexpr size_t packet_bytes_max = 35;

enum class PacketOutcome {
    more,      ///< the message goes on
    delivered, ///< this packet completed a message
    crc_wrong, ///< it completed a message that is dropped
    stray,     ///< a continuation without a message
    refused,   ///< breaks the rules, `reason` says which
};

struct PacketReport {
    bool is_first = false;
    uint32_t message_bytes = 0; ///< of a first packet: the length and the CRC it declares
    uint16_t crc = 0;
    bool interrupts = false; ///< a first packet, taken or refused, while another message was not complete
    PacketOutcome outcome = PacketOutcome::refused;
    const char *reason = "";
};

struct Reassembly {
    Message message;    ///< what has come of it; whole after `delivered`
    size_t missing = 0; ///< bytes that are still to come, 0 when no message is in progress
    uint16_t crc = 0;   ///< that it is to have
};

/// Takes any bytes as a packet.
PacketReport reassembly_take(Reassembly &reassembly, ByteView packet);
