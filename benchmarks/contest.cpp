// Rounds and ratios.

#include "contest.h"

#include <math.h>
#include <stdio.h>
#include <unistd.h>

#include <algorithm>

// ---- Figures ----

/// Between two neighbours in proportion.
static double quantile(const std::vector<double> &sorted, double part)
{
    const double place = part * static_cast<double>(sorted.size() - 1);
    const auto below = static_cast<size_t>(floor(place)), above = static_cast<size_t>(ceil(place));
    return sorted[below] + (sorted[above] - sorted[below]) * (place - floor(place));
}

Spread spread_of(std::vector<double> values)
{
    std::sort(values.begin(), values.end());
    return {quantile(values, 0.5), quantile(values, 0.25), quantile(values, 0.75)};
}

Spread ratios(const Contest &contest, const Contender &peer)
{
    const std::vector<double> &product = contest.contenders.front().samples;
    std::vector<double> values;
    for (size_t round = 0; round < product.size(); round++)
        values.push_back(product[round] / peer.samples[round]);
    return spread_of(values);
}

int is_met(const Contest &contest)
{
    const Contender &product = contest.contenders.front();
    if (!contest.unavailable.empty())
        return 0;
    if (contest.limit != 0 && spread_of(product.samples).median > std::max(contest.limit, 0.0))
        return 0;
    return std::all_of(contest.contenders.begin() + 1, contest.contenders.end(), [&](const Contender &peer) {
        return peer.ratio_max == 0 || ratios(contest, peer).median <= peer.ratio_max;
    });
}

// ---- Rounds ----

/// Each round begins with another contender, so that none always has the same one before it.
static void run_once(Contest &contest, int round)
{
    const size_t count = contest.contenders.size();
    for (size_t i = 0; i < count; i++) {
        Contender &contender = contest.contenders[(i + static_cast<size_t>(round)) % count];
        contender.samples.push_back(contender.measure());
    }
}

void run_rounds(std::vector<Contest> &contests, int rounds)
{
    const int on_terminal = isatty(STDERR_FILENO);
    for (int round = 0; round < rounds; round++) {
        if (!on_terminal)
            fprintf(stderr, "round %d of %d\n", round + 1, rounds);
        for (Contest &contest : contests) {
            if (!contest.unavailable.empty() || round % contest.every != 0)
                continue;
            if (on_terminal)
                fprintf(stderr, "\r\033[Kround %d of %d: %s", round + 1, rounds, contest.name.c_str());
            try {
                run_once(contest, round / contest.every);
            } catch (const Unavailable &reason) {
                contest.unavailable = reason.what();
            }
        }
    }
    if (on_terminal)
        fprintf(stderr, "\r\033[K");
}
