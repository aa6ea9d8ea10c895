// Opening the link, and what ends a command.

#include "call.h"

#include "common/clock.h"
#include "common/interrupt.h"
#include "errors.h"

#include <CLI/CLI.hpp>

#include <math.h>

#include <algorithm>

namespace
{

const double no_end = std::numeric_limits<double>::infinity();

/// The seconds of a command begin with the opening of its link.
void limit_time(Session &session, const Command &command)
{
    if (command.seconds > 0 && session.ends_at == no_end)
        session.ends_at = seconds_now() + command.seconds;
}

/// The proof in the result of a command while nothing has shown that it is done; null for commands that show
/// nothing.
Json no_proof(const std::string &command)
{
    const char *const shown[] = {"connect", "update", "send-file", "query", "post", "test-pattern"};
    return std::ranges::find(shown, command) == std::end(shown) ? Json() : Json("none");
}

/// Waits for one peer, then takes the socket away again.
void wait_for_peer(Session &session, const std::string &path, double wait_s)
{
    Transport &transport = session.link.transport;
    const double end = seconds_now() + wait_s;
    const Listener listener(path);
    note("waiting for a peer at " + path);
    while (!transport_accept(transport, listener, end - seconds_now())) {
        transport.may_go_on();
        if (seconds_now() >= end)
            throw Failure(fault::cannot_open,
                          "socket " + path + ": nobody has come; start the other end, or --wait longer");
    }
}

} // namespace

std::string name_of(const Place &place)
{
    return place.kind + ":" + place.path;
}

void open_link(Session &session, const LinkOptions &options, const Command &command)
{
    const Place &place = options.places.at(0);
    Transport &transport = session.link.transport;
    session.name = name_of(place);
    session_start(session);
    limit_time(session, command);
    transport.paced = !options.unpaced;
    if (!options.record.empty())
        transport_record(transport, options.record);
    try {
        if (place.kind == "device")
            transport_open_device(transport, place.path);
        else if (place.kind == "socket")
            transport_connect(transport, place.path, options.wait_s);
        else if (!command.takes_peers)
            wait_for_peer(session, place.path, options.wait_s);
    } catch (const Failure &) {
        throw;
    } catch (const TimeUp &) {
        throw Failure(fault::cannot_open,
                      session.name + ": nobody has come in time; start the other end first");
    } catch (const std::runtime_error &error) {
        throw Failure(fault::cannot_open, error.what());
    }
}

Ended carry_out(const Command &command, Session &session, bool unverified_ok)
{
    Ended ended = {.command = command.name, .link = session.name};
    Outcome outcome = {.proof = no_proof(command.name)};
    const double started_at = seconds_now();
    session.ends_in_order = command.watches;
    limit_time(session, command);
    try {
        command.run(session, outcome);
    } catch (const Failure &failure) {
        if (unverified_ok && failure.fault == fault::unverified)
            note(failure.what());
        else
            ended.fault = failure.fault, ended.text = failure.what();
    }
    ended.proof = outcome.proof;
    ended.result = outcome.result;
    ended.answer = outcome.answer;
    ended.counts = counts_json(session.link);
    ended.seconds = round((seconds_now() - started_at) * 1000) / 1000;
    session.on_message = nullptr;
    session.link.on_progress = nullptr;
    session.outlives_peer = session.ends_in_order = false;
    session.ends_at = no_end;
    return ended;
}

std::string command_among(const CLI::App &app, const std::vector<std::string> &words)
{
    for (const std::string &word : words)
        if (!app.get_subcommands([&](const CLI::App *sub) { return sub->get_name() == word; }).empty())
            return word;
    return "";
}

Ended failed(const std::string &command, const std::exception &reason)
{
    const auto *failure = dynamic_cast<const Failure *>(&reason);
    return {.command = command,
            .proof = no_proof(command),
            .fault = failure == nullptr ? fault::internal : failure->fault,
            .text = reason.what()};
}
