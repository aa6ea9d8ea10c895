// A session with the other end: numbers, confirms, repeats, answers and their time limits, and what ends a
// wait. All commands share it.
//
// Sequenced messages are confirmed one at a time. Before the first, an opening is sent: a message of type 35,
// which nobody acts upon. The other end remembers only the last message's number and drops a message with the
// same one. Once the opening is confirmed, that number is the opening's, whatever an earlier process has
// sent.
#pragma once

#include "link/link.h"

#include <functional>
#include <limits>

struct Session {
    Link link;
    /// Gets what nothing waits for: the time is that of its last packet, as by seconds_now.
    std::function<void(ByteView message, double time)> on_message;
    double ends_at = std::numeric_limits<double>::infinity(); ///< then TimeUp is thrown, whatever is awaited
    bool ends_in_order = false; ///< an interrupt is TimeUp, too; otherwise it is a Failure
    bool outlives_peer = false; ///< the peer may go; otherwise that is a Failure

    // The session's own.
    bool opened = false;
    uint8_t number = 1;        ///< that was used last
    uint8_t last_received = 0; ///< number of the last sequenced message that was taken
    uint8_t awaited = 0;       ///< number whose confirm is awaited, or 0
    uint32_t answer_type = 0;  ///< type that is awaited as the answer, or 0
    Message answer;            ///< empty until it has come
    std::string name;          ///< the other end, as "socket:/tmp/link"
};

/// How long a confirm is awaited after each of the three transmissions, and how often announcements go out.
constexpr double confirm_s = 1;
constexpr double announce_every_s = 0.5;

/// Connects the layers.
void session_start(Session &session);

/// The next peer begins anew: what was known of the one before is forgotten.
void session_forget_peer(Session &session);

/// Takes in what has come, after waiting up to `wait_s`, at most a twentieth of a second, for it. Throws what
/// ends the session.
void session_poll(Session &session, double wait_s);

/// Takes in what comes for `seconds`, or until `enough` (if given) holds. Returns whether it does.
bool session_wait(Session &session, double seconds, const std::function<bool()> &enough = nullptr);

/// Sends a message that is not sequenced.
void session_send(Session &session, ByteView message);

/// Opens the session unless it is open.
void session_open(Session &session);

/// Numbers a sequenced message and sends it, after the opening, until it is confirmed. Returns whether it
/// was.
bool session_request(Session &session, Message &message);

/// The same, throwing Failure when it is not confirmed; what it was is `what`.
void session_require(Session &session, Message &message, const std::string &what);

/// Sends a message and waits for its answer of that type, which may be any message of it. Throws Failure when
/// it is not confirmed, or not answered.
Message session_ask(Session &session, Message &message, uint32_t answer_type);

/// Throws Failure unless the answer is as the catalogue has it.
void require_fitting(ByteView answer);
