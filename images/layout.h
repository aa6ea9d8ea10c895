// What an installed disk and a factory stick look like. Makers and checker share these values, which are
// given; the checker shares nothing of how a disk is made: it reads the bytes of the result.
#pragma once

#include <stddef.h>

#include <cstdint>

const unsigned long long mebibyte = 1024ULL * 1024;
const unsigned sector_bytes = 512;

struct PartitionLayout {
    unsigned type;
    bool active;
    unsigned long long size; ///< in bytes; 0: the rest of the disk
};

/// The internal disk: boot partition, system image, storage. Each partition begins where the one before ends.
inline constexpr PartitionLayout internal_disk_layout[] = {
    {0x04, true, 8 * mebibyte},
    {0x83, false, 28 * mebibyte},
    {0x06, false, 0},
};
const unsigned long long system_image_bytes_max = internal_disk_layout[1].size;

/// A stick: one partition.
inline constexpr PartitionLayout stick_layout = {0x06, true, 0};

/// The boot loader's configuration on the internal disk, without its end of line.
const char *const boot_line = "DEFAULT vmlinux root=/dev/ram0 usb-storage.delay_use=1";

/// The loader takes a file for the application when its name begins so.
const char *const application_prefix = "qel_application_";

/// The first number of a cramfs, and where the number of its bytes is.
const uint32_t cramfs_magic = 0x28cd3d45;
const size_t cramfs_size_at = 4;

/// What marks a kernel that the boot loader can start, and where.
const char *const kernel_mark = "HdrS";
const size_t kernel_mark_at = 0x202;
