// The fault sweeps: every fault of every call, each judged by the first rule that fits.

#include "support/fault_run.h"

#include <fnmatch.h>
#include <string.h>

#include <algorithm>
#include <set>

// ---- Judging ----

static std::string without_number(const std::string &call)
{
    return call.substr(0, call.rfind(" #"));
}

static bool fits(const std::string &pattern, const std::string &call)
{
    return pattern == without_number(call) || fnmatch(pattern.c_str(), call.c_str(), 0) == 0 ||
           fnmatch((pattern + " #*").c_str(), call.c_str(), 0) == 0;
}

static std::string joined(const std::vector<std::string> &calls)
{
    std::string text;
    for (const std::string &call : calls)
        text += "\n    " + call;
    return text;
}

/// The calls of a run from number `first` up to number `end`, or as far as there are any.
static std::vector<std::string> texts_of(const Run &run, size_t first, size_t end)
{
    std::vector<std::string> texts;
    for (size_t i = first; i < std::min(end, run.calls.size()); i++)
        texts.push_back(run.calls[i].text);
    return texts;
}

/// What is to follow the call number `at`, as patterns.
static std::vector<std::string> expected_calls(const Outcome &outcome, const Run &clean, size_t at)
{
    std::vector<std::string> calls = outcome.calls;
    if (outcome.follows != Outcome::all)
        return calls;
    for (const std::string &call : texts_of(clean, at + 1, clean.calls.size())) {
        const auto leaves_out = [&](const std::string &pattern) { return fits(pattern, call); };
        if (std::none_of(outcome.left_out.begin(), outcome.left_out.end(), leaves_out))
            calls.push_back(without_number(call));
    }
    return calls;
}

static void judge_calls(const Outcome &outcome, const Run &clean, const Run &run, size_t at)
{
    EXPECT_EQ(texts_of(run, 0, at + 1), texts_of(clean, 0, at + 1)) << "it was another run before the fault";
    const std::vector<std::string> wanted = expected_calls(outcome, clean, at);
    const std::vector<std::string> found = texts_of(run, at + 1, run.calls.size());
    EXPECT_TRUE(std::equal(wanted.begin(), wanted.end(), found.begin(), found.end(), fits))
        << "calls expected:" << joined(wanted) << "\ncalls made:" << joined(found);
}

/// The output when the call number `at` fails.
static std::string expected_output(const Outcome &outcome, const Run &clean, size_t at)
{
    if (outcome.printed)
        return *outcome.printed;
    const size_t before = clean.calls[at].printed_before;
    std::string wanted = outcome.stop.empty() ? clean.printed : clean.printed.substr(0, before);
    wanted.insert(before, outcome.added);
    const size_t missing = wanted.find(outcome.not_printed);
    if (missing == std::string::npos)
        ADD_FAILURE() << '"' << outcome.not_printed << "\" is never printed";
    else
        wanted.erase(missing, outcome.not_printed.size());
    return wanted;
}

static void judge(const Scenario &scenario, const Outcome &outcome, const Run &clean, const Run &run,
                  size_t at)
{
    EXPECT_EQ(run.complaints, "");
    EXPECT_EQ(run.stop, outcome.stop);
    if (run.result == crashed || outcome.result == crashed) {
        EXPECT_EQ(run.result, outcome.result);
        return;
    }
    if (!outcome.stop.empty()) {
        EXPECT_EQ(run.unit, outcome.unit);
        if (outcome.line != any_line) {
            EXPECT_EQ(run.line, std::to_string(outcome.line));
        }
    } else {
        EXPECT_EQ(run.result, outcome.result.empty() ? clean.result : outcome.result);
        EXPECT_EQ(run.left_open, outcome.left_open.value_or(scenario.left_open));
    }
    EXPECT_EQ(run.closed_twice, "");
    EXPECT_EQ(run.printed, expected_output(outcome, clean, at));
    judge_calls(outcome, clean, run, at);
}

// ---- The sweep ----

/// Everything that can be done to a call. A transfer falls short of what it moved, not of what was asked for.
static std::vector<Fault> faults_of(const Call &call)
{
    std::vector<Fault> faults;
    for (const KernelCall &known : kernel_calls()) {
        if (known.name != name_of(call.text))
            continue;
        for (int number : known.errors)
            faults.push_back({number, SIZE_MAX});
        if (known.can_fall_short && call.moved > 0) {
            for (long size : std::set<long>{0, 1, call.moved - 1}) {
                if (size < call.moved)
                    faults.push_back({0, static_cast<size_t>(size)});
            }
        }
    }
    return faults;
}

static std::string spelled(const std::string &call, const Fault &fault)
{
    return call + (fault.error ? std::string(" fails with ") + strerrorname_np(fault.error)
                               : " moves only " + std::to_string(fault.size_max));
}

static Injection injection_of(const std::string &call, const Fault &fault)
{
    return {name_of(call), std::stoi(call.substr(call.rfind('#') + 1)), fault};
}

/// Does everything to the call number `at` of the clean run. Returns the number of faults.
static int break_call(const Scenario &scenario, const Run &clean, size_t at, std::set<const Rule *> &used)
{
    const std::string &call = clean.calls[at].text;
    int count = 0;
    for (const Fault &fault : faults_of(clean.calls[at])) {
        SCOPED_TRACE(spelled(call, fault));
        const auto rule = std::find_if(scenario.rules.begin(), scenario.rules.end(),
                                       [&](const Rule &r) { return fits(r.call, call) && r.faults(fault); });
        if (rule == scenario.rules.end()) {
            ADD_FAILURE() << "nothing is laid down for this fault";
            continue;
        }
        used.insert(&*rule);
        const Injection injection = injection_of(call, fault);
        judge(scenario, rule->outcome, clean, run_once(scenario, &injection), at);
        count++;
    }
    return count;
}

/// The run without a fault comes to what is laid down, and is in order.
static bool is_sound(const Scenario &scenario, const Run &clean)
{
    EXPECT_EQ(clean.complaints, "");
    EXPECT_EQ(clean.stop, "");
    EXPECT_EQ(clean.result, scenario.result) << joined(texts_of(clean, 0, clean.calls.size()));
    EXPECT_EQ(clean.left_open, scenario.left_open);
    EXPECT_EQ(clean.closed_twice, "");
    return clean.stop.empty() && clean.result == scenario.result;
}

Swept sweep(const Scenario &scenario)
{
    Swept swept;
    const Run clean = run_once(scenario, nullptr);
    if (!is_sound(scenario, clean))
        return swept;

    std::set<const Rule *> used;
    for (size_t at = 0; at < clean.calls.size(); at++) {
        const int count = break_call(scenario, clean, at, used);
        swept.calls += count > 0;
        swept.faults += count;
    }
    for (const Rule &rule : scenario.rules)
        EXPECT_TRUE(used.count(&rule)) << "no fault meets the rule of \"" << rule.call << '"';
    return swept;
}

void PrintTo(const Scenario &scenario, std::ostream *stream)
{
    *stream << scenario.name;
}
