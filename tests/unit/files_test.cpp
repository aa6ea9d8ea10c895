// Opening, testing, finding, making and removing files and folders.

#include "support/output.h"
#include "support/scratch_disk.h"
#include "support/stops.h"

#include "qel_utility/qel_filesystem/files.h"

#include <errno.h>
#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;

struct Files : OnScratchDisk {
    ~Files() override
    {
        qel_set_fs_hook(nullptr);
    }
};

using Fopen = Files;
using Opendir = Files;
using Exists = Files;
using FileIsDir = Files;
using FindFileNoCase = Files;
using FsHook = Files;
using Mkdir = Files;
using CreateFolderAndParents = Files;
using CreateParentFolderAndParents = Files;
using ChmodAll = Files;
using Unlink = Files;
using Rmdir = Files;

// ---- qel_fopen, qel_opendir ----

TEST_F(Fopen, OpensAFileForReading)
{
    disk.make_file("/etc/file", "text");
    FILE *file = qel_fopen("/etc/file");
    char text[10] = "";
    EXPECT_EQ(fread(text, 1, sizeof text, file), 4U);
    EXPECT_STREQ(text, "text");
    EXPECT_EQ(fclose(file), 0);
    EXPECT_THAT(kernel.calls("fopen"), ElementsAre("fopen /etc/file rb"));
}

TEST_F(Fopen, ChecksItsPathBeforeItTriesTheDisk)
{
    EXPECT_STOPS_AT(399, qel_fopen(nullptr));
    EXPECT_STOPS_AT(400, qel_fopen("etc"));
    EXPECT_EQ(kernel.count("fopen"), 0);
}

// ---- qel_exists, qel_file_exists ----

TEST_F(Exists, SaysYesToEntriesOfEveryType)
{
    disk.make_file("/file");
    disk.make_folder("/folder");
    disk.make_socket("/socket");
    for (const char *path : {"/file", "/folder", "/socket", "/"}) {
        EXPECT_EQ(qel_exists(path), 1) << path;
        EXPECT_EQ(qel_file_exists(path), 1) << path;
    }
}

TEST_F(Exists, SaysNoToWhatIsMissing)
{
    EXPECT_EQ(qel_exists("/nonexistent"), 0);
    EXPECT_EQ(qel_file_exists("/nonexistent"), 0);
}

TEST_F(Exists, FollowsLinks)
{
    disk.make_file("/file");
    disk.make_link("/good", "file");
    disk.make_link("/dangling", "missing");
    EXPECT_EQ(qel_exists("/good"), 1);
    EXPECT_EQ(qel_file_exists("/good"), 1);
    EXPECT_EQ(qel_exists("/dangling"), 0);
    EXPECT_EQ(qel_file_exists("/dangling"), 0);
}

// ---- qel_file_is_dir ----

TEST_F(FileIsDir, SaysYesToAFolderAndToALinkToOne)
{
    disk.make_folder("/folder");
    disk.make_link("/link", "folder");
    EXPECT_EQ(qel_file_is_dir("/folder"), 1);
    EXPECT_EQ(qel_file_is_dir("/link"), 1);
}

TEST_F(FileIsDir, SaysYesToABlockDeviceWhichSharesTheBit)
{
    make_block_node("/dev/disk/hdc2");
    EXPECT_EQ(qel_file_is_dir("/dev/disk/hdc2"), 1);
}

TEST_F(FileIsDir, SaysYesToASocketWhichSharesTheBit)
{
    disk.make_socket("/socket");
    EXPECT_EQ(qel_file_is_dir("/socket"), 1);
}

TEST_F(FileIsDir, SaysNoToAFileAndToWhatIsMissing)
{
    disk.make_file("/file", "", 0777);
    disk.make_link("/dangling", "missing");
    EXPECT_EQ(qel_file_is_dir("/file"), 0);
    EXPECT_EQ(qel_file_is_dir("/missing"), 0);
    EXPECT_EQ(qel_file_is_dir("/dangling"), 0);
}

