// sleep: a line of a batch; what comes meanwhile is confirmed.

#include "call.h"

#include <CLI/CLI.hpp>

void add_sleep(CLI::App &app, Command &command)
{
    auto seconds = std::make_shared<double>(0);
    CLI::App *sub = app.add_subcommand("sleep", "Do nothing for so many seconds");
    sub->add_option("seconds", *seconds, "how many")->required()->check(CLI::Range(0.0, 1e9));
    sub->callback([=, &command] {
        command = {.name = "sleep"};
        command.run = [=](Session &session, Outcome &) { session_wait(session, *seconds); };
    });
}
