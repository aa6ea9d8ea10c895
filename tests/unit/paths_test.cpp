// What is a valid, an absolute and a root path, and how path texts are changed in place.

#include "support/stops.h"

#include "qel_utility/qel_filesystem/paths.h"

#include <gtest/gtest.h>
#include <string.h>

namespace
{

enum { unix_flavour = 0, dos_flavour = 1 };

struct Case {
    const char *before;
    std::string after;
};

/// Runs an in-place operation on a copy of each text.
template <typename Operation> void expect_changes(Operation operation, std::initializer_list<Case> cases)
{
    for (const Case &each : cases) {
        std::string copy = each.before;
        operation(copy.data());
        EXPECT_STREQ(copy.c_str(), each.after.c_str()) << each.before;
    }
}

using Paths = std::initializer_list<const char *>;

void expect_all(int (*judge)(const char *), int wanted, Paths paths)
{
    for (const char *path : paths)
        EXPECT_EQ(judge(path), wanted) << path;
}

void expect_validity(int flavour, int wanted, Paths paths)
{
    for (const char *path : paths)
        EXPECT_EQ(_qel_path_is_valid(path, flavour), wanted) << path;
}

} // namespace

// ---- Roots ----

TEST(RootPrefix, HasALengthInEachFlavour)
{
    static const struct {
        const char *path;
        int unix_length, dos_length;
    } cases[] = {
        {"/", 1, 0},     {"/a", 1, 0},   {"//a", 1, 2},    {"//", 1, 2},  {"//server", 1, 2},
        {"a/b", 0, 0},   {"", 0, 0},     {"C:/", 0, 3},    {"C:", 0, 0},  {"z:/dir", 0, 3},
        {"C:dir", 0, 0}, {"a//b", 0, 0}, {"\xE9:/", 0, 0}, {"1:/", 0, 0}, {"C:\\", 0, 0},
    };
    for (const auto &each : cases) {
        EXPECT_EQ(_qel_path_root_len(each.path, unix_flavour), each.unix_length) << each.path;
        EXPECT_EQ(_qel_path_root_len(each.path, dos_flavour), each.dos_length) << each.path;
    }
    EXPECT_EQ(_qel_path_root_len(nullptr, unix_flavour), 0);
    EXPECT_STOPS_AT(117, _qel_path_root_len(nullptr, dos_flavour));
}

TEST(RootDir, OfUnixIsTheSlashAlone)
{
    expect_all(qel_path_is_root_dir, 1, {"/"});
    expect_all(qel_unix_path_is_root_dir, 1, {"/"});
    EXPECT_EQ(_qel_path_is_root_dir("/", unix_flavour), 1);
    expect_all(qel_path_is_root_dir, 0, {"", "a", "/a", "//", "C:/"});
    expect_all(qel_unix_path_is_root_dir, 0, {"", "a", "/a", "//", "C:/"});
    EXPECT_EQ(qel_path_is_root_dir(nullptr), 0);
}

TEST(RootDir, OfDosIsADriveInEitherCaseOrTheNetwork)
{
    expect_all(qel_dos_path_is_root_dir, 1, {"C:/", "c:/", "//"});
    EXPECT_EQ(_qel_path_is_root_dir("C:/", dos_flavour), 1);
    expect_all(qel_dos_path_is_root_dir, 0, {"", "/", "C:", "C:/a", "//a"});
}

// ---- Validity ----

TEST(ValidPath, IsNeitherEmptyNorNull)
{
    for (int flavour : {unix_flavour, dos_flavour}) {
        EXPECT_EQ(_qel_path_is_valid("", flavour), 0);
        EXPECT_EQ(_qel_path_is_valid(nullptr, flavour), 0);
    }
    EXPECT_EQ(qel_path_is_valid(""), 0);
    EXPECT_EQ(qel_path_is_valid(nullptr), 0);
}

TEST(ValidPath, MayBeTheRootOfItsFlavour)
{
    expect_validity(unix_flavour, 1, {"/"});
    expect_validity(unix_flavour, 0, {"C:", "//server/share"});
    expect_validity(dos_flavour, 1, {"C:/", "//", "//server/share"});
    expect_validity(dos_flavour, 0, {"/", "C:", "C:/a:b"});
}

TEST(ValidPath, EndsInNoSlashAndHoldsNoDoubledOne)
{
    expect_all(qel_path_is_valid, 0, {"/a/", "a/", "/a//b", "//a"});
    expect_validity(dos_flavour, 0, {"C:/a/", "C://a", "///a"});
}

TEST(ValidPath, IsJudgedWithoutWhatStandsBeforeIt)
{
    const char text[] = "//a";
    EXPECT_EQ(_qel_path_is_valid(text + 1, dos_flavour), 1);
}

