// Lets every call of a scenario fail in every way, one at a time, and writes down what comes of it.
//
//      0  open /dst O_RDWR|O_CREAT|O_TRUNC   | any: then close /src; ends 0, nothing
//
// With each call stand its faults, those with the same consequence together: "same" when nothing else
// changes, else what is different from the run without the fault, place by place. Some rules hold for every
// outcome and cannot be waived by a golden:
//
//  1. A fault leads to a stop that docs/failures.md lists, to an ending that the scenario declares, or to the
//     usual one.
//  2. What comes before the fault is as without it.
//  3. Nothing is closed twice, and nothing stays open that does not without a fault, unless declared.
//  4. As many blocks of the heap are given back as without the fault.
//  5. The run ends: at most three times the usual calls, and 50 more.
//  6. A file holds what it held before, what it holds in the end, or the beginning of that.
//  7. The same again, in the same process, goes as it does without the fault before it.
#pragma once

#include "tapes/tape.h"

/// A tape with all outcomes, and what is wrong with it whatever the golden says.
struct Swept {
    std::vector<std::string> lines;
    std::string complaints;
    int calls = 0, faults = 0;
};
Swept sweep(const Scenario &scenario);

/// What of `found` is different from `usual`, in words.
std::string difference(const std::vector<std::string> &usual, const std::vector<std::string> &found);
