// Mounts. The kernel's own file systems are the host's, with what the cabinet has and the host has not
// laid over them; those of disks are folders, bound to their mount points with the flags that were asked
// for, so that what is mounted read-only cannot be written.

#include "sandbox/stand_in/stand_in.h"

#include <errno.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/sysmacros.h>

static int bind(const char *from, const char *to)
{
    return real_mount(from, to, nullptr, MS_BIND, nullptr);
}

/// Changes the flags of a mount point alone, not of the file system that shows there.
static int change_flags(const char *folder, unsigned long flags)
{
    return real_mount(nullptr, folder, nullptr, MS_REMOUNT | MS_BIND | (flags & MS_RDONLY), nullptr);
}

/// Lays /machine/`name`/`entry` over `folder`/`entry`.
static int cover(const char *name, const char *folder, const char *entry)
{
    char from[100], to[100];
    snprintf(from, sizeof from, "/machine/%s/%s", name, entry);
    snprintf(to, sizeof to, "%s/%s", folder, entry);
    return bind(from, to);
}

static int mount_covered(const char *type, const char *folder, unsigned long flags, const char *name,
                         const char *first, const char *second)
{
    return real_mount(type, folder, type, flags, nullptr) || cover(name, folder, first) ||
                   cover(name, folder, second)
               ? -1
               : 0;
}

static int mount_disk(const char *device, const char *folder, const char *type, unsigned long flags)
{
    if (flags & MS_REMOUNT)
        return change_flags(folder, flags);

    struct stat status;
    if (real_stat64(device, &status))
        return -1;
    if (!S_ISBLK(status.st_mode)) {
        errno = ENOTBLK;
        return -1;
    }
    char content[100];
    snprintf(content, sizeof content, "/machine/%s/%u:%u", type, major(status.st_rdev),
             minor(status.st_rdev));
    if (real_stat64(content, &status)) {
        errno = EINVAL;
        return -1;
    }
    return bind(content, folder) || change_flags(folder, flags) ? -1 : 0;
}

int stand_in_mount(const char *device, const char *folder, const char *type, unsigned long flags,
                   const void *)
{
    if (strcmp(type, "sysfs") == 0)
        return mount_covered(type, folder, flags, "sys", "block", "class");
    if (strcmp(type, "proc") == 0)
        return mount_covered(type, folder, flags, "proc", "devices", "bus");
    if (strcmp(type, "usbfs") == 0)
        return real_mount("none", folder, "tmpfs", flags, nullptr);
    if (strcmp(type, "vfat") == 0 || strcmp(type, "cramfs") == 0)
        return mount_disk(device, folder, type, flags);
    errno = ENODEV;
    return -1;
}
