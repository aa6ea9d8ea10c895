/// Mounting the kernel's, the internal disk's and the USB disks' file systems.
///
/// Fixed places: /dev/disk/hdc3 is the storage partition, /storage its mount point, /disk/NAME the mount
/// point of the USB disk node NAME. `flags` is Linux' mount flags word.
#pragma once

#ifdef __cplusplus
extern "C" {
#endif

/// Makes `mount_point` unless it exists and mounts `device` on it; `data` goes to the kernel as it is.
/// Stops when the folder cannot be made (1959) or the mount fails (1964). Returns 0.
int qel_mount(const char *fstype, const char *device, const char *mount_point, unsigned long flags,
              const void *data);

// ---- The storage partition ----

/// Mount /storage read-only; remount it read-write; remount it read-only and sync. They stop and return
/// as qel_mount does.
int qel_mount_storage(void);
int qel_remount_storage_rw(void);
int qel_remount_storage_ro(void);

// ---- USB disks ----

/// Tries every node in /dev/disk whose name begins with `prefix`, disks and partitions alike, in
/// directory order: makes /disk/NAME, mounts the node there as vfat, read-only, and prints "NAME mounted";
/// if the mount fails, removes the folder and prints "NAME not mounted".
/// Stops when /disk (2002) or a mount folder (2017) cannot be made, or /dev/disk cannot be opened (433).
void qel_mount_usb_disks(const char *prefix);

/// Remount /disk/sda and /disk/sda1 read-write; read-only with a sync. They ignore failures and make no
/// folder.
/// Deliberate: the read-only remount names the partition node /dev/disk/sda1 for both mount points, the
/// read-write remount the disk node for the first. Keep both as they are.
void qel_remount_usb_rw(void);
void qel_remount_usb_ro(void);

#ifdef __cplusplus
}
#endif
