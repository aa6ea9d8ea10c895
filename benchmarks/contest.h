// A contest: the product and its peers at one job, each measured once a round, in turns. Figures of the same
// round are compared with each other, so that a busy computer disturbs all of them alike.
#pragma once

#include <functional>
#include <optional>
#include <string>
#include <vector>

struct Contender {
    std::string name;
    /// Prepares, measures once and cleans up. Returns the contest's unit; less is better.
    std::function<double()> measure;
    /// Highest allowed ratio of product to this peer; none for a figure that is only shown.
    std::optional<double> ratio_max = {};
    /// What explains its figure.
    std::string remark = {};

    std::vector<double> samples = {};
};

struct Contest {
    std::string name;
    std::string unit;
    /// The product is the first.
    std::vector<Contender> contenders;
    /// Highest allowed figure of the product itself.
    std::optional<double> limit = {};
    /// Takes part in every Nth round.
    int every = 1;
    /// Does not vary: takes part in the first round only.
    bool once = false;
};

/// Runs the rounds, with a line of progress on standard error for each. After each round all samples so far
/// are in the file `results`, as JSON, together with `machine`, which is JSON.
void run_rounds(std::vector<Contest> &contests, int rounds, const std::string &results,
                const std::string &machine);
