/// What the product prints to standard output, caught for a test.
#pragma once

#include <functional>
#include <string>

/// Catches standard output while it exists. Instances may nest: when one is left by an
/// exception, what it caught goes to the next. When the test has failed by the end, it is shown after all.
struct Output {
    Output();
    ~Output();

    /// Everything printed so far, also what the product has not flushed.
    std::string text();
    /// Only what has already left the process.
    std::string flushed() const;
    int caught;
    int original;
    int exceptions_before;
};

/// Runs `statement` and returns what it printed.
std::string output_of(const std::function<void()> &statement);
