/// What the product prints to standard output, caught for a test.
#pragma once

#include <functional>
#include <string>

/// Catches standard output while it exists. Instances may nest. When the test has failed by the end,
/// what was caught is shown after all.
class Output
{
  public:
    Output();
    ~Output();
    Output(const Output &) = delete;
    Output &operator=(const Output &) = delete;

    /// Everything printed so far, also what the product has not flushed.
    std::string text();
    /// Only what has already left the process.
    std::string flushed() const;

  private:
    int caught;
    int original;
};

/// Runs `statement` and returns what it printed.
std::string output_of(const std::function<void()> &statement);
