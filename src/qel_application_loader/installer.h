/// The installer: makes the internal disk of a cabinet boot by itself.
#pragma once

/// Installs the system from the USB stick, mounted on /disk/sda1, onto the internal disk /dev/disk/hdc:
/// partitions it (boot, system image, storage), formats boot and storage, writes the system image
/// (qel_usr.cramfs) and the kernel (vmlinux), makes the disk bootable, and unpacks storage.zip into the
/// storage partition if the stick has one. It neither asks nor checks what the disk held.
/// Prints its progress. Every external tool must exit with code 0, else the program stops in
/// qel_exec_wait_checked; a failed copy stops at 144 (image) or 150 (kernel), a failed mount in
/// qel_mount. The boot configuration is written unchecked. Leaves only the stick mounted.
void qel_install(void);

/// Partitions `device` by `script`, one line start,size,type[,bootable] per partition in megabytes, then
/// syncs. The disk loses its content.
void qel_sfdisk(const char *device, const char *script);

/// Makes a FAT file system on `device`.
void qel_mkdosfs(const char *device);
