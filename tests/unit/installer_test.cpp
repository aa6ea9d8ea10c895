// Installing from the stick: the order of the steps, what each tool is given, and what is not checked.

#include "support/output.h"
#include "support/played_programs.h"
#include "support/scratch_disk.h"
#include "support/stops.h"
#include "support/transcript.h"

#include "qel_application_loader/installer.h"

#include <errno.h>
#include <gmock/gmock.h>

#include <filesystem>

using testing::Contains;
using testing::ElementsAre;
using testing::EndsWith;
using testing::HasSubstr;
using testing::IsEmpty;
using testing::Not;

static const char signalled[] = "((((__extension__ (((union { __typeof(status) __in; int __i; }) { .__in = "
                                "(status) }).__i))) & 0x7f) == 0)";
static const char failed[] = "((((__extension__ (((union { __typeof(status) __in; int __i; }) { .__in = "
                             "(status) }).__i))) & 0xff00) >> 8) == 0";

static const char sfdisk_run[] = "/bin/sfdisk: /bin/sfdisk -uM --quiet --Linux --force /dev/disk/hdc | env: "
                                 "none | in: ,8,4,*\n,28,L\n,,6\n";
static const char mkdosfs_boot_run[] = "/bin/mkdosfs: /bin/mkdosfs /dev/disk/hdc1 | env: none";
static const char mkdosfs_storage_run[] = "/bin/mkdosfs: /bin/mkdosfs /dev/disk/hdc3 | env: none";
static const char syslinux_run[] = "/bin/syslinux: /bin/syslinux /dev/disk/hdc1 | env: none";
static const char miniunz_run[] = "/bin/miniunz: /bin/miniunz /disk/sda1/storage.zip -d /storage | env: none";

/// A cabinet with a mounted stick and a disk whose only partition, hdc2, the kernel learns of in time. Its
/// nodes are plain files, and mounts always succeed.
class Install : public OnScratchDisk
{
  protected:
    Install()
    {
        disk.make_file("/sys/block/hdc/dev", "22:0\n");
        disk.make_file("/sys/block/hdc/hdc2/dev", "22:2\n");
        disk.make_file("/dev/disk/hdc");
        disk.make_file("/disk/sda1/qel_usr.cramfs", "the system image");
        disk.make_file("/disk/sda1/vmlinux", "the kernel");
        kernel.on_mknod = [this](const char *path, auto...) {
            disk.make_file(path);
            return 0;
        };
        kernel.on_mount = [](auto...) { return 0; };
        kernel.on_umount = [](auto...) { return 0; };
        kernel.on_sync = [] {};
    }

    PlayedPrograms programs{kernel};
    Output output;
};

// ---- The whole ----

TEST_F(Install, GivesEachToolItsArgumentsItsInputAndNoEnvironment)
{
    qel_install();
    EXPECT_THAT(programs.runs(),
                ElementsAre(sfdisk_run, mkdosfs_boot_run, mkdosfs_storage_run, syslinux_run));
}

TEST_F(Install, KeepsItsOrder)
{
    disk.make_file("/disk/sda1/storage.zip");
    Transcript transcript(kernel, "fork sync mkdir mknod open mount umount access");
    qel_install();
    EXPECT_THAT(transcript.lines(),
                ElementsAre("> Installing...\n", "fork", "sync", // sfdisk
                            "> dev: ", "mkdir /dev/disk 0755",   // the new partitions' nodes
                            "access /dev/disk/hdc2 4", "mknod /dev/disk/hdc2 060666 22:2", ">  (hdc) hdc2\n",
                            "fork", // mkdosfs, boot
                            "open /disk/sda1/qel_usr.cramfs O_RDONLY",
                            "open /dev/disk/hdc2 O_RDWR|O_CREAT|O_TRUNC", "fork", // mkdosfs, storage
                            "mkdir /boot 0755", "mount /dev/disk/hdc1 /boot vfat 0 null",
                            "open /disk/sda1/vmlinux O_RDONLY", "open /boot/vmlinux O_RDWR|O_CREAT|O_TRUNC",
                            "fork", // syslinux
                            "open /boot/syslinux.cfg O_WRONLY|O_CREAT|O_TRUNC",
                            "access /disk/sda1/storage.zip 4",
                            "> copy: /disk/sda1/qel_usr.cramfs -> /dev/disk/hdc2\n"
                            "copy: /disk/sda1/vmlinux -> /boot/vmlinux\nFound storage.zip\n",
                            "mkdir /storage 0755", "mount /dev/disk/hdc3 /storage vfat 1 null",
                            "mkdir /storage 0755", "mount /dev/disk/hdc3 /storage vfat 32 null",
                            "fork", // miniunz
                            "umount /storage", "umount /boot", "sync", "> Install complete.\n"));
    EXPECT_EQ(programs.runs().back(), miniunz_run);
}

