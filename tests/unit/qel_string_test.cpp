// Whitespace, replacement and the check of file names.

#include "support/stops.h"

#include "qel_utility/qel_string.h"

#include <gtest/gtest.h>
#include <limits.h>
#include <signal.h>
#include <string.h>
#include <sys/time.h>

namespace
{

const char every_space[] = " \t\n\v\f\r";

/// Runs an in-place operation on a copy of each text; the second of a pair is what must come of it.
void expect_changes(void (*operation)(char *),
                    std::initializer_list<std::pair<std::string, const char *>> cases)
{
    for (auto [text, wanted] : cases) {
        const std::string before = text;
        operation(text.data());
        EXPECT_STREQ(text.c_str(), wanted) << '"' << before << '"';
    }
}

void expect_judged(int (*judge)(const char *), int wanted, std::initializer_list<const char *> texts)
{
    for (const char *text : texts)
        EXPECT_EQ(judge(text), wanted) << text;
}

/// Replaces in a buffer of `dst_size` bytes of "123456789..."; returns the result and all of the buffer.
struct Replaced {
    int result;
    std::string buffer;
};
Replaced replace(const char *src, int dst_size, const char *pattern, const char *replacement)
{
    std::string buffer = "123456789abcdefghijk";
    const int result = qel_str_replace(src, buffer.data(), dst_size, pattern, replacement);
    return {result, buffer};
}

} // namespace

TEST(IsBlank, SaysYesToWhitespaceAlone)
{
    expect_judged(qel_str_is_blank, 1, {"", every_space});
    expect_judged(qel_str_is_blank, 0, {"  x ", "\x01", "\b", "\x0E", "!", "\xA0"});
}

TEST(TrimLeft, MovesTheRestToTheStart)
{
    expect_changes(qel_str_trim_left,
                   {{"abc ", "abc "}, {" \t\n\v\f\ra b ", "a b "}, {every_space, ""}, {"", ""}});
}

TEST(TrimRight, ReplacesEveryTrailingBlankByNul)
{
    expect_changes(qel_str_trim_right, {{" a b \t\n\v\f\r", " a b"}, {every_space, ""}, {"", ""}});
    char text[] = "a \t";
    qel_str_trim_right(text);
    EXPECT_EQ(memcmp(text, "a\0\0", 4), 0);
}

TEST(TrimRight, LeavesWhatStandsBeforeAnEmptyStringAlone)
{
    char text[] = "a \0";
    qel_str_trim_right(text + 2);
    EXPECT_STREQ(text, "a ");
}

TEST(Whitespace, IsTrimmedCollapsedOrBoth)
{
    expect_changes(qel_str_trim, {{"\t a  b \n", "a  b"}, {" ", ""}, {"", ""}});
    expect_changes(qel_str_collapse_spaces, {{" a\tb ", " a b "},
                                             {"\t\ta \n\v\f\rb\n\n", " a b "},
                                             {every_space, " "},
                                             {"abc", "abc"},
                                             {"", ""}});
    expect_changes(qel_str_normalize_spaces, {{"\t a \n\n b  ", "a b"}, {"   ", ""}});
}

TEST(WhitespaceFunctions, StopOnNull)
{
    for (const auto function : {qel_str_trim_left, qel_str_trim_right, qel_str_trim, qel_str_collapse_spaces,
                                qel_str_normalize_spaces})
        EXPECT_STOPS_ON("s", string_unit, function(nullptr));
    EXPECT_STOPS_ON("s", string_unit, qel_str_is_blank(nullptr));
}

// ---- qel_str_replace ----

TEST(Replace, TakesMatchesLeftToRightWithoutOverlapAndNeverSearchesInsertedText)
{
    static const struct {
        const char *src, *pattern, *replacement, *wanted;
    } cases[] = {
        {"aaa", "aa", "b", "ba"}, {"x.y.z.", ".", "--", "x--y--z--"}, {"ab", "a", "aab", "aabb"},
        {"a-b-", "-", "", "ab"},  {"abc", "x", "y", "abc"},           {"", "x", "y", ""},
    };
    for (const auto &each : cases) {
        const Replaced found = replace(each.src, 20, each.pattern, each.replacement);
        EXPECT_STREQ(found.buffer.c_str(), each.wanted);
        EXPECT_EQ(found.result, static_cast<int>(strlen(each.wanted)) + 1) << each.src;
    }
}

