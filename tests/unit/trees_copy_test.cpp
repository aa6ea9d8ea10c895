// Copying whole folder trees, with and without rules.

#include "support/output.h"
#include "support/scratch_disk.h"
#include "support/stops.h"

#include "qel_utility/qel_filesystem/trees.h"

#include <errno.h>
#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;

struct TreeCopy : OnScratchDisk {
    /// Runs a copy, keeps what it printed in `printed`, and returns the result.
    template <typename Copy> int run(Copy copy)
    {
        int result = -1;
        printed = output_of([&] { result = copy(); });
        return result;
    }
    int copy_tree(const char *src, const char *dst_folder)
    {
        return run([&] { return qel_cpdirtree(src, dst_folder); });
    }
    int copy_contents(const char *src, const char *dst)
    {
        return run([&] { return qel_cpdircontents(src, dst); });
    }
    int merge(const char *src, const char *dst)
    {
        return run([&] { return qel_mergedircontents(src, dst); });
    }
    int work(const char *src, const char *dst, int replace)
    {
        return run([&] { return _qel_cpdirtree(src, dst, replace); });
    }
    /// Copies /a/src into /b by `rules`.
    int copy_by(const std::vector<qel_copy_foo> &rules)
    {
        return run([&] {
            return qel_cpdirtree_with_foo("/a/src", "/b", rules.data(), static_cast<int>(rules.size()));
        });
    }

    std::string printed;
};

using CopyTree = TreeCopy;
using CopyRules = TreeCopy;
using CopyContents = TreeCopy;
using MergeContents = TreeCopy;
using CopyWorker = TreeCopy;

// ---- qel_cpdirtree ----

TEST_F(CopyTree, RemovesAnOldTreeOfThatNameFirst)
{
    disk.make_file("/a/src/new");
    disk.make_file("/b/src/old");
    disk.make_file("/b/other");
    EXPECT_EQ(copy_tree("/a/src", "/b"), 1);
    EXPECT_THAT(disk.tree("/b"), ElementsAre("other", "src/", "src/new"));
}

TEST_F(CopyTree, OfAFileCopiesTheFile)
{
    disk.make_file("/a/file", "text");
    EXPECT_EQ(copy_tree("/a/file", "/b"), 1);
    EXPECT_EQ(disk.content("/b/file"), "text");
}

TEST_F(CopyTree, MakesFilesOfLinksToFilesAndFoldersOfLinksToFolders)
{
    disk.make_file("/other/file", "text");
    disk.make_folder("/a/src");
    disk.make_link("/a/src/folder", "../../other");
    disk.make_link("/a/src/link", "../../other/file");
    EXPECT_EQ(copy_tree("/a/src", "/b"), 1);
    EXPECT_FALSE(disk.is_link("/b/src/folder"));
    EXPECT_FALSE(disk.is_link("/b/src/link"));
    EXPECT_EQ(disk.content("/b/src/folder/file"), "text");
    EXPECT_EQ(disk.content("/b/src/link"), "text");
}

TEST_F(CopyTree, Returns0WithoutCopyingWhenTheOldTreeCannotBeRemoved)
{
    disk.make_file("/a/src/new");
    disk.make_file("/b/target/old");
    disk.make_link("/b/src", "target");
    EXPECT_EQ(copy_tree("/a/src", "/b"), 0);
    EXPECT_FALSE(disk.has("/b/target/new"));
}

TEST_F(CopyTree, PrintsBeforeItChecksInOrder)
{
    EXPECT_EQ(stop_of([] {
                  qel_cpdirtree("src", "b");
              }).output.find("copying dir tree \"src\" to inside of folder \"b\"...\n"),
              0U);
    EXPECT_STOPS_AT(1223, qel_cpdirtree_with_foo("src", "b", nullptr, 1));
    EXPECT_STOPS_AT(1224, qel_cpdirtree_with_foo("/src", "b", nullptr, 1));
    EXPECT_STOPS_AT(1225, qel_cpdirtree_with_foo("/src", "/b", nullptr, 1));
}

// ---- Rules ----

TEST_F(CopyRules, WithExclude1LeaveOutEveryPathThatMatchesFoldersToo)
{
    disk.make_file("/a/src/keep");
    disk.make_file("/a/src/file.tmp");
    disk.make_file("/a/src/folder.tmp/file");
    disk.make_file("/a/src/sub/other.tmp");
    EXPECT_EQ(copy_by({{1, "*.tmp"}}), 1);
    EXPECT_THAT(disk.tree("/b"), ElementsAre("src/", "src/keep", "src/sub/"));
}

TEST_F(CopyRules, WithExclude0KeepMatchingFilesButWalkEveryFolder)
{
    disk.make_file("/a/src/keys.reg", "keys");
    disk.make_file("/a/src/readme");
    disk.make_file("/a/src/sub/more.reg");
    disk.make_file("/a/src/empty/readme");
    EXPECT_EQ(copy_by({{0, "*.reg"}}), 1);
    EXPECT_THAT(disk.tree("/b"),
                ElementsAre("src/", "src/empty/", "src/keys.reg", "src/sub/", "src/sub/more.reg"));
}

