/// The host end of the link: transport, packets and messages put together from the product's libraries,
/// guarded against what a peer could do to them, counted, and interruptible.
#pragma once

#include <stdint.h>

#include <functional>
#include <span>
#include <string>

#include "qel_tolbrin/qel_sysmsg.h"
#include "reassembly.h"
#include "transport.h"

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
    qel_sysmsg_con *con = nullptr;
    LinkCounts counts;

    /// Gets what passes the filters of the message layer; may send unsequenced messages.
    std::function<void(std::span<const uint8_t>)> on_message;
    /// Is told of every packet of an outgoing message: bytes sent so far, and all.
    std::function<void(uint64_t, uint64_t)> on_progress;
    /// The reply that the command waits for and how long it may be: the message layer stops on a longer one.
    uint32_t reply_type = 0;
    uint32_t reply_bytes_max = 0;
    /// Whether the command goes on when the peer hangs up; otherwise that is thrown as LinkError.
    bool outlives_peer = false;

    // The link's own.
    bool receiving = false;     ///< input is being handed on
    uint64_t message_bytes = 0; ///< of the message that is being sent
    uint64_t message_sent = 0;  ///< and how much of it is on its way
    uint8_t last_sent = 0;      ///< number of the last sequenced message sent
    uint8_t last_confirmed = 0; ///< number in the last confirm sent
    bool reached = false;       ///< the message being received got through to something
};

/// Builds the stack on the link's transport, which is open or will be. There is one link in a process.
void link_start(Link &link);

/// Takes in what has come, waiting up to `wait_ms` for it. Throws LinkError when the peer is gone, and
/// CommandError when the user has interrupted.
void link_poll(Link &link, int wait_ms);

/// Takes in what comes for `seconds`, or until `enough` (if given) says so. Returns whether it did.
bool link_poll_for(Link &link, double seconds, const std::function<bool()> &enough = nullptr);

/// A new peer starts to count from the beginning.
void link_forget_peer(Link &link);

/// Prints the counts.
void link_print_counts(const Link &link);

/// From now on SIGINT and SIGTERM end commands in an orderly way.
void catch_interrupts();
bool was_interrupted();

/// Seconds on a clock that only runs forward.
double seconds_now();
