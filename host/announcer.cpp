// A map of what is open.

#include "announcer.h"

#include "common/clock.h"
#include "output.h"

#include "qel_tolbrin/qel_sysmsg.h"

#include <unistd.h>

Announcer announcer_start()
{
    auto milliseconds = static_cast<uint64_t>(wall_clock() * 1000);
    return {static_cast<uint32_t>(milliseconds) ^ static_cast<uint32_t>(getpid()) << 16};
}

void announce_if_due(Session &session, Announcer &announcer)
{
    if (seconds_now() < announcer.next_at)
        return;
    uint32_t value = announcer.next_value++;
    announcer.open[value] = seconds_now();
    announcer.next_at = seconds_now() + announce_every_s;
    ++announcer.sent;
    session_send(session, build_message(qel_sysmsg_type_connect, {{"value", uint64_t{value}}}));
}

std::optional<double> answered(Announcer &announcer, ByteView message, double time)
{
    if (type_of(message) != qel_sysmsg_type_connect_answer || !misfit(message).empty())
        return std::nullopt;
    auto value = static_cast<uint32_t>(std::get<uint64_t>(fields_of(message).at("value")));
    auto open = announcer.open.find(value);
    if (open == announcer.open.end())
        return std::nullopt;
    double seconds = time - open->second;
    announcer.open.erase(open);
    return seconds;
}
