// Whitespace, replacement and the check of file names.

#include "support/stops.h"

#include "qel_utility/qel_string.h"

#include <gtest/gtest.h>
#include <string.h>

/// Runs an in-place operation on a copy of `text`.
static std::string changed(void (*operation)(char *), const std::string &text)
{
    std::string copy = text;
    operation(copy.data());
    return copy.c_str();
}

static const char every_space[] = " \t\n\v\f\r";

// ---- qel_str_is_blank ----

TEST(IsBlank, SaysYesToTheEmptyString)
{
    EXPECT_EQ(qel_str_is_blank(""), 1);
}

TEST(IsBlank, SaysYesToEveryKindOfWhitespace)
{
    EXPECT_EQ(qel_str_is_blank(every_space), 1);
}

TEST(IsBlank, SaysNoToAnythingElse)
{
    EXPECT_EQ(qel_str_is_blank("  x "), 0);
    EXPECT_EQ(qel_str_is_blank("\x01"), 0);
    EXPECT_EQ(qel_str_is_blank("\b"), 0); // the neighbours of the controls that are
    EXPECT_EQ(qel_str_is_blank("\x0E"), 0);
    EXPECT_EQ(qel_str_is_blank("!"), 0);
    EXPECT_EQ(qel_str_is_blank("\xA0"), 0);
}

// ---- qel_str_trim_left ----

TEST(TrimLeft, LeavesAStringThatBeginsWithSomethingElseAlone)
{
    EXPECT_EQ(changed(qel_str_trim_left, "abc "), "abc ");
}

TEST(TrimLeft, MovesTheRestToTheStart)
{
    EXPECT_EQ(changed(qel_str_trim_left, " \t\n\v\f\ra b "), "a b ");
}

TEST(TrimLeft, EmptiesAnAllWhitespaceString)
{
    EXPECT_EQ(changed(qel_str_trim_left, every_space), "");
    EXPECT_EQ(changed(qel_str_trim_left, ""), "");
}

// ---- qel_str_trim_right ----

TEST(TrimRight, RemovesTrailingWhitespaceOnly)
{
    EXPECT_EQ(changed(qel_str_trim_right, " a b \t\n\v\f\r"), " a b");
}

TEST(TrimRight, EmptiesAnAllWhitespaceString)
{
    EXPECT_EQ(changed(qel_str_trim_right, every_space), "");
    EXPECT_EQ(changed(qel_str_trim_right, ""), "");
}

TEST(TrimRight, LeavesWhatStandsBeforeAnEmptyStringAlone)
{
    char text[] = "a \0";
    qel_str_trim_right(text + 2);
    EXPECT_STREQ(text, "a ");
}

TEST(TrimRight, ReplacesEveryTrailingCharacterByNul)
{
    char text[] = "a \t";
    qel_str_trim_right(text);
    EXPECT_EQ(memcmp(text, "a\0\0", 4), 0);
}

// ---- qel_str_trim ----

TEST(Trim, RemovesWhitespaceAtBothEnds)
{
    EXPECT_EQ(changed(qel_str_trim, "\t a  b \n"), "a  b");
    EXPECT_EQ(changed(qel_str_trim, " "), "");
    EXPECT_EQ(changed(qel_str_trim, ""), "");
}

// ---- qel_str_collapse_spaces ----

TEST(CollapseSpaces, MakesEveryRunOneBlankAlsoAtTheEnds)
{
    EXPECT_EQ(changed(qel_str_collapse_spaces, " a\tb "), " a b ");
    EXPECT_EQ(changed(qel_str_collapse_spaces, "\t\ta \n\v\f\rb\n\n"), " a b ");
    EXPECT_EQ(changed(qel_str_collapse_spaces, every_space), " ");
}

TEST(CollapseSpaces, LeavesTextWithoutWhitespaceAlone)
{
    EXPECT_EQ(changed(qel_str_collapse_spaces, "abc"), "abc");
    EXPECT_EQ(changed(qel_str_collapse_spaces, ""), "");
}

// ---- qel_str_normalize_spaces ----

TEST(NormalizeSpaces, TrimsTheEndsAndLeavesSingleBlanksInside)
{
    EXPECT_EQ(changed(qel_str_normalize_spaces, "\t a \n\n b  "), "a b");
}

TEST(NormalizeSpaces, EmptiesAnAllWhitespaceString)
{
    EXPECT_EQ(changed(qel_str_normalize_spaces, "   "), "");
}

// ---- Null ----

TEST(WhitespaceFunctions, StopOnNull)
{
    EXPECT_STOPS_ON("s", string_unit, qel_str_is_blank(nullptr));
    EXPECT_STOPS_ON("s", string_unit, qel_str_trim_left(nullptr));
    EXPECT_STOPS_ON("s", string_unit, qel_str_trim_right(nullptr));
    EXPECT_STOPS_ON("s", string_unit, qel_str_trim(nullptr));
    EXPECT_STOPS_ON("s", string_unit, qel_str_collapse_spaces(nullptr));
    EXPECT_STOPS_ON("s", string_unit, qel_str_normalize_spaces(nullptr));
}

// ---- qel_str_replace ----

TEST(Replace, TakesMatchesLeftToRightWithoutOverlap)
{
    char dst[10];
    EXPECT_EQ(qel_str_replace("aaa", dst, sizeof dst, "aa", "b"), 3);
    EXPECT_STREQ(dst, "ba");
}

TEST(Replace, ReplacesEveryMatch)
{
    char dst[20];
    EXPECT_EQ(qel_str_replace("x.y.z.", dst, sizeof dst, ".", "--"), 10);
    EXPECT_STREQ(dst, "x--y--z--");
}

