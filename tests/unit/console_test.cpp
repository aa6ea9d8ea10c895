// What reaches the console and the log file, and when.

#include "support/fake_kernel.h"
#include "support/output.h"
#include "support/scratch.h"
#include "support/stops.h"
#include "support/transcript.h"

#include "qel_utility/qel_log.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

/// Sets the time zone for a test, with a fixed moment to go with it.
struct Console : testing::Test {
    Console()
    {
        set_zone("UTC0");
        kernel.set_time(morning);
    }
    ~Console() override
    {
        unsetenv("TZ");
        tzset();
        qel_log_file = nullptr;
    }
    static void set_zone(const char *zone)
    {
        setenv("TZ", zone, 1);
        tzset();
    }

    /// 2024-03-05 07:08:09 UTC
    static constexpr time_t morning = 1709622489;
    FakeKernel kernel;
};

using LogTimestamp = Console;
using Print = Console;
using FatalError = Console;

// ---- Time stamp ----

TEST_F(LogTimestamp, ReturnsTheNumberOfCharacters)
{
    int result = 0;
    output_of([&] { result = qel_log_timestamp(stdout); });
    EXPECT_EQ(result, 22);
}

TEST_F(LogTimestamp, IsLocalTime)
{
    set_zone("HERE-3");
    EXPECT_EQ(output_of([] { qel_log_timestamp(stdout); }), "2024-03-05 10:08:09 - ");
}

TEST_F(LogTimestamp, CountsMonthsFrom1)
{
    kernel.set_time(1703980799); // 2023-12-30 23:59:59 UTC
    EXPECT_EQ(output_of([] { qel_log_timestamp(stdout); }), "2023-12-30 23:59:59 - ");
}

TEST_F(LogTimestamp, HasYearsOfFourDigits)
{
    kernel.set_time(-62135596800); // 0001-01-01 00:00:00 UTC
    EXPECT_EQ(output_of([] { qel_log_timestamp(stdout); }), "0001-01-01 00:00:00 - ");
}

TEST_F(LogTimestamp, GoesToTheStreamAsked)
{
    char text[64] = "";
    FILE *stream = fmemopen(text, sizeof text, "w");
    EXPECT_EQ(output_of([&] { qel_log_timestamp(stream); }), "");
    fclose(stream);
    EXPECT_STREQ(text, "2024-03-05 07:08:09 - ");
}

// ---- qel_print ----

TEST_F(Print, IsOnTheConsoleBeforeTheNextStatementEvenInAFile)
{
    Output output;
    qel_print("mount: %s %d\n", "/usr", 1);
    EXPECT_EQ(output.flushed(), "mount: /usr 1\n");
}

TEST_F(Print, TakesEarlierUnflushedTextAlongInOrder)
{
    Output output;
    printf("first ");
    EXPECT_EQ(output.flushed(), "");
    qel_print("second");
    EXPECT_EQ(output.flushed(), "first second");
}

TEST_F(Print, FlushesNoOtherStream)
{
    const Scratch scratch;
    FILE *other = real_fopen(scratch.at("other").c_str(), "w");
    fputs("text", other);
    output_of([] { qel_print("x"); });
    EXPECT_EQ(scratch.content("other"), "");
    fclose(other);
}

TEST_F(Print, Returns0WhenTheFlushSucceeds)
{
    int result = -2;
    output_of([&] { result = qel_print("text"); });
    EXPECT_EQ(result, 0);
}

TEST_F(Print, ReturnsEofWhenTheFlushFails)
{
    Output output;
    const int full = real_open("/dev/full", O_WRONLY, 0);
    const int caught = fcntl(STDOUT_FILENO, F_DUPFD_CLOEXEC, 10);
    real_dup2(full, STDOUT_FILENO);
    const int result = qel_print("text");
    real_dup2(caught, STDOUT_FILENO);
    real_close(full);
    real_close(caught);
    clearerr(stdout);
    EXPECT_EQ(result, EOF);
}

// ---- Fatal errors ----

static void fail_fatally()
{
    QEL_FATAL_ERROR_AT(400, "Path is not absolute: \"%s\"\n", "etc");
}

TEST_F(FatalError, PrintsTheTimeThePlaceAndTheMessage)
{
    EXPECT_EQ(stop_of(fail_fatally).output, "2024-03-05 07:08:09 - ERROR - " __FILE__
                                            ":400 - fail_fatally() - Path is not absolute: \"etc\"\n");
}

TEST_F(FatalError, TakesFileAndLineFromTheCompiler)
{
    const int line = __LINE__ + 1;
    EXPECT_STOPS("0", __FILE__, line, QEL_FATAL_ERROR("x\n"));
}

TEST_F(FatalError, IsFlushedBeforeTheProgramStops)
{
    Output output;
    EXPECT_THROW(fail_fatally(), Stop);
    EXPECT_EQ(output.flushed(), "2024-03-05 07:08:09 - ERROR - " __FILE__
                                ":400 - fail_fatally() - Path is not absolute: \"etc\"\n");
}

TEST_F(FatalError, CopiesTimeAndMessageToTheLogFileWithoutThePlaceAndUnflushed)
{
    Scratch scratch;
    scratch.make_file("log");
    qel_log_file = real_fopen(scratch.at("log").c_str(), "w");
    stop_of(fail_fatally);
    EXPECT_EQ(scratch.content("log"), "");

    fflush(qel_log_file);
    EXPECT_EQ(scratch.content("log"), "2024-03-05 07:08:09 - Path is not absolute: \"etc\"\n");
    fclose(qel_log_file);
}

TEST_F(Console, HasTheFatalErrorBeforeTheLogHasIt)
{
    const Scratch scratch;
    qel_log_file = real_fopen(scratch.at("log").c_str(), "w");
    Transcript transcript(kernel, "localtime");
    EXPECT_THROW(QEL_FATAL_ERROR("Message\n"), Stop);
    const std::vector<std::string> lines = transcript.lines();
    fclose(qel_log_file);
    ASSERT_EQ(lines.size(), 3U);
    EXPECT_EQ(lines[0], "localtime");
    EXPECT_EQ(lines[1].substr(0, 32), "> 2024-03-05 07:08:09 - ERROR - ");
    EXPECT_EQ(lines[2], "localtime");
}
