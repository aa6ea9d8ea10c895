// A message that comes takes these steps. While a confirm is awaited, only that is seen; the rest is dropped
// unconfirmed, and the other end repeats it. Otherwise the message is confirmed, dropped if it is a
// repetition, taken as the answer that is awaited, or handed to the command.

#include "session.h"

#include "common/clock.h"
#include "common/interrupt.h"
#include "errors.h"

#include "qel_tolbrin/qel_sysmsg.h"

#include <algorithm>
#include <utility>

namespace
{

const int transmissions_max = 3;
const double answer_s = 15;
const double opening_s = 10;
const uint32_t opening_type = 35;

void may_go_on(const Session &session)
{
    if (interrupted() && !session.ends_in_order)
        throw Failure(fault::interrupted, "interrupted");
    if (interrupted() || seconds_now() >= session.ends_at)
        throw TimeUp();
}

/// A peer that has gone meanwhile has still sent the message; its going is noticed when nothing more comes.
void confirm(Session &session, ByteView message)
{
    try {
        session_send(session,
                     build_message(qel_sysmsg_type_confirmed, {{"sequence", uint64_t{number_of(message)}}}));
    } catch (const Failure &failure) {
        if (failure.fault != fault::hung_up)
            throw;
    }
}

bool is_awaited_confirm(const Session &session, ByteView message)
{
    return type_of(message) == qel_sysmsg_type_confirmed && message.size() > 8 &&
           message[8] == session.awaited;
}

void take(Session &session, ByteView message, double time)
{
    if (session.awaited != 0 && is_awaited_confirm(session, message)) {
        session.awaited = 0;
        return;
    }
    if (session.awaited != 0) {
        session.link.counts.unseen += type_of(message) != qel_sysmsg_type_confirmed;
        return;
    }
    uint8_t number = number_of(message);
    if (number != 0)
        confirm(session, message);
    if (number != 0 && number == std::exchange(session.last_received, number)) {
        ++session.link.counts.duplicates;
        return;
    }
    if (type_of(message) == session.answer_type && session.answer.empty())
        session.answer.assign(message.begin(), message.end());
    else if (session.on_message)
        session.on_message(message, time);
}

uint8_t next_number(uint8_t number)
{
    return number == 255 ? uint8_t{1} : static_cast<uint8_t>(number + 1);
}

/// Transmits a message, already numbered, until it is confirmed, three times at most and not beyond `end`.
bool transmit(Session &session, ByteView message, double end)
{
    session.awaited = number_of(message);
    ++session.link.counts.messages_sent;
    for (int i = 0; i < transmissions_max && session.awaited != 0 && seconds_now() < end; ++i) {
        session.link.counts.resent += i > 0;
        link_send(session.link, message);
        session_wait(session, std::min(confirm_s, end - seconds_now()), [&] { return session.awaited == 0; });
    }
    return std::exchange(session.awaited, uint8_t{0}) == 0;
}

void number_message(Session &session, Message &message)
{
    session.number = next_number(session.number);
    message[8] = session.number;
}

} // namespace

void session_start(Session &session)
{
    session.link.on_message = [&session](ByteView message, double time) { take(session, message, time); };
    session.link.transport.may_go_on = [&session] { may_go_on(session); };
}

void session_forget_peer(Session &session)
{
    session.opened = false;
    session.last_received = 0;
    session.awaited = 0;
    session.answer_type = 0;
    link_forget_peer(session.link);
}

void session_poll(Session &session, double wait_s)
{
    may_go_on(session);
    bool anything = link_poll(session.link, std::min(wait_s, session.ends_at - seconds_now()));
    // A peer that answers and hangs up at once has answered: its going counts when nothing more comes.
    if (!anything && !session.link.transport.gone.empty() && !session.outlives_peer)
        throw Failure(fault::hung_up, session.link.transport.gone);
    if (!anything && session.link.transport.descriptor < 0)
        short_sleep(wait_s);
}

bool session_wait(Session &session, double seconds, const std::function<bool()> &enough)
{
    const double end = seconds_now() + seconds;
    for (;;) {
        if (enough && enough())
            return true;
        double left = end - seconds_now();
        if (left <= 0)
            return false;
        session_poll(session, left);
    }
}

void session_send(Session &session, ByteView message)
{
    ++session.link.counts.messages_sent;
    link_send(session.link, message);
}

void session_open(Session &session)
{
    if (session.opened)
        return;
    session_poll(session, 0); // confirms that an earlier process did not wait for
    const double end = seconds_now() + opening_s;
    uint64_t received_before;
    do {
        received_before = session.link.counts.messages_received;
        Message opening = build_message(opening_type);
        number_message(session, opening);
        session.opened = transmit(session, opening, end);
    } while (!session.opened && session.link.counts.messages_received != received_before &&
             seconds_now() < end);
    if (!session.opened)
        throw Failure(fault::no_peer,
                      "nobody confirms the opening of the session; see whether the other end runs, "
                      "and is at this end of the link, and try again");
}

bool session_request(Session &session, Message &message)
{
    session_open(session);
    number_message(session, message);
    return transmit(session, message, std::numeric_limits<double>::infinity());
}

void session_require(Session &session, Message &message, const std::string &what)
{
    if (!session_request(session, message))
        throw Failure(fault::not_confirmed, what +
                                                " was not confirmed, but may have arrived; see whether the "
                                                "other end is still there");
}

Message session_ask(Session &session, Message &message, uint32_t answer_type)
{
    bool sequenced = qel_sysmsg_has_sequence(type_of(message)) != 0;
    if (sequenced)
        session_open(session);
    session.answer.clear();
    session.answer_type = answer_type;
    const double end = seconds_now() + answer_s;
    if (sequenced)
        session_require(session, message, catalogue_name(type_of(message)));
    else
        session_send(session, message);
    bool answered = session_wait(session, end - seconds_now(), [&] { return !session.answer.empty(); });
    session.answer_type = 0;
    if (!answered)
        throw Failure(fault::no_answer, "no answer to " + catalogue_name(type_of(message)) +
                                            " for 15 s; ask an end that knows it, or try again");
    return session.answer;
}

void require_fitting(ByteView answer)
{
    if (!misfit(answer).empty())
        throw Failure(fault::bad_answer, "the answer does not fit: " + describe_message(answer) +
                                             "; see whether both ends are of the same release");
}
