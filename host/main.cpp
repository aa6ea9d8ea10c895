// qel-host: the other end of the host link, for people who make, test and service cabinets. This file reads
// the command line, opens the link, runs the command and turns what ended it into an exit code.

#include <CLI/CLI.hpp>

#include <stdio.h>
#include <unistd.h>

#include "arguments.h"
#include "catalogue.h"
#include "commands.h"
#include "errors.h"
#include "trace.h"

namespace
{

struct LinkOptions {
    std::string device;
    std::string socket;
    std::string listen;
    std::string record;
    bool unpaced = false;
    double wait_s = 5;
};

/// Runs a command on the link that has been opened for it.
using Command = std::function<int(Link &link)>;

const char *const exit_codes =
    "Exit codes: 0 done; 1 the other end did not answer, refused or hung up; 2 wrong call;\n"
    "3 a file, folder, socket or device of this computer cannot be used;\n"
    "4 a check of the link's libraries failed; 5 interrupted.";

// ---- The link ----

/// Waits for one peer, then takes the socket away again.
void wait_for_peer(Link &link, const std::string &path)
{
    int listener = transport_listen(path);
    fprintf(stderr, "waiting for a peer at %s\n", path.c_str());
    bool accepted = false;
    while (!accepted && !was_interrupted())
        accepted = transport_accept(link.transport, listener, 100);
    close(listener);
    unlink(path.c_str());
    if (!accepted)
        throw CommandError(exit_interrupted, "interrupted");
}

void check_other_end(const LinkOptions &options)
{
    int ways = !options.device.empty() + !options.socket.empty() + !options.listen.empty();
    if (ways != 1)
        wrong_call("say where the other end is, with one of --device, --socket and --listen");
}

void open_link(Link &link, const LinkOptions &options)
{
    link_start(link);
    transport_set_pacing(link.transport, !options.unpaced);
    if (!options.record.empty())
        transport_record(link.transport, options.record);
    if (!options.device.empty())
        transport_open_device(link.transport, options.device);
    if (!options.socket.empty())
        transport_connect(link.transport, options.socket, options.wait_s);
}

int run_on_link(const LinkOptions &options, const Command &command, bool listens_itself)
{
    static Link link; // for the life of the process, as the libraries keep it
    check_other_end(options);
    open_link(link, options);
    if (!options.listen.empty() && !listens_itself)
        wait_for_peer(link, options.listen);
    int result;
    try {
        result = command(link);
    } catch (...) {
        fflush(stdout);
        link_print_counts(link);
        throw;
    }
    fflush(stdout);
    link_print_counts(link);
    return result;
}

int serve(Link &link, const LinkOptions &link_options, ServeOptions options)
{
    if (link_options.listen.empty())
        return command_serve(link, options);
    options.listener = transport_listen(link_options.listen);
    printf("serving %s at %s\n", options.folder.c_str(), link_options.listen.c_str());
    int result = command_serve(link, options);
    unlink(link_options.listen.c_str());
    return result;
}

// ---- The command line ----

struct CommandLine {
    LinkOptions link;
    ConnectOptions connect;
    UpdateOptions update;
    SendFileOptions send_file;
    TestPatternOptions test_pattern;
    QueryOptions query;
    PostOptions post;
    ServeOptions serve;
    std::string trace_file;
    bool trace_messages = false;
    bool lua = false;
    std::function<int()> run; ///< the command that was called
};

void add_link_options(CLI::App &app, LinkOptions &options)
{
    auto *group = app.add_option_group("Where the other end is, and how to talk to it");
    group->add_option("--device", options.device, "the board driver's node, as /dev/qellpc_host_comms");
    group->add_option("--socket", options.socket,
                      "a socket to connect to: the simulated cabinet, or a qel-host");
    group->add_option("--listen", options.listen, "a socket to make and wait at for a peer");
    group->add_option("--wait", options.wait_s, "seconds to try while nobody listens at the socket (5)")
        ->check(CLI::NonNegativeNumber);
    group->add_flag("--no-pacing", options.unpaced,
                    "no pause of 15 ms before each packet; not for a real board");
    group->add_option("--record", options.record, "record the link to this pcapng file");
}

/// Adds a command that talks to the other end.
CLI::App *add_command(CLI::App &app, CommandLine &line, const std::string &name,
                      const std::string &description, const Command &command, bool listens_itself = false)
{
    CLI::App *result = app.add_subcommand(name, description);
    result->callback([&line, command, listens_itself] {
        line.run = [&line, command, listens_itself] {
            return run_on_link(line.link, command, listens_itself);
        };
    });
    return result;
}

void add_senders(CLI::App &app, CommandLine &line)
{
    auto *connect =
        add_command(app, line, "connect", "Announce the host once a second and show what is answered",
                    [&line](Link &link) { return command_connect(link, line.connect); });
    connect->add_option("--seconds", line.connect.seconds, "end after so many seconds (until Ctrl-C)")
        ->check(CLI::PositiveNumber);

    auto *update = add_command(app, line, "update", "Send an updater, which takes the loader's place",
                               [&line](Link &link) { return command_update(link, line.update); });
    update->add_option("file", line.update.file, "the program")->required();
    update->add_flag("!--no-announce", line.update.announce, "send at once, without waiting for the loader");
    update
        ->add_option("--loader-wait", line.update.wait_s,
                     "seconds to wait for the loader's first answer (60)")
        ->check(CLI::NonNegativeNumber);
    update
        ->add_option(
            "--watch", line.update.watch_s,
            "seconds to watch afterwards that the loader is silent (3); 0 for an updater that itself "
            "answers on the link")
        ->check(CLI::NonNegativeNumber);

    auto *send_file = add_command(app, line, "send-file", "Send a file",
                                  [&line](Link &link) { return command_send_file(link, line.send_file); });
    send_file->add_option("local", line.send_file.local, "the file here")->required();
    send_file->add_option("remote", line.send_file.remote, "its path there")->required();
    send_file->add_option("--chunk", line.send_file.chunk_bytes, "bytes in a message (22050)")
        ->check(CLI::Range(1, 22050));

    auto *pattern =
        add_command(app, line, "test-pattern", "Send test patterns, which the other end can check",
                    [&line](Link &link) { return command_test_pattern(link, line.test_pattern); });
    pattern->add_flag("--sequenced", line.test_pattern.sequenced, "those that are confirmed");
    pattern->add_option("--count", line.test_pattern.count, "how many (1)")->check(CLI::PositiveNumber);
}

void add_askers(CLI::App &app, CommandLine &line)
{
    auto *query = add_command(app, line, "query", "Ask the other end and print its answer",
                              [&line](Link &link) { return command_query(link, line.query); });
    query->add_option("what", line.query.what, "one of the queries below")->required();
    query->add_option("arguments", line.query.arguments, "its arguments");
    query->add_option("--tries", line.query.tries, "ask again so often, on a bad link (1)")
        ->check(CLI::PositiveNumber);
    query->parse_complete_callback([&line] { check_query(line.query); });
    query->footer("Queries:\n" + query_list());

    auto *post = add_command(app, line, "post", "Send one of the other messages",
                             [&line](Link &link) { return command_post(link, line.post); });
    post->add_option("message", line.post.message, "one of the messages below")->required();
    post->add_option("arguments", line.post.arguments, "its arguments");
    post->parse_complete_callback([&line] { check_post(line.post); });
    post->footer("Messages (RECORD: 20 bytes as 40 hexadecimal digits):\n" + post_list());
}

void add_serve(CLI::App &app, CommandLine &line)
{
    ServeOptions &options = line.serve;
    auto *serve_command = add_command(
        app, line, "serve", "Answer queries and receive files; an updater ends it, as it ends the loader",
        [&line](Link &link) { return serve(link, line.link, line.serve); }, true);
    serve_command
        ->add_option("folder", options.folder, "the other end's root: its files, plugins/ID, items/NAME")
        ->required();
    serve_command->add_flag("--once", options.once, "with --listen: end with the first peer");
    serve_command->add_option("--seconds", options.seconds, "end after so many seconds (until Ctrl-C)")
        ->check(CLI::PositiveNumber);
    serve_command->add_flag("--notices", options.notices,
                            "send a type-11 notice once a second, as the loader does");
    serve_command->add_option("--info", options.info, "the three values of get_info")->expected(3);
    serve_command->add_option("--values", options.values, "the two values of query_41")->expected(2);
    serve_command->add_option("--answer", options.answer, "the text of query_23");
    serve_command->add_option("--text", options.text, "the text of get_text");
}

int trace(const CommandLine &line)
{
    std::vector<uint8_t> file = file_content(line.trace_file);
    return trace_recording(file, {!line.trace_messages}, stdout) ? exit_done : exit_file_error;
}

void add_offline(CLI::App &app, CommandLine &line)
{
    auto *trace_command = app.add_subcommand("trace", "Print a recording of the link");
    trace_command->add_option("file", line.trace_file, "the pcapng file")->required();
    trace_command->add_flag("--messages", line.trace_messages, "messages only, not their packets");
    trace_command->callback([&line] { line.run = [&line] { return trace(line); }; });

    auto *catalogue_command =
        app.add_subcommand("catalogue", "Print the messages of the link and their fields");
    catalogue_command->add_flag("--lua", line.lua, "as the table in host/wireshark/qel_link.lua");
    catalogue_command->callback([&line] {
        line.run = [&line] {
            printf("%s", line.lua ? catalogue_as_lua().c_str() : catalogue_as_text().c_str());
            return exit_done;
        };
    });
}

/// Reads the command line. Returns the exit code when there is nothing to run, else -1.
int read_command_line(int argc, char **argv, CommandLine &line)
{
    CLI::App app("The other end of the cabinet's host link.", "qel-host");
    app.require_subcommand(1);
    app.fallthrough();
    app.footer(exit_codes);
    add_link_options(app, line.link);
    add_senders(app, line);
    add_askers(app, line);
    add_serve(app, line);
    add_offline(app, line);
    try {
        app.parse(argc, argv);
    } catch (const CLI::ParseError &error) {
        return app.exit(error) == 0 ? exit_done : exit_wrong_call;
    }
    return -1;
}

} // namespace

int main(int argc, char **argv)
{
    setvbuf(stdout, nullptr, _IOLBF, 0);
    CommandLine line;
    try {
        int code = read_command_line(argc, argv, line);
        if (code != -1)
            return code;
        catch_interrupts();
        return line.run();
    } catch (const CommandError &error) {
        fprintf(stderr, "error: %s\n", error.what());
        // At once: the libraries may have been left in the middle of something.
        fflush(stdout);
        _exit(error.code);
    } catch (const std::exception &error) { // no memory, for instance
        fprintf(stderr, "error: %s\n", error.what());
        return exit_file_error;
    }
}
