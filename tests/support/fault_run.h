/// One run of a scenario, with or without a fault: what the sweep compares.
#pragma once

#include "support/fault_sweep.h"

/// How a run ended. `calls` are as recorded, each with its number among those of its name: "read 4096 #2".
struct Run {
    std::string result, stop, unit, line, printed;
    std::vector<std::string> calls;
};

/// A fault and the call that it is done to.
struct Injection {
    std::string name;
    int n = 0;
    Fault fault = {};
};

/// The name of a call as recorded.
std::string name_of(const std::string &call);

/// Runs the scenario in a process of its own, with a fault unless `injection` is null.
Run run_once(const Scenario &scenario, const Injection *injection);
