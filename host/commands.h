/// The commands of qel-host that use the link, each with its options. A command returns its exit code;
/// what ends it before its time is thrown as CommandError.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

#include "link.h"

// ---- connect: announces the host once a second and shows the answers ----

struct ConnectOptions {
    double seconds = 0; ///< 0: until interrupted
};
int command_connect(Link &link, const ConnectOptions &options);

// ---- update: sends an updater ----

struct UpdateOptions {
    std::string file;
    bool announce = true; ///< wait until the loader answers before sending
    double wait_s = 60;   ///< for that
    double watch_s = 3;   ///< afterwards, for the loader to fall silent
};
int command_update(Link &link, const UpdateOptions &options);

// ---- send-file ----

struct SendFileOptions {
    std::string local;
    std::string remote;
    int chunk_bytes = 0; ///< 0: what the library takes
};
int command_send_file(Link &link, const SendFileOptions &options);

// ---- test-pattern ----

struct TestPatternOptions {
    bool sequenced = false;
    int count = 1;
};
int command_test_pattern(Link &link, const TestPatternOptions &options);

// ---- query ----

struct QueryOptions {
    std::string what;
    std::vector<std::string> arguments;
    int tries = 1;
};
int command_query(Link &link, const QueryOptions &options);
/// Throws unless there is such a query and it takes so many arguments.
void check_query(const QueryOptions &options);
/// The queries and their arguments, a line each.
std::string query_list();

// ---- post: the other messages of the catalogue ----

struct PostOptions {
    std::string message;
    std::vector<std::string> arguments;
};
int command_post(Link &link, const PostOptions &options);
/// Throws unless there is such a message and it takes so many arguments.
void check_post(const PostOptions &options);
/// The messages and their arguments, a line each.
std::string post_list();

// ---- serve: answers ----

struct ServeOptions {
    std::string folder;
    int listener = -1;  ///< where peers come from, or -1 when the link is open
    bool once = false;  ///< end with the first peer
    double seconds = 0; ///< 0: until interrupted
    bool notices = false;
    std::vector<uint32_t> info = {0, 0, 0};
    std::vector<uint64_t> values = {0, 0};
    std::string answer;
    std::string text;
};
int command_serve(Link &link, const ServeOptions &options);
