// The line, and when it is time for the next.

#include "progress.h"

#include "common/clock.h"
#include "output.h"

#include <math.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>

namespace
{

const double redraw_every_s = 0.1;
const uint64_t bar_width = 30;

std::string line_of(const Progress &progress, uint64_t done)
{
    double elapsed = seconds_now() - progress.started_at;
    double share = static_cast<double>(done) / static_cast<double>(progress.total);
    auto left_s = static_cast<unsigned long>(done == 0 ? 0 : lround(elapsed / share - elapsed));
    char numbers[100];
    snprintf(numbers, sizeof numbers, ": %3.0f %%, %llu of %llu bytes, %s, %lu:%02lu left", share * 100,
             static_cast<unsigned long long>(done), static_cast<unsigned long long>(progress.total),
             rate_text(done, elapsed).c_str(), left_s / 60, left_s % 60);
    return progress.what + numbers;
}

std::string bar_of(const Progress &progress, uint64_t done)
{
    uint64_t filled = done * bar_width / progress.total;
    return "[" + std::string(filled, '#') + std::string(bar_width - filled, '.') + "] ";
}

} // namespace

Progress progress_start(const std::string &what, uint64_t total)
{
    return {what, std::max<uint64_t>(total, 1), seconds_now()};
}

void progress_show(Progress &progress, uint64_t done)
{
    done = std::min(done, progress.total);
    if (isatty(STDERR_FILENO) != 0) {
        if (done < progress.total && seconds_now() - progress.shown_at < redraw_every_s)
            return;
        progress.shown_at = seconds_now();
        note_unended("\r" + bar_of(progress, done) + line_of(progress, done) +
                     (done == progress.total ? " \n" : " "));
        return;
    }
    if (done * 10 / progress.total <= progress.tenths)
        return;
    progress.tenths = done * 10 / progress.total;
    note(line_of(progress, done));
}

std::string rate_text(uint64_t bytes, double seconds)
{
    double rate = seconds > 0 ? static_cast<double>(bytes) / seconds : 0;
    char result[40];
    if (rate >= 1000)
        snprintf(result, sizeof result, "%.1f kB/s", rate / 1000);
    else
        snprintf(result, sizeof result, "%.0f B/s", rate);
    return result;
}
