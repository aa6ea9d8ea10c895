// How paths are composed from others: parent, child, sibling, file name, extension.

#include "support/stops.h"

#include "qel_utility/qel_filesystem/paths.h"

#include <gtest/gtest.h>
#include <string.h>

namespace
{

std::string parent_of(const char *path)
{
    char parent[1000];
    qel_parent_dir(path, parent, sizeof parent);
    return parent;
}

std::string stripped(std::string path)
{
    EXPECT_EQ(qel_strip_trailing_slash(path.data()), 1);
    return path.c_str();
}

std::string child_of(const char *parent, const char *child)
{
    char path[1000];
    const int length = qel_child_path(parent, child, path, sizeof path);
    EXPECT_EQ(length, static_cast<int>(strlen(path)));
    return path;
}

std::string sibling_of(const char *path, const char *sibling)
{
    char result[1000];
    EXPECT_EQ(qel_sibling_path(path, sibling, result, sizeof result), static_cast<int>(strlen(sibling)));
    return result;
}

std::string name_of(const char *path)
{
    char name[100];
    const int length = qel_filename_part(path, name, sizeof name);
    EXPECT_EQ(length, static_cast<int>(strlen(name)));
    return name;
}

std::string with_extension(const char *ext, const char *path)
{
    char result[1000];
    snprintf(result, sizeof result, "%s", path);
    EXPECT_EQ(qel_path_put_extension(ext, result, sizeof result), static_cast<int>(strlen(ext)));
    return result;
}

} // namespace

TEST(ParentDir, IsTheTextBeforeTheLastSlashOrTheRoot)
{
    EXPECT_EQ(parent_of("/a/b"), "/a");
    EXPECT_EQ(parent_of("/a/b/c"), "/a/b");
    EXPECT_EQ(parent_of("/a"), "/");
    EXPECT_EQ(parent_of("a/b"), "a");
}

TEST(ParentDir, NeedsRoomForTheParentItsSlashAndItsNul)
{
    char buffer[] = "xxxxx";
    EXPECT_STOPS_AT(1137, qel_parent_dir("/a/b", buffer, 3));
    EXPECT_STREQ(buffer, "xxxxx");
    qel_parent_dir("/a/b", buffer, 4);
    EXPECT_STREQ(buffer, "/a");
    EXPECT_EQ(buffer[4], 'x');
}

TEST(StripTrailingSlash, CutsOneSlashOffAPathThatIsNotTheRoot)
{
    EXPECT_EQ(stripped("/a/"), "/a");
    EXPECT_EQ(stripped("/a/b"), "/a/b");
    EXPECT_EQ(stripped("a/b"), "a/b");
    EXPECT_STOPS_AT(1072, stripped("/"));
    EXPECT_STOPS_AT(1072, stripped("/a//"));
}

TEST(ChildPath, IsTheParentASlashAndTheChild)
{
    EXPECT_EQ(child_of("/", "x"), "/x");
    EXPECT_EQ(child_of("/a", "x/y"), "/a/x/y");
    char path[5];
    EXPECT_EQ(qel_child_path("/abc", "de", path, sizeof path), 7); // the whole length
    EXPECT_STREQ(path, "/abc");
    for (const int none : {0, -1})
        EXPECT_EQ(qel_child_path("/abc", "de", path, none), 7);
    EXPECT_STREQ(path, "/abc");
    EXPECT_EQ(qel_child_path("/abc", "de", path, 1), 7);
    EXPECT_STREQ(path, "");
}

TEST(SiblingPath, ReplacesTheLastComponent)
{
    EXPECT_EQ(sibling_of("/a/b", "c"), "/a/c");
    EXPECT_EQ(sibling_of("/a", "c"), "/c");
    EXPECT_EQ(sibling_of("/a/long name", "x/y"), "/a/x/y");
}

