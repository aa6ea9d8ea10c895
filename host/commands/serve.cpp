// serve: the end of the link that answers. Queries are answered after the poll that brought them, because
// nothing sequenced may be sent while a message is being taken in.
//
// Where answers come from: the folder for whatever is a file (plugins/ID, items/NAME, any path), options for
// values whose meaning is not known here. Deciphering is not known either: the bytes come back as they are.

#include "arguments.h"
#include "call.h"
#include "commands/folder.h"
#include "common/clock.h"
#include "common/interrupt.h"
#include "errors.h"

#include "qel_tolbrin/qel_sysmsg.h"

#include <CLI/CLI.hpp>

#include <unistd.h>

#include <algorithm>
#include <deque>

namespace
{

const size_t requests_max = 64; // beyond, queries are dropped: a peer waits for the answer to each
const double notice_every_s = 1;

struct ServeOptions {
    std::string folder;
    bool once = false;  ///< end with the first peer
    double seconds = 0; ///< 0: until interrupted
    bool notices = false;
    std::vector<std::string> info = {"0", "0", "0"}, values = {"0", "0"};
    std::string answer, text;
};

struct Server {
    Session &session;
    const ServeOptions &options;
    Folder folder;
    IncomingFile incoming = {};
    std::deque<Message> requests = {}; ///< queries without an answer yet
    unsigned messages = 0;             ///< that have been shown
    bool announced = false;            ///< the peer has announced itself since the last look
    bool has_updater = false;          ///< the peer has sent an updater, with which a loader would be gone
    uint64_t next_counter[2] = {};     ///< of the test patterns, unsequenced and sequenced; 0 at first
};

std::string text_of(const FieldValues &fields, const char *name)
{
    return std::get<std::string>(fields.at(name));
}

// ---- What comes without wanting an answer ----

void report(const std::string &what, const std::string &problem)
{
    if (!problem.empty())
        print_error(what + ": " + problem);
}

void begin_file(Server &server, const std::string &path)
{
    report("file " + in_quotes(path), incoming_begin(server.incoming, server.folder, path));
}

/// Without a file, or after a problem with it, the data is nobody's; file_end says so once.
void add_to_file(Server &server, const std::string &bytes)
{
    std::string path = server.incoming.path;
    if (!path.empty())
        report("file " + in_quotes(path), incoming_add(server.incoming, bytes));
}

void end_file(Server &server, unsigned mode)
{
    std::string path = server.incoming.path;
    uint64_t bytes = server.incoming.bytes;
    std::string problem = incoming_end(server.incoming, mode);
    report("end of file " + in_quotes(path), problem);
    if (problem.empty())
        note("received " + in_quotes(path) + ", " + std::to_string(bytes) + " bytes");
}

void take_updater(Server &server, const std::string &image)
{
    std::string problem = incoming_begin(server.incoming, server.folder, "updater");
    if (problem.empty())
        problem = incoming_add(server.incoming, image);
    report("updater", problem);
    if (problem.empty())
        end_file(server, 0755);
    server.has_updater = true;
}

/// Whether the counters of a test pattern go on from the pattern before.
void check_counters(Server &server, const FieldValues &fields, bool sequenced)
{
    const auto &counters = std::get<std::vector<uint64_t>>(fields.at("counters"));
    uint64_t &next = server.next_counter[sequenced ? 1 : 0];
    if (next != 0 && counters.front() != next)
        note("the counters jump from " + std::to_string(next - 1) + " to " +
             std::to_string(counters.front()));
    next = counters.front() + counters.size();
}

// ---- Answers ----

bool is_query(uint32_t type)
{
    const CatalogueMessage *known = catalogue_find(type);
    return known != nullptr && known->answer != 0 && qel_sysmsg_has_sequence(type) != 0;
}

/// The fields of the answer to a query of this type, which asks with the fields `asked`.
FieldValues answer_to(const Server &server, uint32_t type, const FieldValues &asked)
{
    const ServeOptions &options = server.options;
    const auto &info = options.info, &values = options.values;
    FieldValues answer = asked;
    switch (type) {
    case qel_sysmsg_type_get_plugins:
        return {{"plugins", folder_numbers(server.folder, "plugins")}};
    case qel_sysmsg_type_query_23:
        return {{"text", options.answer}};
    case qel_sysmsg_type_path_exists:
        return {{"exists", uint64_t{folder_has(server.folder, text_of(asked, "path"))}}};
    case qel_sysmsg_type_get_info:
        return {{"a", to_number(info[0], UINT32_MAX)},
                {"b", to_number(info[1], UINT32_MAX)},
                {"c", to_number(info[2], UINT32_MAX)}};
    case qel_sysmsg_type_get_item_size:
        answer["item_size"] = folder_file_size(server.folder, "items/" + text_of(asked, "name"));
        return answer;
    case qel_sysmsg_type_query_41:
        return {{"first", to_number(values[0], UINT64_MAX)}, {"second", to_number(values[1], UINT64_MAX)}};
    case qel_sysmsg_type_get_plugin_size:
        answer["plugin_size"] = folder_file_size(
            server.folder, "plugins/" + std::to_string(std::get<uint64_t>(asked.at("plugin_id"))));
        return answer;
    case qel_sysmsg_type_get_text: // without a text there are no bytes at all, not even a NUL
        return options.text.empty() ? FieldValues{} : FieldValues{{"text", options.text}};
    default: // to be deciphered
        return answer;
    }
}

void answer_requests(Server &server)
{
    while (!server.requests.empty()) {
        Message request = std::move(server.requests.front());
        server.requests.pop_front();
        uint32_t type = type_of(request);
        Message answer =
            build_message(catalogue_find(type)->answer, answer_to(server, type, fields_of(request)));
        try {
            session_require(server.session, answer, "the answer to " + describe_message(request));
        } catch (const Failure &failure) {
            if (failure.fault != fault::no_peer && failure.fault != fault::not_confirmed)
                throw;
            print_error(failure.what());
        }
    }
}

// ---- Messages as they come ----

void act(Server &server, ByteView message)
{
    const FieldValues fields = fields_of(message);
    switch (type_of(message)) {
    case qel_sysmsg_type_connect:
        server.announced = true;
        session_send(server.session, build_message(qel_sysmsg_type_connect_answer, fields));
        break;
    case qel_sysmsg_type_updater:
        take_updater(server, text_of(fields, "block"));
        break;
    case qel_sysmsg_type_file_begin:
        begin_file(server, text_of(fields, "path"));
        break;
    case qel_sysmsg_type_file_data:
        add_to_file(server, text_of(fields, "block"));
        break;
    case qel_sysmsg_type_file_end:
        end_file(server, 0644);
        break;
    case qel_sysmsg_type_test_pattern:
    case qel_sysmsg_type_test_pattern_sequenced:
        check_counters(server, fields, type_of(message) == qel_sysmsg_type_test_pattern_sequenced);
        break;
    default:
        break;
    }
}

void take(Server &server, Outcome &outcome, ByteView message)
{
    if (server.has_updater)
        return; // a loader would be gone
    outcome.result = {{"messages", ++server.messages}};
    if (!output.json || !output.verbose)
        show_message(Way::in, message, wall_clock());
    if (!misfit(message).empty())
        return;
    if (is_query(type_of(message)) && server.requests.size() < requests_max)
        server.requests.emplace_back(message.begin(), message.end());
    act(server, message);
}

// ---- Peers ----

/// Serves until the peer has sent an updater. What ends it otherwise is thrown.
void serve_peer(Server &server)
{
    double next_look = seconds_now() + notice_every_s;
    while (!server.has_updater) {
        session_poll(server.session, next_look - seconds_now());
        answer_requests(server);
        if (seconds_now() < next_look)
            continue;
        next_look += notice_every_s;
        if (server.options.notices && !server.announced)
            session_send(server.session, build_message(qel_sysmsg_type_notify_11));
        server.announced = false;
    }
}

void serve_and_part(Server &server)
{
    try {
        serve_peer(server);
    } catch (const Failure &failure) {
        if (failure.fault != fault::hung_up && failure.fault != fault::stuck)
            throw;
        note(failure.what());
    }
    incoming_drop(server.incoming);
    server.requests.clear();
    transport_hang_up(server.session.link.transport, "served");
}

/// Serves one peer after another.
void serve_peers(Server &server, const std::string &path)
{
    const Listener listener(path);
    note("serving " + server.options.folder + " at " + path);
    Transport &transport = server.session.link.transport;
    do {
        while (!transport_accept(transport, listener, 1))
            transport.may_go_on();
        note("a peer is there");
        server.has_updater = false;
        session_forget_peer(server.session);
        serve_and_part(server);
        note("the peer has gone");
    } while (!server.options.once);
}

void run_serve(Session &session, Outcome &outcome, const ServeOptions &options)
{
    Server server = {session, options, folder_open(options.folder)};
    outcome.result = {{"messages", 0}};
    session.on_message = [&](ByteView message, double) { take(server, outcome, message); };
    const std::string listen = "listen:";
    try {
        if (session.name.starts_with(listen))
            serve_peers(server, session.name.substr(listen.size()));
        else
            serve_and_part(server);
    } catch (const TimeUp &) {
    }
    incoming_drop(server.incoming);
}

void check_serve(const ServeOptions &options)
{
    const size_t text_bytes_max = 511, answer_bytes_max = 100;
    if (options.text.size() > text_bytes_max)
        wrong_call("--text takes at most 511 bytes: shorten it");
    if (options.answer.size() > answer_bytes_max)
        wrong_call("--answer takes at most 100 bytes: shorten it");
    for (const std::string &word : options.info)
        to_number(word, UINT32_MAX);
    for (const std::string &word : options.values)
        to_number(word, UINT64_MAX);
    close(folder_open(options.folder).descriptor);
}

} // namespace

void add_serve(CLI::App &app, Command &command)
{
    auto options = std::make_shared<ServeOptions>();
    CLI::App *sub = app.add_subcommand(
        "serve", "Answer queries and receive files; an updater ends it, as it ends the loader");
    sub->add_option("folder", options->folder, "the other end's root: its files, plugins/ID, items/NAME")
        ->required();
    sub->add_flag("--once", options->once, "with --listen: end with the first peer");
    sub->add_option("--seconds", options->seconds, "stop after N seconds (at Ctrl-C)")
        ->check(CLI::Range(0.001, 1e9));
    sub->add_flag("--notices", options->notices, "send a type-11 notice once a second, as the loader does");
    sub->add_option("--info", options->info, "the three values of get_info")->expected(3);
    sub->add_option("--values", options->values, "the two values of query_41")->expected(2);
    sub->add_option("--answer", options->answer, "the text of query_23");
    sub->add_option("--text", options->text, "the text of get_text");
    sub->callback([=, &command] {
        command = {.name = "serve", .takes_peers = true, .watches = true, .seconds = options->seconds};
        command.check = [=] { check_serve(*options); };
        command.run = [=](Session &session, Outcome &outcome) { run_serve(session, outcome, *options); };
    });
}
