/// Keeps the books of one end of the host link, from outside: it sees the packets that reach the end and
/// the messages that leave it, and tells what the end must hand on, confirm and return. Written from the
/// rules of the link and not from the code, as plainly as possible.
#pragma once

#include "support/bytes.h"

#include <string.h>

#include <deque>

class LinkReferee
{
  public:
    /// The end starts a sequenced send, waiting for a reply of type `wanted` (0 for none).
    void starts(int wanted)
    {
        active = 1;
        wanted_type = wanted;
        awaited = 0;
        confirmed = 0;
        reply.clear();
    }
    /// The end sent a message.
    void sends(const Bytes &message)
    {
        if (is_sequenced(message[0]) && active && !confirmed)
            awaited = message[8];
        else if (message[0] == 15)
            confirms_sent.push_back(message[8]);
    }
    /// The end polls: its buffer for packets is empty.
    void polls()
    {
        memset(buffer, 0, sizeof buffer);
    }
    /// A packet reaches the end.
    void receives(const Bytes &packet)
    {
        memcpy(buffer, packet.data(), packet.size());
        const int is_first = packet[0] < 0x80;
        if (is_first) {
            missing = word(buffer, 0);
            crc = static_cast<uint16_t>(buffer[4] << 8 | buffer[5]);
            assembled.clear();
        } else if (missing == 0) {
            return;
        }
        // Every packet but the last counts as full, whatever its length.
        const size_t header = is_first ? 6 : 1;
        const size_t n = std::min<size_t>(35 - header, missing);
        assembled.insert(assembled.end(), buffer + header, buffer + header + n);
        missing -= static_cast<uint32_t>(n);
        if (missing > 0 || assembled.empty())
            return;
        if (crc16(assembled) == crc)
            arrives(assembled);
        else
            dropped_by_crc++;
    }
    /// The end ends its sequenced send. Returns what the result must be.
    int ends()
    {
        const int result = confirmed && (!wanted_type || !reply.empty());
        active = 0;
        awaited = 0;
        wanted_type = 0;
        return result;
    }

    std::deque<Bytes> to_hand_on;      ///< what the handler must get next
    std::deque<uint8_t> to_confirm;    ///< numbers it must confirm next
    std::deque<uint8_t> confirms_sent; ///< numbers it did confirm
    Bytes reply;                       ///< the reply that its current send must get
    int confirmed = 0;                 ///< its current send is confirmed
    int dropped_by_crc = 0, dropped_as_repeat = 0, dropped_while_unconfirmed = 0, dropped_while_waiting = 0;

    static int is_sequenced(int type)
    {
        return strchr("\1\2\3\4\7\10\11\15\16\21\22\23\24\25\26\27\30\34\35\40\41\42\43\44\45"
                      "\47\50\51\52\53\54\55\56\57\60\61",
                      type) != nullptr &&
               type != 0;
    }
    static uint16_t crc16(const Bytes &message)
    {
        uint32_t crc_register = 0x1D0F;
        for (const uint8_t byte : message) {
            crc_register ^= static_cast<uint32_t>(byte) << 8;
            for (int bit = 0; bit < 8; bit++)
                crc_register =
                    crc_register & 0x8000 ? (crc_register << 1 ^ 0x1021) & 0xFFFF : crc_register << 1;
        }
        return static_cast<uint16_t>(crc_register);
    }

  private:
    static uint32_t word(const uint8_t *bytes, int offset)
    {
        return static_cast<uint32_t>(bytes[offset] << 24 | bytes[offset + 1] << 16 | bytes[offset + 2] << 8 |
                                     bytes[offset + 3]);
    }
    /// A whole message reaches the end.
    void arrives(const Bytes &message)
    {
        if (awaited && !confirmed) {
            if (message[0] == 15 && message[8] == awaited)
                confirmed = 1;
            else
                dropped_while_unconfirmed++;
            return;
        }
        if (is_sequenced(message[0])) {
            to_confirm.push_back(message[8]);
            if (message[8] == last_number) {
                dropped_as_repeat++;
                return;
            }
            last_number = message[8];
        }
        if (!active || !wanted_type || !reply.empty())
            to_hand_on.push_back(message);
        else if (message[0] == wanted_type)
            reply = message;
        else
            dropped_while_waiting++;
    }

    uint8_t buffer[64] = {};
    Bytes assembled;
    uint32_t missing = 0;
    uint16_t crc = 0;
    int active = 0, wanted_type = 0;
    uint8_t awaited = 0, last_number = 0;
};

/// The packets of a message, as they are sent.
inline std::vector<Bytes> packets_of(const Bytes &message, size_t packet_size = 35)
{
    const unsigned crc = LinkReferee::crc16(message);
    const auto size = static_cast<uint32_t>(message.size());
    std::vector<Bytes> packets = {{static_cast<uint8_t>(size >> 24), static_cast<uint8_t>(size >> 16),
                                   static_cast<uint8_t>(size >> 8), static_cast<uint8_t>(size),
                                   static_cast<uint8_t>(crc >> 8), static_cast<uint8_t>(crc)}};
    for (size_t at = 0; at < message.size();) {
        if (at > 0)
            packets.push_back({0x80});
        const size_t end = std::min(message.size(), at + packet_size - packets.back().size());
        packets.back().insert(packets.back().end(), &message[at], message.data() + end);
        at = end;
    }
    return packets;
}