TEST_F(Install, MakesTheNodesOfEveryInternalDisk)
{
    disk.make_file("/sys/block/hda/dev", "3:0\n");
    qel_install();
    EXPECT_TRUE(disk.has("/dev/disk/hda"));
}

TEST_F(Install, RunTwiceDoesTheSameAgain)
{
    const std::string first = output_of(qel_install);
    const std::vector<std::string> runs = programs.runs();
    const std::string second = output_of(qel_install);

    EXPECT_EQ(second.find("Installing...\ndev:  (hdc)\n"), 0U) << second;
    EXPECT_THAT(second, EndsWith("Install complete.\n"));
    std::vector<std::string> twice = runs;
    twice.insert(twice.end(), runs.begin(), runs.end());
    EXPECT_EQ(programs.runs(), twice);
}

TEST_F(Install, LeavesNothingOpen)
{
    const auto open_files = [] {
        const std::filesystem::directory_iterator all("/proc/self/fd");
        return std::distance(begin(all), end(all));
    };
    const auto before = open_files();
    qel_install();
    EXPECT_EQ(open_files(), before);
}

TEST_F(Install, LeavesTheBootConfigurationToTheUmask)
{
    umask(0);
    qel_install();
    umask(022);
    EXPECT_EQ(disk.mode("/boot/syslinux.cfg"), 0666U);
}

// ---- The tools alone ----

TEST_F(Install, PartitionsAnyDiskByAnyScriptAndSyncs)
{
    qel_sfdisk("/dev/other", "script");
    EXPECT_THAT(
        programs.runs(),
        ElementsAre("/bin/sfdisk: /bin/sfdisk -uM --quiet --Linux --force /dev/other | env: none | in: "
                    "script"));
    EXPECT_THAT(kernel.calls("waitpid sync"), ElementsAre(testing::StartsWith("waitpid"), "sync"));
}

TEST_F(Install, FormatsAnyDeviceAndDoesNotSync)
{
    qel_mkdosfs("/dev/other");
    EXPECT_THAT(programs.runs(), ElementsAre("/bin/mkdosfs: /bin/mkdosfs /dev/other | env: none"));
    EXPECT_EQ(kernel.count("sync"), 0);
}

// ---- The system image ----

TEST_F(Install, WritesTheSystemImageByteForByte)
{
    std::string image(3 * 4096 + 17, '\0');
    for (size_t i = 0; i < image.size(); i++)
        image[i] = static_cast<char>(i * 31 / 7);
    disk.make_file("/disk/sda1/qel_usr.cramfs", image);
    qel_install();
    EXPECT_EQ(disk.content("/dev/disk/hdc2"), image);
}

TEST_F(Install, WithoutTheSystemImageStopsAt144AndDoesNotFormatTheStorage)
{
    std::filesystem::remove(disk.at("/disk/sda1/qel_usr.cramfs"));
    EXPECT_STOPS("qel_copy_file(\"/dev/disk/hdc2\", \"/disk/sda1/qel_usr.cramfs\")", loader_unit, 144,
                 qel_install());
    EXPECT_THAT(programs.runs(), ElementsAre(sfdisk_run, mkdosfs_boot_run));
}

