// update: sends an updater, which takes the loader's place. Nothing confirms it. It is shown by the loader,
// which gave signs of life until then and does not answer any more.

#include "announcer.h"
#include "arguments.h"
#include "call.h"
#include "common/clock.h"
#include "errors.h"
#include "progress.h"
#include "updater_file.h"

#include "qel_tolbrin/qel_sysmsg.h"

#include <CLI/CLI.hpp>

#include <math.h>

namespace
{

const double quiet_s = 0.5;       // after the transmission nothing is sent
const double sign_age_max_s = 3;  // of the last sign of life when the watch begins
const double look_every_s = 0.01; // whether everything has been read
const double stuck_s = 10;

struct UpdateOptions {
    std::string file;
    int tries = 3;
    double loader_wait_s = 60;
    double watch_s = 3;
    std::string expect;
    uint32_t expected_type = 0; ///< of `expect`, 0 when nothing is expected
    bool force = false;
};

/// An update at work.
struct Update {
    Session &session;
    Outcome &outcome;
    const UpdateOptions &options;
    Announcer announcer;
    double last_sign = -1;  ///< when the loader last gave one, as by seconds_now; negative before the first
    bool answers = false;   ///< it has answered an announcement
    double watch_from = -1; ///< negative outside of the watch
    bool expected = false;  ///< the message that is expected has come in the watch
};

bool is_notice(ByteView message)
{
    return type_of(message) == qel_sysmsg_type_notify_11;
}

void take(Update &update, ByteView message, double time)
{
    bool is_sign = is_notice(message) || type_of(message) == qel_sysmsg_type_connect_answer;
    if (is_sign)
        update.last_sign = time;
    if (answered(update.announcer, message, time))
        update.answers = true;
    bool watching = update.watch_from >= 0;
    if (watching && is_notice(message) && time > update.watch_from + quiet_s)
        update.answers = true;
    if (watching && update.options.expect != "" && type_of(message) == update.options.expected_type &&
        misfit(message).empty())
        update.expected = true;
}

void wait_for_loader(Update &update)
{
    note("waiting for the loader");
    const double end = seconds_now() + update.options.loader_wait_s;
    while (!update.answers && (update.announcer.sent == 0 || seconds_now() < end)) {
        announce_if_due(update.session, update.announcer);
        session_wait(update.session, std::min(update.announcer.next_at, end) - seconds_now(),
                     [&] { return update.answers; });
    }
    if (!update.answers)
        throw Failure(fault::no_loader,
                      "no loader answered; switch the cabinet to update mode and on, wait for "
                      "\"TOLBRIN Update...\" on its display, and try again");
    note("the loader answers");
}

void send_image(Update &update)
{
    Message message = updater_message(update.options.file);
    Progress progress = progress_start("updater", message.size());
    update.session.link.on_progress = [&](uint64_t done, uint64_t) { progress_show(progress, done); };
    session_send(update.session, message);
    update.session.link.on_progress = nullptr;
    double seconds = seconds_now() - progress.started_at;
    note("updater sent: " + std::to_string(message.size() - 12) + " bytes, " +
         rate_text(message.size(), seconds));
}

/// Whether the peer has gone. From a device it does not go in order.
bool is_gone(const Transport &transport)
{
    if (transport.is_device && !transport.gone.empty())
        throw Failure(fault::hung_up, transport.gone);
    return !transport.gone.empty();
}

/// Waits until everything has been read. Returns whether the peer has gone.
bool wait_until_read(Update &update)
{
    const Transport &transport = update.session.link.transport;
    int unread = transport_unread(transport);
    double since = seconds_now();
    for (; unread > 0 && transport.gone.empty(); session_poll(update.session, 0), short_sleep(look_every_s)) {
        if (seconds_now() - since >= stuck_s)
            throw Failure(fault::stuck,
                          "the other end has read nothing for 10 s; see whether it still runs, or "
                          "restart it");
        if (transport_unread(transport) == unread)
            continue;
        unread = transport_unread(transport);
        since = seconds_now();
    }
    session_poll(update.session, 0);
    if (transport.was_reset)
        throw Failure(fault::hung_up,
                      "the other end has hung up before it had read all of the updater; see whether "
                      "it is still there, and try again");
    if (is_gone(transport))
        return true;
    update.watch_from = seconds_now();
    return false;
}

/// An announcement to a peer that goes at the same moment is not an error.
void announce_in_watch(Update &update)
{
    try {
        announce_if_due(update.session, update.announcer);
    } catch (const Failure &failure) {
        if (update.session.link.transport.gone.empty())
            throw;
    }
}

/// What the watch has shown: a proof, "none", or "" when the updater was not taken.
std::string watch(Update &update)
{
    const Transport &transport = update.session.link.transport;
    const bool expects = update.options.expect != "";
    const double end = update.watch_from + update.options.watch_s;
    unsigned announced_before = update.announcer.sent;
    update.announcer.next_at = update.watch_from + (expects ? 1e9 : quiet_s);
    while (seconds_now() < end) {
        session_wait(update.session, std::min(update.announcer.next_at, end) - seconds_now(),
                     [&] { return update.answers || update.expected || is_gone(transport); });
        if (update.expected)
            return "message";
        if (is_gone(transport))
            return expects ? "none" : "gone";
        if (update.answers)
            return "";
        if (seconds_now() < end)
            announce_in_watch(update);
    }
    bool was_there = update.last_sign >= 0 && update.watch_from - update.last_sign <= sign_age_max_s;
    return was_there && update.announcer.sent > announced_before ? "silent" : "none";
}

void report(Update &update, int tries, uint64_t bytes)
{
    double from = update.watch_from >= 0 ? update.watch_from : seconds_now();
    update.outcome.result = {{"bytes", bytes},
                             {"tries", tries},
                             {"last_sign_s", update.last_sign < 0
                                                 ? Json()
                                                 : Json(round((from - update.last_sign) * 1000) / 1000)}};
}

/// One try. Returns as watch does.
std::string try_once(Update &update, int tries, uint64_t bytes)
{
    update.watch_from = -1;
    update.answers = update.expected = false;
    report(update, tries, bytes);
    send_image(update);
    update.announcer.open.clear(); // a late answer says nothing of the loader of now
    update.session.outlives_peer = true;
    update.answers = false;
    bool gone = wait_until_read(update);
    report(update, tries, bytes);
    std::string proof = gone ? (update.options.expect.empty() ? "gone" : "none") : watch(update);
    update.session.outlives_peer = false;
    return proof;
}

void conclude(const Update &update, const std::string &proof)
{
    if (proof.empty())
        throw Failure(fault::still_loader,
                      "the loader is still there, so it did not get the updater whole; try again, "
                      "on a bad link with more --tries");
    if (proof == "none" && !update.options.expect.empty())
        throw Failure(fault::no_updater, "no " + update.options.expect +
                                             " came from the updater; see what the "
                                             "display shows, and whether the updater sends it on the link");
    if (proof == "none")
        throw Failure(fault::unverified,
                      "the updater is sent, but nothing shows that the loader took it; look at the "
                      "display, or have the updater speak and use --expect");
    update.outcome.proof = proof;
    note(proof == "silent"
             ? "the loader is silent: the updater has taken its place, or the cabinet has stopped"
         : proof == "message" ? "the updater has spoken"
                              : "the other end has hung up, as it had read everything");
}

void run_update(Session &session, Outcome &outcome, const UpdateOptions &options)
{
    Update update = {session, outcome, options, announcer_start()};
    session.on_message = [&](ByteView message, double time) { take(update, message, time); };
    uint64_t bytes = open_file(options.file).size;
    wait_for_loader(update);
    std::string proof;
    for (int tries = 1; tries <= options.tries && proof.empty(); ++tries) {
        if (tries > 1)
            note("the loader still answers: sending again");
        proof = try_once(update, tries, bytes);
    }
    session.on_message = nullptr;
    session_forget_peer(session); // what answers from now on is another program
    conclude(update, proof);
}

void check_update(UpdateOptions &options)
{
    if (!options.expect.empty()) {
        to_message(options.expect, options.expected_type);
        for (uint32_t type :
             {qel_sysmsg_type_notify_11, qel_sysmsg_type_confirmed, qel_sysmsg_type_connect_answer})
            if (options.expected_type == type)
                wrong_call("a loader sends " + catalogue_name(type) + " as well; expect another message");
    }
    check_updater(options.file, options.force);
}

} // namespace

void add_update(CLI::App &app, Command &command)
{
    auto options = std::make_shared<UpdateOptions>();
    CLI::App *sub = app.add_subcommand("update", "Send an updater, which takes the loader's place");
    sub->add_option("file", options->file, "the program: static ELF for i386 or x86-64, or a script")
        ->required();
    sub->add_option("--tries", options->tries, "send it up to N times while the loader does not take it (3)")
        ->check(CLI::Range(1, 1000000));
    sub->add_option("--loader-wait", options->loader_wait_s,
                    "seconds to wait for the loader's first answer (60)")
        ->check(CLI::Range(0.0, 1e9));
    sub->add_option("--watch", options->watch_s, "seconds to watch that the loader is silent afterwards (3)")
        ->check(CLI::Range(0.0, 1e9));
    sub->add_option("--expect", options->expect,
                    "a message by which the updater shows itself within the watch");
    sub->add_flag("--force", options->force, "send FILE whatever it looks like");
    sub->callback([=, &command] {
        command = {.name = "update", .takes_several = true};
        command.check = [=] { check_update(*options); };
        command.run = [=](Session &session, Outcome &outcome) { run_update(session, outcome, *options); };
    });
}
