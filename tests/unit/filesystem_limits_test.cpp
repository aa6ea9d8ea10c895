// The file-system library at the limits of its buffers, types and patterns.

#include "support/output.h"
#include "support/scratch_disk.h"
#include "support/stops.h"

#include "qel_utility/qel_filesystem.h"

#include <errno.h>
#include <gmock/gmock.h>

using testing::ElementsAre;

namespace
{

struct FilesystemLimits : OnScratchDisk {
    /// A name of 255 bytes.
    const std::string longest = "sda" + std::string(252, 'x');
    /// A path of `size` bytes, below /, of names of up to 100 bytes.
    static std::string path_of(size_t size)
    {
        std::string path;
        while (path.size() < size)
            path += "/" + std::string(std::min<size_t>(100, size - path.size() - 1), 'd');
        return path;
    }
};

} // namespace

TEST_F(FilesystemLimits, BlocksMayHave32Bits)
{
    disk.make_file("/file");
    FILE *file = real_fopen(disk.at("/file").c_str(), "r+b");
    char byte = 'x';
    EXPECT_EQ(qel_read_block(&byte, 0xFFFFFFFF, file), 0U);
    kernel.on_fwrite = [](auto...) { return size_t{0}; };
    EXPECT_EQ(qel_write_block(&byte, 0xFFFFFFFF, file), 0U);
    EXPECT_THAT(kernel.calls("fread fwrite"), ElementsAre("fread 1 4096", "fwrite 1 4096"));
    real_fclose(file);
}

TEST_F(FilesystemLimits, FolderSizesTakeHiddenNamesLongPathsAndNegativeThresholds)
{
    disk.make_file("/top/.a", std::string(100000, 'x'));
    disk.make_file("/top/..b", std::string(200000, 'x'));
    disk.make_file("/top" + path_of(900) + "/c", std::string(400000, 'x'));
    const int64_t size = qel_get_folder_size("/top");
    EXPECT_GE(size, 700000);
    int64_t sum = 0;
    EXPECT_EQ(qel_get_folder_size_with_threshold("/top/.a", -1, &sum), 0);
    EXPECT_EQ(sum, 100000);
}

TEST_F(FilesystemLimits, DiskSpaceIsThatOfAFileOrOfADeepFolder)
{
    disk.make_folder(path_of(900));
    disk.make_file("/file");
    qel_get_disk_space((path_of(900) + "/missing").c_str(), nullptr, nullptr);
    qel_get_disk_space("/file", nullptr, nullptr);
    EXPECT_THAT(kernel.calls("statfs"), ElementsAre("statfs " + path_of(900), "statfs /file"));
}

TEST_F(FilesystemLimits, TheStopwatchTurnsEvery600SecondsBeyond32BitsToo)
{
    kernel.set_time(5000000399); // a second before a turn
    EXPECT_EQ(qel_elapsed_usec(), 0U);
    kernel.advance_usec(1500000);
    EXPECT_EQ(qel_elapsed_usec(), 500000U - 599000000U - 1000000U + 1000000U);
}

TEST_F(FilesystemLimits, NodesHaveTheLongestNamesAndPlainDecimalNumbers)
{
    make_nodes_as_files(kernel, disk);
    disk.make_folder("/dev");
    disk.make_file("/sys/block/" + longest + "/dev", "010:011\n");
    disk.make_file("/sys/class/sound/" + longest + "/dev", "116:033\n");
    disk.make_file(path_of(900) + "/card/dev", "1:2\n");
    disk.make_file("/proc/devices", "0254 qellpc\n");
    EXPECT_EQ(output_of([&] {
                  qel_make_sound_nodes();
                  qel_make_disk_nodes("sd");
                  qel_make_node_from_sysfs((path_of(900) + "/card").c_str(), "/dev", S_IFCHR);
                  qel_make_lpc_nodes();
              }).substr(0, 2 * 256 + 5),
              " " + longest + " " + longest + " card");
    std::vector<std::string> made = kernel.calls("mknod");
    made.resize(4);
    EXPECT_THAT(made, ElementsAre("mknod /dev/snd/" + longest + " 020666 116:33",
                                  "mknod /dev/disk/" + longest + " 060666 10:11",
                                  "mknod /dev/card 020666 1:2", "mknod /dev/qellpc_firmware 020666 254:0"));
}

TEST_F(FilesystemLimits, NodesOfPartitionsMayHaveLongPathsInSysfs)
{
    make_nodes_as_files(kernel, disk);
    disk.make_folder("/dev");
    const std::string name = longest.substr(0, 250);
    disk.make_file("/sys/block/" + name + "/" + name + "1234/dev", "8:1\n");
    EXPECT_EQ(output_of([] { qel_make_disk_nodes("sd"); }), " " + name + "1234");
}

