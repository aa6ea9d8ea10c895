/// The steps of the start-up sequence before the application, in the order in which main calls them. Each
/// prints its own progress. A failed mount, except of a USB disk, or a node that cannot be made stops the
/// program.
#pragma once

/// The bits of the mode byte that have a meaning.
enum qel_mode_bit {
    qel_mode_console = 1,
    qel_mode_update = 2,
};

/// Returns 1 when an argument after the program name is exactly "qelinstall", else 0.
int qel_install_requested(int argc, char **argv);

/// Mounts /sys, /proc and /proc/bus/usb.
void qel_mount_kernel_file_systems(void);

/// Makes the board driver's nodes.
void qel_make_board_nodes(void);

/// Returns 1, and prints so, when bit 0 of the mode byte asks for the console, else 0.
int qel_console_requested(int mode);

/// Points standard input, output and error at /dev/null.
void qel_silence_standard_streams(void);

/// Waits until the first partition of a USB stick has appeared; prints a dot a second.
void qel_wait_for_external_media(void);

/// Makes the nodes of the sound cards, the internal disk and the USB disks.
void qel_make_sound_and_disk_nodes(void);

/// Mounts every USB disk that can be mounted, read-only, below /disk.
void qel_mount_external_media(void);

/// Mounts the system image on /usr and the storage partition on /storage, both read-only.
void qel_mount_system(void);

/// Makes /qel_home a link to /tmp, so that the children's home is in memory.
void qel_link_home(void);
