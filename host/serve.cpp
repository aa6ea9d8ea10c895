// The command serve: the end of the link that answers. Queries are answered after the poll that brought
// them, because the message handler itself may not send what is sequenced.
//
// Where answers come from: the folder for whatever is a file (plugins/ID, items/NAME, any path), options
// for values whose meaning is not known here. Deciphering is not known either: the bytes come back as they
// are.

#include "commands.h"

#include <stdio.h>
#include <sys/stat.h>

#include <algorithm>
#include <deque>

#include "describe.h"
#include "errors.h"
#include "folder.h"

namespace
{

const size_t requests_max = 64; // beyond, queries are dropped: a peer waits for the answer to each

using Message = std::vector<uint8_t>;

struct Server {
    Link &link;
    const ServeOptions &options;
    Folder folder;
    IncomingFile incoming;
    std::deque<Message> requests;  ///< queries without an answer yet
    bool announced = false;        ///< the peer has announced itself since the last look
    bool has_updater = false;      ///< the peer has sent an updater, with which a loader would be gone
    uint32_t next_counter[2] = {}; ///< of the test patterns, unsequenced and sequenced; 0 at first
};

// ---- Fields of messages; the catalogue's check has passed ----

uint32_t value_at(const Message &message, int offset)
{
    return qel_sysmsg_get32(message.data(), offset);
}

/// A text field of `size` bytes, up to its NUL.
std::string text_at(const Message &message, size_t offset, size_t size)
{
    auto begin = message.begin() + static_cast<ptrdiff_t>(offset);
    auto end = begin + static_cast<ptrdiff_t>(size);
    return {begin, std::find(begin, end, uint8_t{0})};
}

/// The bytes behind the length at `offset`, to the end of the message.
std::span<const uint8_t> block_at(const Message &message, size_t offset)
{
    return std::span(message).subspan(offset + 4);
}

// ---- What comes without wanting an answer ----

void report(const std::string &what, const std::string &problem)
{
    if (!problem.empty())
        fprintf(stderr, "error: %s: %s\n", what.c_str(), problem.c_str());
}

void begin_file(Server &server, const std::string &path)
{
    report("file " + quoted(path), incoming_begin(server.incoming, server.folder, path));
}

/// Without a file, or after a problem with it, the data is nobody's; file_end says so once.
void add_to_file(Server &server, std::span<const uint8_t> bytes)
{
    std::string path = server.incoming.path;
    if (!path.empty())
        report("file " + quoted(path), incoming_add(server.incoming, bytes));
}

void end_file(Server &server, unsigned mode)
{
    std::string path = server.incoming.path;
    uint64_t bytes = server.incoming.bytes;
    std::string problem = incoming_end(server.incoming, mode);
    report("end of file " + quoted(path), problem);
    if (problem.empty())
        printf("received %s, %llu bytes\n", quoted(path).c_str(), static_cast<unsigned long long>(bytes));
}

void take_updater(Server &server, const Message &message)
{
    std::string problem = incoming_begin(server.incoming, server.folder, "updater");
    if (problem.empty())
        problem = incoming_add(server.incoming, block_at(message, 8));
    report("updater", problem);
    if (problem.empty())
        end_file(server, 0755);
    server.has_updater = true;
}

/// Whether the counters of a test pattern go on from the pattern before.
void check_counters(Server &server, const Message &message, bool sequenced)
{
    std::span<const uint8_t> counters = block_at(message, sequenced ? 12 : 8);
    uint32_t &next = server.next_counter[sequenced ? 1 : 0];
    uint32_t first = qel_sysmsg_get32(counters.data(), 0);
    if (next != 0 && first != next)
        printf("  the counters jump from %u to %u\n", next - 1, first);
    next = first + static_cast<uint32_t>(counters.size() / 4);
}

// ---- Answers; each returns 0 when it was not confirmed ----

int answer_plugins(Server &server, const Message &)
{
    std::vector<uint32_t> plugins = folder_numbers(server.folder, "plugins");
    return qel_sysmsg_reply_plugins(server.link.con, plugins.data(), static_cast<uint32_t>(plugins.size()));
}

int answer_23(Server &server, const Message &)
{
    char text[100] = {};
    snprintf(text, sizeof text, "%s", server.options.answer.c_str());
    return qel_sysmsg_reply_24(server.link.con, text);
}

int answer_path_exists(Server &server, const Message &request)
{
    return qel_sysmsg_reply_path_exists(server.link.con, folder_has(server.folder, text_at(request, 9, 100)));
}

int answer_info(Server &server, const Message &)
{
    const std::vector<uint32_t> &info = server.options.info;
    return qel_sysmsg_reply_info(server.link.con, info[0], info[1], info[2]);
}

int answer_item_size(Server &server, const Message &request)
{
    std::string name = text_at(request, 16, 31);
    return qel_sysmsg_reply_item_size(server.link.con, value_at(request, 12), name.c_str(),
                                      value_at(request, 48),
                                      folder_file_size(server.folder, "items/" + name));
}

int answer_41(Server &server, const Message &)
{
    return qel_sysmsg_reply_42(server.link.con, server.options.values[0], server.options.values[1]);
}

int answer_plugin_size(Server &server, const Message &request)
{
    uint32_t plugin = value_at(request, 12);
    return qel_sysmsg_reply_plugin_size(server.link.con, plugin,
                                        folder_file_size(server.folder, "plugins/" + std::to_string(plugin)));
}

int answer_text(Server &server, const Message &)
{
    const std::string &text = server.options.text;
    return qel_sysmsg_reply_text(server.link.con, text.empty() ? nullptr : text.c_str());
}

int answer_decipher(Server &server, const Message &request)
{
    std::span<const uint8_t> cipher = block_at(request, 12);
    return qel_sysmsg_reply_plain(server.link.con, cipher.data(), static_cast<int>(cipher.size()));
}

struct Answer {
    uint32_t type; ///< of the query
    int (*send)(Server &server, const Message &request);
};

const Answer answers[] = {
    {qel_sysmsg_type_get_plugins, answer_plugins},         {qel_sysmsg_type_query_23, answer_23},
    {qel_sysmsg_type_path_exists, answer_path_exists},     {qel_sysmsg_type_get_info, answer_info},
    {qel_sysmsg_type_get_item_size, answer_item_size},     {qel_sysmsg_type_query_41, answer_41},
    {qel_sysmsg_type_get_plugin_size, answer_plugin_size}, {qel_sysmsg_type_get_text, answer_text},
    {qel_sysmsg_type_decipher, answer_decipher},
};

/// Returns null when the message is no query.
const Answer *find_answer(uint32_t type)
{
    for (const Answer &answer : answers) {
        if (answer.type == type)
            return &answer;
    }
    return nullptr;
}

// ---- Messages as they come ----

/// The message handler.
void handle(Server &server, const Message &message)
{
    uint32_t type = value_at(message, 0);
    if (server.has_updater)
        return; // a loader would be gone
    if (type != qel_sysmsg_type_file_data)
        printf("%s\n", describe_message(message).c_str());
    if (find_answer(type) != nullptr && server.requests.size() < requests_max)
        server.requests.push_back(message);
    switch (type) {
    case qel_sysmsg_type_connect:
        server.announced = true;
        qel_sysmsg_connect_answer(server.link.con, message.data());
        break;
    case qel_sysmsg_type_updater:
        take_updater(server, message);
        break;
    case qel_sysmsg_type_file_begin:
        begin_file(server, text_at(message, 16, message.size() - 16));
        break;
    case qel_sysmsg_type_file_data:
        add_to_file(server, block_at(message, 12));
        break;
    case qel_sysmsg_type_file_end:
        end_file(server, 0644);
        break;
    case qel_sysmsg_type_test_pattern:
        check_counters(server, message, false);
        break;
    case qel_sysmsg_type_test_pattern_sequenced:
        check_counters(server, message, true);
        break;
    default:
        break;
    }
}

void answer_requests(Server &server)
{
    while (!server.requests.empty() && server.link.transport.gone.empty() && !was_interrupted()) {
        Message request = std::move(server.requests.front());
        server.requests.pop_front();
        if (find_answer(value_at(request, 0))->send(server, request) == 0)
            fprintf(stderr, "error: the answer to %s was not confirmed\n", describe_message(request).c_str());
    }
    server.requests.clear();
}

// ---- Peers ----

/// Serves until the peer is gone, has sent an updater, or the time is up.
void serve_peer(Server &server, double end)
{
    Transport &transport = server.link.transport;
    double next_look = seconds_now() + 1;
    while (transport.gone.empty() && !server.has_updater && !was_interrupted() && seconds_now() < end) {
        link_poll(server.link, 50);
        answer_requests(server);
        if (seconds_now() < next_look)
            continue;
        next_look += 1;
        if (server.options.notices && !server.announced)
            qel_sysmsg_notify_11(server.link.con);
        server.announced = false;
    }
    link_poll(server.link, 0); // what it had said before it went
    incoming_drop(server.incoming);
    server.requests.clear();
    transport_hang_up(transport, "served");
}

/// Serves one peer after another.
void serve_peers(Server &server, double end)
{
    while (!was_interrupted() && seconds_now() < end) {
        if (!transport_accept(server.link.transport, server.options.listener, 100))
            continue;
        printf("a peer is there\n");
        server.has_updater = false;
        link_forget_peer(server.link);
        serve_peer(server, end);
        printf("the peer has gone\n");
        if (server.options.once)
            return;
    }
}

} // namespace

int command_serve(Link &link, const ServeOptions &options)
{
    Server server = {link, options, folder_open(options.folder), {}, {}};
    link.outlives_peer = true;
    link.on_message = [&](std::span<const uint8_t> message) {
        handle(server, {message.begin(), message.end()});
    };
    double end = options.seconds == 0 ? 1e18 : seconds_now() + options.seconds;
    if (options.listener == -1)
        serve_peer(server, end);
    else
        serve_peers(server, end);
    return exit_done;
}