TEST_F(Install, StopsAt144WhenThePartitionIsTooSmallForTheImage)
{
    kernel.shorten_nth("write", 2, 5); // the first write is the partition script
    EXPECT_STOPS("qel_copy_file(\"/dev/disk/hdc2\", \"/disk/sda1/qel_usr.cramfs\")", loader_unit, 144,
                 qel_install());
    EXPECT_EQ(disk.content("/dev/disk/hdc2"), "the s");
}

TEST_F(Install, TakesAStickPulledDuringTheCopyForTheEndOfTheFile)
{
    disk.make_file("/disk/sda1/qel_usr.cramfs", std::string(2 * 4096, 'x'));
    kernel.fail_nth("read", 2, EIO);
    EXPECT_THAT(output_of(qel_install), EndsWith("Install complete.\n"));
    EXPECT_EQ(disk.content("/dev/disk/hdc2"), std::string(4096, 'x'));
}

// ---- The boot partition ----

TEST_F(Install, CopiesTheKernel)
{
    qel_install();
    EXPECT_EQ(disk.content("/boot/vmlinux"), "the kernel");
}

TEST_F(Install, WithoutTheKernelStopsAt150AndDoesNotMakeTheDiskBootable)
{
    std::filesystem::remove(disk.at("/disk/sda1/vmlinux"));
    EXPECT_STOPS("qel_copy_file(\"/boot/vmlinux\", \"/disk/sda1/vmlinux\")", loader_unit, 150, qel_install());
    EXPECT_THAT(programs.runs(), ElementsAre(sfdisk_run, mkdosfs_boot_run, mkdosfs_storage_run));
    EXPECT_FALSE(disk.has("/boot/syslinux.cfg"));
}

TEST_F(Install, StopsWhenTheBootFolderCannotBeMade)
{
    kernel.fail_nth("mkdir", 2, EROFS); // after /dev/disk
    EXPECT_STOPS("(*__errno_location ()) == 17", filesystem_unit, 1959, qel_install());
}

TEST_F(Install, StopsWhenTheBootPartitionDoesNotMount)
{
    kernel.fail("mount", EINVAL);
    EXPECT_STOPS("!err", filesystem_unit, 1964, qel_install());
    EXPECT_EQ(kernel.count("umount"), 0);
}

TEST_F(Install, WritesTheBootConfigurationOf55Bytes)
{
    qel_install();
    const std::string configuration = disk.content("/boot/syslinux.cfg");
    EXPECT_EQ(configuration, "DEFAULT vmlinux root=/dev/ram0 usb-storage.delay_use=1\n");
    EXPECT_EQ(configuration.size(), 55U);
}

TEST_F(Install, ReplacesALongerBootConfiguration)
{
    disk.make_file("/boot/syslinux.cfg", std::string(100, 'x'));
    qel_install();
    EXPECT_EQ(disk.content("/boot/syslinux.cfg"), "DEFAULT vmlinux root=/dev/ram0 usb-storage.delay_use=1\n");
}

// The boot configuration is the one file that is written unchecked.

TEST_F(Install, DoesNotNoticeABootConfigurationThatCannotBeCreated)
{
    disk.make_folder("/boot/syslinux.cfg");
    EXPECT_THAT(output_of(qel_install), EndsWith("Install complete.\n"));
    EXPECT_THAT(kernel.calls("write close"), Contains("write -1 55"));
    EXPECT_THAT(kernel.calls("write close"), Contains("close -1"));
}

TEST_F(Install, DoesNotNoticeABootConfigurationThatCannotBeWritten)
{
    kernel.fail_nth("write", 4, ENOSPC); // after the script, the image and the kernel
    EXPECT_THAT(output_of(qel_install), EndsWith("Install complete.\n"));
    EXPECT_EQ(disk.content("/boot/syslinux.cfg"), "");
}

TEST_F(Install, DoesNotNoticeABootConfigurationThatIsCutShort)
{
    kernel.shorten_nth("write", 4, 7);
    EXPECT_THAT(output_of(qel_install), EndsWith("Install complete.\n"));
    EXPECT_EQ(disk.content("/boot/syslinux.cfg"), "DEFAULT");
}

