// What the command line asks for, and how it is carried out.
#pragma once

#include "output.h"
#include "session.h"

#include <functional>
#include <memory>
#include <string>
#include <vector>

namespace CLI
{
class App;
}

/// What a command reports when it ends, in whichever way.
struct Outcome {
    Json proof = {};         ///< what has shown that it is done; null for commands that show nothing
    Json result = {};        ///< null while nothing is known
    std::string answer = {}; ///< what a query prints
};

/// A command and its options. The functions are made by its add_...
struct Command {
    std::string name = {};
    bool has_link = true;             ///< it talks to the other end
    bool takes_several = false;       ///< links at once
    bool takes_peers = false;         ///< with --listen it waits for them itself
    bool reads_input = false;         ///< standard input is its file
    bool watches = false;             ///< it runs for its seconds, or until it is interrupted
    double seconds = 0;               ///< 0: until it is interrupted
    std::function<void()> check = {}; ///< throws Failure for what can be judged without the link
    std::function<void(Session &session, Outcome &outcome)> run = {};
};

/// A way to the other end: "device", "socket" or "listen", and the path.
struct Place {
    std::string kind;
    std::string path;
};

struct LinkOptions {
    std::vector<Place> places;
    double wait_s = 5;
    bool unpaced = false;
    std::string record;
};

struct Call {
    LinkOptions link;
    OutputSettings output;
    bool unverified_ok = false;
    bool one_of_several = false; ///< it runs on one of several links
    Command command;
    std::vector<std::string> words = {}; ///< of the command line, without the program
    double started_at = 0;               ///< as by seconds_now
};

/// "socket:/tmp/link".
std::string name_of(const Place &place);

/// Opens the link, waiting where that is asked for.
void open_link(Session &session, const LinkOptions &options, const Command &command);

/// Runs a command on an open session; what ends it early is in the result.
Ended carry_out(const Command &command, Session &session, bool unverified_ok);

/// The first of the words that names a command of `app`, or "".
std::string command_among(const CLI::App &app, const std::vector<std::string> &words);

/// The result of what could not even begin.
Ended failed(const std::string &command, const std::exception &reason);

/// Runs the command of the call on each of its links at once, and prints a line as each ends. Returns the
/// exit code.
int run_on_several(const Call &call);

// ---- The commands; each adds its subcommand, which sets `command` when it is called ----

void add_connect(CLI::App &app, Command &command);
void add_monitor(CLI::App &app, Command &command);
void add_update(CLI::App &app, Command &command);
void add_send_file(CLI::App &app, Command &command);
void add_query(CLI::App &app, Command &command);
void add_post(CLI::App &app, Command &command);
void add_test_pattern(CLI::App &app, Command &command);
void add_batch(CLI::App &app, Command &command, const Call &call);
void add_serve(CLI::App &app, Command &command);
void add_trace(CLI::App &app, Command &command);
void add_catalogue(CLI::App &app, Command &command);
void add_completion(CLI::App &app, Command &command);

/// What can be asked for with query.
std::vector<std::string> query_names();
