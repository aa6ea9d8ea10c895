/// A contest: the product and its peers at one job, each measured once a round, in turns. What is compared is
/// what happened in the same round, so that a busy computer disturbs all of them alike.
#pragma once

#include <functional>
#include <stdexcept>
#include <string>
#include <vector>

/// Thrown by a contender that this computer cannot have.
struct Unavailable : std::runtime_error {
    using std::runtime_error::runtime_error;
};

struct Contender {
    std::string name;
    /// Prepares, measures once and cleans up. Returns the contest's unit; less is better.
    std::function<double()> measure;
    /// At most so much of it may the product take; 0 for a figure that is only shown.
    double ratio_max = 0;
    /// Why its figure is what it is.
    std::string remark = {};

    std::vector<double> samples = {};
};

/// For Contest::every: what does not vary takes part in the first round only.
constexpr int once = 1000000;

struct Contest {
    std::string name;
    std::string unit;
    /// The product is the first.
    std::vector<Contender> contenders;
    /// The product itself may take at most so much; 0 for no limit, below 0 for a limit of nothing at all.
    double limit = 0;
    /// Takes part in every so-manyth round.
    int every = 1;
    /// Why nothing can be measured here; "" when it can.
    std::string unavailable = {};
};

/// The middle, and what a quarter of the values lies below and above of.
struct Spread {
    double median, low, high;
};

/// The spread of values, of which there is at least one.
Spread spread_of(std::vector<double> values);

/// The spread of product over peer, round by round.
Spread ratios(const Contest &contest, const Contender &peer);

/// 1 when all goals of the contest are met; without a measurement none is.
int is_met(const Contest &contest);

/// Runs the rounds, with a line of progress on standard error for each.
void run_rounds(std::vector<Contest> &contests, int rounds);
