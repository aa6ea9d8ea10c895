/// The one model of the host link: words, packets and messages. Tests hold the product and qel-host against
/// it and play the other end with it. It is written from the rules of the link and not from the code, as
/// plainly as possible.
#pragma once

#include "support/bytes.h"

#include <deque>
#include <set>

// ---- Words ----

inline void put_word(Bytes &message, size_t offset, uint32_t value)
{
    for (size_t i = 0; i < 4 && offset + i < message.size(); ++i)
        message[offset + i] = static_cast<uint8_t>(value >> 8 * i);
}

inline uint32_t word(const Bytes &message, size_t offset)
{
    uint32_t value = 0;
    for (size_t i = 4; i-- > 0;)
        value = value << 8 | message[offset + i];
    return value;
}

/// Low word first.
inline uint64_t long_word(const Bytes &message, size_t offset)
{
    return uint64_t{word(message, offset + 4)} << 32 | word(message, offset);
}

// ---- Packets ----

inline unsigned crc16_of(const Bytes &message)
{
    unsigned crc = 0x1D0F;
    for (const uint8_t byte : message) {
        crc ^= unsigned{byte} << 8;
        for (int bit = 0; bit < 8; ++bit)
            crc = crc & 0x8000 ? (crc << 1 ^ 0x1021) & 0xFFFF : crc << 1;
    }
    return crc;
}

/// The packets of a message, as they are sent.
inline std::vector<Bytes> packets_of(const Bytes &message, size_t packet_size = 35)
{
    const unsigned crc = crc16_of(message);
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

/// The receiving of packets.
struct PacketModel {
    size_t packet_size = 35;
    size_t memory_max = SIZE_MAX; ///< the longest message that there is memory for
    size_t length = 0, room = 0;
    bool has_buffer = false;
    unsigned crc = 0, crc_wrong = 0;
    Bytes message = {};
    std::deque<Bytes> delivered = {};

    /// A packet of `len` bytes, in a buffer of a packet's size at least. Returns the check that stops, or "".
    std::string take(const Bytes &packet, size_t len)
    {
        if (len == 0)
            return "len > 0";
        if (len > packet_size)
            return "len <= comms->packet_size_max";
        size_t header = 1;
        if (packet[0] < 128) {
            if (len < 7)
                return "len > 6";
            header = 6;
            length = size_t{packet[0]} << 24 | size_t{packet[1]} << 16 | size_t{packet[2]} << 8 | packet[3];
            crc = unsigned{packet[4]} * 256 + packet[5];
            message.clear();
            if (length > room) {
                room = length;
                has_buffer = length <= memory_max;
            }
            if (!has_buffer)
                return "buf";
        }
        // Every packet but the last counts as full, whatever its length.
        const size_t taken = std::min(packet_size - header, length - message.size());
        const auto first = packet.begin() + static_cast<long>(header);
        message.insert(message.end(), first, first + static_cast<long>(taken));
        if (length > 0 && message.size() == length) {
            if (crc16_of(message) == crc)
                delivered.push_back(message);
            else
                ++crc_wrong;
            length = 0;
        }
        return "";
    }
};

// ---- Messages ----

inline bool is_sequenced(uint32_t type)
{
    static const std::set<uint32_t> types = {1,  2,  3,  4,  7,  8,  9,  13, 14, 17, 18, 19,
                                             20, 21, 22, 23, 24, 28, 29, 32, 33, 34, 35, 36,
                                             37, 39, 40, 41, 42, 43, 44, 45, 46, 47, 48, 49};
    return types.count(type) > 0;
}

/// A message: its type, and in place of its size what follows that.
inline Bytes message_of(uint8_t type, const std::string &rest)
{
    const Bytes body = bytes_of(rest);
    Bytes message = {type, 0, 0, 0, 0, 0, 0, 0};
    message.insert(message.end(), body.begin(), body.end());
    put_word(message, 4, static_cast<uint32_t>(message.size()));
    return message;
}

/// A message with a number, and zeros behind it.
inline Bytes numbered(uint32_t type, uint8_t number, size_t size = 12)
{
    Bytes message(size);
    put_word(message, 0, type);
    put_word(message, 4, static_cast<uint32_t>(size));
    message[8] = number;
    return message;
}

/// The confirm of the message with this number.
inline Bytes confirm_with(uint8_t number)
{
    return numbered(15, number);
}

inline Bytes confirm_of(const Bytes &message)
{
    return confirm_with(message.at(8));
}

/// The receiving of messages.
struct MessageModel {
    uint8_t awaited = 0; ///< number whose confirm is
    uint8_t last = 0;    ///< accepted
    bool waits = false;  ///< for a reply of type `wanted`, which has so much room
    uint32_t wanted = 0, room = 0;
    std::deque<Bytes> to_confirm, to_hand_on;
    Bytes reply;
    unsigned repeats = 0, dropped_unconfirmed = 0, dropped_waiting = 0;

    /// Returns the check that stops, or "".
    std::string receive(const Bytes &message)
    {
        if (message.size() < 8 || word(message, 4) != message.size())
            return "len == sysmsg->msg_size";
        const uint32_t type = word(message, 0);
        const uint8_t number = message.size() > 8 ? message[8] : 0;
        if (awaited) {
            if (type == 15 && number == awaited)
                awaited = 0;
            else
                ++dropped_unconfirmed;
            return "";
        }
        if (is_sequenced(type)) {
            if (message.size() < 12)
                return "sysmsg->msg_size >= sizeof(struct qel_sysmsg_confirmed)";
            if (number == 0)
                return "confirmed->sequence";
            to_confirm.push_back(confirm_with(number));
            if (number == last) {
                ++repeats;
                return "";
            }
            last = number;
        }
        if (!waits) {
            to_hand_on.push_back(message);
        } else if (type != wanted) {
            ++dropped_waiting;
        } else {
            if (message.size() > room)
                return "sysmsg->msg_size <= wait_buf_size";
            reply = message;
            waits = false;
        }
        return "";
    }
};