// ---- find_file_no_case ----

TEST_F(FindFileNoCase, FindsANameInAnyCaseAndSpellsItAsTheFolderDoes)
{
    disk.make_file("/boot/other");
    disk.make_file("/boot/syslinux.cfg");
    char path[1000] = "";
    EXPECT_EQ(find_file_no_case("/boot", "SYSLINUX.CFG", path, sizeof path), 1);
    EXPECT_STREQ(path, "/boot/syslinux.cfg");
}

TEST_F(FindFileNoCase, TakesTheFirstInDirectoryOrder)
{
    disk.make_folder("/boot");
    kernel.on_readdir = Listing().add("x", DT_REG).add("File", DT_REG).add("FILE", DT_REG);
    char path[1000] = "";
    EXPECT_EQ(find_file_no_case("/boot", "file", path, sizeof path), 1);
    EXPECT_STREQ(path, "/boot/File");
}

TEST_F(FindFileNoCase, DoesNotSkipTheFoldersOwnEntries)
{
    disk.make_folder("/boot");
    char path[1000] = "";
    EXPECT_EQ(find_file_no_case("/boot", ".", path, sizeof path), 1);
    EXPECT_STREQ(path, "/boot/.");
    EXPECT_EQ(find_file_no_case("/boot", "..", path, sizeof path), 1);
    EXPECT_STREQ(path, "/boot/..");
}

TEST_F(FindFileNoCase, Returns0AndLeavesTheBufferAloneWhenNothingFits)
{
    disk.make_file("/boot/syslinux.cfg.old");
    char path[1000] = "before";
    EXPECT_EQ(find_file_no_case("/boot", "syslinux.cfg", path, sizeof path), 0);
    EXPECT_STREQ(path, "before");
    EXPECT_EQ(kernel.count("opendir"), kernel.count("closedir"));
}

TEST_F(FindFileNoCase, AcceptsARelativeFolder)
{
    disk.make_file("/boot/file");
    const WorkingFolder here(disk.path());
    char path[1000] = "";
    EXPECT_EQ(find_file_no_case("boot", "FILE", path, sizeof path), 1);
    EXPECT_STREQ(path, "boot/file");
}

TEST_F(FindFileNoCase, CutsTheResultAtTheBufferAndClosesTheFolder)
{
    disk.make_file("/boot/file");
    char path[] = "xxxxxxxxxxx";
    EXPECT_EQ(find_file_no_case("/boot", "file", path, 9), 1);
    EXPECT_STREQ(path, "/boot/fi");
    EXPECT_STREQ(path + 9, "xx");
    EXPECT_EQ(kernel.count("closedir"), 1);
}

TEST_F(FindFileNoCase, ChecksInOrder)
{
    char path[10];
    EXPECT_STOPS_AT(459, find_file_no_case("/boot/", nullptr, nullptr, 0));
    EXPECT_STOPS_AT(460, find_file_no_case("/boot", nullptr, nullptr, 0));
    EXPECT_STOPS_AT(461, find_file_no_case("/boot", "", nullptr, 0));
    EXPECT_STOPS_AT(462, find_file_no_case("/boot", "x", nullptr, 0));
    EXPECT_STOPS_AT(463, find_file_no_case("/boot", "x", path, 0));
    EXPECT_EQ(kernel.count("opendir"), 0);
}

// ---- qel_fs_hook ----

TEST_F(FsHook, IsCalledBeforeEveryMkdirUnlinkAndRmdir)
{
    qel_set_fs_hook(recorded_hook);
    qel_mkdir("/a");
    qel_unlink("/b");
    qel_rmdir("/a");
    EXPECT_THAT(kernel.calls(), ElementsAre("access /hook 0", "mkdir /a 0755",              //
                                            "access /hook 0", "chmod /b 0777", "unlink /b", //
                                            "access /hook 0", "chmod /a 0777", "rmdir /a"));
}

