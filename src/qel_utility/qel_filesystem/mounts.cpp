// Mounts. Everything of the internal disk and the kernel must mount, or the program stops; USB disks may
// fail.

#include "qel_utility/qel_filesystem/mounts.h"
#include "qel_utility/qel_filesystem/files.h"
#include "qel_utility/qel_filesystem/internal.h"
#include "qel_utility/qel_log.h"

#include <stdio.h>
#include <sys/mount.h>
#include <unistd.h>

int qel_mount(const char *fstype, const char *device, const char *mount_point, unsigned long flags,
              const void *data)
{
    _qel_mkdir_if_missing(mount_point, 1959);
    int err = mount(device, mount_point, fstype, flags, data);
    QEL_ASSERT_AT(1964, !err);
    return 0;
}

// ---- The storage partition ----

static int _mount_storage(unsigned long flags)
{
    return qel_mount("vfat", "/dev/disk/hdc3", "/storage", flags, nullptr);
}

int qel_mount_storage(void)
{
    return _mount_storage(MS_RDONLY);
}

int qel_remount_storage_rw(void)
{
    return _mount_storage(MS_REMOUNT);
}

int qel_remount_storage_ro(void)
{
    int result = _mount_storage(MS_REMOUNT | MS_RDONLY);
    sync();
    return result;
}

// ---- USB disks ----

static void _mount_usb_disk(const char *name)
{
    char node[path_bytes], folder[path_bytes];
    _qel_join_path(node, sizeof node, "/dev/disk", name);
    _qel_join_path(folder, sizeof folder, "/disk", name);

    _qel_mkdir_if_missing(folder, 2017);
    if (mount(node, folder, "vfat", MS_RDONLY, nullptr)) {
        rmdir(folder);
        printf("%s not mounted\n", name);
    } else {
        printf("%s mounted\n", name);
    }
}

void qel_mount_usb_disks(const char *prefix)
{
    _qel_mkdir_if_missing("/disk", 2002);
    DIR *dir = qel_opendir("/dev/disk");
    const struct dirent *entry;
    while ((entry = readdir(dir))) {
        if (entry->d_name[0] != '.' && _qel_begins_with(entry->d_name, prefix))
            _mount_usb_disk(entry->d_name);
    }
    closedir(dir);
}

void qel_remount_usb_rw(void)
{
    mount("/dev/disk/sda", "/disk/sda", "vfat", MS_REMOUNT, nullptr);
    mount("/dev/disk/sda1", "/disk/sda1", "vfat", MS_REMOUNT, nullptr);
}

void qel_remount_usb_ro(void)
{
    mount("/dev/disk/sda1", "/disk/sda", "vfat", MS_REMOUNT | MS_RDONLY, nullptr);
    mount("/dev/disk/sda1", "/disk/sda1", "vfat", MS_REMOUNT | MS_RDONLY, nullptr);
    sync();
}
