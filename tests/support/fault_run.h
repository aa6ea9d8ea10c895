/// One run of a scenario, with or without a fault: what the sweep compares.
#pragma once

#include "support/fault_sweep.h"

/// A call of a run.
struct Call {
    std::string text;      ///< as recorded, with its number among those of its name: "read 4096 #2"
    size_t printed_before; ///< how much had been printed when it was made
    long moved;            ///< bytes or items; -1 when it is no transfer, or failed
};

/// How a run ended.
struct Run {
    std::string result, stop, unit, line, printed;
    std::string left_open;    ///< as Scenario::left_open
    std::string closed_twice; ///< what was given back without being open
    std::string complaints;   ///< expectations of the scenario's own that failed
    std::vector<Call> calls;
};

/// The result of a run whose process did not get to its end; nothing else is known of it.
constexpr const char *crashed = "crashed";

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
