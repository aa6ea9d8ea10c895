// Mounting. The kernel's part is played: a mount succeeds unless a test says otherwise.

#include "support/output.h"
#include "support/scratch_disk.h"
#include "support/stops.h"

#include "qel_utility/qel_filesystem/mounts.h"

#include <errno.h>
#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;

class Mounting : public OnScratchDisk
{
  protected:
    Mounting()
    {
        kernel.on_mount = [](auto...) { return 0; };
        kernel.on_sync = [] {};
    }
};

using Mount = Mounting;
using MountStorage = Mounting;
using RemountUsb = Mounting;

static const char errno_text[] = "(*__errno_location ()) == 17";

// ---- qel_mount ----

TEST_F(Mount, MakesTheMountPointThenMountsAndReturns0)
{
    EXPECT_EQ(qel_mount("cramfs", "/dev/disk/hdc2", "/usr", 1, nullptr), 0);
    EXPECT_THAT(kernel.calls(), ElementsAre("mkdir /usr 0755", "mount /dev/disk/hdc2 /usr cramfs 1 null"));
    EXPECT_TRUE(disk.is_folder("/usr"));
}

TEST_F(Mount, AcceptsAMountPointThatExists)
{
    disk.make_folder("/sys");
    EXPECT_EQ(qel_mount("sysfs", "sysfs", "/sys", 0, nullptr), 0);
    EXPECT_THAT(kernel.calls("mount"), ElementsAre("mount sysfs /sys sysfs 0 null"));
}

TEST_F(Mount, PassesItsDataOn)
{
    EXPECT_EQ(qel_mount("vfat", "/dev/x", "/x", 33, "umask=0"), 0);
    EXPECT_THAT(kernel.calls("mount"), ElementsAre("mount /dev/x /x vfat 33 umask=0"));
}

TEST_F(Mount, StopsOnAMountPointThatCannotBeMade)
{
    kernel.fail("mkdir", EROFS);
    EXPECT_STOPS(errno_text, filesystem_unit, 1959, qel_mount("vfat", "/dev/x", "/x", 0, nullptr));
    EXPECT_THAT(kernel.calls("mount"), IsEmpty());
}

TEST_F(Mount, StopsOnAFailedMount)
{
    kernel.fail("mount", ENODEV);
    EXPECT_STOPS("!err", filesystem_unit, 1964, qel_mount("vfat", "/dev/x", "/x", 0, nullptr));
    EXPECT_TRUE(disk.is_folder("/x"));
}

TEST_F(Mount, PrintsNothing)
{
    EXPECT_EQ(output_of([] { qel_mount("vfat", "/dev/x", "/x", 0, nullptr); }), "");
}

TEST_F(Mount, RefusesABadMountPointAsQelMkdirDoes)
{
    EXPECT_STOPS("path", filesystem_unit, 443, qel_mount("vfat", "/dev/x", nullptr, 0, nullptr));
    EXPECT_FATAL("Path is not absolute: \"x\"\n", "qel_mkdir", filesystem_unit, 444,
                 qel_mount("vfat", "/dev/x", "x", 0, nullptr));
}

// ---- The storage partition ----

TEST_F(MountStorage, IsReadOnlyAtFirst)
{
    EXPECT_EQ(qel_mount_storage(), 0);
    EXPECT_THAT(kernel.calls(),
                ElementsAre("mkdir /storage 0755", "mount /dev/disk/hdc3 /storage vfat 1 null"));
}

TEST_F(MountStorage, IsRemountedReadWrite)
{
    EXPECT_EQ(qel_remount_storage_rw(), 0);
    EXPECT_THAT(kernel.calls(),
                ElementsAre("mkdir /storage 0755", "mount /dev/disk/hdc3 /storage vfat 32 null"));
}

TEST_F(MountStorage, IsRemountedReadOnlyAndSynced)
{
    EXPECT_EQ(qel_remount_storage_ro(), 0);
    EXPECT_THAT(kernel.calls(),
                ElementsAre("mkdir /storage 0755", "mount /dev/disk/hdc3 /storage vfat 33 null", "sync"));
}

TEST_F(MountStorage, StopsWhenItFails)
{
    kernel.fail("mount", EIO);
    EXPECT_STOPS("!err", filesystem_unit, 1964, qel_mount_storage());
    EXPECT_STOPS("!err", filesystem_unit, 1964, qel_remount_storage_rw());
    EXPECT_STOPS("!err", filesystem_unit, 1964, qel_remount_storage_ro());
    EXPECT_EQ(kernel.count("sync"), 0);
}

// ---- USB remounts ----

TEST_F(RemountUsb, ReadWritePairsEachNodeWithItsOwnFolder)
{
    qel_remount_usb_rw();
    EXPECT_THAT(kernel.calls(), ElementsAre("mount /dev/disk/sda /disk/sda vfat 32 null",
                                            "mount /dev/disk/sda1 /disk/sda1 vfat 32 null"));
}

