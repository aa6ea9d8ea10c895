// Announcements of the host (type 5): every half second, each with its own value, so that an answer shows
// which one it answers, and that it answers this process.
#pragma once

#include "session.h"

#include <map>
#include <optional>

struct Announcer {
    uint32_t next_value; ///< of the next announcement
    double next_at = 0;  ///< when it is due, as by seconds_now
    unsigned sent = 0;
    std::map<uint32_t, double> open = {}; ///< values without an answer yet, and when they were sent
};

/// Values start where no other process of today is likely to have started.
Announcer announcer_start();

/// Announces if it is time to.
void announce_if_due(Session &session, Announcer &announcer);

/// The seconds that an answer took; nothing when the message does not answer an announcement of ours.
std::optional<double> answered(Announcer &announcer, ByteView message, double time);