TEST(SiblingPath, IsCutAtTheBufferAfterThePathItself)
{
    char result[7];
    EXPECT_EQ(qel_sibling_path("/a/b", "sibling", result, sizeof result), 7); // the sibling's length
    EXPECT_STREQ(result, "/a/sib");
    EXPECT_EQ(qel_sibling_path("/a/bc/d", "x", result, 5), 1);
    EXPECT_STREQ(result, "/a/x");
}

TEST(FilenamePart, IsTheTextAfterTheLastSlash)
{
    EXPECT_EQ(name_of("/a/b.txt"), "b.txt");
    EXPECT_EQ(name_of("a/b"), "b");
    char name[3];
    EXPECT_EQ(qel_filename_part("/a/b.txt", name, sizeof name), 5); // the whole length
    EXPECT_STREQ(name, "b.");
}

TEST(PutExtension, ReplacesTheOneOfTheLastComponentOrAppends)
{
    EXPECT_EQ(with_extension(".bak", "/d.x/file"), "/d.x/file.bak");
    EXPECT_EQ(with_extension(".bak", "/d/file.txt"), "/d/file.bak");
    EXPECT_EQ(with_extension(".gz", "/d/file.tar.bz"), "/d/file.tar.gz");
    EXPECT_EQ(with_extension(".txt", "/a/.profile"), "/a/.txt");
    EXPECT_EQ(with_extension(".b", "file.a"), "file.b");
    EXPECT_EQ(with_extension(".b", "file"), "file.b");
    char path[9] = "/a/f.txt";
    EXPECT_EQ(qel_path_put_extension(".longer", path, sizeof path), 7); // the extension's length
    EXPECT_STREQ(path, "/a/f.lon");
}

TEST(PathComposers, CheckInOrder)
{
    char path[10] = "", bad[] = "/a/", good[] = "/a";
    EXPECT_STOPS_AT(1128, qel_parent_dir("/a/", nullptr, 0));
    EXPECT_STOPS_AT(1129, qel_parent_dir("/", nullptr, 0));
    EXPECT_STOPS_AT(1131, qel_parent_dir("/", path, 0));
    EXPECT_STOPS_AT(1134, qel_parent_dir("a", path, 0));

    EXPECT_STOPS_AT(1150, qel_child_path("a", "", path, sizeof path));
    EXPECT_STOPS_AT(1151, qel_child_path("/a", "", path, sizeof path));
    EXPECT_STOPS_AT(1151, qel_child_path("/a", "x/", path, sizeof path));
    EXPECT_STOPS_AT(235, qel_child_path(nullptr, "x", path, sizeof path));

    EXPECT_STOPS_AT(1165, qel_sibling_path("/", "", path, sizeof path));
    EXPECT_STOPS_AT(1166, qel_sibling_path("a", "", path, sizeof path));
    EXPECT_STOPS_AT(1167, qel_sibling_path("/a", "", path, sizeof path));
    EXPECT_STOPS_AT(1168, qel_sibling_path("/a", "/c", path, sizeof path));
    EXPECT_STOPS_AT(1173, qel_sibling_path("/a", "c", path, 1));
    char untouched[] = "/x/y";
    EXPECT_STOPS_AT(1173, qel_sibling_path("/a", "c", untouched, 0));

    EXPECT_STOPS_AT(1182, qel_filename_part("/a/", nullptr, 0));
    EXPECT_STOPS_AT(1183, qel_filename_part("/", nullptr, 0));
    EXPECT_STOPS_AT(1185, qel_filename_part("/", path, sizeof path));
    EXPECT_STOPS_AT(1188, qel_filename_part("a", path, sizeof path));

    EXPECT_STOPS_AT(1196, qel_path_put_extension(nullptr, bad, 0));
    EXPECT_STOPS_AT(1197, qel_path_put_extension("", bad, 0));
    EXPECT_STOPS_AT(1198, qel_path_put_extension(".x", bad, 0));
    EXPECT_STOPS_AT(1199, qel_path_put_extension(".x", good, 0));
}
