// Reads a disk image or a device, never writing to it: bytes, the partition table, and whole partitions.
#pragma once

#include <array>
#include <string>

const unsigned sector_bytes = 512;

/// An entry of the partition table; `type` 0 is an empty one.
struct TableEntry {
    bool active;
    unsigned type;
    unsigned long long start; ///< in sectors, as is the size
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

/// The four entries of a boot record.
std::array<TableEntry, 4> partition_table(const std::string &boot_record);

/// Writes a piece of the disk to a new file, leaving holes for zeros.
void copy_piece(const DiskReader &disk, unsigned long long offset, unsigned long long size,
                const std::string &file);

/// Where a piece of the disk first differs from a file, in bytes from its start; -1 when it does not within
/// the file's length.
long long first_difference(const DiskReader &disk, unsigned long long offset, const std::string &file);

/// A little-endian number of 4 bytes.
unsigned long number_at(const std::string &bytes, size_t offset);
