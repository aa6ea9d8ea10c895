// Searching, removing and walking whole folder trees.

#include "support/output.h"
#include "support/scratch_disk.h"
#include "support/stops.h"

#include "qel_utility/qel_filesystem/files.h"
#include "qel_utility/qel_filesystem/trees.h"

#include <errno.h>
#include <gmock/gmock.h>

using testing::Contains;
using testing::Each;
using testing::ElementsAre;
using testing::IsEmpty;
using testing::StartsWith;
using testing::UnorderedElementsAre;

// ---- Search ----

struct FindFileWithPrefix : OnScratchDisk {
    std::string search(const char *folder, const char *prefix = "qel_application_")
    {
        return output_of([&] { qel_find_file_with_prefix(folder, prefix, found_dir, found_name); });
    }

    char found_dir[1000] = "";
    char found_name[1000] = "";
};

TEST_F(FindFileWithPrefix, TakesTheGreatestNameOverSeveralSearches)
{
    disk.make_file("/storage/qel_application_2");
    disk.make_file("/disk/sda1/qel_application_10");
    EXPECT_EQ(search("/storage"), "candidate: /storage/qel_application_2\n");
    EXPECT_EQ(search("/disk"), "");
    EXPECT_STREQ(found_dir, "/storage");
    EXPECT_STREQ(found_name, "qel_application_2");
}

TEST_F(FindFileWithPrefix, ReplacesASmallerNameFromAnEarlierSearch)
{
    disk.make_file("/storage/qel_application_1");
    disk.make_file("/disk/sda1/qel_application_2");
    search("/storage");
    EXPECT_EQ(search("/disk"), "candidate: /disk/sda1/qel_application_2\n");
    EXPECT_STREQ(found_dir, "/disk/sda1");
    EXPECT_STREQ(found_name, "qel_application_2");
}

TEST_F(FindFileWithPrefix, KeepsTheFirstOfEqualNames)
{
    disk.make_file("/storage/qel_application_1");
    disk.make_file("/disk/sda1/qel_application_1");
    search("/storage");
    EXPECT_EQ(search("/disk"), "");
    EXPECT_STREQ(found_dir, "/storage");
}

TEST_F(FindFileWithPrefix, TakesANameThatEqualsThePrefix)
{
    disk.make_file("/storage/qel_application_");
    search("/storage");
    EXPECT_STREQ(found_name, "qel_application_");
}

TEST_F(FindFileWithPrefix, WantsThePrefixAtTheStart)
{
    disk.make_file("/storage/xqel_application_1");
    disk.make_file("/storage/qel_applicatio");
    disk.make_file("/storage/QEL_APPLICATION_1");
    EXPECT_EQ(search("/storage"), "");
    EXPECT_STREQ(found_name, "");
}

TEST_F(FindFileWithPrefix, ComparesBytesNotNumbers)
{
    disk.make_folder("/storage");
    kernel.on_readdir =
        Listing().add("p_9", DT_REG).add("p_10", DT_REG).add("p_a", DT_REG).add("p_\xC3", DT_REG);
    EXPECT_EQ(search("/storage", "p_"),
              "candidate: /storage/p_9\ncandidate: /storage/p_a\ncandidate: /storage/p_\xC3\n");
}

TEST_F(FindFileWithPrefix, NeverEntersAFolderWhoseNameBeginsWithADot)
{
    disk.make_file("/storage/.hidden/qel_application_1");
    EXPECT_EQ(search("/storage"), "");
    EXPECT_EQ(kernel.count("opendir"), 1);
}

TEST_F(FindFileWithPrefix, NeverEntersALink)
{
    disk.make_file("/elsewhere/qel_application_1");
    disk.make_folder("/storage");
    disk.make_link("/storage/link", "../elsewhere");
    EXPECT_EQ(search("/storage"), "");
}

TEST_F(FindFileWithPrefix, NeverEntersAnEntryOfUnknownType)
{
    disk.make_file("/storage/folder/qel_application_1");
    kernel.on_readdir = Listing().add("folder", DT_UNKNOWN);
    EXPECT_EQ(search("/storage"), "");
    EXPECT_EQ(kernel.count("opendir"), 1);
}

TEST_F(FindFileWithPrefix, TakesEntriesOfAnyType)
{
    disk.make_folder("/storage/qel_application_folder");
    search("/storage");
    EXPECT_STREQ(found_name, "qel_application_folder");

    disk.make_link("/storage/qel_application_link", "missing");
    search("/storage");
    EXPECT_STREQ(found_name, "qel_application_link");
}

