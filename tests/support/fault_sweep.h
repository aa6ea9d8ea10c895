/// Lets every call that a piece of the product makes fail, one at a time, and compares what comes of it with
/// what is laid down.
///
///     {"CopyFile", "returned 1, whole, mode 0777", copy_file,
///      {{"open /src *", any_fault, gives("returned 0, nothing")},
///       {"write *", any_fault, gives("returned 0, a part, mode 0644").then({"close", "close"})},
///       {"close", any_fault, ignored()}}}
///
/// is a scenario: its name, what it comes to when nothing fails, the piece of the product in its situation,
/// and the rules. sweep() runs it once unharmed and then, for every call of that run, once with each fault
/// that a real kernel could give. Result, stop, calls, output and what stays open are compared. A fault that
/// no rule speaks of fails the test, as does a rule that speaks of nothing. Rules are written down from what
/// the product promises, never from what it did.
#pragma once

#include "support/fake_kernel.h"
#include "support/scratch.h"
#include "support/stops.h"

#include <functional>
#include <optional>
#include <string>
#include <vector>

// ---- Faults ----

/// A call that the product can make, under the name that all its spellings share.
struct KernelCall {
    const char *name;
    /// The error numbers with which the call can be made to fail.
    std::vector<int> errors;
    /// 1 when the call can also move fewer bytes than asked for.
    int can_fall_short;
};

/// The calls that can be broken, each once, with every error that a real kernel could plausibly give to the
/// way in which the product makes it.
const std::vector<KernelCall> &kernel_calls();
/// The errors of one of them.
const std::vector<int> &errors_of(const std::string &name);

/// A symbol that the linker wraps and that is not broken, with the reason.
struct UnbrokenCall {
    const char *symbol;
    const char *reason;
};
const std::vector<UnbrokenCall> &unbroken_calls();

/// What is wrong with a table and a list of exceptions for the symbols that are wrapped, separated by blanks:
/// a line for each symbol that neither knows or both know, and for each that is in them and not wrapped.
std::string gaps(const std::string &wrapped, const std::vector<KernelCall> &table,
                 const std::vector<UnbrokenCall> &exceptions);

/// What is done to one call: an error, or, with error 0, a limit to what it moves.
struct Fault {
    int error;
    size_t size_max;
};

/// The faults that a rule speaks of.
using Faults = std::function<bool(const Fault &)>;
bool any_fault(const Fault &fault);
bool any_error(const Fault &fault);
bool falls_short(const Fault &fault);
Faults error(std::vector<int> errors);
/// All errors but these; a short transfer is no error.
Faults error_but(std::vector<int> errors);
Faults moves(size_t size);
/// Every error, and a transfer of nothing.
bool error_or_nothing(const Fault &fault);
/// A transfer of something, but not all.
bool moves_a_part(const Fault &fault);

// ---- Outcomes ----

/// What a fault leads to, measured against the run without it. The calls below are patterns as fnmatch has
/// them; each stands for a call as recorded, without numbers of descriptors.
struct Outcome {
    /// These calls follow the one that failed, and no others.
    Outcome then(std::vector<std::string> calls) const;
    /// All calls that followed in the run without a fault follow.
    Outcome goes_on() const;
    /// The same, but these do not.
    Outcome goes_on_without(std::vector<std::string> calls) const;
    /// The same, but these come first.
    Outcome goes_on_after(std::vector<std::string> calls) const;
    /// The whole of the output. Without one of these three it is as without the fault; of a stop, as far as
    /// it had come when the call was made.
    Outcome prints(const std::string &text) const;
    /// The output, with this in the place of the call that failed.
    Outcome also_prints(const std::string &text) const;
    /// The output, but without this.
    Outcome unprinted(const std::string &text) const;
    /// This stays open, and not what the scenario says.
    Outcome leaves_open(const std::string &what) const;

    std::string result; ///< empty: as without the fault
    std::string stop, unit;
    int line = any_line;
    enum { nothing, listed, all } follows = nothing;
    std::vector<std::string> calls, left_out;
    std::optional<std::string> printed, left_open; ///< none: see prints, and as the scenario says
    std::string added, not_printed;
};

/// Nobody notices: the same result, output and calls.
Outcome ignored();
/// The check `text` stops the program at once.
Outcome stops(const std::string &text, const std::string &unit, int line = any_line);
/// The piece comes to another result; no call follows.
Outcome gives(const std::string &result);
/// The process crashes.
Outcome crashes();

/// A rule: for a call, "mkdir /storage *" or, when a number is needed, "read #2" for the second read, the
/// first rule that fits both the call and the fault says what comes of it.
struct Rule {
    std::string call;
    Faults faults;
    Outcome outcome;
};

// ---- Scenarios ----

/// The ground of a run: a scratch disk as root of the file system, and a kernel that mounts everything and
/// makes nodes as plain files. Folders list their entries in order of name, without "." and "..". fork gives
/// `child`, whose end, without fault, is the next thing waited for; as the child (fork_gives_child), execve
/// leaves the product.
struct Ground {
    static constexpr int child = 4711;

    Ground();
    void fork_gives_child();
    /// Closes what the product left open.
    void give_back_streams();

    Scratch disk;
    FakeKernel kernel{disk.path()};
    /// What was given back without being open, once for each time.
    std::string closed_twice;

  private:
    void watch_descriptors();

    std::map<DIR *, std::vector<struct dirent>> listings;
    std::set<DIR *> folders;
    std::set<FILE *> streams;
};

struct Scenario {
    const char *name;
    /// What `run` returns when nothing fails; "became PATH" for a process that was replaced, "exit N" for
    /// one that ended, "left" for one that was left by LeftProduct.
    std::string result;
    std::function<std::string(Ground &)> run;
    std::vector<Rule> rules;
    /// 1 when the scenario needs a process in which the product has done nothing yet.
    int needs_fresh_process = 0;
    /// What is open at the end that was not at the start, in order of name, as paths; "socket" for an end of
    /// a pair. A stop keeps what it has in hand, and nobody asks.
    std::string left_open = "";
};

/// Keeps the names of tests short.
void PrintTo(const Scenario &scenario, std::ostream *stream);

/// Rules from several places, in this order.
std::vector<Rule> rules_of(const std::vector<std::vector<Rule>> &lists);

/// How much a sweep broke.
struct Swept {
    int calls = 0, faults = 0;
};

/// Runs a scenario with each of its faults. Every run has a process of its own.
Swept sweep(const Scenario &scenario);

/// Tests of a scenario each: INSTANTIATE_SWEEP(Files, scenarios); what runs is in unit/fault_sweep_test.cpp.
class FaultSweep : public testing::TestWithParam<Scenario>
{
};

#define INSTANTIATE_SWEEP(room, scenarios)                                                                   \
    INSTANTIATE_TEST_SUITE_P(room, FaultSweep, testing::ValuesIn(scenarios),                                 \
                             [](const auto &scenario) { return std::string(scenario.param.name); })