TEST_F(RemountUsb, ReadOnlyNamesThePartitionForBothFoldersThenSyncs)
{
    qel_remount_usb_ro();
    EXPECT_THAT(kernel.calls(), ElementsAre("mount /dev/disk/sda1 /disk/sda vfat 33 null",
                                            "mount /dev/disk/sda1 /disk/sda1 vfat 33 null", "sync"));
}

TEST_F(RemountUsb, IgnoresFailures)
{
    kernel.fail("mount", EINVAL);
    qel_remount_usb_rw();
    qel_remount_usb_ro();
    EXPECT_EQ(kernel.count("mount"), 4);
    EXPECT_EQ(kernel.count("sync"), 1);
}

// ---- qel_mount_usb_disks ----

class MountUsbDisks : public Mounting
{
  protected:
    MountUsbDisks()
    {
        disk.make_folder("/dev/disk");
    }
    /// The nodes in /dev/disk, in directory order.
    void list(std::initializer_list<const char *> names)
    {
        Listing listing;
        for (const char *name : names)
            listing.add(name, DT_BLK);
        kernel.on_readdir = listing;
    }
    /// Only these mount.
    void accept(const std::string &node)
    {
        kernel.on_mount = [node](const char *device, auto...) { return device == node ? 0 : -1; };
    }
    static std::string mount_all(const char *prefix = "sd")
    {
        return output_of([=] { qel_mount_usb_disks(prefix); });
    }
};

TEST_F(MountUsbDisks, TriesDisksAndPartitionsAlikeInDirectoryOrder)
{
    list({"sda1", "sda", "sdb"});
    accept("/dev/disk/sda1");
    EXPECT_EQ(mount_all(), "sda1 mounted\nsda not mounted\nsdb not mounted\n");
    EXPECT_THAT(kernel.calls("mkdir mount rmdir"),
                ElementsAre("mkdir /disk 0755",                                                     //
                            "mkdir /disk/sda1 0755", "mount /dev/disk/sda1 /disk/sda1 vfat 1 null", //
                            "mkdir /disk/sda 0755", "mount /dev/disk/sda /disk/sda vfat 1 null",    //
                            "rmdir /disk/sda",                                                      //
                            "mkdir /disk/sdb 0755", "mount /dev/disk/sdb /disk/sdb vfat 1 null",    //
                            "rmdir /disk/sdb"));
    EXPECT_THAT(disk.tree("/disk"), ElementsAre("sda1/"));
}

TEST_F(MountUsbDisks, TakesOnlyNamesThatBeginWithThePrefixAndNotWithADot)
{
    list({".", "..", "hdc", "xsda", "sd", ".sda"});
    EXPECT_EQ(mount_all(), "sd mounted\n");
    list({".", "..", ".sda", "a"});
    EXPECT_EQ(mount_all("."), "");
    list({".", "..", ".sda", "a"});
    EXPECT_EQ(mount_all(""), "a mounted\n");
}

TEST_F(MountUsbDisks, AcceptsFoldersThatExist)
{
    disk.make_folder("/disk/sda");
    list({"sda"});
    EXPECT_EQ(mount_all(), "sda mounted\n");
}

TEST_F(MountUsbDisks, RemovesTheFolderPlainlyAfterAFailureAlsoOneThatWasThere)
{
    disk.make_folder("/disk/sda");
    list({"sda"});
    accept("none");
    mount_all();
    EXPECT_FALSE(disk.has("/disk/sda"));
    EXPECT_THAT(kernel.calls("chmod"), IsEmpty());
}

TEST_F(MountUsbDisks, IgnoresAFolderThatCannotBeRemoved)
{
    disk.make_file("/disk/sda/file");
    list({"sda", "sdb"});
    accept("/dev/disk/sdb");
    EXPECT_EQ(mount_all(), "sda not mounted\nsdb mounted\n");
    EXPECT_TRUE(disk.has("/disk/sda/file"));
}

TEST_F(MountUsbDisks, WithoutDisksMakesTheFolderAndPrintsNothing)
{
    EXPECT_EQ(mount_all(), "");
    EXPECT_TRUE(disk.is_folder("/disk"));
    EXPECT_EQ(kernel.count("closedir"), 1);
}

TEST_F(MountUsbDisks, DoesNotFlushWhatItPrints)
{
    list({"sda"});
    Output output;
    qel_mount_usb_disks("sd");
    EXPECT_EQ(output.flushed(), "");
}

TEST_F(MountUsbDisks, StopsOnFoldersThatCannotBeMadeOrOpened)
{
    list({"sda"});
    kernel.fail_nth("mkdir", 1, EROFS);
    EXPECT_STOPS(errno_text, filesystem_unit, 2002, mount_all());
    kernel.fail_nth("mkdir", 3, ENOSPC);
    EXPECT_STOPS(errno_text, filesystem_unit, 2017, mount_all());
    kernel.fail("opendir", ENOENT);
    EXPECT_STOPS("dir", filesystem_unit, 433, mount_all());
}