TEST_F(FindFileWithPrefix, TakesHiddenNamesAndTheFoldersOwnEntries)
{
    disk.make_folder("/storage");
    search("/storage", ".");
    EXPECT_STREQ(found_name, "..");
    disk.make_file("/storage/.hidden");
    search("/storage", ".");
    EXPECT_STREQ(found_name, ".hidden");
}

TEST_F(FindFileWithPrefix, SearchesAFolderAtOnceBeforeTheNextEntry)
{
    disk.make_folder("/s/p_1/sub");
    kernel.on_readdir = Listing()
                            .add("p_1", DT_DIR)
                            .add("sub", DT_DIR)
                            .add("p_2", DT_REG)
                            .end()
                            .add("p_3", DT_REG)
                            .end()
                            .add("p_4", DT_REG)
                            .end();
    EXPECT_EQ(search("/s", "p_"), "candidate: /s/p_1\n"
                                  "candidate: /s/p_1/sub/p_2\n"
                                  "candidate: /s/p_1/p_3\n"
                                  "candidate: /s/p_4\n");
    EXPECT_EQ(kernel.count("closedir"), 3);
}

// ---- qel_rmdircontents ----

struct Removal : OnScratchDisk {
    /// Runs the operation, keeps what it printed in `printed`, and returns the result.
    int run(int (*operation)(const char *), const char *folder)
    {
        int result = -1;
        printed = output_of([&] { result = operation(folder); });
        return result;
    }
    void make_files(const std::string &folder, int count) const
    {
        disk.make_folder(folder);
        for (int i = 0; i < count; ++i)
            disk.make_file(folder + "/file" + std::to_string(i));
    }

    std::string printed;
};

using RemoveContents = Removal;
using RemoveTree = Removal;

TEST_F(RemoveContents, EmptiesTheFolderWhichStays)
{
    disk.make_file("/a/file");
    disk.make_file("/a/.hidden");
    disk.make_file("/a/b/c/file");
    disk.make_folder("/a/empty");
    EXPECT_EQ(run(qel_rmdircontents, "/a"), 1);
    EXPECT_THAT(disk.tree("/"), ElementsAre("a/"));
}

TEST_F(RemoveContents, Takes45EntriesInThreeBatchesOf20And20And5)
{
    make_files("/a", 45);
    EXPECT_EQ(run(qel_rmdircontents, "/a"), 1);
    EXPECT_THAT(disk.tree("/"), ElementsAre("a/"));

    std::vector<int> batches;
    for (const std::string &call : kernel.calls("opendir unlink")) {
        if (call == "opendir /a")
            batches.push_back(0);
        else
            batches.back()++;
    }
    EXPECT_THAT(batches, ElementsAre(20, 20, 5));
}

TEST_F(RemoveContents, OfExactly20EntriesLooksOnceMore)
{
    make_files("/a", 20);
    EXPECT_EQ(run(qel_rmdircontents, "/a"), 1);
    EXPECT_EQ(kernel.count("opendir"), 2);
}

TEST_F(RemoveContents, HoldsABatchOfTheLongestNames)
{
    for (char c = 'a'; c < 'a' + 20; ++c)
        disk.make_file(std::string("/f/") + c + std::string(254, 'x'));
    EXPECT_EQ(run(qel_rmdircontents, "/f"), 1);
    EXPECT_THAT(disk.tree("/"), ElementsAre("f/"));
}

TEST_F(RemoveContents, OfAMissingFolderReturns1)
{
    EXPECT_EQ(run(qel_rmdircontents, "/missing"), 1);
    EXPECT_EQ(printed, "removing contents of \"/missing\"\n");
}

TEST_F(RemoveContents, OfAFolderThatExistsButCannotBeOpenedReturns0)
{
    disk.make_file("/file");
    EXPECT_EQ(run(qel_rmdircontents, "/file"), 0);
    EXPECT_TRUE(disk.has("/file"));
}

TEST_F(RemoveContents, ForgetsEarlierFailuresWhenTheFolderIsGoneByTheNextBatch)
{
    make_files("/a", 20);
    kernel.fail("unlink", EPERM);
    kernel.fail_nth("opendir", 2, ENOENT);
    kernel.fail("stat", ENOENT);
    EXPECT_EQ(run(qel_rmdircontents, "/a"), 1);
}

