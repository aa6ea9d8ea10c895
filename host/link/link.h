// The packet link on a transport: messages down to packets, by the library of the loader, and packets up to
// messages; all of it counted.
#pragma once

#include "link/reassembly.h"
#include "link/transport.h"

#include <functional>

struct LinkCounts {
    uint64_t messages_sent = 0;
    uint64_t messages_received = 0;
    uint64_t resent = 0;     ///< transmissions after the first of a message
    uint64_t crc_wrong = 0;  ///< messages dropped for their CRC
    uint64_t incomplete = 0; ///< messages of which packets were missing when the next one began
    uint64_t duplicates = 0; ///< messages received again with the number of the one before
    uint64_t unseen = 0;     ///< messages that came while a confirm was awaited, which drops them
    uint64_t refused = 0;    ///< packets and messages that break the rules
};

struct Link {
    Transport transport;
    Reassembly reassembly;
    LinkCounts counts;

    /// Gets each message that keeps the rules of the link, and when its last packet came.
    std::function<void(ByteView message, double time)> on_message;
    /// Gets bytes sent so far, and all, after each packet of an outgoing message.
    std::function<void(uint64_t, uint64_t)> on_progress;

    // The link's own.
    struct qel_comms *comms = nullptr;
    std::array<uint8_t, packet_bytes_max> packet = {}; ///< being built
    uint64_t message_bytes = 0;                        ///< of the message that is being sent
    uint64_t message_sent = 0;                         ///< and how much of it is on its way
    double read_at = 0;                                ///< when the transport was read last
};

/// Sends a message. Throws Failure as transport_send does.
void link_send(Link &link, ByteView message);

/// Takes in what has come, after waiting up to `wait_s`, at most a twentieth of a second, for it. Returns
/// whether there was anything.
bool link_poll(Link &link, double wait_s);

/// Forgets a message in progress: the next peer begins anew.
void link_forget_peer(Link &link);

/// The counts as the results of --json have them.
Json counts_json(const Link &link);

/// The counts as a line.
std::string counts_text(const Link &link);