TEST(ValidPath, HoldsNeitherControlBytesNorAnyOfTheEightForbiddenCharacters)
{
    expect_all(qel_path_is_valid, 0,
               {"/a\\b", "/a:b", "/a*", "/?", "/\"", "/<", "/>", "/|", "/a\tb", "/\x7F"});
    for (int byte = 1; byte < 256; ++byte) {
        const char path[] = {'/', static_cast<char>(byte), '\0'};
        if (byte < 32 || byte > 127) {
            EXPECT_EQ(qel_path_is_valid(path), byte > 127) << byte;
        }
    }
}

TEST(ValidPath, MayHoldEveryOtherByteDotsAndBlanksAndMayBeRelativeAndLong)
{
    expect_all(qel_path_is_valid, 1,
               {"/ !#$%&'()+,-.0123456789;=@AZ[]^_`az{}~", "/caf\xC3\xA9", "/a/b c", "a", "a/b", ".", "..",
                "/a/../b", "./a", ("/" + std::string(100000, 'x')).c_str()});
}

// ---- Absolute ----

TEST(AbsolutePath, BeginsWithTheRootAndIsValid)
{
    for (const char *path : {"/", "/a", "/a/b c"}) {
        EXPECT_EQ(qel_path_is_absolute(path), 1) << path;
        EXPECT_EQ(qel_unix_path_is_absolute(path), 1) << path;
        EXPECT_EQ(_qel_path_is_absolute(path, unix_flavour), 1) << path;
    }
    expect_all(qel_path_is_absolute, 0, {"", "a", "a/b", "/a/", "/a//b", "//server/share", "C:/"});
    expect_all(qel_unix_path_is_absolute, 0, {"", "a", "/a/", "/a//b", "//server/share", "C:/"});
}

TEST(AbsolutePath, OfDosIsADriveOrANetworkPath)
{
    for (const char *path : {"C:/", "c:/dir", "//server/share"}) {
        EXPECT_EQ(qel_dos_path_is_absolute(path), 1) << path;
        EXPECT_EQ(_qel_path_is_absolute(path, dos_flavour), 1) << path;
    }
    expect_all(qel_dos_path_is_absolute, 0, {"/", "/a", "C:", "C:/a/", "dir"});
}

// ---- Changes in place ----

TEST(Normalize, TurnsBackslashesDropsOneTrailingSlashAndThenShrinksRuns)
{
    expect_changes(qel_path_normalize, {
                                           {"C:\\dir\\", "C:/dir"},
                                           {"a\\b/c", "a/b/c"},
                                           {"c:\\", "C:"}, // the slash of the root, too
                                           {"/a///b/", "/a/b"},
                                           {"a//b////c", "a/b/c"},
                                           {"/a//", "/a/"},
                                           {"/a////", "/a/"},
                                           {"", ""},
                                           {"/", "/"},
                                           {"\\", "/"},
                                           {"//", "/"},
                                       });
}

TEST(Normalize, ShrinksARunAtTheStartToTwoSlashes)
{
    expect_changes(qel_path_normalize, {{"///a", "//a"},
                                        {"//a", "//a"},
                                        {"/////a", "//a"},
                                        {"\\\\server\\share", "//server/share"},
                                        {"///", "//"}});
}

TEST(Normalize, RaisesTheLetterBeforeAColonInSecondPlace)
{
    expect_changes(qel_path_normalize,
                   {{"d:/games", "D:/games"}, {"1:/games", "1:/games"}, {"ab:/games", "ab:/games"}});
}

TEST(Normalize, LooksAtNothingBeforeTheText)
{
    char text[] = "/";
    qel_path_normalize(text + 1); // empty
    EXPECT_STREQ(text, "/");
}

TEST(NormalizeStrict, StopsWhenTheResultIsValidInNeitherFlavour)
{
    const auto normalize = [](char *path) { EXPECT_EQ(qel_path_normalize_strict(path), 1); };
    expect_changes(normalize, {{"c:\\dir\\", "C:/dir"}, {"/a///b/", "/a/b"}, {"/", "/"}});
    for (const char *path : {"c:\\", "/a//", ""})
        EXPECT_STOPS_AT(299, expect_changes(normalize, {{path, path}}));
    EXPECT_STOPS_AT(264, qel_path_normalize_strict(nullptr));
}

TEST(ToDos, TurnsEverySlashIntoABackslash)
{
    expect_changes(qel_path_to_dos, {{"C:/Program Files/app", "C:\\Program Files\\app"},
                                     {"//server/share", "\\\\server\\share"},
                                     {"dir/file", "dir\\file"},
                                     {"C:\\a/b", "C:\\a\\b"}});
    for (const char *path : {"/", "C:/a/"})
        EXPECT_STOPS_AT(254, expect_changes(qel_path_to_dos, {{path, path}}));
}

TEST(MakeFilenameValid, NormalisesWhitespaceThenReplacesWhatIsForbidden)
{
    expect_changes(qel_filename_make_valid, {{"  my:file?.txt ", "my_file_.txt"},
                                             {"a\t\nb", "a b"},
                                             {"\\:*?\"<>|\x01\x7F", "__________"},
                                             {"a/b", "a_b"},
                                             {"\t", ""},
                                             {"caf\xC3\xA9", "caf\xC3\xA9"}});
}
