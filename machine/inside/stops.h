// Finds programs that a failed check has stopped. Such a program mostly prints nothing, and sleeps for ever,
// but the code of the place, "ERROR KCW1964", stays on its stack, where it was composed for a debugger.
#pragma once

#include <map>
#include <set>
#include <string>

struct StopWatch {
    int processes = -1; ///< a /proc that is mounted nowhere, so that the loader finds no trace of it
    long next_look = 0; ///< in seconds of the machine's clock
    std::set<int> told;
};

/// From now on new_stops() looks.
void begin_to_watch(StopWatch &watch);

/// Processes that stand still and have not been told, with their codes ("KCW1964"): process 1 and
/// `children`. Looks about once a second, and not at all before begin_to_watch().
std::map<int, std::string> new_stops(StopWatch &watch, const std::set<int> &children);
