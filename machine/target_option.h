// The option that says for which machine the loader in a cabinet is built.
#pragma once

#include "cabinet/parts.h"

#include <CLI/CLI.hpp>

inline void add_target(CLI::App &app, std::string &target)
{
    app.add_option("--target", target, "take the loader that is built for this machine")
        ->check(CLI::IsMember(targets))
        ->capture_default_str();
}
