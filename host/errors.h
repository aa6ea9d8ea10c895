// What ends a command before it is done.
#pragma once

#include <string.h>

#include <stdexcept>
#include <string>

/// A kind of failure: its name in the results of --json, and the exit code.
struct Fault {
    const char *name;
    int exit;
};

inline bool operator==(const Fault &a, const Fault &b)
{
    return strcmp(a.name, b.name) == 0;
}

namespace fault
{
// Not done, or not known to be.
inline constexpr Fault no_peer = {"no_peer", 1};
inline constexpr Fault no_loader = {"no_loader", 1};
inline constexpr Fault not_confirmed = {"not_confirmed", 1};
inline constexpr Fault no_answer = {"no_answer", 1};
inline constexpr Fault bad_answer = {"bad_answer", 1};
inline constexpr Fault hung_up = {"hung_up", 1};
inline constexpr Fault stuck = {"stuck", 1};
inline constexpr Fault still_loader = {"still_loader", 1};
inline constexpr Fault no_updater = {"no_updater", 1};
inline constexpr Fault not_there = {"not_there", 1};
// The command line.
inline constexpr Fault wrong_call = {"wrong_call", 2};
// This computer.
inline constexpr Fault cannot_open = {"cannot_open", 3};
inline constexpr Fault not_a_device = {"not_a_device", 3};
inline constexpr Fault busy = {"busy", 3};
inline constexpr Fault bad_file = {"bad_file", 3};
inline constexpr Fault output = {"output", 3};
// The libraries of the link.
inline constexpr Fault internal = {"internal", 4};
// The user.
inline constexpr Fault interrupted = {"interrupted", 5};
// Sent, but nothing can show that it arrived.
inline constexpr Fault unverified = {"unverified", 6};
} // namespace fault

struct Failure : std::runtime_error {
    Failure(Fault kind, const std::string &text) : std::runtime_error(text), fault(kind) {}
    Fault fault;
};

/// The time that a command was given is over, or the user has ended a command that would go on forever.
struct TimeUp {
};
