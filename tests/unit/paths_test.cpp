// What is a valid, an absolute and a root path, and how path texts are changed in place.

#include "support/stops.h"

#include "qel_utility/qel_filesystem/paths.h"

#include <gtest/gtest.h>
#include <string.h>

enum { unix_flavour = 0, dos_flavour = 1 };

/// Runs an in-place operation on a copy of `text`.
template <typename Operation> static std::string changed(Operation operation, const std::string &text)
{
    std::string copy = text;
    operation(copy.data());
    return copy.c_str();
}

// ---- Root prefix ----

TEST(RootPrefix, OfUnixIsOneSlash)
{
    EXPECT_EQ(_qel_path_root_len("/", unix_flavour), 1);
    EXPECT_EQ(_qel_path_root_len("/a", unix_flavour), 1);
    EXPECT_EQ(_qel_path_root_len("//a", unix_flavour), 1);
    EXPECT_EQ(_qel_path_root_len("a/b", unix_flavour), 0);
    EXPECT_EQ(_qel_path_root_len("C:/", unix_flavour), 0);
    EXPECT_EQ(_qel_path_root_len("", unix_flavour), 0);
}

TEST(RootPrefix, OfDosIsALetterAColonAndASlash)
{
    EXPECT_EQ(_qel_path_root_len("C:/", dos_flavour), 3);
    EXPECT_EQ(_qel_path_root_len("z:/dir", dos_flavour), 3);
    EXPECT_EQ(_qel_path_root_len("C:", dos_flavour), 0);
    EXPECT_EQ(_qel_path_root_len("C:dir", dos_flavour), 0);
    EXPECT_EQ(_qel_path_root_len("a//b", dos_flavour), 0);
    EXPECT_EQ(_qel_path_root_len("a/b", dos_flavour), 0);
    EXPECT_EQ(_qel_path_root_len("1:/", dos_flavour), 0);
    EXPECT_EQ(_qel_path_root_len("\xE9:/", dos_flavour), 0);
    EXPECT_EQ(_qel_path_root_len("C:\\", dos_flavour), 0);
}

TEST(RootPrefix, OfADosNetworkPathIsTwoSlashes)
{
    EXPECT_EQ(_qel_path_root_len("//server", dos_flavour), 2);
    EXPECT_EQ(_qel_path_root_len("//", dos_flavour), 2);
}

TEST(RootPrefix, OfDosIsNotALoneSlash)
{
    EXPECT_EQ(_qel_path_root_len("/", dos_flavour), 0);
    EXPECT_EQ(_qel_path_root_len("/a", dos_flavour), 0);
    EXPECT_EQ(_qel_path_root_len("", dos_flavour), 0);
}

TEST(RootPrefix, OfNullIsNoneForUnixAndStopsForDos)
{
    EXPECT_EQ(_qel_path_root_len(nullptr, unix_flavour), 0);
    EXPECT_STOPS("s", filesystem_unit, 117, _qel_path_root_len(nullptr, dos_flavour));
}

// ---- Roots ----

TEST(RootDir, OfUnixIsTheSlashAlone)
{
    EXPECT_EQ(qel_path_is_root_dir("/"), 1);
    EXPECT_EQ(qel_unix_path_is_root_dir("/"), 1);
    EXPECT_EQ(_qel_path_is_root_dir("/", unix_flavour), 1);
    for (const char *path : {"", "a", "/a", "//", "C:/"}) {
        EXPECT_EQ(qel_path_is_root_dir(path), 0) << path;
        EXPECT_EQ(qel_unix_path_is_root_dir(path), 0) << path;
    }
    EXPECT_EQ(qel_path_is_root_dir(nullptr), 0);
}

