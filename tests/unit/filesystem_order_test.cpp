// What the file-system library does and prints, in one order. A text stands where it is printed, unless a
// test is about what has left the process.

#include "support/played_programs.h"
#include "support/scratch_disk.h"
#include "support/stops.h"
#include "support/transcript.h"

#include "qel_utility/qel_filesystem.h"

#include <errno.h>
#include <gmock/gmock.h>

using testing::ElementsAre;

namespace
{

using Lines = std::vector<std::string>;

class FilesystemOrder : public OnScratchDisk
{
  protected:
    template <typename Statement> Lines printed(const std::string &calls, Statement statement)
    {
        Transcript transcript(kernel, calls);
        transcript.unflushed = true;
        statement();
        return transcript.lines();
    }
    template <typename Statement> Lines flushed(const std::string &calls, Statement statement)
    {
        Transcript transcript(kernel, calls);
        statement();
        return transcript.lines();
    }
    /// Opens give these descriptors one after another; a read gives one byte, the next one nothing.
    void play_descriptors(std::vector<int> descriptors)
    {
        kernel.on_open = [descriptors, next = 0U](auto...) mutable { return descriptors.at(next++); };
        kernel.on_read = [next = 0](auto...) mutable { return next++ == 0 ? 1 : 0; };
        kernel.on_write = [](int, const void *, size_t size) { return static_cast<ssize_t>(size); };
        kernel.on_close = [](int) { return 0; };
        kernel.on_chmod = [](auto...) { return 0; };
    }
};

} // namespace

TEST_F(FilesystemOrder, OfACopy)
{
    play_descriptors({700, 701});
    qel_set_fs_hook(recorded_hook);
    const Lines lines = printed("access chmod open read write close", [] { qel_copy_file("/b", "/a"); });
    qel_set_fs_hook(nullptr);
    EXPECT_THAT(lines, ElementsAre("> copy: /a -> /b\n", "access /hook 0", "chmod /b 0777",
                                   "open /a O_RDONLY", "open /b O_RDWR|O_CREAT|O_TRUNC", "read 700 4096",
                                   "write 701 1", "access /hook 0", "read 700 4096", "access /hook 0",
                                   "close 700", "close 701", "chmod /b 0777"));
}

TEST_F(FilesystemOrder, OfACopyWithTheDescriptorsOfTheStandardStreams)
{
    play_descriptors({0, 1});
    Output output;
    EXPECT_EQ(qel_copy_file("/b", "/a"), 1);
    EXPECT_THAT(kernel.calls("read write close"),
                ElementsAre("read 0 4096", "write 1 1", "read 0 4096", "close 0", "close 1"));
    play_descriptors({1, 0});
    EXPECT_EQ(qel_copy_file("/b", "/a"), 1);
}

TEST_F(FilesystemOrder, OfAChangeOfTheWorkingFolder)
{
    kernel.on_chdir = [](auto...) { return 0; };
    EXPECT_THAT(printed("chdir", [] { qel_set_current_dir("/a"); }),
                ElementsAre("> Changing current directory to: \"/a\"...\n", "chdir /a"));
}

TEST_F(FilesystemOrder, OfAFolderWhosePlaceIsTakenByADanglingLink)
{
    disk.make_link("/a", "/nowhere");
    char folder[] = "/a/b";
    EXPECT_THAT(printed("stat mkdir", [&] { EXPECT_EQ(qel_create_folder_and_parents(folder), 0); }),
                ElementsAre("stat /a", "mkdir /a 0755", "> couldn't create folder: /a\n"));
    EXPECT_THAT(flushed("stat mkdir", [&] { qel_create_folder_and_parents(folder); }),
                ElementsAre("stat /a", "mkdir /a 0755"));
}

TEST_F(FilesystemOrder, OfTestsIsOneStat)
{
    disk.make_file("/a");
    qel_exists("/a");
    qel_file_exists("/a");
    qel_file_is_dir("/a");
    EXPECT_THAT(kernel.calls(), ElementsAre("stat /a", "stat /a", "stat /a"));
}

TEST_F(FilesystemOrder, OfASearchWhichFlushesNothing)
{
    disk.make_file("/a/prefix_1");
    char folder[1000] = "", name[1000] = "";
    const auto search = [&] { qel_find_file_with_prefix("/a", "prefix", folder, name); };
    EXPECT_THAT(flushed("opendir closedir", search), ElementsAre("opendir /a", "closedir"));
}

