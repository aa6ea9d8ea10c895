/// What the tests of the system messages' core have in common: a peer, a message and a buffer for a reply.
#pragma once

#include "support/scripted_peer.h"
#include "support/stops.h"

#include <gtest/gtest-printers.h>

constexpr const char *sysmsg_unit = "qel_tolbrin/qel_sysmsg";

/// A message without a body.
inline const char *const post_22 = "16 00 00 00 0C 00 00 00 00 00 00 00";

/// A reply of type 29 that says `value`.
inline Bytes reply_29(uint8_t number, uint8_t value)
{
    return {29, 0, 0, 0, 16, 0, 0, 0, number, 0, 0, 0, value, 0, 0, 0};
}

struct Sysmsg : testing::Test {
    Sysmsg()
    {
        qel_sysmsg_forget_sequence();
    }
    int request()
    {
        return qel_sysmsg_request(&peer.con, message.data());
    }
    /// Sends the message and waits for a reply of type 29.
    int query()
    {
        return qel_sysmsg_send_sequenced(&peer.con, message.data(), 1, 29, reply, sizeof reply);
    }

    ScriptedPeer peer;
    Bytes message = bytes_of(post_22);
    uint8_t reply[16] = {};
};

/// Queries whose peer confirms and answers at once, with number 9.
struct Query : Sysmsg {
    /// The request, when it was sent once and its answer was confirmed; whatever else was sent, else.
    std::string request_sent()
    {
        if (peer.transmissions.size() != 2 ||
            hex_of(peer.transmissions[1]) != "0F 00 00 00 0C 00 00 00 09 00 00 00")
            return testing::PrintToString(peer.sent);
        return shown(peer.transmissions[0]);
    }
};
