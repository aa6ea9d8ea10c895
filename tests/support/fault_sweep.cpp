// The fault sweeps: every fault of every call, each judged by the first rule that fits.

#include "support/fault_run.h"

#include <fnmatch.h>
#include <stdlib.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <set>
#include <sstream>

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

/// What is to follow the call number `at`, as patterns.
static std::vector<std::string> expected_calls(const Outcome &outcome, const Run &clean, size_t at)
{
    std::vector<std::string> calls = outcome.calls;
    if (outcome.follows != Outcome::all)
        return calls;
    for (size_t i = at + 1; i < clean.calls.size(); i++) {
        const auto leaves_out = [&](const std::string &pattern) { return fits(pattern, clean.calls[i]); };
        if (std::none_of(outcome.left_out.begin(), outcome.left_out.end(), leaves_out))
            calls.push_back(without_number(clean.calls[i]));
    }
    return calls;
}

static void judge_calls(const Outcome &outcome, const Run &clean, const Run &run, size_t at)
{
    if (outcome.follows == Outcome::anything)
        return;
    const std::vector<std::string> wanted = expected_calls(outcome, clean, at);
    const std::vector<std::string> found(
        run.calls.begin() + std::min<long>(static_cast<long>(at) + 1, static_cast<long>(run.calls.size())),
        run.calls.end());
    EXPECT_TRUE(std::equal(wanted.begin(), wanted.end(), found.begin(), found.end(), fits))
        << "calls expected:" << joined(wanted) << "\ncalls made:" << joined(found);
}

static void judge_output(const Outcome &outcome, const Run &clean, const Run &run)
{
    if (outcome.follows == Outcome::anything && !outcome.printed)
        return;
    std::string wanted = outcome.printed.value_or(clean.printed);
    if (const size_t missing = wanted.find(outcome.not_printed); !outcome.not_printed.empty()) {
        ASSERT_NE(missing, std::string::npos) << "\"" << outcome.not_printed << "\" is never printed";
        wanted.erase(missing, outcome.not_printed.size());
    }
    if (outcome.stop.empty() || outcome.printed) {
        EXPECT_EQ(run.printed, wanted);
    } else {
        EXPECT_EQ(wanted.rfind(run.printed, 0), 0U) << "printed: " << run.printed;
    }
}

static void judge(const Outcome &outcome, const Run &clean, const Run &run, size_t at)
{
    EXPECT_EQ(run.stop, outcome.stop);
    if (!outcome.stop.empty()) {
        EXPECT_EQ(run.unit, outcome.unit);
        if (outcome.line != any_line) {
            EXPECT_EQ(run.line, std::to_string(outcome.line));
        }
    } else {
        EXPECT_EQ(run.result, outcome.result.empty() ? clean.result : outcome.result);
    }
    judge_output(outcome, clean, run);
    judge_calls(outcome, clean, run, at);
}

// ---- The sweep ----

static size_t size_in(const std::string &call)
{
    const std::string text = without_number(call);
    return std::stoul(text.substr(text.rfind(' ') + 1));
}

/// Everything that can be done to a call.
static std::vector<Fault> faults_of(const std::string &call)
{
    std::vector<Fault> faults;
    for (const KernelCall &known : kernel_calls()) {
        if (known.name != name_of(call))
            continue;
        for (int number : known.errors)
            faults.push_back({number, SIZE_MAX});
        if (known.can_fall_short) {
            for (size_t size : std::set<size_t>{0, 1, size_in(call) - 1}) {
                if (size < size_in(call))
                    faults.push_back({0, size});
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

/// Injected faults of all scenarios, told at the end of the program.
class Tally : public testing::Environment
{
  public:
    void SetUp() override
    {
        if (getenv(mark))
            return;
        file = memfd_create("tally", 0); // stays open in fresh processes
        setenv(mark, std::to_string(file).c_str(), 1);
    }
    static void add(const std::string &line)
    {
        const int tally = std::stoi(getenv(mark));
        real_write(tally, line.c_str(), line.size());
    }
    void TearDown() override
    {
        if (file == -1)
            return;
        std::string text(static_cast<size_t>(lseek(file, 0, SEEK_END)), '\0');
        pread(file, text.data(), text.size(), 0);
        std::istringstream lines(text);
        int scenarios = 0, calls = 0, faults = 0;
        for (int c, f; lines >> c >> f; scenarios++) {
            calls += c;
            faults += f;
        }
        if (scenarios)
            printf("fault sweep: %d faults in %d calls of %d scenarios\n", faults, calls, scenarios);
        unsetenv(mark);
    }

  private:
    static constexpr const char *mark = "QEL_TEST_FAULT_TALLY";
    int file = -1;
};

[[maybe_unused]] static const testing::Environment *const tally =
    testing::AddGlobalTestEnvironment(new Tally);

/// Does everything to the call number `at` of the clean run. Returns the number of faults.
static int break_call(const Scenario &scenario, const Run &clean, size_t at, std::set<const Rule *> &used)
{
    const std::string &call = clean.calls[at];
    const std::vector<Fault> faults = faults_of(call);
    for (const Fault &fault : faults) {
        SCOPED_TRACE(spelled(call, fault));
        const auto rule = std::find_if(scenario.rules.begin(), scenario.rules.end(),
                                       [&](const Rule &r) { return fits(r.call, call) && r.faults(fault); });
        if (rule == scenario.rules.end()) {
            ADD_FAILURE() << "nothing is laid down for this fault";
            continue;
        }
        used.insert(&*rule);
        const Injection injection = injection_of(call, fault);
        judge(rule->outcome, clean, run_once(scenario, &injection), at);
    }
    return static_cast<int>(faults.size());
}

void sweep(const Scenario &scenario)
{
    const Run clean = run_once(scenario, nullptr);
    ASSERT_EQ(clean.stop, "");
    ASSERT_EQ(clean.result, scenario.result) << joined(clean.calls);

    int calls = 0, faults = 0;
    std::set<const Rule *> used;
    for (size_t at = 0; at < clean.calls.size(); at++) {
        const int count = break_call(scenario, clean, at, used);
        calls += count > 0;
        faults += count;
    }
    for (const Rule &rule : scenario.rules)
        EXPECT_TRUE(used.count(&rule)) << "no fault meets the rule of \"" << rule.call << '"';
    Tally::add(std::to_string(calls) + " " + std::to_string(faults) + "\n");
}

void PrintTo(const Scenario &scenario, std::ostream *stream)
{
    *stream << scenario.name;
}