TEST_F(FilesystemLimits, TheBoardMayHaveAnyNumberButZero)
{
    make_nodes_as_files(kernel, disk);
    disk.make_folder("/dev");
    disk.make_file("/proc/devices", "-1 qellpc\n");
    output_of(qel_make_lpc_nodes);
    EXPECT_EQ(kernel.count("mknod"), 10);
}

TEST_F(FilesystemLimits, APartitionOfAnyOneDiskCounts)
{
    make_nodes_as_files(kernel, disk);
    disk.make_folder("/dev");
    disk.make_folder("/sys/block");
    disk.make_file("/sys/block/sda/dev", "8:0\n");
    disk.make_file("/sys/block/sdb/dev", "8:16\n");
    disk.make_file("/sys/block/sda/sda1/dev", "8:1\n");
    const auto listing = [](const char *first, const char *second) {
        Listing all;
        for (const char *name : {first, second}) {
            all.add(name, DT_DIR);
            if (strcmp(name, "sda") == 0)
                all.add("sda1", DT_DIR);
            all.end();
        }
        return all.end();
    };
    kernel.on_access = [](auto...) { return -1; };
    Output output;
    kernel.on_readdir = listing("sda", "sdb");
    EXPECT_EQ(qel_make_disk_nodes("sd"), 1);
    kernel.on_readdir = listing("sdb", "sda");
    EXPECT_EQ(qel_make_disk_nodes("sd"), 1);
}

TEST_F(FilesystemLimits, MountsTakeTheLongestNamesAndAllFlags)
{
    disk.make_file("/dev/disk/" + longest);
    kernel.on_mount = [](auto...) { return 0; };
    EXPECT_EQ(output_of([] { qel_mount_usb_disks("sd"); }), longest + " mounted\n");
    qel_mount("vfat", "/dev/a", "/a", 0x210401, nullptr);
    EXPECT_THAT(kernel.calls("mount"),
                ElementsAre("mount /dev/disk/" + longest + " /disk/" + longest + " vfat 1 null",
                            "mount /dev/a /a vfat 2163713 null"));
}

TEST_F(FilesystemLimits, DumpsTakeTheLongestNames)
{
    disk.make_file("/a/" + longest, "12345");
    EXPECT_NE(output_of([] { qel_dump_folder("/a"); }).find(" " + longest + " (5)"), std::string::npos);
    disk.make_file(path_of(900) + "/file", "1234");
    EXPECT_NE(output_of([] { qel_dump_folder(path_of(900).c_str()); }).find(" file (4)"), std::string::npos);
    disk.make_file("/proc/1234567890/status", "asleep\n");
    EXPECT_NE(output_of(qel_dump_processes).find("/proc/1234567890/status\n"), std::string::npos);
    EXPECT_NE(output_of(qel_dump_processes).find("asleep\n"), std::string::npos);
}

TEST_F(FilesystemLimits, LinksOfWindowsApplicationsAreCutAt511Bytes)
{
    disk.make_folder("/qel_home");
    disk.make_file("/app/abcdefgh");
    const std::string folder = "/qel_home" + path_of(497); // 506 bytes
    output_of([&] { qel_install_win_app_files("/app", folder.c_str()); });
    EXPECT_EQ(disk.link_content(folder + "/abcd"), "/app/abcdefgh");
    const std::string shorter = "/qel_home" + path_of(400);
    output_of([&] { qel_install_win_app_files("/app", shorter.c_str()); });
    EXPECT_EQ(disk.link_content(shorter + "/abcdefgh"), "/app/abcdefgh");
}

TEST_F(FilesystemLimits, SearchesCompareTheBytesOfNames)
{
    disk.make_file("/a/app_B");
    disk.make_file("/a/app_a");
    disk.make_file("/a/APP_z");
    char folder[1000] = "", name[1000] = "";
    output_of([&] { qel_find_file_with_prefix("/a", "app_", folder, name); });
    EXPECT_STREQ(name, "app_a");
}

/// A rule, and whether it leaves /src/abc/.def out of a copy.
struct Pattern {
    uint32_t exclude;
    const char *pattern;
    bool leaves_out;
};