TEST_F(FilesystemOrder, OfCopiedTrees)
{
    disk.make_file("/src/file");
    kernel.on_open = nullptr;
    const std::string calls = "stat mkdir opendir open unlink rmdir closedir";
    EXPECT_THAT(printed(calls, [] { qel_cpdirtree("/src", "/to/dst"); }),
                ElementsAre("> copying dir tree \"/src\" to inside of folder \"/to/dst\"...\n"
                            "removing dir tree \"/to/dst/src\"\n",
                            "stat /to/dst/src", "unlink /to/dst/src", "stat /to", "mkdir /to 0755",
                            "stat /to/dst", "mkdir /to/dst 0755", "stat /src", "mkdir /to/dst/src 0755",
                            "opendir /src", "> removing dir tree \"/to/dst/src/file\"\n",
                            "stat /to/dst/src/file", "unlink /to/dst/src/file", "stat /src/file",
                            "> copy: /src/file -> /to/dst/src/file\n", "open /src/file O_RDONLY",
                            "open /to/dst/src/file O_RDWR|O_CREAT|O_TRUNC", "closedir"));
    EXPECT_THAT(printed(calls, [] { qel_mergedircontents("/src", "/to/dst/src"); }),
                ElementsAre("> copying contents of \"/src\" to inside of folder \"/to/dst/src\"...\n",
                            "stat /to", "stat /to/dst", "stat /src", "mkdir /to/dst/src 0755", "opendir /src",
                            "stat /src/file", "> copy: /src/file -> /to/dst/src/file\n",
                            "open /src/file O_RDONLY", "open /to/dst/src/file O_RDWR|O_CREAT|O_TRUNC",
                            "closedir"));
    EXPECT_THAT(printed(calls, [] { qel_cpdircontents("/src", "/to/dst/src"); }),
                ElementsAre("> copying contents of \"/src\" to inside of folder \"/to/dst/src\"...\n"
                            "removing dir tree \"/to/dst/src\"\n",
                            "stat /to/dst/src", "> removing contents of \"/to/dst/src\"\n",
                            "opendir /to/dst/src", "closedir", "unlink /to/dst/src/file", "rmdir /to/dst/src",
                            "stat /to", "stat /to/dst", "stat /src", "mkdir /to/dst/src 0755", "opendir /src",
                            "> removing dir tree \"/to/dst/src/file\"\n", "stat /to/dst/src/file",
                            "unlink /to/dst/src/file", "stat /src/file",
                            "> copy: /src/file -> /to/dst/src/file\n", "open /src/file O_RDONLY",
                            "open /to/dst/src/file O_RDWR|O_CREAT|O_TRUNC", "closedir"));
    EXPECT_THAT(flushed("mkdir", [] { qel_cpdircontents("/src", "/to/dst/src"); }),
                ElementsAre("mkdir /to/dst/src 0755"));
}

TEST_F(FilesystemOrder, OfNodes)
{
    make_nodes_as_files(kernel, disk);
    disk.make_folder("/dev");
    disk.make_file("/sys/block/sdb/dev", "8:16\n");
    disk.make_file("/sys/block/sdb/sdb1/dev", "8:17\n");
    disk.make_folder("/sys/class/sound");
    EXPECT_THAT(printed("mkdir opendir fopen fclose mknod closedir",
                        [] {
                            qel_make_sound_nodes();
                            qel_make_disk_nodes("sd");
                        }),
                ElementsAre("mkdir /dev/snd 0755", "opendir /sys/class/sound", "closedir",
                            "mkdir /dev/disk 0755", "opendir /sys/block", "fopen /sys/block/sdb/dev rb",
                            "fclose", "mknod /dev/disk/sdb 060666 8:16", ">  sdb", "opendir /sys/block/sdb",
                            "fopen /sys/block/sdb/sdb1/dev rb", "fclose", "mknod /dev/disk/sdb1 060666 8:17",
                            ">  sdb1", "closedir", "closedir"));
}

TEST_F(FilesystemOrder, OfNodesThatCannotBeMade)
{
    disk.make_file("/sys/block/sdb/dev", "8");
    EXPECT_STOPS("num_matches == 2", filesystem_unit, 1937,
                 qel_make_node_from_sysfs("/sys/block/sdb", "/dev", S_IFBLK));
    EXPECT_EQ(kernel.count("fclose"), 0);
}

