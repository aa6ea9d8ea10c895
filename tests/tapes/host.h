// The other end of the host link, and the link itself as the loader builds it.
#pragma once

#include "support/link_model.h"
#include "tapes/ground.h"

#include "qel_tolbrin/qel_comms.h"
#include "qel_tolbrin/qel_lpc_comms.h"
#include "qel_tolbrin/qel_sysmsg.h"

#include <deque>
#include <functional>

/// The host as a list of what looks at the device find.
struct Host {
    explicit Host(Ground &world);
    Host(const Host &) = delete;
    Host &operator=(const Host &) = delete;

    /// The next look takes so long and then finds a message, or nothing. The clock may also be set by it.
    /// Looks that no list says anything about find nothing for half a second.
    void finds(long ms, const Bytes &message = {});
    /// A number for a message of the host's: the same in a run, and not the one of the run before.
    uint8_t number() const
    {
        return first_number;
    }

    ssize_t look(void *bytes, size_t size);
    void take(const uint8_t *packet, size_t size);

    Ground &ground;
    std::function<void(const Bytes &message)> on_message; ///< a whole message has come
    uint8_t first_number;
    struct Look {
        long ms;
        Bytes packet;
    };
    std::deque<Look> looks;
    bool has_found = false; ///< the packet of this poll
    Bytes message;          ///< that is coming
    size_t missing = 0;
};

/// Transport, packets and messages. What is handed on shows as a line of the console.
struct Link {
    explicit Link(Ground &ground);

    Host host;
    qel_lpc lpc = {Ground::link_descriptor, nullptr, nullptr};
    qel_comms comms = {};
    qel_sysmsg_con con = {};
};
