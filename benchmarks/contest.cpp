// Rounds, and the file of results.

#include "contest.h"

#include "common/files.h"

#include <stdio.h>
#include <unistd.h>

#include <algorithm>
#include <nlohmann/json.hpp>

namespace
{

/// Each round begins with another contender, so that none always has the same one before it.
void run_once(Contest &contest, int round)
{
    for (size_t i = 0; i < contest.contenders.size(); ++i) {
        Contender &contender =
            contest.contenders[(i + static_cast<size_t>(round)) % contest.contenders.size()];
        contender.samples.push_back(contender.measure());
    }
}

bool takes_part(const Contest &contest, int round)
{
    return contest.once ? round == 0 : round % contest.every == 0;
}

nlohmann::json json_of(const Contest &contest)
{
    nlohmann::json entry = {{"name", contest.name}, {"unit", contest.unit}, {"contenders", {}}};
    if (contest.limit)
        entry["limit"] = *contest.limit;
    for (const Contender &contender : contest.contenders) {
        entry["contenders"].push_back({{"name", contender.name}, {"samples", contender.samples}});
        if (contender.ratio_max)
            entry["contenders"].back()["ratio_max"] = *contender.ratio_max;
        if (!contender.remark.empty())
            entry["contenders"].back()["remark"] = contender.remark;
    }
    return entry;
}

} // namespace

void run_rounds(std::vector<Contest> &contests, int rounds, const std::string &results,
                const std::string &machine)
{
    for (int round = 0; round < rounds; ++round) {
        // A line for each contest.
        std::string all = R"({"machine": )" + machine + R"(, "rounds": )" + std::to_string(round + 1) +
                          R"(, "contests": [)";
        for (Contest &contest : contests) {
            fprintf(stderr, "round %d of %d: %s\n", round + 1, rounds, contest.name.c_str());
            if (takes_part(contest, round))
                run_once(contest, round / contest.every);
            all += (all.back() == '[' ? "\n" : ",\n") + json_of(contest).dump();
        }
        write_file(results, all + "\n]}\n");
    }
}
