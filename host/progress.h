// How far a long transmission is: a bar that is redrawn on a terminal, a line for each tenth elsewhere, as
// notes.
#pragma once

#include <stdint.h>

#include <string>

struct Progress {
    std::string what;
    uint64_t total;      ///< bytes
    double started_at;   ///< as by seconds_now
    double shown_at = 0; ///< on a terminal
    uint64_t tenths = 0; ///< shown so far, elsewhere
};

Progress progress_start(const std::string &what, uint64_t total);

/// Shows rate and time left, if there is something new to show.
void progress_show(Progress &progress, uint64_t done);

/// "1.5 kB/s"; "0 B/s" when no time has passed.
std::string rate_text(uint64_t bytes, double seconds);
