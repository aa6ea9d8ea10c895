// Reads a disk image or a device, never writing to it: bytes, the partition table, and whole partitions.
#pragma once

#include <array>
#include <string>

/// A partition, in bytes; `type` 0 if it does not exist.
struct Partition {
    bool active;
    unsigned type;
    unsigned long long offset;
    unsigned long long size;
};

struct DiskReader {
    std::string name;
    int descriptor = -1;
    unsigned long long size = 0; ///< in bytes

    explicit DiskReader(const std::string &disk); ///< throws std::runtime_error
    ~DiskReader();
    DiskReader(const DiskReader &) = delete;
    DiskReader &operator=(const DiskReader &) = delete;
};

/// Bytes from `offset` on, fewer when the disk ends there.
std::string read_bytes(const DiskReader &disk, unsigned long long offset, size_t count);

/// The four partitions of a boot record.
std::array<Partition, 4> partition_table(const std::string &boot_record);

/// Where partition `number` (1 to 4) of an image lies. Throws when it does not exist.
Partition find_partition(const std::string &image, int number);

/// Names "image@@offset" for mtools' -i option, so that a partition's files can be listed and read.
std::string mtools_name(const std::string &image, int number);

/// Writes a piece of the disk to a new file, leaving holes for zeros.
void copy_piece(const DiskReader &disk, unsigned long long offset, unsigned long long size,
                const std::string &file);

/// Where a piece of the disk first differs from a file, in bytes from its start; -1 when it does not within
/// the file's length.
long long first_difference(const DiskReader &disk, unsigned long long offset, const std::string &file);

/// A little-endian number of 4 bytes.
unsigned long number_at(const std::string &bytes, size_t offset);
