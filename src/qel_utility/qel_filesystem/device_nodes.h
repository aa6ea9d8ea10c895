/// Device nodes, made from what the kernel publishes: the program runs before any device manager.
///
/// Each new node is announced on the console as a blank and its name; the caller prints the rest of the
/// line. All nodes get permissions 0666 (less the umask). They are never removed.
#pragma once

#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/// Makes the character node `path`. Stops when that fails, also because it exists (1914).
void qel_make_lpc_node(const char *path, unsigned major, unsigned minor);

/// Makes the board driver's ten nodes in /dev, minor 0 to 9, with the major number that /proc/devices
/// gives for "qellpc"; of several lines the last counts. Stops without one ("major", 2321).
void qel_make_lpc_nodes(void);

/// Makes the node of a sysfs folder, with the folder's name, in `dest_folder`. `type` is S_IFCHR or
/// S_IFBLK; the numbers come from the folder's file `dev`. A node that exists is left alone and announced
/// in brackets.
/// Stops when `dev` does not hold two numbers (1937) or the node cannot be made (1947).
/// Returns 1 when the node was made or found; 0, printing nothing, when the folder has no file `dev`.
int qel_make_node_from_sysfs(const char *sysfs_folder, const char *dest_folder, mode_t type);

/// Makes the nodes of /sys/class/sound in /dev/snd. Stops when that folder cannot be made (2288).
void qel_make_sound_nodes(void);

/// Makes, in /dev/disk, the nodes of the disks whose names begin with `prefix` and of their partitions;
/// partitions whose nodes are readable already are passed over in silence. Stops when /dev/disk cannot be
/// made (2351). Returns 1 when the node of a partition was made, or found but not readable; else 0, also for
/// a partition without a file `dev`.
int qel_make_disk_nodes(const char *prefix);

#ifdef __cplusplus
}
#endif