TEST_F(FilesystemLimits, RulesArePlainPatternsWithEscapes)
{
    static const Pattern patterns[] = {
        {1, "/src/\\abc/.def", true}, // a backslash takes the next letter as it is
        {1, "/src/abc/\\.d*", true},
        {1, "/src/abc/?def", true}, // a leading period is a letter like any other
        {1, "/src?abc*", true},     // and so is a slash
        {1, "?def", true},          // the same of bare rules
        {1, "\\.def", true},
        {1, "/SRC/abc", false},
        {1, ".DEF", false},
        {1, "/src/@(abc)", false},
        {1, "@(.def)", false},
        {0, "/src/abc", true}, // the whole path counts, not its beginning
        {0, "abc", true},
        {0, "*/.def", false},
        {0x100, "*", false},
        {0x101, "*", false},
    };
    disk.make_file("/src/abc/.def");
    for (const Pattern &each : patterns) {
        const qel_copy_foo rule = {each.exclude, each.pattern};
        output_of([&] { EXPECT_EQ(qel_cpdirtree_with_foo("/src", "/dst", &rule, 1), 1); });
        EXPECT_EQ(!disk.has("/dst/src/abc/.def"), each.leaves_out) << each.exclude << " " << each.pattern;
    }
    const WorkingFolder here(disk.path());
    disk.make_folder("/.hidden");
    const qel_copy_foo rule = {1, "*hidden"};
    EXPECT_EQ(_qel_cpdirtree_with_foo(".hidden", "/other", 0, &rule, 1), 1);
    EXPECT_FALSE(disk.has("/other"));
    EXPECT_STOPS_AT(1225, qel_cpdirtree_with_foo("/src", "/dst", nullptr, -1));
    EXPECT_EQ(_qel_cpdirtree_with_foo("/src/abc/.def", "/copy", 0, nullptr, -1), 1);
    EXPECT_TRUE(disk.has("/copy"));
}

TEST_F(FilesystemLimits, BareRulesMatchTheLastNamesWhateverTheirLength)
{
    const std::string source = path_of(700);
    disk.make_file(source, "text");
    // The last names of the path: 396 bytes of it, 497 and 598.
    for (const size_t start : {304U, 203U, 102U}) {
        ASSERT_EQ(source[start - 1], '/');
        const qel_copy_foo rule = {1, source.c_str() + start};
        output_of([&] { EXPECT_EQ(_qel_cpdirtree_with_foo(source.c_str(), "/dst", 0, &rule, 1), 1); });
        EXPECT_FALSE(disk.has("/dst")) << start;
    }
}

TEST_F(FilesystemLimits, WalksHandOverEveryFileWhateverComesOfIt)
{
    static int calls;
    calls = 0;
    disk.make_file("/a/1");
    disk.make_file("/a/2");
    disk.make_file("/a/3");
    qel_recurse_files_in_folder(
        "/a", "b", [](auto...) { return ++calls % 2; }, nullptr);
    EXPECT_EQ(calls, 3);
    qel_recurse_files_in_folder(
        "/a", "b", [](auto...) { return calls++ % 2; }, nullptr);
    EXPECT_EQ(calls, 6);
}

TEST_F(FilesystemLimits, ABatchIsReadUpToItsTwentiethEntryAndItsFailureLasts)
{
    disk.make_folder("/a");
    Listing twenty;
    for (char letter = 'a'; letter < 'a' + 20; ++letter)
        twenty.add(std::string(1, letter).c_str(), DT_REG);
    kernel.on_readdir = twenty;
    kernel.on_unlink = [](auto...) { return 0; };
    Output output;
    EXPECT_EQ(qel_rmdircontents("/a"), 1);
    EXPECT_EQ(kernel.count("readdir"), 21);

    kernel.forget_calls();
    kernel.on_readdir = twenty;
    kernel.fail_nth("unlink", 1, EPERM);
    EXPECT_EQ(qel_rmdircontents("/a"), 0);
    EXPECT_EQ(kernel.count("unlink"), 20);
}

TEST_F(FilesystemLimits, RemovalsAskWhetherSomethingIsThereAndTryToTheEnd)
{
    disk.make_file("/a/file");
    Output output;
    EXPECT_EQ(qel_rmdirtree("/a/file/below"), 0); // ENOTDIR
    kernel.fail("opendir", EMFILE);
    EXPECT_EQ(qel_rmdircontents("/missing"), 1);
    EXPECT_EQ(qel_rmdirtree("/a"), 0);
    EXPECT_THAT(kernel.calls("rmdir"), ElementsAre("rmdir /a"));
}

TEST_F(FilesystemLimits, WritablePathsOfCopiesMayBeLong)
{
    disk.make_file("/src/a", "text");
    const std::string folder = path_of(505);
    output_of([&] { EXPECT_EQ(qel_cpdirtree("/src", folder.c_str()), 1); });
    EXPECT_EQ(disk.content(folder + "/src/a"), "text");
    disk.make_folder("/empty");
    output_of([&] { qel_cpdirtree("/empty", path_of(508).c_str()); });
    EXPECT_TRUE(disk.has(path_of(508) + "/em")); // the tree itself is cut at 511 bytes
    output_of([&] { qel_mergedircontents("/src", (path_of(1500) + "/a").c_str()); });
    EXPECT_TRUE(disk.has(path_of(1500)));
    kernel.watches_memory = 1;
    output_of([&] { qel_mergedircontents("/src", (path_of(5000) + "/a").c_str()); });
    EXPECT_EQ(kernel.count("malloc"), 1);
    EXPECT_TRUE(kernel.blocks.empty());
}

TEST_F(FilesystemLimits, ChecksOfComposersComeInTheirOrder)
{
    char buffer[100];
    EXPECT_STOPS_AT(1151, qel_child_path("/a", "/x/", buffer, 100));
}
