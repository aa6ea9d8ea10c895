// Lets the real loader start on a computer that is not a cabinet. Every mount is one real mount, which binds
// the folder of /machine that is named after its source. The board's command device is a file of zeros there,
// so that the board answers mode 0; the partition that an install writes is a file as well. Nothing else is
// replaced.
//
//   /machine/sysfs  /machine/proc  /machine/none  /machine/hdc1  /machine/hdc2  /machine/hdc3  /machine/sda1
//   /machine/board  /machine/hdc2.image

#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/types.h>

extern "C" {
int real_mount(const char *, const char *, const char *, unsigned long, const void *) __asm__("__real_mount");
int wrap_mount(const char *, const char *, const char *, unsigned long, const void *) __asm__("__wrap_mount");
void wrap_sync() __asm__("__wrap_sync");
int real_open(const char *, int, mode_t) __asm__("__real_open");
int wrap_open(const char *, int, mode_t) __asm__("__wrap_open");
}

int wrap_mount(const char *source, const char *folder, const char *, unsigned long flags, const void *)
{
    if (flags & MS_REMOUNT)
        return real_mount(nullptr, folder, nullptr, MS_REMOUNT | MS_BIND | (flags & MS_RDONLY), nullptr);
    const char *last = strrchr(source, '/');
    char bound[100];
    snprintf(bound, sizeof bound, "/machine/%s", last ? last + 1 : source);
    return real_mount(bound, folder, nullptr, MS_BIND, nullptr);
}

void wrap_sync() {}

int wrap_open(const char *path, int flags, mode_t mode)
{
    if (strcmp(path, "/dev/qellpc_command") == 0)
        path = "/machine/board";
    if (strcmp(path, "/dev/disk/hdc2") == 0)
        path = "/machine/hdc2.image";
    return real_open(path, flags, mode);
}