TEST(Replace, FillsTheWholeDestinationWithZerosFirst)
{
    EXPECT_EQ(replace("ab", 6, "b", "c").buffer.substr(0, 7), std::string("ac\0\0\0\0007", 7));
}

TEST(Replace, CountsWhatDoesNotFitAndLeavesAFullBufferWithoutTerminator)
{
    const auto expect = [](const Replaced &found, int result, const std::string &buffer) {
        EXPECT_EQ(found.result, result);
        EXPECT_EQ(found.buffer.substr(0, 5), buffer);
    };
    expect(replace("abc", 4, "b", "xyz"), 6, "axyz5");
    expect(replace("abcd", 4, "x", "y"), 5, "abcd5");
    expect(replace("abc", 4, "x", "y"), 4, std::string("abc\0005", 5));
}

TEST(Replace, CountsToTheLargestIntAndStopsOnMore)
{
    const std::string src(65535, 'a'), replacement(32768, 'b');
    const Replaced found = replace((src + std::string(32766, 'c')).c_str(), 4, "a", replacement.c_str());
    EXPECT_EQ(found.result, INT_MAX);
    EXPECT_EQ(found.buffer.substr(0, 5), "bbbb5");
    EXPECT_STOPS_ON("count < INT_MAX", string_unit,
                    replace((src + std::string(32767, 'c')).c_str(), 4, "a", replacement.c_str()));
}

TEST(Replace, NeverReturnsFromAnEmptyPattern)
{
    // So long that more than 2^31 characters are counted in that time.
    const std::string replacement(1 << 24, 'x');
    const auto replace_for_400_ms = [&] {
        const itimerval after = {{}, {0, 400000}}; // of the processor's time
        setitimer(ITIMER_VIRTUAL, &after, nullptr);
        replace("abc", 4, "", replacement.c_str());
    };
    EXPECT_EXIT(replace_for_400_ms(), testing::KilledBySignal(SIGVTALRM), "");
}

TEST(Replace, ChecksItsArgumentsInOrderAndLeavesTheDestinationAloneWhenItStops)
{
    char dst[] = "abc";
    EXPECT_STOPS_ON("src", string_unit, qel_str_replace(nullptr, nullptr, 0, nullptr, nullptr));
    EXPECT_STOPS_ON("dst", string_unit, qel_str_replace("a", nullptr, 0, nullptr, nullptr));
    EXPECT_STOPS_ON("dst_size > 0", string_unit, qel_str_replace("a", dst, 0, nullptr, nullptr));
    EXPECT_STOPS_ON("dst_size > 0", string_unit, qel_str_replace("a", dst, -1, "b", "c"));
    EXPECT_STOPS_ON("pattern", string_unit, qel_str_replace("a", dst, 4, nullptr, nullptr));
    EXPECT_STOPS_ON("replacement", string_unit, qel_str_replace("a", dst, 4, "b", nullptr));
    EXPECT_STREQ(dst, "abc");
}

// ---- qel_filename_is_valid ----

TEST(FilenameIsValid, RefusesNullEmptySlashesAndEachOfTheEightForbiddenCharactersAnywhere)
{
    expect_judged(qel_filename_is_valid, 1, {"readme.txt", " ~!#$%&'()+,-;=@[]^_`{}", "caf\xC3\xA9"});
    expect_judged(qel_filename_is_valid, 0,
                  {"", "a\\b", "a:b", "a*", "?a", "\"", "a<", "a>b", "|", "a/b", "/", "tab\there", "a\x7F"});
    EXPECT_EQ(qel_filename_is_valid(nullptr), 0);
}

TEST(FilenameIsValid, RefusesEveryControlCharacterAndAcceptsEveryByteOf128AndMore)
{
    for (int byte = 1; byte < 256; ++byte) {
        const char name[] = {static_cast<char>(byte), '\0'};
        if (byte < 32 || byte > 127) {
            EXPECT_EQ(qel_filename_is_valid(name), byte > 127) << byte;
        }
    }
}