TEST_F(Install, DoesNotLookWhetherTheBootPartitionCouldBeUnmounted)
{
    kernel.fail("umount", EBUSY);
    EXPECT_THAT(output_of(qel_install), EndsWith("Install complete.\n"));
}

// ---- The storage partition ----

TEST_F(Install, WithoutAnArchiveLeavesTheStorageAlone)
{
    EXPECT_THAT(output_of(qel_install), Not(HasSubstr("storage.zip")));
    EXPECT_THAT(kernel.calls("mount umount"),
                ElementsAre("mount /dev/disk/hdc1 /boot vfat 0 null", "umount /boot"));
}

TEST_F(Install, TakesAnUnreadableArchiveForNone)
{
    disk.make_file("/disk/sda1/storage.zip");
    kernel.fail_nth("access", 2, EACCES); // after /dev/disk/hdc2
    EXPECT_THAT(output_of(qel_install), Not(HasSubstr("Found storage.zip")));
    EXPECT_THAT(programs.runs(), testing::SizeIs(4));
}

TEST_F(Install, StopsWhenTheStorageDoesNotMountOrRemount)
{
    disk.make_file("/disk/sda1/storage.zip");
    kernel.fail_nth("mount", 2, EINVAL);
    EXPECT_STOPS("!err", filesystem_unit, 1964, qel_install());
    kernel.forget_calls();
    kernel.fail_nth("mount", 2, 0);
    kernel.fail_nth("mount", 3, EROFS);
    EXPECT_STOPS("!err", filesystem_unit, 1964, qel_install());
}

// ---- Tools that fail ----

/// A tool, by its whole command, and all that ran when it was the last.
struct Tool {
    const char *command;
    std::vector<std::string> runs;
};

[[maybe_unused]] static void PrintTo(const Tool &tool, std::ostream *out)
{
    *out << tool.command;
}

static const Tool tools[] = {
    {"/bin/sfdisk -uM --quiet --Linux --force /dev/disk/hdc", {sfdisk_run}},
    {"/bin/mkdosfs /dev/disk/hdc1", {sfdisk_run, mkdosfs_boot_run}},
    {"/bin/mkdosfs /dev/disk/hdc3", {sfdisk_run, mkdosfs_boot_run, mkdosfs_storage_run}},
    {"/bin/syslinux /dev/disk/hdc1", {sfdisk_run, mkdosfs_boot_run, mkdosfs_storage_run, syslinux_run}},
    {"/bin/miniunz /disk/sda1/storage.zip -d /storage",
     {sfdisk_run, mkdosfs_boot_run, mkdosfs_storage_run, syslinux_run, miniunz_run}},
};

class InstallTool : public Install, public testing::WithParamInterface<Tool>
{
  protected:
    InstallTool()
    {
        disk.make_file("/disk/sda1/storage.zip");
    }
};

TEST_P(InstallTool, ThatExitsWith1StopsTheInstallAt2117)
{
    programs.end_with(GetParam().command, 1);
    EXPECT_STOPS(failed, filesystem_unit, 2117, qel_install());
    EXPECT_EQ(programs.runs(), GetParam().runs);
}

TEST_P(InstallTool, ThatIsKilledStopsTheInstallAt2116)
{
    programs.end_with(GetParam().command, -SIGKILL);
    EXPECT_STOPS(signalled, filesystem_unit, 2116, qel_install());
    EXPECT_EQ(programs.runs(), GetParam().runs);
}

static std::string name_of_tool(const testing::TestParamInfo<Tool> &tool)
{
    static const char *const names[] = {"Sfdisk", "MkdosfsForBoot", "MkdosfsForStorage", "Syslinux",
                                        "Miniunz"};
    return names[tool.index];
}

INSTANTIATE_TEST_SUITE_P(Every, InstallTool, testing::ValuesIn(tools), name_of_tool);
