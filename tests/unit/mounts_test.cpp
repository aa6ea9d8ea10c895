// Mounting. The kernel's part is played: a mount succeeds unless a test says otherwise.

#include "support/output.h"
#include "support/scratch_disk.h"
#include "support/stops.h"

#include "qel_utility/qel_filesystem/mounts.h"

#include <errno.h>
#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;

struct Mounting : OnScratchDisk {
    Mounting()
    {
        kernel.on_mount = [](auto...) { return 0; };
        kernel.on_sync = [] {};
    }
};

using Mount = Mounting;
using MountStorage = Mounting;
using RemountUsb = Mounting;

// ---- qel_mount ----

TEST_F(Mount, PassesItsDataOn)
{
    EXPECT_EQ(qel_mount("vfat", "/dev/x", "/x", 33, "umask=0"), 0);
    EXPECT_THAT(kernel.calls("mount"), ElementsAre("mount /dev/x /x vfat 33 umask=0"));
}

// ---- qel_mount_usb_disks ----

struct MountUsbDisks : Mounting {
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
