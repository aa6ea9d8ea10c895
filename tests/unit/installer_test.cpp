// Installing from the stick: what its tape does not show.

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

/// A cabinet with a mounted stick and a disk whose only partition, hdc2, the kernel learns of in time. Its
/// nodes are plain files, and mounts always succeed.
struct Install : OnScratchDisk {
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
    disk.make_file("/disk/sda1/storage.zip");
    qel_install();
    EXPECT_THAT(
        programs.runs(),
        ElementsAre("/bin/sfdisk: /bin/sfdisk -uM --quiet --Linux --force /dev/disk/hdc | env: none | in: "
                    ",8,4,*\n,28,L\n,,6\n",
                    "/bin/mkdosfs: /bin/mkdosfs /dev/disk/hdc1 | env: none",
                    "/bin/mkdosfs: /bin/mkdosfs /dev/disk/hdc3 | env: none",
                    "/bin/syslinux: /bin/syslinux /dev/disk/hdc1 | env: none",
                    "/bin/miniunz: /bin/miniunz /disk/sda1/storage.zip -d /storage | env: none"));
}

TEST_F(Install, MakesTheNodesOfEveryInternalDisk)
{
    disk.make_file("/sys/block/hda/dev", "3:0\n");
    qel_install();
    EXPECT_TRUE(disk.has("/dev/disk/hda"));
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
    for (size_t i = 0; i < image.size(); ++i)
        image[i] = static_cast<char>(i * 31 / 7);
    disk.make_file("/disk/sda1/qel_usr.cramfs", image);
    qel_install();
    EXPECT_EQ(disk.content("/dev/disk/hdc2"), image);
}

// ---- The storage partition ----

TEST_F(Install, WithoutAnArchiveLeavesTheStorageAlone)
{
    EXPECT_THAT(output_of(qel_install), Not(HasSubstr("storage.zip")));
    EXPECT_THAT(kernel.calls("mount umount"),
                ElementsAre("mount /dev/disk/hdc1 /boot vfat 0 null", "umount /boot"));
}
