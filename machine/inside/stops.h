// Finds programs that a failed check has stopped. Such a program mostly prints nothing, and sleeps forever,
// but the code of the place, "ERROR KCW1964", stays on its stack, where it was composed for a debugger.
#pragma once

#include <time.h>

#include <map>
#include <set>
#include <string>

struct StopWatch {
    int processes = -1;   ///< a /proc that is mounted nowhere, so that the loader finds no trace of it
    time_t next_look = 0; ///< in seconds of the machine's clock
    std::set<int> reported;
};

/// From now on new_stops() looks.
void begin_to_watch(StopWatch &watch);

/// Stopped processes, of process 1 and `children`, that it has not returned before, with their codes
/// ("KCW1964"). Looks about once a second, and not at all before begin_to_watch().
std::map<int, std::string> new_stops(StopWatch &watch, const std::set<int> &children);