TEST_F(RemoveContents, Returns0WhenAFolderBelowCouldNotBeOpenedButWasEmptyAndIsGone)
{
    disk.make_folder("/a/b");
    kernel.fail_nth("opendir", 2, EMFILE);
    EXPECT_EQ(run(qel_rmdircontents, "/a"), 0);
    EXPECT_FALSE(disk.has("/a/b"));
}

TEST_F(RemoveContents, RemovesALinkToAFolderButNothingBehindIt)
{
    disk.make_file("/other/file");
    disk.make_folder("/a");
    disk.make_link("/a/link", "../other");
    EXPECT_EQ(run(qel_rmdircontents, "/a"), 1);
    EXPECT_THAT(disk.tree("/"), ElementsAre("a/", "other/", "other/file"));
}

TEST_F(RemoveContents, TakesAnEntryOfUnknownTypeForAFile)
{
    disk.make_folder("/a/folder");
    kernel.on_readdir = Listing().add("folder", DT_UNKNOWN);
    EXPECT_EQ(run(qel_rmdircontents, "/a"), 0);
    EXPECT_THAT(kernel.calls("unlink rmdir"), ElementsAre("unlink /a/folder"));
}

TEST_F(RemoveContents, CutsPathsAt511Bytes)
{
    const std::string folder = "/" + std::string(250, 'a') + "/" + std::string(250, 'b');
    disk.make_file(folder + "/" + std::string(20, 'c'));
    EXPECT_EQ(run(qel_rmdircontents, folder.c_str()), 0);
    EXPECT_THAT(kernel.calls("unlink"), ElementsAre("unlink " + folder + "/" + std::string(8, 'c')));
}

TEST_F(RemoveContents, Returns0After19EntriesThatStay)
{
    make_files("/a", 19);
    kernel.fail("unlink", EPERM);
    EXPECT_EQ(run(qel_rmdircontents, "/a"), 0);
    EXPECT_EQ(kernel.count("opendir"), 1);
}

TEST_F(RemoveContents, GoesOnWithoutEndOver20EntriesThatStay)
{
    make_files("/a", 20);
    kernel.fail("unlink", EPERM);
    kernel.leave_at("opendir", 100);
    const Output unprinted;
    EXPECT_THROW(run(qel_rmdircontents, "/a"), LeftProduct);
    EXPECT_EQ(kernel.count("unlink"), 99 * 20);
}

TEST_F(RemoveContents, StopsOnNullAndOnARelativePathBeforeItPrints)
{
    EXPECT_STOPS_AT(974, qel_rmdircontents(nullptr));
    EXPECT_STOPS_AT(975, qel_rmdircontents("a"));
    EXPECT_EQ(stop_of([] { qel_rmdircontents("a"); }).output.find("removing"), std::string::npos);
}

// ---- qel_rmdirtree ----

TEST_F(RemoveTree, UnlinksAPlainFile)
{
    disk.make_file("/file", "", 0400);
    EXPECT_EQ(run(qel_rmdirtree, "/file"), 1);
    EXPECT_FALSE(disk.has("/file"));
    EXPECT_EQ(printed, "removing dir tree \"/file\"\n");
}

TEST_F(RemoveTree, OfABlockDeviceNodeReturns0AndRemovesNothing)
{
    make_block_node("/dev/disk/hdc2");
    EXPECT_EQ(run(qel_rmdirtree, "/dev/disk/hdc2"), 0);
    EXPECT_TRUE(disk.has("/dev/disk/hdc2"));
}

TEST_F(RemoveTree, OfASocketReturns0AndRemovesNothing)
{
    disk.make_socket("/socket");
    EXPECT_EQ(run(qel_rmdirtree, "/socket"), 0);
    EXPECT_TRUE(disk.has("/socket"));
}

TEST_F(RemoveTree, OfALinkToAFolderEmptiesTheTargetLeavesTheLinkAndReturns0)
{
    disk.make_file("/target/file");
    disk.make_link("/link", "target");
    EXPECT_EQ(run(qel_rmdirtree, "/link"), 0);
    EXPECT_THAT(disk.tree("/"), ElementsAre("link", "target/"));
    // By a path that is the same for calls that the fake kernel does not know.
    disk.make_file("/target/file");
    EXPECT_EQ(run(qel_rmdirtree, disk.at("/link").c_str()), 0);
    EXPECT_THAT(disk.tree("/"), ElementsAre("link", "target/"));
}

