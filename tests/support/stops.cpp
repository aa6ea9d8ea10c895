// The tests' qel_assert_fail, and the expectations built on it.

#include "support/stops.h"
#include "support/fake_kernel.h"
#include "support/output.h"

#include <unistd.h>

#include <regex>

// Present only under the leak sanitizer.
extern "C" __attribute__((weak)) void __lsan_disable();
extern "C" __attribute__((weak)) void __lsan_enable();

/// Where tests run. A child that the product forked must not run the rest of the test.
static pid_t test_process = getpid();

void tests_run_here()
{
    test_process = getpid();
}

Stop::Stop(const char *expression, const char *file, int at_line)
    : text(expression), unit(file), line(at_line),
      message("stopped on \"" + text + "\" at " + unit + ":" + std::to_string(line))
{
}

[[noreturn]] void wrap_assert_fail(const char *expression, const char *file,
                                   int line) __asm__("__wrap_qel_assert_fail");

void wrap_assert_fail(const char *expression, const char *file, int line)
{
    if (getpid() != test_process)
        real__exit(99);
    throw Stop(expression, file, line);
}

LeaksAllowed::LeaksAllowed()
{
    if (__lsan_disable)
        __lsan_disable();
}

LeaksAllowed::~LeaksAllowed()
{
    if (__lsan_enable)
        __lsan_enable();
}

StopResult stop_of(const std::function<void()> &statement)
{
    const LeaksAllowed in_hand;
    StopResult result;
    Output output;
    try {
        statement();
    } catch (const Stop &stop) {
        result.stopped = 1;
        result.text = stop.text;
        result.unit = stop.unit;
        result.line = stop.line;
    }
    result.output = output.text();
    return result;
}

static testing::AssertionResult is_stop(const StopResult &found, const char *text, const char *unit, int line)
{
    if (!found.stopped)
        return testing::AssertionFailure() << "it did not stop, but printed \"" << found.output << '"';
    if (found.text != text || found.unit != unit || (line != any_line && found.line != line)) {
        return testing::AssertionFailure()
               << "it stopped on \"" << found.text << "\" at " << found.unit << ':' << found.line
               << " instead of \"" << text << "\" at " << unit << ':' << line;
    }
    return testing::AssertionSuccess();
}

testing::AssertionResult stops_at(const char *text, const char *unit, int line,
                                  const std::function<void()> &statement)
{
    return is_stop(stop_of(statement), text, unit, line);
}

testing::AssertionResult stops_at(int line, const std::function<void()> &statement)
{
    const StopResult found = stop_of(statement);
    return is_stop(found, found.text.c_str(), found.unit.c_str(), line);
}

testing::AssertionResult stops_with_message(const std::string &message, const char *function,
                                            const char *unit, int line,
                                            const std::function<void()> &statement)
{
    const StopResult found = stop_of(statement);
    const testing::AssertionResult stopped = is_stop(found, "0", unit, line);
    if (!stopped)
        return stopped;

    const std::string end = std::string("ERROR - ") + unit + ":" + std::to_string(found.line) + " - " +
                            function + "() - " + message;
    static const std::string stamp = "YYYY-MM-DD hh:mm:ss - ";
    const size_t whole = stamp.size() + end.size();
    const std::string printed =
        found.output.size() < whole ? found.output : found.output.substr(found.output.size() - whole);
    static const std::regex stamp_pattern("\\d{4}-\\d{2}-\\d{2} \\d{2}:\\d{2}:\\d{2} - ");
    if (printed.size() != whole || printed.substr(stamp.size()) != end ||
        !std::regex_match(printed.substr(0, stamp.size()), stamp_pattern)) {
        return testing::AssertionFailure()
               << "it printed \"" << found.output << "\" instead of a time stamp and \"" << end << '"';
    }
    return testing::AssertionSuccess();
}