TEST(RootDir, OfDosIsADriveInEitherCaseOrTheNetwork)
{
    EXPECT_EQ(qel_dos_path_is_root_dir("C:/"), 1);
    EXPECT_EQ(qel_dos_path_is_root_dir("c:/"), 1);
    EXPECT_EQ(qel_dos_path_is_root_dir("//"), 1);
    EXPECT_EQ(_qel_path_is_root_dir("C:/", dos_flavour), 1);
    for (const char *path : {"", "/", "C:", "C:/a", "//a"})
        EXPECT_EQ(qel_dos_path_is_root_dir(path), 0) << path;
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

TEST(ValidPath, MayBeTheRootInUnixButNotInDos)
{
    EXPECT_EQ(_qel_path_is_valid("/", unix_flavour), 1);
    EXPECT_EQ(_qel_path_is_valid("/", dos_flavour), 0);
}

TEST(ValidPath, MayBeADosRootInDos)
{
    EXPECT_EQ(_qel_path_is_valid("C:/", dos_flavour), 1);
    EXPECT_EQ(_qel_path_is_valid("//", dos_flavour), 1);
}

TEST(ValidPath, HoldsNoColonOutsideTheDosRoot)
{
    EXPECT_EQ(_qel_path_is_valid("C:", unix_flavour), 0);
    EXPECT_EQ(_qel_path_is_valid("C:", dos_flavour), 0);
    EXPECT_EQ(_qel_path_is_valid("C:/a:b", dos_flavour), 0);
}

TEST(ValidPath, OfTheNetworkIsValidInDosOnly)
{
    EXPECT_EQ(_qel_path_is_valid("//server/share", dos_flavour), 1);
    EXPECT_EQ(_qel_path_is_valid("//server/share", unix_flavour), 0);
}

TEST(ValidPath, MayHoldBlanks)
{
    EXPECT_EQ(qel_path_is_valid("/a/b c"), 1);
}

TEST(ValidPath, DoesNotEndInASlash)
{
    EXPECT_EQ(qel_path_is_valid("/a/"), 0);
    EXPECT_EQ(qel_path_is_valid("a/"), 0);
    EXPECT_EQ(_qel_path_is_valid("C:/a/", dos_flavour), 0);
}

TEST(ValidPath, HoldsNoDoubledSlash)
{
    EXPECT_EQ(qel_path_is_valid("/a//b"), 0);
    EXPECT_EQ(qel_path_is_valid("//a"), 0);
    EXPECT_EQ(_qel_path_is_valid("C://a", dos_flavour), 0);
    EXPECT_EQ(_qel_path_is_valid("///a", dos_flavour), 0);
}

TEST(ValidPath, IsJudgedWithoutWhatStandsBeforeIt)
{
    const char text[] = "//a";
    EXPECT_EQ(_qel_path_is_valid(text + 1, dos_flavour), 1);
}

TEST(ValidPath, HoldsNoneOfTheEightForbiddenCharacters)
{
    for (const char *path : {"/a\\b", "/a:b", "/a*", "/?", "/\"", "/<", "/>", "/|"})
        EXPECT_EQ(qel_path_is_valid(path), 0) << path;
}

TEST(ValidPath, HoldsNoControlByte)
{
    EXPECT_EQ(qel_path_is_valid("/a\tb"), 0);
    for (int byte = 1; byte < 32; byte++) {
        const char path[] = {'/', static_cast<char>(byte), '\0'};
        EXPECT_EQ(qel_path_is_valid(path), 0) << byte;
    }
    EXPECT_EQ(qel_path_is_valid("/\x7F"), 0);
}

TEST(ValidPath, MayHoldEveryByteOf128AndMore)
{
    EXPECT_EQ(qel_path_is_valid("/caf\xC3\xA9"), 1);
    for (int byte = 128; byte < 256; byte++) {
        const char path[] = {'/', static_cast<char>(byte), '\0'};
        EXPECT_EQ(qel_path_is_valid(path), 1) << byte;
    }
}

TEST(ValidPath, MayHoldEveryOtherPrintableByte)
{
    EXPECT_EQ(qel_path_is_valid("/ !#$%&'()+,-.0123456789;=@AZ[]^_`az{}~"), 1);
}

TEST(ValidPath, MayBeRelativeAndMayHoldDotComponents)
{
    for (const char *path : {"a", "a/b", ".", "..", "/a/../b", "./a"})
        EXPECT_EQ(qel_path_is_valid(path), 1) << path;
}

TEST(ValidPath, HasNoLimitOfLength)
{
    EXPECT_EQ(qel_path_is_valid(("/" + std::string(100000, 'x')).c_str()), 1);
}

// ---- Absolute ----

TEST(AbsolutePath, BeginsWithTheRootAndIsValid)
{
    for (const char *path : {"/", "/a", "/a/b c"}) {
        EXPECT_EQ(qel_path_is_absolute(path), 1) << path;
        EXPECT_EQ(qel_unix_path_is_absolute(path), 1) << path;
        EXPECT_EQ(_qel_path_is_absolute(path, unix_flavour), 1) << path;
    }
    for (const char *path : {"", "a", "/a/", "/a//b", "//server/share", "C:/"}) {
        EXPECT_EQ(qel_path_is_absolute(path), 0) << path;
        EXPECT_EQ(qel_unix_path_is_absolute(path), 0) << path;
    }
}

TEST(AbsolutePath, IsNotARelativePathThatIsValid)
{
    EXPECT_EQ(qel_path_is_valid("a/b"), 1);
    EXPECT_EQ(qel_path_is_absolute("a/b"), 0);
}

TEST(AbsolutePath, OfDosIsADriveOrANetworkPath)
{
    for (const char *path : {"C:/", "c:/dir", "//server/share"}) {
        EXPECT_EQ(qel_dos_path_is_absolute(path), 1) << path;
        EXPECT_EQ(_qel_path_is_absolute(path, dos_flavour), 1) << path;
    }
    for (const char *path : {"/", "/a", "C:", "C:/a/", "dir"})
        EXPECT_EQ(qel_dos_path_is_absolute(path), 0) << path;
}

TEST(AbsolutePath, StopsOnNull)
{
    EXPECT_STOPS("s", filesystem_unit, 213, _qel_path_is_absolute(nullptr, unix_flavour));
    EXPECT_STOPS("s", filesystem_unit, 213, _qel_path_is_absolute(nullptr, dos_flavour));
    EXPECT_STOPS("s", filesystem_unit, 221, qel_dos_path_is_absolute(nullptr));
    EXPECT_STOPS("s", filesystem_unit, 228, qel_unix_path_is_absolute(nullptr));
    EXPECT_STOPS("s", filesystem_unit, 235, qel_path_is_absolute(nullptr));
}

// ---- qel_path_normalize ----

TEST(Normalize, TurnsBackslashesIntoSlashesAndDropsTheTrailingOne)
{
    EXPECT_EQ(changed(qel_path_normalize, "C:\\dir\\"), "C:/dir");
    EXPECT_EQ(changed(qel_path_normalize, "a\\b/c"), "a/b/c");
}

TEST(Normalize, TakesTheSlashOfTheDosRootToo)
{
    EXPECT_EQ(changed(qel_path_normalize, "c:\\"), "C:");
}

TEST(Normalize, ShrinksARunAtTheStartToTwoSlashes)
{
    EXPECT_EQ(changed(qel_path_normalize, "///a"), "//a");
    EXPECT_EQ(changed(qel_path_normalize, "//a"), "//a");
    EXPECT_EQ(changed(qel_path_normalize, "/////a"), "//a");
    EXPECT_EQ(changed(qel_path_normalize, "\\\\server\\share"), "//server/share");
}

TEST(Normalize, ShrinksEveryOtherRunToOneSlash)
{
    EXPECT_EQ(changed(qel_path_normalize, "/a///b/"), "/a/b");
    EXPECT_EQ(changed(qel_path_normalize, "a//b////c"), "a/b/c");
}

TEST(Normalize, DropsOnlyOneTrailingSlashAndDoesSoBeforeRunsShrink)
{
    EXPECT_EQ(changed(qel_path_normalize, "/a//"), "/a/");
    EXPECT_EQ(changed(qel_path_normalize, "/a////"), "/a/");
}

TEST(Normalize, LeavesTheEmptyTextAndTheRootAlone)
{
    EXPECT_EQ(changed(qel_path_normalize, ""), "");
    EXPECT_EQ(changed(qel_path_normalize, "/"), "/");
    EXPECT_EQ(changed(qel_path_normalize, "\\"), "/");
}

TEST(Normalize, LooksAtNothingBeforeTheText)
{
    char text[] = "/";
    qel_path_normalize(text + 1); // empty
    EXPECT_STREQ(text, "/");
}

TEST(Normalize, MakesTheRootOfADoubledSlash)
{
    EXPECT_EQ(changed(qel_path_normalize, "//"), "/");
    EXPECT_EQ(changed(qel_path_normalize, "///"), "//");
}

TEST(Normalize, RaisesTheLetterBeforeAColonInSecondPlace)
{
    EXPECT_EQ(changed(qel_path_normalize, "d:/games"), "D:/games");
    EXPECT_EQ(changed(qel_path_normalize, "1:/games"), "1:/games");
    EXPECT_EQ(changed(qel_path_normalize, "ab:/games"), "ab:/games");
}

TEST(Normalize, StopsOnNull)
{
    EXPECT_STOPS("path", filesystem_unit, 264, qel_path_normalize(nullptr));
}

// ---- qel_path_normalize_strict ----

TEST(NormalizeStrict, NormalisesAndReturns1ForAPathValidInEitherFlavour)
{
    char dos[] = "c:\\dir\\";
    EXPECT_EQ(qel_path_normalize_strict(dos), 1);
    EXPECT_STREQ(dos, "C:/dir");
    char unix_path[] = "/a///b/";
    EXPECT_EQ(qel_path_normalize_strict(unix_path), 1);
    EXPECT_STREQ(unix_path, "/a/b");
    char root[] = "/";
    EXPECT_EQ(qel_path_normalize_strict(root), 1);
}

TEST(NormalizeStrict, StopsWhenTheResultIsValidInNeither)
{
    const char text[] = "_qel_path_is_valid(path, 1) || _qel_path_is_valid(path, 0)";
    EXPECT_STOPS(text, filesystem_unit, 299, changed(qel_path_normalize_strict, "c:\\"));
    EXPECT_STOPS(text, filesystem_unit, 299, changed(qel_path_normalize_strict, "/a//"));
    EXPECT_STOPS(text, filesystem_unit, 299, changed(qel_path_normalize_strict, ""));
    EXPECT_STOPS("path", filesystem_unit, 264, qel_path_normalize_strict(nullptr));
}

// ---- qel_path_to_dos ----

TEST(ToDos, TurnsEverySlashIntoABackslash)
{
    EXPECT_EQ(changed(qel_path_to_dos, "C:/Program Files/app"), "C:\\Program Files\\app");
    EXPECT_EQ(changed(qel_path_to_dos, "//server/share"), "\\\\server\\share");
    EXPECT_EQ(changed(qel_path_to_dos, "dir/file"), "dir\\file");
}

TEST(ToDos, TakesBackslashesInTheTextAsSlashes)
{
    EXPECT_EQ(changed(qel_path_to_dos, "C:\\a/b"), "C:\\a\\b");
}

TEST(ToDos, StopsOnNullAndOnWhatIsNotValidInDos)
{
    EXPECT_STOPS("path", filesystem_unit, 247, qel_path_to_dos(nullptr));
    EXPECT_STOPS("_qel_path_is_valid(path, 1)", filesystem_unit, 254, changed(qel_path_to_dos, "/"));
    EXPECT_STOPS("_qel_path_is_valid(path, 1)", filesystem_unit, 254, changed(qel_path_to_dos, "C:/a/"));
}

// ---- qel_filename_make_valid ----

TEST(MakeFilenameValid, NormalisesWhitespaceThenReplacesWhatIsForbidden)
{
    EXPECT_EQ(changed(qel_filename_make_valid, "  my:file?.txt "), "my_file_.txt");
    EXPECT_EQ(changed(qel_filename_make_valid, "a\t\nb"), "a b");
    EXPECT_EQ(changed(qel_filename_make_valid, "\\:*?\"<>|\x01\x7F"), "__________");
}

TEST(MakeFilenameValid, ReplacesSlashes)
{
    EXPECT_EQ(changed(qel_filename_make_valid, "a/b"), "a_b");
}

TEST(MakeFilenameValid, MakesALoneTabTheEmptyText)
{
    EXPECT_EQ(changed(qel_filename_make_valid, "\t"), "");
}

TEST(MakeFilenameValid, KeepsBytesOf128AndMore)
{
    EXPECT_EQ(changed(qel_filename_make_valid, "caf\xC3\xA9"), "caf\xC3\xA9");
}

TEST(MakeFilenameValid, StopsOnNull)
{
    EXPECT_STOPS("filename", filesystem_unit, 103, qel_filename_make_valid(nullptr));
}