TEST_F(CopyRules, WithABareNameMeanEveryEntryOfThatNameAtAnyDepth)
{
    disk.make_file("/a/src/cache/file");
    disk.make_file("/a/src/sub/cache");
    disk.make_file("/a/src/sub/mycache");
    disk.make_file("/a/src/cache2");
    EXPECT_EQ(copy_by({{1, "cache"}}), 1);
    EXPECT_THAT(disk.tree("/b"), ElementsAre("src/", "src/cache2", "src/sub/", "src/sub/mycache"));
}

TEST_F(CopyRules, WithABareNameMayHoldAStarAfterItsFirstLetter)
{
    disk.make_file("/a/src/sub/cache");
    disk.make_file("/a/src/file");
    EXPECT_EQ(copy_by({{1, "c*"}}), 1);
    EXPECT_THAT(disk.tree("/b"), ElementsAre("src/", "src/file", "src/sub/"));
}

TEST_F(CopyRules, WithABarePathMeanItsLastComponents)
{
    disk.make_file("/a/src/x/cache/file");
    disk.make_file("/a/src/y/cache/file");
    EXPECT_EQ(copy_by({{1, "x/cache"}}), 1);
    EXPECT_THAT(disk.tree("/b"), ElementsAre("src/", "src/x/", "src/y/", "src/y/cache/", "src/y/cache/file"));
}

TEST_F(CopyRules, BeginningWithASlashMatchTheWholeSourcePath)
{
    disk.make_file("/a/src/x");
    disk.make_file("/a/src/sub/x");
    EXPECT_EQ(copy_by({{1, "/a/src/x"}}), 1);
    EXPECT_THAT(disk.tree("/b"), ElementsAre("src/", "src/sub/", "src/sub/x"));
}

TEST_F(CopyRules, LetAStarSpanSlashes)
{
    disk.make_file("/a/src/one/two/x");
    disk.make_file("/a/src/x");
    EXPECT_EQ(copy_by({{1, "/a/*/x"}}), 1);
    EXPECT_THAT(disk.tree("/b"), ElementsAre("src/", "src/one/", "src/one/two/"));
}

TEST_F(CopyRules, TakeTheRootAsItStands)
{
    disk.make_file("/a/src/x");
    EXPECT_EQ(copy_by({{1, "/"}}), 1);
    EXPECT_THAT(disk.tree("/b"), ElementsAre("src/", "src/x"));
}

TEST_F(CopyRules, MatchTheSourceNotTheDestination)
{
    disk.make_file("/a/src/x");
    EXPECT_EQ(copy_by({{1, "/b/*"}}), 1);
    EXPECT_THAT(disk.tree("/b"), ElementsAre("src/", "src/x"));
}

TEST_F(CopyRules, MustAllBePassedByAFile)
{
    disk.make_file("/a/src/one.reg");
    disk.make_file("/a/src/two.reg");
    disk.make_file("/a/src/one.txt");
    EXPECT_EQ(copy_by({{0, "*.reg"}, {0, "*one*"}}), 1);
    EXPECT_THAT(disk.tree("/b"), ElementsAre("src/", "src/one.reg"));
}

TEST_F(CopyRules, LeaveOutWhatAKeepRuleWouldKeep)
{
    disk.make_file("/a/src/one.reg");
    disk.make_file("/a/src/two.reg");
    EXPECT_EQ(copy_by({{0, "*.reg"}, {1, "two.reg"}}), 1);
    EXPECT_THAT(disk.tree("/b"), ElementsAre("src/", "src/one.reg"));
}

TEST_F(CopyRules, WithAnyOtherExcludeDoNothing)
{
    disk.make_file("/a/src/x");
    disk.make_file("/a/src/y");
    EXPECT_EQ(copy_by({{2, "x"}, {0xFFFFFFFF, "y"}}), 1);
    EXPECT_THAT(disk.tree("/b"), ElementsAre("src/", "src/x", "src/y"));
}

TEST_F(CopyRules, HoldForTheSourceItselfAfterTheOldTreeIsGone)
{
    disk.make_file("/a/src/x");
    disk.make_file("/b/src/old");
    EXPECT_EQ(copy_by({{1, "src"}}), 1);
    EXPECT_THAT(disk.tree("/b"), IsEmpty());
}

TEST_F(CopyRules, AreTwoWordsExcludeFirst)
{
    const qel_copy_foo rule = {1, "x"};
    EXPECT_EQ(static_cast<const void *>(&rule.exclude), static_cast<const void *>(&rule));
    EXPECT_EQ(sizeof rule.exclude, 4U);
}

// ---- qel_cpdircontents ----

TEST_F(CopyContents, Returns0WithoutCopyingWhenTheDestinationCannotBeRemoved)
{
    disk.make_file("/a/src/new");
    disk.make_folder("/b/target");
    disk.make_link("/b/dst", "target");
    EXPECT_EQ(copy_contents("/a/src", "/b/dst"), 0);
    EXPECT_THAT(disk.tree("/b"), ElementsAre("dst", "target/"));
}

