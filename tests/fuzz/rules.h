/// Rules that several targets hold the product against, written down once more and as plainly as possible:
/// what qel-host refuses, and the characters of paths. Packets and messages are in support/link_model.h.
#pragma once

#include "fuzz/fuzz.h"
#include "support/link_model.h"

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

// ---- qel-host ----

/// qel-host's receiving of packets: what would stop the libraries is refused, and ends a message in progress
/// if it looks like the start of one.
struct GuardedPackets {
    PacketModel packets; ///< in which a message takes the memory of what has come of it
    unsigned messages = 0, interrupted = 0, stray = 0, refused = 0;
    Bytes message; ///< the last one that was delivered

    void take(Bytes packet)
    {
        const size_t len = packet.size();
        const bool is_first = len > 0 && packet[0] < 128;
        interrupted += is_first && packets.length > 0;
        packet.resize(std::max<size_t>(len, 35)); // what a short one leaves out counts as zeros
        const bool is_empty = !(packet[0] | packet[1] | packet[2] | packet[3]);
        if (len == 0 || len > 35 || (is_first && (len < 7 || is_empty))) {
            ++refused;
            packets.length = is_first ? 0 : packets.length;
        } else if (!is_first && packets.length == 0) {
            ++stray;
        } else {
            packets.take(packet, len);
        }
        if (packets.delivered.empty())
            return;
        ++messages;
        message.swap(packets.delivered.front());
        packets.delivered.clear();
    }
};
