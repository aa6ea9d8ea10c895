/// Stops as something a test can expect.
///
/// In the product qel_assert_fail never returns. In the tests the linker puts one in its place that
/// leaves the product by an exception, which carries what was reported. The real one is reachable as
/// real_assert_fail, for tests of its own in a child process.
#pragma once

#include <gtest/gtest.h>

#include <exception>
#include <functional>
#include <string>

/// A failed check, as reported.
struct Stop : std::exception {
    Stop(const char *expression, const char *file, int at_line);
    const char *what() const noexcept override
    {
        return message.c_str();
    }
    std::string text;
    std::string unit;
    int line;
    std::string message;
};

[[noreturn]] void real_assert_fail(const char *expression, const char *file,
                                   int line) __asm__("__real_qel_assert_fail");

/// From now on, tests run in this process: a child that a test made of itself.
void tests_run_here();

/// What came of a statement.
struct StopResult {
    int stopped = 0;
    std::string text;
    std::string unit;
    int line = 0;
    /// Everything that the statement printed.
    std::string output;
};

/// While it exists, memory that is never freed counts as no leak: for what stops have in hand, and for
/// objects that the product keeps for the life of the process.
struct LeaksAllowed {
    LeaksAllowed();
    ~LeaksAllowed();
};

/// Runs `statement` and reports whether and where it stopped. Memory it had in hand counts as no leak.
StopResult stop_of(const std::function<void()> &statement);

/// Any line will do.
constexpr int any_line = -1;

testing::AssertionResult stops_at(const char *text, const char *unit, int line,
                                  const std::function<void()> &statement);
testing::AssertionResult stops_at(int line, const std::function<void()> &statement);
testing::AssertionResult stops_with_message(const std::string &message, const char *function,
                                            const char *unit, int line,
                                            const std::function<void()> &statement);

/// The statement must stop on the check `text` of `unit` at `line`.
#define EXPECT_STOPS(text, unit, line, ...) EXPECT_TRUE(stops_at(text, unit, line, [&] { __VA_ARGS__; }))

/// The statement must stop on the numbered check `line`, whose text and unit stand in
/// unit/reported_locations_test.cpp.
#define EXPECT_STOPS_AT(line, ...) EXPECT_TRUE(stops_at(line, [&] { __VA_ARGS__; }))

/// The same as EXPECT_STOPS for checks whose line is not fixed.
#define EXPECT_STOPS_ON(text, unit, ...) EXPECT_STOPS(text, unit, any_line, __VA_ARGS__)

/// The statement must end with the fatal error `message` of `function`: the last thing on standard output
/// is a time stamp, the place and the message.
#define EXPECT_FATAL(message, function, unit, line, ...)                                                     \
    EXPECT_TRUE(stops_with_message(message, function, unit, line, [&] { __VA_ARGS__; }))

/// The units that report.
constexpr const char *filesystem_unit = "qel_utility/qel_filesystem";
constexpr const char *string_unit = "qel_utility/qel_string";
constexpr const char *h8_unit = "qel_tolbrin/qel_h8_command";
constexpr const char *loader_unit = "qel_application_loader";