TEST_F(CopyContents, PrintsBeforeItChecksInOrder)
{
    EXPECT_EQ(stop_of([] {
                  qel_cpdircontents("src", "dst");
              }).output.find("copying contents of \"src\" to inside of folder \"dst\"...\n"),
              0U);
    EXPECT_STOPS_AT(1295, qel_cpdircontents("src", "dst"));
    EXPECT_STOPS_AT(1296, qel_cpdircontents("/src", "dst"));
}

// ---- qel_mergedircontents ----

TEST_F(MergeContents, KeepsWhatOnlyTheDestinationHas)
{
    disk.make_file("/a/src/both", "new");
    disk.make_file("/a/src/sub/two", "2");
    disk.make_file("/b/dst/both", "a longer old text", 0444);
    disk.make_file("/b/dst/own", "own");
    disk.make_file("/b/dst/sub/own");
    EXPECT_EQ(merge("/a/src", "/b/dst"), 1);
    EXPECT_THAT(disk.tree("/b/dst"), ElementsAre("both", "own", "sub/", "sub/own", "sub/two"));
    EXPECT_EQ(disk.content("/b/dst/both"), "new");
    EXPECT_EQ(disk.content("/b/dst/own"), "own");
}

TEST_F(MergeContents, PrintsBeforeItChecksInOrder)
{
    EXPECT_EQ(stop_of([] {
                  qel_mergedircontents("src", "dst");
              }).output.find("copying contents of \"src\" to inside of folder \"dst\"...\n"),
              0U);
    EXPECT_STOPS_AT(1315, qel_mergedircontents("src", "dst"));
    EXPECT_STOPS_AT(1316, qel_mergedircontents("/src", "dst"));
}

// ---- The worker ----

TEST_F(CopyWorker, Returns0WhenTheSourceCannotBeStatted)
{
    EXPECT_EQ(work("/missing", "/dst", 0), 0);
    EXPECT_FALSE(disk.has("/dst"));
}

TEST_F(CopyWorker, GoesOnPastAFailingEntryAndReturns0)
{
    disk.make_link("/src/dangling", "missing");
    disk.make_socket("/src/socket");
    disk.make_file("/src/file");
    kernel.on_readdir = Listing().add("dangling", DT_LNK).add("socket", DT_SOCK).add("file", DT_REG);
    EXPECT_EQ(work("/src", "/dst", 0), 0);
    EXPECT_THAT(disk.tree("/dst"), ElementsAre("file"));
}

TEST_F(CopyWorker, WithReplaceRemovesEachEntryOfTheDestinationOnThisLevelOnly)
{
    disk.make_file("/src/sub/new");
    disk.make_file("/src/sub/deep/new");
    disk.make_file("/dst/sub/old");
    disk.make_file("/dst/own");
    EXPECT_EQ(work("/src", "/dst", 1), 1);
    EXPECT_THAT(disk.tree("/dst"), ElementsAre("own", "sub/", "sub/deep/", "sub/deep/new", "sub/new"));
    EXPECT_EQ(printed.find("removing dir tree \"/dst/sub\"\n"), 0U);
    EXPECT_EQ(printed.find("removing dir tree \"/dst/sub/"), std::string::npos);
}

TEST_F(CopyWorker, IgnoresAFailedRemovalBeforeTheCopy)
{
    disk.make_file("/src/file", "new");
    disk.make_file("/dst/file", "old");
    kernel.fail("unlink", EPERM);
    EXPECT_EQ(work("/src", "/dst", 1), 1);
    EXPECT_EQ(disk.content("/dst/file"), "new");
}

TEST_F(CopyWorker, TakesAFolderByItsWholeType)
{
    make_block_node("/node");
    kernel.fail("open", ENXIO);
    EXPECT_EQ(work("/node", "/dst", 0), 0);
    EXPECT_EQ(printed, "copy: /node -> /dst\n");
    EXPECT_THAT(kernel.calls("mkdir opendir"), IsEmpty());
}

TEST_F(CopyWorker, CutsPathsAt511Bytes)
{
    const std::string folder = "/" + std::string(250, 'a') + "/" + std::string(250, 'b');
    disk.make_file(folder + "/" + std::string(20, 'c'));
    EXPECT_EQ(work(folder.c_str(), "/dst", 0), 0);
    EXPECT_EQ(kernel.calls("stat").back(), "stat " + folder + "/cccccccc");
    disk.make_file("/short/" + std::string(20, 'd'));
    EXPECT_EQ(work("/short", folder.c_str(), 0), 1);
    EXPECT_TRUE(disk.has(folder + "/dddddddd"));
}

TEST_F(CopyWorker, PassesTheRulesOnButNotReplace)
{
    disk.make_file("/src/sub/x");
    disk.make_file("/src/sub/y");
    const qel_copy_foo rule = {1, "x"};
    EXPECT_EQ(run([&] { return _qel_cpdirtree_with_foo("/src", "/dst", 1, &rule, 1); }), 1);
    EXPECT_THAT(disk.tree("/dst"), ElementsAre("sub/", "sub/y"));
    EXPECT_EQ(printed, "removing dir tree \"/dst/sub\"\ncopy: /src/sub/y -> /dst/sub/y\n");
}