TEST_F(FsHook, IsNotCalledForAPathThatIsRefused)
{
    qel_set_fs_hook(recorded_hook);
    stop_of([] { qel_mkdir("a"); });
    EXPECT_THAT(kernel.calls("access"), IsEmpty());
}

// ---- qel_create_folder_and_parents ----

TEST_F(CreateFolderAndParents, MakesNothingWhenAllIsThere)
{
    disk.make_folder("/a/b");
    char path[] = "/a/b", root[] = "/";
    EXPECT_EQ(qel_create_folder_and_parents(path), 1);
    EXPECT_EQ(qel_create_folder_and_parents(root), 1);
    EXPECT_THAT(kernel.calls("mkdir"), IsEmpty());
}

TEST_F(CreateFolderAndParents, CountsAnExistingEntryOfAnyTypeAsDone)
{
    disk.make_file("/a/file");
    char path[] = "/a/file";
    EXPECT_EQ(qel_create_folder_and_parents(path), 1);
}

TEST_F(CreateFolderAndParents, BelowAPlainFilePrintsWhatItCouldNotCreateAndReturns0)
{
    disk.make_file("/a/b");
    char path[] = "/a/b/c";
    int result = 1;
    EXPECT_EQ(output_of([&] { result = qel_create_folder_and_parents(path); }),
              "couldn't create folder: /a/b/c\n");
    EXPECT_EQ(result, 0);
}

TEST_F(CreateFolderAndParents, FailsWhereADanglingLinkTakesThePlaceOfAFolder)
{
    disk.make_link("/a", "/nowhere");
    char path[] = "/a/b";
    EXPECT_EQ(output_of([&] { EXPECT_EQ(qel_create_folder_and_parents(path), 0); }),
              "couldn't create folder: /a\n");
    EXPECT_THAT(kernel.calls("stat mkdir"), ElementsAre("stat /a", "mkdir /a 0755"));
}

TEST_F(CreateFolderAndParents, EndsAtTheFirstFailureAndRestoresTheText)
{
    kernel.fail_nth("mkdir", 2, ENOSPC);
    char path[] = "/a/b/c";
    int result = 1;
    EXPECT_EQ(output_of([&] { result = qel_create_folder_and_parents(path); }),
              "couldn't create folder: /a/b\n");
    EXPECT_EQ(result, 0);
    EXPECT_THAT(kernel.calls("mkdir"), ElementsAre("mkdir /a 0755", "mkdir /a/b 0755"));
    EXPECT_STREQ(path, "/a/b/c");
}

// ---- qel_create_parent_folder_and_parents ----

TEST_F(CreateParentFolderAndParents, OfAPathDirectlyUnderTheRootStopsOnItsEmptyParent)
{
    char path[] = "/file";
    EXPECT_STOPS_AT(902, qel_create_parent_folder_and_parents(path));
}

// ---- qel_chmod_all, qel_unlink, qel_rmdir ----

TEST_F(ChmodAll, ReturnsTheResultOfChmod)
{
    EXPECT_EQ(qel_chmod_all("/missing"), -1);
    EXPECT_EQ(errno, ENOENT);
}

TEST_F(Unlink, ReturnsMinus1WithTheErrorNumberOfUnlink)
{
    disk.make_folder("/folder");
    EXPECT_EQ(qel_unlink("/folder"), -1);
    EXPECT_EQ(errno, EISDIR);
}

TEST_F(Unlink, ChecksNoPath)
{
    disk.make_file("/file");
    const WorkingFolder here(disk.path());
    EXPECT_EQ(qel_unlink("file"), 0);
    EXPECT_FALSE(disk.has("/file"));
}

TEST_F(Rmdir, ReturnsMinus1WithTheErrorNumberOfRmdirButMakesTheFolderWritable)
{
    disk.make_file("/folder/file");
    EXPECT_EQ(qel_rmdir("/folder"), -1);
    EXPECT_EQ(errno, ENOTEMPTY);
    EXPECT_EQ(disk.mode("/folder"), 0777U);
}
