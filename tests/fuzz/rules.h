/// Rules that several targets hold the product against, written down once more and as plainly as possible:
/// packets, messages, what qel-host refuses, and the characters of paths.
#pragma once

#include "fuzz/fuzz.h"
#include "support/link_referee.h"

#include <deque>
#include <string>
#include <string_view>
#include <vector>

/// May stand in a path; about slashes there are other rules.
inline bool is_allowed(char c)
{
    const auto byte = static_cast<unsigned char>(c);
    return byte >= 128 ||
           (byte >= ' ' && byte <= '~' && std::string_view("\\:*?\"<>|").find(c) == std::string_view::npos);
}

/// What the product has given out must be the next of what it has to give out.
inline void take_expected(std::deque<Bytes> &expected, const Bytes &found, const char *what)
{
    REQUIRE(!expected.empty(), what, hex_of(found), "nothing");
    REQUIRE(found == expected.front(), what, hex_of(found), hex_of(expected.front()));
    expected.pop_front();
}

// ---- Packets ----

/// Receiving packets.
struct PacketRules {
    explicit PacketRules(size_t link_packet_size) : packet_size(link_packet_size) {}
    size_t packet_size;
    size_t length = 0, room = 0;
    bool has_buffer = false;
    unsigned crc = 0;
    Bytes message;
    std::deque<Bytes> delivered;

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
                has_buffer = length <= heap_block_bytes_max;
            }
            if (!has_buffer)
                return "buf";
        }
        const size_t taken = std::min(packet_size - header, length - message.size());
        const auto first = packet.begin() + static_cast<long>(header);
        message.insert(message.end(), first, first + static_cast<long>(taken));
        if (length > 0 && message.size() == length) {
            if (LinkReferee::crc16(message) == crc)
                delivered.push_back(message);
            length = 0;
        }
        return "";
    }
};

/// qel-host's receiving of packets: what would stop the libraries is refused, and ends a message in progress
/// if it looks like the start of one.
struct GuardedPacketRules {
    GuardedPacketRules()
    {
        packets.room = SIZE_MAX; // a message takes the memory of what has come of it
        packets.has_buffer = true;
    }
    PacketRules packets{35};
    unsigned messages = 0, crc_wrong = 0, interrupted = 0, stray = 0, refused = 0;
    Bytes message; ///< the last one that was delivered

    void take(Bytes packet)
    {
        const size_t len = packet.size();
        const bool is_first = len > 0 && packet[0] < 128;
        interrupted += is_first && packets.length > 0;
        packet.resize(std::max<size_t>(len, 35)); // what a short one leaves out counts as zeros
        const size_t says =
            size_t{packet[0]} << 24 | size_t{packet[1]} << 16 | size_t{packet[2]} << 8 | packet[3];
        if (len == 0 || len > 35 || (is_first && (len < 7 || says == 0))) {
            ++refused;
            packets.length = is_first ? 0 : packets.length;
        } else if (!is_first && packets.length == 0) {
            ++stray;
        } else {
            packets.take(packet, len);
            count_whole();
        }
    }

  private:
    void count_whole()
    {
        if (packets.length > 0)
            return;
        if (packets.delivered.empty()) {
            ++crc_wrong;
            return;
        }
        ++messages;
        message.swap(packets.delivered.front());
        packets.delivered.clear();
    }
};

// ---- Messages ----

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

inline bool is_sequenced(uint32_t type)
{
    return type < 50 && LinkReferee::is_sequenced(static_cast<int>(type));
}

/// Receiving messages.
struct MessageRules {
    uint8_t awaited = 0, last = 0;
    bool waits = false;
    uint32_t wanted = 0, room = 0;
    std::deque<Bytes> to_confirm, to_hand_on;
    Bytes reply;

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
            return "";
        }
        if (is_sequenced(type)) {
            if (message.size() < 12)
                return "sysmsg->msg_size >= sizeof(struct qel_sysmsg_confirmed)";
            if (number == 0)
                return "confirmed->sequence";
            to_confirm.push_back({15, 0, 0, 0, 12, 0, 0, 0, number, 0, 0, 0});
            if (number == last)
                return "";
            last = number;
        }
        if (!waits) {
            to_hand_on.push_back(message);
        } else if (type == wanted) {
            if (message.size() > room)
                return "sysmsg->msg_size <= wait_buf_size";
            reply = message;
            waits = false;
        }
        return "";
    }
};
