// test-pattern: sends counters that the other end can check.

#include "call.h"
#include "errors.h"

#include "qel_tolbrin/qel_sysmsg.h"

#include <CLI/CLI.hpp>

namespace
{

const size_t counters_in_message = 777;

struct TestPatternOptions {
    bool sequenced = false;
    int count = 1;
};

/// The next counters of this process; each of the two types counts for itself, from 1 on.
std::vector<uint64_t> next_counters(bool sequenced)
{
    static uint32_t next[2] = {1, 1};
    std::vector<uint64_t> counters;
    while (counters.size() < counters_in_message)
        counters.push_back(next[sequenced ? 1 : 0]++);
    return counters;
}

void run_test_pattern(Session &session, Outcome &outcome, const TestPatternOptions &options)
{
    int sent = 0, confirmed = 0;
    if (options.sequenced)
        session_open(session);
    while (sent < options.count) {
        outcome.result = {{"sent", sent + 1}, {"confirmed", confirmed}};
        uint32_t type =
            options.sequenced ? qel_sysmsg_type_test_pattern_sequenced : qel_sysmsg_type_test_pattern;
        Message message = build_message(type, {{"counters", next_counters(options.sequenced)}});
        if (options.sequenced)
            confirmed += session_request(session, message);
        else
            session_send(session, message);
        ++sent;
        session_poll(session, 0);
        outcome.result = {{"sent", sent}, {"confirmed", confirmed}};
    }
    note("test patterns: " + std::to_string(sent) + " sent, " + std::to_string(confirmed) + " confirmed");
    if (!options.sequenced)
        throw Failure(fault::unverified,
                      "the test patterns are sent, but nothing confirms them; see what the other "
                      "end reports, or use --sequenced");
    if (confirmed < sent)
        throw Failure(fault::not_confirmed, "not every test pattern was confirmed; see the link's counts");
    outcome.proof = "confirmed";
}

} // namespace

void add_test_pattern(CLI::App &app, Command &command)
{
    auto options = std::make_shared<TestPatternOptions>();
    CLI::App *sub = app.add_subcommand("test-pattern", "Send test patterns, which the other end can check");
    sub->add_flag("--sequenced", options->sequenced, "those that are confirmed");
    sub->add_option("--count", options->count, "how many (1)")->check(CLI::Range(1, 1000000000));
    sub->callback([=, &command] {
        command = {.name = "test-pattern"};
        command.run = [=](Session &session, Outcome &outcome) {
            run_test_pattern(session, outcome, *options);
        };
    });
}