TEST(Replace, NeverSearchesInsertedText)
{
    char dst[20];
    EXPECT_EQ(qel_str_replace("ab", dst, sizeof dst, "a", "aab"), 5);
    EXPECT_STREQ(dst, "aabb");
}

TEST(Replace, RemovesWithAnEmptyReplacement)
{
    char dst[20];
    EXPECT_EQ(qel_str_replace("a-b-", dst, sizeof dst, "-", ""), 3);
    EXPECT_STREQ(dst, "ab");
}

TEST(Replace, CopiesASourceWithoutMatch)
{
    char dst[20];
    EXPECT_EQ(qel_str_replace("abc", dst, sizeof dst, "x", "y"), 4);
    EXPECT_STREQ(dst, "abc");
    EXPECT_EQ(qel_str_replace("", dst, sizeof dst, "x", "y"), 1);
    EXPECT_STREQ(dst, "");
}

TEST(Replace, FillsTheWholeDestinationWithZerosFirst)
{
    char dst[6];
    memset(dst, 'x', sizeof dst);
    qel_str_replace("ab", dst, sizeof dst, "b", "c");
    EXPECT_EQ(memcmp(dst, "ac\0\0\0\0", sizeof dst), 0);
}

TEST(Replace, CountsWhatDoesNotFitAndLeavesAFullBufferWithoutTerminator)
{
    char dst[] = "12345";
    EXPECT_EQ(qel_str_replace("abc", dst, 4, "b", "xyz"), 6);
    EXPECT_EQ(memcmp(dst, "axyz5", 5), 0);
}

TEST(Replace, LeavesAResultOfExactlyTheSizeWithoutTerminator)
{
    char dst[] = "12345";
    EXPECT_EQ(qel_str_replace("abcd", dst, 4, "x", "y"), 5);
    EXPECT_EQ(memcmp(dst, "abcd5", 5), 0);
}

TEST(Replace, TerminatesAResultThatFitsExactly)
{
    char dst[] = "12345";
    EXPECT_EQ(qel_str_replace("abc", dst, 4, "x", "y"), 4);
    EXPECT_EQ(memcmp(dst, "abc\0005", 5), 0);
}

TEST(Replace, StopsOnADestinationSizeOf0)
{
    char dst[4];
    EXPECT_STOPS_ON("dst_size > 0", string_unit, qel_str_replace("a", dst, 0, "b", "c"));
    EXPECT_STOPS_ON("dst_size > 0", string_unit, qel_str_replace("a", dst, -1, "b", "c"));
}

TEST(Replace, ChecksItsArgumentsInOrder)
{
    char dst[4];
    EXPECT_STOPS_ON("src", string_unit, qel_str_replace(nullptr, nullptr, 0, nullptr, nullptr));
    EXPECT_STOPS_ON("dst", string_unit, qel_str_replace("a", nullptr, 0, nullptr, nullptr));
    EXPECT_STOPS_ON("dst_size > 0", string_unit, qel_str_replace("a", dst, 0, nullptr, nullptr));
    EXPECT_STOPS_ON("pattern", string_unit, qel_str_replace("a", dst, 4, nullptr, nullptr));
    EXPECT_STOPS_ON("replacement", string_unit, qel_str_replace("a", dst, 4, "b", nullptr));
}

TEST(Replace, LeavesTheDestinationAloneWhenItStops)
{
    char dst[] = "abc";
    EXPECT_STOPS_ON("replacement", string_unit, qel_str_replace("a", dst, 4, "b", nullptr));
    EXPECT_STREQ(dst, "abc");
}

// ---- qel_filename_is_valid ----

TEST(FilenameIsValid, AcceptsAnOrdinaryName)
{
    EXPECT_EQ(qel_filename_is_valid("readme.txt"), 1);
    EXPECT_EQ(qel_filename_is_valid(" ~!#$%&'()+,-;=@[]^_`{}"), 1);
}

TEST(FilenameIsValid, RefusesNullAndEmpty)
{
    EXPECT_EQ(qel_filename_is_valid(nullptr), 0);
    EXPECT_EQ(qel_filename_is_valid(""), 0);
}

TEST(FilenameIsValid, RefusesEachOfTheEightForbiddenCharactersAnywhere)
{
    for (const char *name : {"a\\b", "a:b", "a*", "?a", "\"", "a<", "a>b", "|"})
        EXPECT_EQ(qel_filename_is_valid(name), 0) << name;
}

TEST(FilenameIsValid, RefusesASlash)
{
    EXPECT_EQ(qel_filename_is_valid("a/b"), 0);
    EXPECT_EQ(qel_filename_is_valid("/"), 0);
}

TEST(FilenameIsValid, RefusesEveryControlCharacter)
{
    EXPECT_EQ(qel_filename_is_valid("tab\there"), 0);
    for (int byte = 1; byte < 32; byte++) {
        const char name[] = {'a', static_cast<char>(byte), '\0'};
        EXPECT_EQ(qel_filename_is_valid(name), 0) << byte;
    }
    EXPECT_EQ(qel_filename_is_valid("a\x7F"), 0);
}

TEST(FilenameIsValid, AcceptsEveryByteOf128AndMore)
{
    EXPECT_EQ(qel_filename_is_valid("caf\xC3\xA9"), 1);
    for (int byte = 128; byte < 256; byte++) {
        const char name[] = {static_cast<char>(byte), '\0'};
        EXPECT_EQ(qel_filename_is_valid(name), 1) << byte;
    }
}
