// qel-host: the other end of the host link, for people who make, test and service cabinets. This file reads
// the command line, opens the link, runs the command, prints its result and turns that into an exit code.

#include "arguments.h"
#include "call.h"
#include "common/clock.h"
#include "common/interrupt.h"
#include "common/version.h"
#include "errors.h"

#include <CLI/CLI.hpp>

#include <math.h>
#include <signal.h>
#include <stdlib.h>

#include <algorithm>

namespace
{

const char *const exit_codes =
    "Exit codes: 0 done; 1 not done, or not known to be; 2 wrong call; 3 this computer;\n"
    "4 a check of the link's libraries; 5 interrupted; 6 sent, but nothing can show that\n"
    "it arrived. QEL_HOST_LINK=device:NODE, socket:PATH or listen:PATH says where the\n"
    "other end is when no option does.\n";

// ---- Options ----

const char *const link_group = "Where the other end is, and how to talk to it";

void add_place(CLI::App &app, LinkOptions &options, const std::string &kind, const std::string &what)
{
    app.add_option_function<std::string>(
           "--" + kind,
           [&options, kind](const std::string &path) {
               options.places.push_back({kind, path});
           },
           what)
        ->trigger_on_parse()
        ->group(link_group);
}

void add_options(CLI::App &app, Call &call)
{
    app.set_version_flag("--version", std::string("qel-host ") + qel_version);
    app.add_flag("--json", call.output.json, "print JSON, an object for each line; the last is the result");
    app.add_flag("--quiet", call.output.quiet, "print only errors and results");
    app.add_flag("--verbose", call.output.verbose, "show every message, in and out");
    app.add_flag("--unverified-ok", call.unverified_ok, "exit code 0 instead of 6");
    app.add_flag("--one-of-several", call.one_of_several)->group(""); // of run_on_several
    add_place(app, call.link, "device", "the board driver's node, as /dev/qellpc_host_comms");
    add_place(app, call.link, "socket", "a socket to connect to: the simulated cabinet, or a qel-host");
    add_place(app, call.link, "listen", "a socket to make, to wait there for a peer");
    app.add_option("--wait", call.link.wait_s, "seconds to try while nobody is at the socket (5)")
        ->check(CLI::Range(0.0, 1e9))
        ->group(link_group);
    app.add_flag("--no-pacing", call.link.unpaced,
                 "no pause of 15 ms before each packet; not for a real board")
        ->group(link_group);
    app.add_option("--record", call.link.record, "record the link to this pcapng file")->group(link_group);
}

void add_commands(CLI::App &app, Call &call)
{
    add_connect(app, call.command);
    add_monitor(app, call.command);
    add_update(app, call.command);
    add_send_file(app, call.command);
    add_query(app, call.command);
    add_post(app, call.command);
    add_test_pattern(app, call.command);
    add_batch(app, call.command, call);
    add_serve(app, call.command);
    add_trace(app, call.command);
    add_catalogue(app, call.command);
    add_completion(app, call.command);
    for (CLI::App *sub : app.get_subcommands({}))
        add_options(*sub, call);
}

// ---- Where the other end is ----

void take_environment(LinkOptions &options)
{
    const char *value = getenv("QEL_HOST_LINK");
    if (value == nullptr || !options.places.empty())
        return;
    std::string text = value;
    size_t colon = std::min(text.find(':'), text.size());
    std::string kind = text.substr(0, colon), path = colon == text.size() ? "" : text.substr(colon + 1);
    if (path.empty() || (kind != "device" && kind != "socket" && kind != "listen"))
        wrong_call("QEL_HOST_LINK is \"" + text + "\"; make it device:NODE, socket:PATH or listen:PATH");
    options.places.push_back({kind, path});
}

void check_places(const LinkOptions &options, const Command &command)
{
    if (options.places.empty())
        wrong_call("say where the other end is, with --device, --socket or --listen");
    if (options.places.size() == 1)
        return;
    bool listens =
        std::ranges::any_of(options.places, [](const Place &place) { return place.kind == "listen"; });
    if (listens || !command.takes_several)
        wrong_call(
            "name one link; update, send-file, query, post and batch take several --device and --socket");
    if (!options.record.empty())
        wrong_call("a recording is of one link: leave out --record, or name one link");
}

// ---- Running ----

Ended run_on_link(Call &call)
{
    static Session session; // for the life of the process, as the library keeps its callbacks
    Ended ended;
    try {
        open_link(session, call.link, call.command);
        ended = carry_out(call.command, session, call.unverified_ok);
    } catch (const std::exception &error) {
        ended = failed(call.command.name, error);
    }
    ended.link = session.name;
    transport_read(session.link.transport); // so that the other end is not reset for what was not read
    if (!ended.counts.is_null())
        note(counts_text(session.link));
    return ended;
}

Ended run_without_link(const Call &call)
{
    Session none;
    Ended ended = carry_out(call.command, none, call.unverified_ok);
    ended.link = ended.counts = nullptr;
    return ended;
}

int show(const Ended &ended)
{
    if (ended.fault.exit != 0)
        print_error(ended.text);
    try {
        print_result(ended);
    } catch (const Failure &failure) {
        print_error(failure.what());
        return failure.fault.exit;
    }
    return ended.fault.exit;
}

int run(Call &call)
{
    Ended ended;
    try {
        if (call.command.has_link) {
            take_environment(call.link);
            check_places(call.link, call.command);
        }
        if (call.command.check)
            call.command.check();
        if (call.command.has_link && call.link.places.size() > 1)
            return run_on_several(call);
        ended = call.command.has_link ? run_on_link(call) : run_without_link(call);
    } catch (const std::exception &error) {
        ended = failed(call.command.name, error);
    }
    ended.seconds = round((seconds_now() - call.started_at) * 1000) / 1000;
    return show(ended);
}

/// The result of a call that cannot be read, in the form and under the name that it was meant to have.
Ended wrong_words(const CLI::App &app, const Call &call, const CLI::ParseError &error)
{
    output.json = std::ranges::find(call.words, "--json") != call.words.end();
    return failed(command_among(app, call.words),
                  Failure(fault::wrong_call, std::string(error.what()) + " (--help shows how)"));
}

int read_and_run(int argc, char **argv)
{
    Call call;
    call.started_at = seconds_now();
    call.words.assign(argv + 1, argv + argc);
    CLI::App app("The other end of the cabinet's host link.", "qel-host");
    app.require_subcommand(1);
    app.footer(exit_codes);
    add_options(app, call);
    add_commands(app, call);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        if (error.get_exit_code() != 0)
            return show(wrong_words(app, call, error));
        std::string text = error.get_name() == "CallForVersion" ? error.what() : app.help();
        return show({.answer = text.substr(0, text.find_last_not_of('\n') + 1)});
    }
    output = call.output;
    if (call.one_of_several)
        output.link = name_of(call.link.places.at(0));
    return run(call);
}

} // namespace

int main(int argc, char **argv)
{
    signal(SIGPIPE, SIG_IGN);
    catch_interrupts(fault::interrupted.exit);
    try {
        return read_and_run(argc, argv);
    } catch (const std::exception &error) {
        print_error(error.what());
        return fault::internal.exit;
    }
}
