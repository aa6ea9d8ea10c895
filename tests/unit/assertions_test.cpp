// What a failed check does to the program. Here the real qel_assert_fail is called; the sleep that never
// ends is left by an exception.

#include "support/fake_kernel.h"
#include "support/output.h"
#include "support/stops.h"

#include "qel_utility/qel_log.h"

#include <gmock/gmock.h>
#include <string.h>
#include <unistd.h>

using testing::ElementsAre;

static std::string code_of(const char *file, int line)
{
    char code[100];
    qel_location_code(file, line, code, sizeof code);
    return code;
}

// ---- The location code ----

TEST(LocationCode, IsThreeLettersFromTheSumOfSquaresOfTheNameLeastSignificantFirst)
{
    // 97^2 + 98^2 = 19013; 19013 mod 26 = 7, 731 mod 26 = 3, 28 mod 26 = 2
    EXPECT_EQ(code_of("ab", 407), "ERROR HDC407");
}

TEST(LocationCode, CountsOnlyWhatFollowsTheLastSlash)
{
    EXPECT_EQ(code_of("x/y/ab", 407), "ERROR HDC407");
    EXPECT_EQ(code_of("/ab", 1), "ERROR HDC1");
}

TEST(LocationCode, OfANameWithoutSlashCountsTheWholeName)
{
    // 97^2 = 9409; 9409 mod 26 = 23, 361 mod 26 = 23, 13 mod 26 = 13
    EXPECT_EQ(code_of("a", 5), "ERROR XXN5");
}

TEST(LocationCode, OfAPathThatEndsInASlashIsAAA)
{
    EXPECT_EQ(code_of("x/y/", 12), "ERROR AAA12");
}

TEST(LocationCode, StopsCountingAtANewline)
{
    EXPECT_EQ(code_of("ab\ncd", 407), "ERROR HDC407");
}

TEST(LocationCode, CountsBytesAsSignedNumbers)
{
    // 0xE9 is -23: 529; 529 mod 26 = 9, 20 mod 26 = 20, 0
    EXPECT_EQ(code_of("\xE9", 1), "ERROR JUA1");
}

TEST(LocationCode, CountsModulo65536)
{
    // 5 * 122^2 = 74420 = 65536 + 8884; 8884 mod 26 = 18, 341 mod 26 = 3, 13 mod 26 = 13
    EXPECT_EQ(code_of("zzz", 1), "ERROR KBO1"); // 44652
    EXPECT_EQ(code_of("zzzzz", 1), "ERROR SDN1");
}

TEST(LocationCode, OfTheFileSystemLibraryIsTheOneInTheFieldNotes)
{
    // The squares of "qel_filesystem" sum up to 163582 = 2 * 65536 + 32510;
    // 32510 mod 26 = 10, 1250 mod 26 = 2, 48 mod 26 = 22
    EXPECT_EQ(code_of("qel_utility/qel_filesystem", 400), "ERROR KCW400");
}

TEST(LocationCode, IsCutToItsNulInASingleByte)
{
    char code[] = "xx";
    qel_location_code("ab", 407, code, 1);
    EXPECT_STREQ(code, "");
    EXPECT_STREQ(code + 1, "x");
}

// ---- The stop ----

TEST(FailedAssertion, ParksTheProgramASecondAtATime)
{
    FakeKernel kernel;
    kernel.set_time(0);
    kernel.leave_at("sleep", 4);
    EXPECT_THROW(real_assert_fail("x", "a/b", 407), LeftProduct);
    EXPECT_THAT(kernel.calls(), ElementsAre("sleep 1", "sleep 1", "sleep 1", "sleep 1"));
}

TEST(FailedAssertion, PrintsNothing)
{
    FakeKernel kernel;
    kernel.leave_at("sleep", 1);
    testing::internal::CaptureStderr();
    EXPECT_EQ(output_of([] { EXPECT_THROW(real_assert_fail("text", "a/b", 407), LeftProduct); }), "");
    EXPECT_EQ(testing::internal::GetCapturedStderr(), "");
}

TEST(FailedAssertion, WhileAnotherIsBeingHandledExitsWithStatus1AfterOneSecond)
{
    FakeKernel kernel;
    kernel.set_time(0);
    kernel.leave_at("sleep", 1);
    EXPECT_THROW(real_assert_fail("first", "a/b", 1), LeftProduct);

    kernel.on_sleep = [](unsigned seconds) { fprintf(stderr, "[slept %u]", seconds); };
    EXPECT_EXIT(real_assert_fail("second", "a/b", 2), testing::ExitedWithCode(1), "^\\[slept 1\\]$");
    kernel.throws_at_exit = true; // by exit, not by _exit
    EXPECT_THROW(real_assert_fail("third", "a/b", 3), ProductExit);
}

// ---- The macros ----

TEST(Assertion, IsSilentWhenItHolds)
{
    EXPECT_FALSE(stop_of([] { QEL_ASSERT(1 + 1 == 2); }).stopped);
}

TEST(Assertion, TakesTextFileAndLineFromTheCompiler)
{
    const int line = __LINE__ + 1;
    const StopResult stop = stop_of([] { QEL_ASSERT(1 + 1 == 3); });
    EXPECT_TRUE(stop.stopped);
    EXPECT_EQ(stop.text, "1 + 1 == 3");
    EXPECT_EQ(stop.unit, __FILE__);
    EXPECT_EQ(stop.line, line);
    EXPECT_EQ(stop.output, "");
}

TEST(Assertion, EvaluatesItsExpressionOnce)
{
    int count = 0;
    QEL_ASSERT(++count);
    EXPECT_EQ(count, 1);
}

TEST(Assertion, KeepsAFixedLine)
{
    EXPECT_STOPS("1 + 1 == 3", __FILE__, 4711, QEL_ASSERT_AT(4711, 1 + 1 == 3));
}

TEST(Assertion, KeepsAFixedText)
{
    EXPECT_STOPS("*app_file", __FILE__, 189, QEL_ASSERT_TEXT_AT(189, "*app_file", 1 + 1 == 3));
}
