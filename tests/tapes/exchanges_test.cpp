// Messages that are confirmed and answered, on the whole link with its pauses: when periods begin and end.

#include "tapes/golden.h"
#include "tapes/host.h"

namespace
{

/// What the product does, and the host when a message comes.
Scenario exchange(const char *name, const std::function<std::string(Link &)> &run,
                  const std::function<void(Host &, const Bytes &)> &on_message = {},
                  const std::vector<std::string> &may_end = {})
{
    const auto play = [=](Ground &ground) {
        Link link(ground);
        if (on_message)
            link.host.on_message = [&, on_message](const Bytes &message) { on_message(link.host, message); };
        return run(link);
    };
    return {name, play, may_end};
}

std::string number(uint8_t value)
{
    return hex_of(&value, 1) + " 00*3 ";
}

bool is_confirm(const Bytes &message)
{
    return message[0] == 15;
}

// ---- Confirms ----

std::string post(Link &link)
{
    return std::to_string(qel_sysmsg_post_22(&link.con));
}

std::string post_two_packets(Link &link)
{
    return std::to_string(qel_sysmsg_post_33(&link.con, "name"));
}

std::string post_in_vain(Link &link)
{
    for (int i = 0; i < 3; ++i) {
        link.host.finds(999);
        link.host.finds(1);
    }
    return post(link);
}

std::string post_and_poll(Link &link)
{
    const std::string result = post(link);
    qel_comms_poll(&link.comms);
    return result;
}

/// The host confirms each transmission, the first a second after it came.
void confirm_late(Host &host, const Bytes &message)
{
    if (host.looks.empty())
        host.finds(1000);
    host.finds(10, confirm_of(message));
}

/// The host sends something of its own first, and repeats it a second later.
void be_busy(Host &host, const Bytes &message)
{
    if (is_confirm(message))
        return;
    const Bytes own = message_of(21, number(host.number()) + "07 00*3");
    host.finds(10, own);
    host.finds(10, confirm_of(message));
    host.finds(980, own);
}

/// The clock is set while the confirm is waited for.
Scenario confirm_at_a_clock_step(const char *name, long step_ms)
{
    return exchange(name, post, [=](Host &host, const Bytes &message) {
        host.finds(step_ms);
        host.finds(20, confirm_of(message));
    });
}

// ---- Replies ----

std::string query(Link &link)
{
    uint64_t size = 0;
    const int result = qel_sysmsg_get_plugin_size(&link.con, 1, &size);
    return std::to_string(result) + ": " + std::to_string(size);
}

std::string query_and_poll(Link &link)
{
    const std::string result = query(link);
    qel_comms_poll(&link.comms);
    return result;
}

Bytes reply_of(const Host &host)
{
    return message_of(44, number(host.number()) + "01 00*3 07 00*7");
}

/// The host confirms and, after so long without anything, replies by a look that takes so long.
std::function<void(Host &, const Bytes &)> reply_after(long silent_ms, long ms)
{
    return [=](Host &host, const Bytes &message) {
        if (is_confirm(message))
            return;
        host.finds(5, confirm_of(message));
        host.finds(silent_ms);
        host.finds(ms, reply_of(host));
    };
}

void reply_first(Host &host, const Bytes &message)
{
    if (is_confirm(message))
        return;
    host.finds(5, reply_of(host));
    host.finds(5, confirm_of(message));
    host.finds(1000, reply_of(host));
}

std::string decipher(Link &link)
{
    const void *plain;
    uint32_t length;
    const int result = qel_sysmsg_decipher(&link.con, "??", 2, &plain, &length);
    return std::to_string(result) + " " +
           std::string(plain ? static_cast<const char *>(plain) : "none", plain ? length : 4);
}

std::string decipher_twice(Link &link)
{
    int queries = 0;
    link.host.on_message = [&](const Bytes &message) {
        if (is_confirm(message))
            return;
        link.host.finds(5, confirm_of(message));
        if (++queries == 1)
            link.host.finds(5, message_of(49, number(link.host.number()) + "02 00*3 'hi'"));
        else
            link.host.finds(14980);
    };
    const std::string first = decipher(link);
    return first + ", " + decipher(link);
}

const std::vector<Scenario> confirms = {
    exchange("Confirmed", post,
             [](Host &host, const Bytes &message) { host.finds(20, confirm_of(message)); }),
    exchange("ConfirmedByTheLastLook", post_two_packets,
             [](Host &host, const Bytes &message) {
                 host.finds(999);
                 host.finds(600, confirm_of(message));
             }),
    exchange("NeverConfirmed", post_in_vain),
    exchange("ConfirmedTooLate", post_and_poll, confirm_late),
    exchange("BothBusy", post_and_poll, be_busy),
};

// What a fault keeps from coming in time.
const std::vector<std::string> in_vain = {"0: 0"};

const std::vector<Scenario> replies = {
    exchange("ReplyBeforeTheConfirm", query, reply_first, in_vain),
    exchange("ReplyAtTheDeadline", query, reply_after(14979, 600), in_vain),
    exchange("ReplyAfterTheDeadline", query_and_poll, reply_after(14980, 0), {"1: 7"}),
    exchange("SameQueryUnanswered", decipher_twice, {}, {"0 none, 0 none"}),
};

const std::vector<Scenario> clock_steps = {
    confirm_at_a_clock_step("ClockSetBackInTheConfirmWait", -5000),
    confirm_at_a_clock_step("ClockAnHourOnInTheConfirmWait", 3600000),
    exchange("ClockSetBackInTheReplyWait", query, reply_after(-5000, 0)),
    exchange("ClockAnHourOnInTheReplyWait", query, reply_after(3600000, 0)),
};

} // namespace

INSTANTIATE_TAPES(confirms, confirms);
INSTANTIATE_TAPES(replies, replies);
INSTANTIATE_TAPES(clock_steps, clock_steps);
