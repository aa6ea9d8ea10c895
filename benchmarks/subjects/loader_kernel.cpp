// Lets the real loader start on a computer that is no cabinet: what it mounts is found in /machine, and every
// mount is one real mount all the same, a folder bound to its place; the board's command device is a file of
// zeros there, so that the board answers mode 0. Nothing else of the loader is replaced.
//
//   /machine/sysfs  /machine/proc  /machine/usbfs  /machine/cramfs  /machine/vfat  /machine/board

#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/types.h>

extern "C" {
int real_mount(const char *, const char *, const char *, unsigned long, const void *) __asm__("__real_mount");
int wrap_mount(const char *, const char *, const char *, unsigned long, const void *) __asm__("__wrap_mount");
int real_open(const char *, int, mode_t) __asm__("__real_open");
int wrap_open(const char *, int, mode_t) __asm__("__wrap_open");
}

int wrap_mount(const char *, const char *folder, const char *type, unsigned long, const void *)
{
    char source[100];
    snprintf(source, sizeof source, "/machine/%s", type);
    return real_mount(source, folder, nullptr, MS_BIND, nullptr);
}

int wrap_open(const char *path, int flags, mode_t mode)
{
    return real_open(strcmp(path, "/dev/qellpc_command") == 0 ? "/machine/board" : path, flags, mode);
}
