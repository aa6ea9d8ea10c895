// Draws the bar.

#include "progress.h"

#include <math.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>

#include "link.h"

namespace
{

const double redraw_every_s = 0.1;
const uint64_t bar_width = 30;

} // namespace

Progress progress_start(const std::string &what, uint64_t total)
{
    return {what, total, seconds_now()};
}

void progress_show(Progress &progress, uint64_t done)
{
    double now = seconds_now();
    bool is_terminal = isatty(STDERR_FILENO) != 0;
    bool is_end = done >= progress.total;
    uint64_t tenths = progress.total == 0 ? 10 : done * 10 / progress.total;
    if (is_terminal ? !is_end && now - progress.shown_at < redraw_every_s : tenths <= progress.tenths)
        return;
    progress.shown_at = now;
    progress.tenths = tenths;

    double elapsed = now - progress.started_at;
    double left = done == 0 ? 0
                            : elapsed * static_cast<double>(progress.total - std::min(done, progress.total)) /
                                  static_cast<double>(done);
    auto left_s = static_cast<unsigned long>(lround(left));
    std::string bar;
    if (is_terminal) {
        uint64_t filled =
            progress.total == 0 ? bar_width : std::min(done, progress.total) * bar_width / progress.total;
        bar = "\r[" + std::string(filled, '#') + std::string(bar_width - filled, '.') + "] ";
    }
    fprintf(stderr, "%s%s: %3llu %%, %llu of %llu bytes, %s, %lu:%02lu left%s", bar.c_str(),
            progress.what.c_str(),
            static_cast<unsigned long long>(progress.total == 0 ? 100 : done * 100 / progress.total),
            static_cast<unsigned long long>(done), static_cast<unsigned long long>(progress.total),
            rate_text(done, elapsed).c_str(), left_s / 60, left_s % 60,
            is_terminal ? (is_end ? " \n" : " ") : "\n");
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