TEST_F(FilesystemOrder, OfUsbDisks)
{
    disk.make_file("/dev/disk/sda");
    kernel.on_mount = [](auto...) { return -1; };
    const auto mount_all = [] { qel_mount_usb_disks("sd"); };
    EXPECT_THAT(printed("mkdir opendir mount chmod rmdir closedir", mount_all),
                ElementsAre("mkdir /disk 0755", "opendir /dev/disk", "mkdir /disk/sda 0755",
                            "mount /dev/disk/sda /disk/sda vfat 1 null", "rmdir /disk/sda",
                            "> sda not mounted\n", "closedir"));
    EXPECT_THAT(flushed("closedir", mount_all), ElementsAre("closedir"));
    kernel.on_mount = [](auto...) { return 0; };
    EXPECT_THAT(flushed("closedir", mount_all), ElementsAre("closedir"));
}

TEST_F(FilesystemOrder, OfDumpsWhichFlushEveryPiece)
{
    disk.make_file("/a/file", "100%% of it\nlast");
    const std::string dashes = "> ----------------------------------------\n";
    EXPECT_THAT(flushed("fopen fgets fclose", [] { qel_dump_file("/a/file"); }),
                ElementsAre(dashes + "/a/file\n" + dashes.substr(2), "fopen /a/file rb", "fgets 1000",
                            "> 100%% of it\n", "fgets 1000", "> last", "fgets 1000", "fclose",
                            dashes + "\n"));
    kernel.on_readdir = Listing().add("file", DT_REG).add("none", DT_REG);
    EXPECT_THAT(flushed("opendir stat closedir", [] { qel_dump_folder("/a"); }),
                ElementsAre("> /a:", "opendir /a", "stat /a/file", ">  file (16)", "stat /a/none",
                            ">  none (can't stat)", "closedir", "> \n"));
}

TEST_F(FilesystemOrder, OfWindowsApplications)
{
    disk.make_folder("/qel_home");
    disk.make_file("/storage/archives/new.pkg");
    disk.make_file("/storage/win_apps/game/a.reg");
    disk.make_file("/storage/win_apps/file");
    disk.make_file("/qel_home/.wine/reg_keys/b.reg");
    PlayedPrograms programs(kernel);
    kernel.on_readdir = Listing()
                            .add("new.pkg", DT_REG)
                            .end()
                            .add("file", DT_REG)
                            .add("game", DT_DIR)
                            .add("a.reg", DT_REG)
                            .end()
                            .end()
                            .add("b.reg", DT_REG);
    int result = 0;
    EXPECT_THAT(
        printed("opendir mkdir fork unlink symlink closedir", [&] { result = qel_install_windows_apps(); }),
        ElementsAre("> Scanning for Windows applications...\n", "opendir /storage/archives",
                    "> Installing new windows application - new.pkg\n", "mkdir /storage/win_apps 0755",
                    "fork", "unlink /storage/archives/new.pkg", "> Done.\n", "closedir",
                    "> Installing Windows application files and registry keys...\n",
                    "opendir /storage/win_apps", "opendir /storage/win_apps/game",
                    "> Installing windows app file:\n    source: /storage/win_apps/game/a.reg\n"
                    "    link: /qel_home/.wine/a.reg\n",
                    "unlink /qel_home/.wine/a.reg",
                    "> /storage/win_apps/game/a.reg -> /qel_home/.wine/a.reg\n",
                    "symlink /storage/win_apps/game/a.reg /qel_home/.wine/a.reg", "closedir",
                    "opendir /qel_home/.wine/reg_keys",
                    "> Attemping to import registry file: /qel_home/.wine/reg_keys/b.reg\n", "fork",
                    "closedir", "closedir", "> ...Finished installing Windows applications.\n"));
    EXPECT_EQ(result, 45); // what this libc's puts gives for the last line
}

TEST_F(FilesystemOrder, OfWindowsApplicationsWhichFlushNothing)
{
    disk.make_folder("/qel_home");
    disk.make_file("/storage/win_apps/game/file");
    EXPECT_THAT(
        flushed("symlink closedir", [] { qel_install_windows_apps(); }),
        ElementsAre("symlink /storage/win_apps/game/file /qel_home/.wine/file", "closedir", "closedir"));
}
