// Device nodes of the board, the sound cards and the disks, from /proc/devices and sysfs.

#include "qel_utility/qel_filesystem/device_nodes.h"
#include "qel_utility/qel_filesystem/files.h"
#include "qel_utility/qel_filesystem/internal.h"
#include "qel_utility/qel_log.h"

#include <stdio.h>
#include <string.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

enum { node_permissions = 0666 };

/// The board driver's nodes; the index is the minor number.
static const char *const lpc_nodes[] = {
    "/dev/qellpc_firmware",  "/dev/qellpc_midi",      "/dev/qellpc_lcd",     "/dev/qellpc_command",
    "/dev/qellpc_button",    "/dev/qellpc_test",      "/dev/qellpc_console", "/dev/qellpc_host_comms",
    "/dev/qellpc_reserved1", "/dev/qellpc_reserved2",
};

static void _make_node(const char *path, mode_t type, unsigned major, unsigned minor, int line)
{
    int err = mknod(path, type | node_permissions, makedev(major, minor));
    QEL_ASSERT_AT(line, !err);
    printf(" %s", _qel_base_name(path));
}

// ---- The board ----

void qel_make_lpc_node(const char *path, unsigned major, unsigned minor)
{
    _make_node(path, S_IFCHR, major, minor, 1914);
}

/// Returns the major number of the board driver, 0 when the kernel does not list it.
static int _lpc_major()
{
    FILE *file = qel_fopen("/proc/devices");
    int major = 0;
    char line[1000];
    while (fgets(line, sizeof line, file)) {
        if (strstr(line, "qellpc"))
            sscanf(line, "%d", &major);
    }
    fclose(file);
    return major;
}

void qel_make_lpc_nodes(void)
{
    int major = _lpc_major();
    QEL_ASSERT_AT(2321, major);

    for (unsigned minor = 0; minor < sizeof lpc_nodes / sizeof lpc_nodes[0]; minor++)
        qel_make_lpc_node(lpc_nodes[minor], (unsigned)major, minor);
}

// ---- From sysfs ----

int qel_make_node_from_sysfs(const char *sysfs_folder, const char *dest_folder, mode_t type)
{
    const char *name = _qel_base_name(sysfs_folder);
    char path[path_bytes];
    _qel_join_path(path, sizeof path, sysfs_folder, "dev");
    if (!qel_exists(path))
        return 0;

    FILE *file = qel_fopen(path);
    int major, minor;
    int num_matches = fscanf(file, "%d:%d", &major, &minor);
    QEL_ASSERT_AT(1937, num_matches == 2);
    fclose(file);

    _qel_join_path(path, sizeof path, dest_folder, name);
    if (qel_exists(path))
        printf(" (%s)", name);
    else
        _make_node(path, type, (unsigned)major, (unsigned)minor, 1947);
    return 1;
}

void qel_make_sound_nodes(void)
{
    _qel_mkdir_if_missing("/dev/snd", 2288);
    DIR *dir = qel_opendir("/sys/class/sound");
    const struct dirent *entry;
    while ((entry = readdir(dir))) {
        if (entry->d_name[0] == '.')
            continue;
        char folder[path_bytes];
        _qel_join_path(folder, sizeof folder, "/sys/class/sound", entry->d_name);
        qel_make_node_from_sysfs(folder, "/dev/snd", S_IFCHR);
    }
    closedir(dir);
}

/// Makes the missing nodes of the disk's partitions. Returns 1 when there was one, else 0.
static int _make_partition_nodes(const char *disk_folder)
{
    int made = 0;
    DIR *dir = qel_opendir(disk_folder);
    const struct dirent *entry;
    while ((entry = readdir(dir))) {
        if (!_qel_begins_with(entry->d_name, _qel_base_name(disk_folder)))
            continue;
        char path[path_bytes];
        _qel_join_path(path, sizeof path, "/dev/disk", entry->d_name);
        if (access(path, R_OK) == 0)
            continue;
        _qel_join_path(path, sizeof path, disk_folder, entry->d_name);
        if (qel_make_node_from_sysfs(path, "/dev/disk", S_IFBLK))
            made = 1;
    }
    closedir(dir);
    return made;
}

int qel_make_disk_nodes(const char *prefix)
{
    _qel_mkdir_if_missing("/dev/disk", 2351);
    int made = 0;
    DIR *dir = qel_opendir("/sys/block");
    const struct dirent *entry;
    while ((entry = readdir(dir))) {
        if (!_qel_begins_with(entry->d_name, prefix))
            continue;
        char disk_folder[path_bytes];
        _qel_join_path(disk_folder, sizeof disk_folder, "/sys/block", entry->d_name);
        qel_make_node_from_sysfs(disk_folder, "/dev/disk", S_IFBLK);
        if (_make_partition_nodes(disk_folder))
            made = 1;
    }
    closedir(dir);
    return made;
}
