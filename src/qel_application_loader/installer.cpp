// Installing from the stick. The disk's layout, in megabytes:
//
//   partition  node             size  type                content
//   1          /dev/disk/hdc1   8     4 (FAT16), bootable  vmlinux, syslinux.cfg and the boot loader
//   2          /dev/disk/hdc2   28    Linux                the system image, byte for byte
//   3          /dev/disk/hdc3   rest  6 (FAT16)            storage

#include "qel_application_loader/installer.h"
#include "qel_utility/qel_filesystem.h"
#include "qel_utility/qel_log.h"

#include <fcntl.h>
#include <sys/mount.h>
#include <unistd.h>

void qel_sfdisk(const char *device, const char *script)
{
    const char *const argv[] = {"/bin/sfdisk", "-uM", "--quiet", "--Linux", "--force", device, nullptr};
    qel_exec_wait_checked(argv[0], argv, nullptr, script);
    sync();
}

void qel_mkdosfs(const char *device)
{
    const char *const argv[] = {"/bin/mkdosfs", device, nullptr};
    qel_exec_wait_checked(argv[0], argv, nullptr, nullptr);
}

static void _make_partitions()
{
    qel_sfdisk("/dev/disk/hdc", ",8,4,*\n,28,L\n,,6\n");
    qel_print("dev: ");
    qel_make_disk_nodes("hd");
    qel_print("\n");
}

/// Fills the boot partition, mounted on /boot, and makes it bootable.
static void _install_boot_files()
{
    QEL_ASSERT_AT(150, qel_copy_file("/boot/vmlinux", "/disk/sda1/vmlinux"));
    const char *const argv[] = {"/bin/syslinux", "/dev/disk/hdc1", nullptr};
    qel_exec_wait_checked(argv[0], argv, nullptr, nullptr);

    static const char configuration[] = "DEFAULT vmlinux root=/dev/ram0 usb-storage.delay_use=1\n";
    int file = open("/boot/syslinux.cfg", O_WRONLY | O_CREAT | O_TRUNC, 0666);
    write(file, configuration, sizeof configuration - 1);
    close(file);
}

/// Unpacks the stick's storage.zip, if there is one, into the storage partition.
static void _unpack_storage()
{
    if (access("/disk/sda1/storage.zip", R_OK))
        return;
    qel_print("Found storage.zip\n");
    qel_mount_storage();
    qel_remount_storage_rw();
    const char *const argv[] = {"/bin/miniunz", "/disk/sda1/storage.zip", "-d", "/storage", nullptr};
    qel_exec_wait_checked(argv[0], argv, nullptr, nullptr);
    umount("/storage");
}

void qel_install(void)
{
    qel_print("Installing...\n");
    _make_partitions();
    qel_mkdosfs("/dev/disk/hdc1");
    QEL_ASSERT_AT(144, qel_copy_file("/dev/disk/hdc2", "/disk/sda1/qel_usr.cramfs"));
    qel_mkdosfs("/dev/disk/hdc3");
    qel_mount("vfat", "/dev/disk/hdc1", "/boot", 0, nullptr);
    _install_boot_files();
    _unpack_storage();
    umount("/boot");
    sync();
    qel_print("Install complete.\n");
}
