// What was written to the internal disk, in its order (CabinetSetup::write_log), and the disks that power
// cuts would have left.
#pragma once

#include <string>
#include <vector>

/// A write or a flush; `size` is 0 for a flush, after which everything before it is on the disk for good.
struct DiskWrite {
    unsigned long long offset; ///< on the disk, in bytes
    unsigned long long size;
    unsigned long long log_offset; ///< where its bytes are in the log
};

struct WriteLog {
    std::string file;
    std::vector<DiskWrite> entries;
};

/// Reads the log of a machine that is off. Throws std::runtime_error when the file is none.
WriteLog read_write_log(const std::string &file);

/// Does one write again, only its first `size_max` bytes.
void write_again(const std::string &disk, const WriteLog &log, size_t entry,
                 unsigned long long size_max = ~0ULL);

/// Does all writes from entry `begin` up to, but not including, entry `end` again.
void write_again(const std::string &disk, const WriteLog &log, size_t begin, size_t end);

/// The entry behind the last flush before `end`; 0 when there is none.
size_t last_flush_end(const WriteLog &log, size_t end);
