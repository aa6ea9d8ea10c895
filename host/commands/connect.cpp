// connect: announces the host and shows what comes, answers with their round trip. monitor: shows what comes.

#include "announcer.h"
#include "call.h"
#include "common/clock.h"
#include "errors.h"

#include <CLI/CLI.hpp>

#include <math.h>

#include <algorithm>
#include <numeric>

namespace
{

double in_ms(double seconds)
{
    return round(seconds * 1e6) / 1000;
}

/// The least, the mean and the most of round trips in seconds.
Json trips_json(const std::vector<double> &trips)
{
    if (trips.empty())
        return nullptr;
    const auto [least, most] = std::ranges::minmax(trips);
    return {in_ms(least), in_ms(std::reduce(trips.begin(), trips.end()) / static_cast<double>(trips.size())),
            in_ms(most)};
}

/// What --verbose shows as events anyway is not shown twice.
void show_coming(ByteView message)
{
    if (!output.json || !output.verbose)
        show_message(Way::in, message, wall_clock());
}

void announce_to_the_end(Session &session, Announcer &announcer, std::vector<double> &trips, Outcome &outcome)
{
    auto report = [&] {
        outcome.result = {
            {"announced", announcer.sent}, {"answered", trips.size()}, {"round_trip_ms", trips_json(trips)}};
    };
    session.on_message = [&](ByteView message, double time) {
        if (auto seconds = answered(announcer, message, time))
            trips.push_back(*seconds);
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
    std::vector<double> trips;
    announce_to_the_end(session, announcer, trips, outcome);
    note("announced " + std::to_string(announcer.sent) + " times, answered " + std::to_string(trips.size()) +
         " times" +
         (trips.empty() ? "" : ", round trip " + trips_json(trips).dump() + " ms (least, mean, most)"));
    if (trips.empty())
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
    sub->add_option("--seconds", *seconds, "stop after N seconds (at Ctrl-C)")->check(CLI::Range(0.001, 1e9));
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
