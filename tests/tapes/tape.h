// One run of a piece of the product as text: every outside effect in its order, on a virtual clock.
//
//      0  open /src
//      0  read /src 4096 = 4096
//     15  console "copy: /src -> /dst\n"
//     15  ends 1, whole
//
// A line has the milliseconds since the start and an effect: a call with what it gave (nothing for 0 and for
// a stream), a line of the console, or how the run ended. Descriptors go by what they lead to.
#pragma once

#include "tapes/ground.h"

#include <functional>
#include <string>
#include <type_traits>
#include <vector>

/// What runs: a function of the ground, or of nothing. It returns how it ended, in words or as a number;
/// "done" when it returns nothing. It may also end by a stop, by LeftProduct ("left"), by Became
/// ("became PATH") and by exit.
struct Piece {
    template <typename Function>
    Piece(Function function) : run([=](Ground &ground) { return ending_of(function, ground); })
    {
    }
    template <typename Function> static std::string ending_of(const Function &function, Ground &ground)
    {
        if constexpr (std::is_invocable_v<Function, Ground &>)
            return ending_of([&] { return function(ground); }, ground);
        else if constexpr (std::is_void_v<decltype(function())>)
            return function(), "done";
        else if constexpr (std::is_integral_v<decltype(function())>)
            return std::to_string(function());
        else
            return function();
    }
    std::function<std::string(Ground &)> run;
};

/// A piece of the product in its situation, and what may come of it when a call fails.
struct Scenario {
    const char *name;
    Piece piece;
    /// Endings besides the usual one and stops that a fault may lead to; patterns as fnmatch has them.
    std::vector<std::string> may_end = {};
    /// Why the same again, in the same process, may differ. Empty: it must not.
    std::string remembers = "";
    /// The line with which the tape begins; what comes before is on another tape. Empty: the first.
    std::string from = "";
    /// The call at which the run is left, and its number among those of its name: "chdir /storage #2".
    std::string until = "";
    /// What a fault may leave open that else is not.
    std::string may_leave_open = "";
};

/// A piece of a scenario's tape; patterns as fnmatch has them.
inline Scenario cut(Scenario whole, const std::string &from, const std::string &until = "")
{
    whole.from = from;
    whole.until = until;
    return whole;
}

/// A line of a tape.
struct Event {
    std::string text;
    long ms = 0;
    std::string call; ///< its name; empty when it is none
    int n = 0;        ///< its number among those of its name
    long moved = -1;  ///< bytes or items, when it is a transfer that did not fail
};

/// One that is no call.
inline Event effect(const std::string &text, long ms)
{
    Event event;
    event.text = text;
    event.ms = ms;
    return event;
}

/// What is done to one call of a run.
struct Injection {
    std::string call;
    int n;
    int error;
    size_t size_max;
};

struct Run {
    std::vector<Event> events;
    /// How it ended: "ends ..." or "stops ...", the last effect but for what stays open.
    std::string end;
    std::string stop_text, stop_place;        ///< empty when it did not stop
    std::string left_open;                    ///< in order of name
    size_t heap_blocks = 0;                   ///< had and not given back
    bool is_over = false;                     ///< came to its own end: not stopped, not left on its way
    std::string complaints;                   ///< what else is wrong, whatever the golden says
    std::map<std::string, std::string> files; ///< on the disk at the end, with their content
    std::map<std::string, std::string> files_before; ///< the same at the first call
};

constexpr size_t any_number_of_calls = static_cast<size_t>(-1);

/// Runs a scenario in this process; a run of more than `calls_max` calls is left, with a complaint. Unless
/// `is_again`, the product is as at the start of the program.
Run run_tape(const Scenario &scenario, const Injection *injection = nullptr, bool is_again = false,
             size_t calls_max = any_number_of_calls);

/// Puts back what runs change: the product's variables, open descriptors, the working folder.
struct Traces {
    Traces();
    ~Traces();
    Traces(const Traces &) = delete;
    Traces &operator=(const Traces &) = delete;
    std::vector<char> product;
    int folder;
    std::set<int> open_before;
};
