// connect: announces the host and shows what comes, answers with their round trip. monitor: shows what comes.

#include "announcer.h"
#include "call.h"
#include "common/clock.h"
#include "errors.h"

#include <CLI/CLI.hpp>

#include <math.h>

#include <algorithm>

namespace
{

struct RoundTrips {
    unsigned answered = 0;
    double sum = 0, least = 1e9, most = 0;
};

void count_trip(RoundTrips &trips, double seconds)
{
    ++trips.answered;
    trips.sum += seconds;
    trips.least = std::min(trips.least, seconds);
    trips.most = std::max(trips.most, seconds);
}

double in_ms(double seconds)
{
    return round(seconds * 1e6) / 1000;
}

Json trips_json(const RoundTrips &trips)
{
    if (trips.answered == 0)
        return nullptr;
    return {in_ms(trips.least), in_ms(trips.sum / trips.answered), in_ms(trips.most)};
}

/// What --verbose shows as events anyway is not shown twice.
void show_coming(ByteView message)
{
    if (!output.json || !output.verbose)
        show_message(Way::in, message, wall_clock());
}

void announce_to_the_end(Session &session, Announcer &announcer, RoundTrips &trips, Outcome &outcome)
{
    auto report = [&] {
        outcome.result = {{"announced", announcer.sent},
                          {"answered", trips.answered},
                          {"round_trip_ms", trips_json(trips)}};
    };
    session.on_message = [&](ByteView message, double time) {
        if (auto seconds = answered(announcer, message, time))
            count_trip(trips, *seconds);
        report();
        show_coming(message);
    };
    try {
        for (report();; report()) {
            announce_if_due(session, announcer);
            report();
            session_poll(session, announcer.next_at - seconds_now());
        }
    } catch (const TimeUp &) {
    }
}

void run_connect(Session &session, Outcome &outcome)
{
    Announcer announcer = announcer_start();
    RoundTrips trips;
    announce_to_the_end(session, announcer, trips, outcome);
    note("announced " + std::to_string(announcer.sent) + " times, answered " +
         std::to_string(trips.answered) + " times" +
         (trips.answered == 0 ? "" : ", round trip " + trips_json(trips).dump() + " ms (least, mean, most)"));
    if (trips.answered == 0)
        throw Failure(fault::no_answer,
                      "the other end did not answer; see whether it is in update mode, or another "
                      "qel-host that serves");
    outcome.proof = "answered";
}

void run_monitor(Session &session, Outcome &outcome)
{
    unsigned messages = 0;
    outcome.result = {{"messages", messages}};
    session.on_message = [&](ByteView message, double) {
        outcome.result = {{"messages", ++messages}};
        show_coming(message);
    };
    try {
        for (;;)
            session_poll(session, 1);
    } catch (const TimeUp &) {
    }
}

template <typename Run>
void add(CLI::App &app, Command &command, const std::string &name, const std::string &what, Run run)
{
    auto seconds = std::make_shared<double>(0);
    CLI::App *sub = app.add_subcommand(name, what);
    sub->add_option("--seconds", *seconds, "end after so many seconds (until Ctrl-C)")
        ->check(CLI::Range(0.001, 1e9));
    sub->callback([=, &command] {
        command = {.name = name, .watches = true, .seconds = *seconds};
        command.run = [=](Session &session, Outcome &outcome) { run(session, outcome); };
    });
}

} // namespace

void add_connect(CLI::App &app, Command &command)
{
    add(app, command, "connect", "Announce the host every 500 ms and show what comes", run_connect);
}

void add_monitor(CLI::App &app, Command &command)
{
    add(app, command, "monitor", "Show what comes; send confirms only", run_monitor);
}
