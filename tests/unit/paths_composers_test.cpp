// How paths are composed from others: parent, child, sibling, file name, extension.

#include "support/stops.h"

#include "qel_utility/qel_filesystem/paths.h"

#include <gtest/gtest.h>
#include <string.h>

// ---- qel_parent_dir ----

static std::string parent_of(const char *path)
{
    char parent[1000];
    qel_parent_dir(path, parent, sizeof parent);
    return parent;
}

TEST(ParentDir, IsTheTextBeforeTheLastSlash)
{
    EXPECT_EQ(parent_of("/a/b"), "/a");
    EXPECT_EQ(parent_of("/a/b/c"), "/a/b");
}

TEST(ParentDir, OfATopLevelPathIsTheRoot)
{
    EXPECT_EQ(parent_of("/a"), "/");
}

TEST(ParentDir, OfARelativePathIsRelative)
{
    EXPECT_EQ(parent_of("a/b"), "a");
}

TEST(ParentDir, OfANameWithoutSlashStops)
{
    EXPECT_STOPS("cp", filesystem_unit, 1134, parent_of("a"));
}

TEST(ParentDir, NeedsRoomForTheParentItsSlashAndItsNul)
{
    char buffer[] = "xxxxx";
    EXPECT_STOPS("parent_dir_size >= (parent_dir_len + 2)", filesystem_unit, 1137,
                 qel_parent_dir("/a/b", buffer, 3));
    EXPECT_STREQ(buffer, "xxxxx");
    qel_parent_dir("/a/b", buffer, 4);
    EXPECT_STREQ(buffer, "/a");
    EXPECT_EQ(buffer[4], 'x');
}

TEST(ParentDir, ChecksInOrder)
{
    char buffer[10];
    EXPECT_FATAL("Path is not valid: \"/a/\"\n", "qel_parent_dir", filesystem_unit, 1128,
                 qel_parent_dir("/a/", nullptr, 0));
    EXPECT_STOPS("parent_dir", filesystem_unit, 1129, qel_parent_dir("/", nullptr, 0));
    EXPECT_STOPS("!qel_path_is_root_dir(path)", filesystem_unit, 1131, qel_parent_dir("/", buffer, 0));
    EXPECT_STOPS("cp", filesystem_unit, 1134, qel_parent_dir("a", buffer, 0));
}

// ---- qel_strip_trailing_slash ----

static std::string stripped(std::string path)
{
    EXPECT_EQ(qel_strip_trailing_slash(path.data()), 1);
    return path.c_str();
}

TEST(StripTrailingSlash, CutsOneSlashOffAndReturns1)
{
    EXPECT_EQ(stripped("/a/"), "/a");
}

TEST(StripTrailingSlash, LeavesAPathWithoutOneAlone)
{
    EXPECT_EQ(stripped("/a/b"), "/a/b");
    EXPECT_EQ(stripped("a/b"), "a/b");
}

TEST(StripTrailingSlash, OfTheRootStops)
{
    EXPECT_FATAL("Path is not valid: \"\"\n", "qel_strip_trailing_slash", filesystem_unit, 1072,
                 stripped("/"));
}

TEST(StripTrailingSlash, OfTwoSlashesStops)
{
    EXPECT_FATAL("Path is not valid: \"/a/\"\n", "qel_strip_trailing_slash", filesystem_unit, 1072,
                 stripped("/a//"));
}

TEST(StripTrailingSlash, StopsOnNull)
{
    EXPECT_STOPS("path", filesystem_unit, 1064, qel_strip_trailing_slash(nullptr));
}

// ---- qel_child_path ----

static std::string child_of(const char *parent, const char *child)
{
    char path[1000];
    const int length = qel_child_path(parent, child, path, sizeof path);
    EXPECT_EQ(length, static_cast<int>(strlen(path)));
    return path;
}

TEST(ChildPath, OfTheRootHasOneSlash)
{
    EXPECT_EQ(child_of("/", "x"), "/x");
}

TEST(ChildPath, MayHaveSeveralComponents)
{
    EXPECT_EQ(child_of("/a", "x/y"), "/a/x/y");
}

TEST(ChildPath, IsCutAtTheBufferAndReturnsTheWholeLength)
{
    char path[5];
    EXPECT_EQ(qel_child_path("/abc", "de", path, sizeof path), 7);
    EXPECT_STREQ(path, "/abc");
    for (const int none : {0, -1})
        EXPECT_EQ(qel_child_path("/abc", "de", path, none), 7);
    EXPECT_STREQ(path, "/abc");
    EXPECT_EQ(qel_child_path("/abc", "de", path, 1), 7);
    EXPECT_STREQ(path, "");
}

TEST(ChildPath, StopsOnAChildThatBeginsWithASlash)
{
    EXPECT_STOPS("*child != '/'", filesystem_unit, 1152, child_of("/a", "/x"));
}

TEST(ChildPath, ChecksInOrder)
{
    char path[10] = "";
    EXPECT_FATAL("Path is not absolute: \"a\"\n", "qel_child_path", filesystem_unit, 1150,
                 qel_child_path("a", "", path, sizeof path));
    EXPECT_FATAL("Path is not valid: \"\"\n", "qel_child_path", filesystem_unit, 1151,
                 qel_child_path("/a", "", path, sizeof path));
    EXPECT_FATAL("Path is not valid: \"x/\"\n", "qel_child_path", filesystem_unit, 1151,
                 qel_child_path("/a", "x/", path, sizeof path));
    EXPECT_STOPS("s", filesystem_unit, 235, qel_child_path(nullptr, "x", path, sizeof path));
}

// ---- qel_sibling_path ----

static std::string sibling_of(const char *path, const char *sibling)
{
    char result[1000];
    EXPECT_EQ(qel_sibling_path(path, sibling, result, sizeof result), static_cast<int>(strlen(sibling)));
    return result;
}