TEST_F(RemoveTree, UnlinksALinkToAFileAndADanglingLink)
{
    disk.make_file("/file");
    disk.make_link("/link", "file");
    disk.make_link("/dangling", "missing");
    EXPECT_EQ(run(qel_rmdirtree, "/link"), 1);
    EXPECT_EQ(run(qel_rmdirtree, "/dangling"), 1);
    EXPECT_THAT(disk.tree("/"), ElementsAre("file"));
}

TEST_F(RemoveTree, ReturnsTheResultForTheContentsWhenTheFolderIsGone)
{
    disk.make_file("/a/file");
    kernel.fail("rmdir", ENOENT);
    EXPECT_EQ(run(qel_rmdirtree, "/a"), 1);

    disk.make_file("/a/file");
    kernel.fail("unlink", EPERM);
    EXPECT_EQ(run(qel_rmdirtree, "/a"), 0);
}

TEST_F(RemoveTree, ReturnsTheResultForTheContentsWhenTheFolderCouldBeRemoved)
{
    disk.make_file("/a/file");
    kernel.fail("unlink", EPERM);
    kernel.on_rmdir = [](const char *) { return 0; };
    EXPECT_EQ(run(qel_rmdirtree, "/a"), 0);
}

TEST_F(RemoveTree, StopsOnNullAndOnARelativePathBeforeItPrints)
{
    EXPECT_STOPS_AT(1044, qel_rmdirtree(nullptr));
    EXPECT_STOPS_AT(1045, qel_rmdirtree("a"));
    EXPECT_EQ(stop_of([] { qel_rmdirtree("a"); }).output.find("removing"), std::string::npos);
}

// ---- qel_recurse_files_in_folder ----

struct RecurseFiles : OnScratchDisk {
    /// Notes the pair; the result must not matter.
    static int note(const char *src_path, const char *dst_path, void *user)
    {
        static_cast<RecurseFiles *>(user)->pairs.push_back(std::string(src_path) + " -> " + dst_path);
        return -1;
    }
    void walk(const char *src, const char *dst_root)
    {
        qel_recurse_files_in_folder(src, dst_root, note, this);
    }

    std::vector<std::string> pairs;
};

TEST_F(RecurseFiles, HandsOverEveryFileWithItsPathOnTheOtherSide)
{
    disk.make_file("/a/one");
    disk.make_file("/a/b/c/two");
    disk.make_folder("/a/empty");
    walk("/a", "/x/y");
    EXPECT_THAT(pairs, UnorderedElementsAre("/a/one -> /x/y/one", "/a/b/c/two -> /x/y/b/c/two"));
}

TEST_F(RecurseFiles, CreatesNothing)
{
    disk.make_file("/a/b/file");
    walk("/a", "/x");
    EXPECT_FALSE(disk.has("/x"));
}

TEST_F(RecurseFiles, HandsOverWhateverTheListingDoesNotCallAFolder)
{
    disk.make_folder("/a");
    kernel.on_readdir =
        Listing().add("link", DT_LNK).add("unknown", DT_UNKNOWN).add("node", DT_BLK).add(".hidden", DT_REG);
    walk("/a", "x");
    EXPECT_THAT(pairs, ElementsAre("/a/link -> x/link", "/a/unknown -> x/unknown", "/a/node -> x/node",
                                   "/a/.hidden -> x/.hidden"));
}

TEST_F(RecurseFiles, CutsBothPathsAt511Bytes)
{
    const std::string folder = "/" + std::string(250, 'a') + "/" + std::string(250, 'b');
    disk.make_file(folder + "/" + std::string(20, 'c'));
    const std::string root = "/" + std::string(505, 'd');
    walk(folder.c_str(), root.c_str());
    EXPECT_THAT(pairs, ElementsAre(folder + "/cccccccc -> " + root + "/cccc"));
}

TEST_F(RecurseFiles, ChecksInOrder)
{
    EXPECT_STOPS_AT(1255, walk(nullptr, nullptr));
    EXPECT_STOPS_AT(1256, walk("a", nullptr));
    EXPECT_STOPS_AT(1257, walk("a", ""));
    EXPECT_STOPS_AT(1258, walk("/a", ""));
    EXPECT_EQ(kernel.count("opendir"), 0);
}
