/// Gives packets from an untrusted peer or file to the packet link and tells what became of each. The link
/// stops the program on packets that break its rules; those are kept away from it here.
#pragma once

#include <stdint.h>

#include <functional>
#include <span>
#include <string>

#include "qel_tolbrin/qel_comms.h"

/// The largest packet of this link, in bytes.
constexpr int packet_bytes_max = 35;

/// The largest record of the transports below, in bytes.
constexpr int record_bytes_max = 64;

enum class PacketOutcome {
    more,      ///< the message goes on
    delivered, ///< this packet completed a message
    crc_wrong, ///< it completed a message that was dropped
    stray,     ///< a continuation without a message
    refused,   ///< breaks the rules, `reason` says which; the link has not seen it
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
    qel_comms *comms = nullptr;
    std::function<void(std::span<const uint8_t>)> on_message;
    uint32_t message_bytes_max = 0; ///< longer messages are refused
    uint32_t delivered = 0;         ///< messages so far
    int in_progress = 0;            ///< length of the message that is not complete yet, 0 when none
};

/// Makes `reassembly` the receiver of `comms`; there is one for the whole process, as the link keeps what
/// is half received once. A message in progress is forgotten.
void reassembly_start(Reassembly &reassembly, qel_comms *comms);

/// Takes any bytes as a packet. Calls `on_message` when it completes a message with a right CRC.
PacketReport reassembly_take(Reassembly &reassembly, std::span<const uint8_t> packet);