TEST(SiblingPath, ReplacesTheLastComponent)
{
    EXPECT_EQ(sibling_of("/a/b", "c"), "/a/c");
    EXPECT_EQ(sibling_of("/a", "c"), "/c");
    EXPECT_EQ(sibling_of("/a/long name", "x/y"), "/a/x/y");
}

TEST(SiblingPath, IsCutAtTheBufferAndReturnsTheSiblingsLength)
{
    char result[7];
    EXPECT_EQ(qel_sibling_path("/a/b", "sibling", result, sizeof result), 7);
    EXPECT_STREQ(result, "/a/sib");
}

TEST(SiblingPath, CutsThePathItselfBeforeItLooksForTheSlash)
{
    char result[5];
    EXPECT_EQ(qel_sibling_path("/a/bc/d", "x", result, sizeof result), 1);
    EXPECT_STREQ(result, "/a/x");
}

TEST(SiblingPath, ChecksInOrder)
{
    char result[10];
    EXPECT_STOPS("!qel_path_is_root_dir(path)", filesystem_unit, 1165,
                 qel_sibling_path("/", "", result, sizeof result));
    EXPECT_FATAL("Path is not absolute: \"a\"\n", "qel_sibling_path", filesystem_unit, 1166,
                 qel_sibling_path("a", "", result, sizeof result));
    EXPECT_FATAL("Path is not valid: \"\"\n", "qel_sibling_path", filesystem_unit, 1167,
                 qel_sibling_path("/a", "", result, sizeof result));
    EXPECT_STOPS("sibling[0] != '/'", filesystem_unit, 1168,
                 qel_sibling_path("/a", "/c", result, sizeof result));
    EXPECT_STOPS("slash", filesystem_unit, 1173, qel_sibling_path("/a", "c", result, 1));
    char path[] = "/x/y";
    EXPECT_STOPS("slash", filesystem_unit, 1173, qel_sibling_path("/a", "c", path, 0));
}

// ---- qel_filename_part ----

TEST(FilenamePart, IsTheTextAfterTheLastSlash)
{
    char name[100];
    EXPECT_EQ(qel_filename_part("/a/b.txt", name, sizeof name), 5);
    EXPECT_STREQ(name, "b.txt");
    EXPECT_EQ(qel_filename_part("a/b", name, sizeof name), 1);
    EXPECT_STREQ(name, "b");
}

TEST(FilenamePart, IsCutAtTheBufferAndReturnsTheWholeLength)
{
    char name[3];
    EXPECT_EQ(qel_filename_part("/a/b.txt", name, sizeof name), 5);
    EXPECT_STREQ(name, "b.");
}

TEST(FilenamePart, ChecksInOrder)
{
    char name[10];
    EXPECT_FATAL("Path is not valid: \"/a/\"\n", "qel_filename_part", filesystem_unit, 1182,
                 qel_filename_part("/a/", nullptr, 0));
    EXPECT_STOPS("filename", filesystem_unit, 1183, qel_filename_part("/", nullptr, 0));
    EXPECT_STOPS("!qel_path_is_root_dir(path)", filesystem_unit, 1185,
                 qel_filename_part("/", name, sizeof name));
    EXPECT_STOPS("cp", filesystem_unit, 1188, qel_filename_part("a", name, sizeof name));
}

// ---- qel_path_put_extension ----

static std::string with_extension(const char *ext, const char *path)
{
    char result[1000];
    snprintf(result, sizeof result, "%s", path);
    EXPECT_EQ(qel_path_put_extension(ext, result, sizeof result), static_cast<int>(strlen(ext)));
    return result;
}

TEST(PutExtension, AppendsToANameWithoutOneAndSparesDotsOfFolders)
{
    EXPECT_EQ(with_extension(".bak", "/d.x/file"), "/d.x/file.bak");
}

TEST(PutExtension, ReplacesTheExtensionThatIsThere)
{
    EXPECT_EQ(with_extension(".bak", "/d/file.txt"), "/d/file.bak");
    EXPECT_EQ(with_extension(".gz", "/d/file.tar.bz"), "/d/file.tar.gz");
}

TEST(PutExtension, CountsALeadingDotAsTheExtension)
{
    EXPECT_EQ(with_extension(".txt", "/a/.profile"), "/a/.txt");
}

TEST(PutExtension, TakesAPathWithoutSlash)
{
    EXPECT_EQ(with_extension(".b", "file.a"), "file.b");
    EXPECT_EQ(with_extension(".b", "file"), "file.b");
}

TEST(PutExtension, IsCutAtTheBufferAndReturnsTheExtensionsLength)
{
    char path[9] = "/a/f.txt";
    EXPECT_EQ(qel_path_put_extension(".longer", path, sizeof path), 7);
    EXPECT_STREQ(path, "/a/f.lon");
}

TEST(PutExtension, StopsOnAnExtensionWithoutDot)
{
    EXPECT_STOPS("ext[0] == '.'", filesystem_unit, 1197, with_extension("bak", "/d/file.txt"));
}

TEST(PutExtension, ChecksInOrder)
{
    char bad[] = "/a/", good[] = "/a";
    EXPECT_STOPS("ext", filesystem_unit, 1196, qel_path_put_extension(nullptr, bad, 0));
    EXPECT_STOPS("ext[0] == '.'", filesystem_unit, 1197, qel_path_put_extension("", bad, 0));
    EXPECT_FATAL("Path is not valid: \"/a/\"\n", "qel_path_put_extension", filesystem_unit, 1198,
                 qel_path_put_extension(".x", bad, 0));
    EXPECT_STOPS("path_size > 0", filesystem_unit, 1199, qel_path_put_extension(".x", good, 0));
}
