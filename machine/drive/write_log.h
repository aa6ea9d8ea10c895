// What was written to the internal disk, in its order (CabinetSetup::write_log), and the disks that power
// cuts would have left.
#pragma once

#include <string>
#include <vector>

/// A write, a flush, or both. A flush comes first: all that was written before is on the disk for good, the
/// write itself is not yet.
struct DiskWrite {
    bool flush;
    bool through; ///< the write passed the disk's cache: it is on the disk, whatever becomes of others
    unsigned long long offset;     ///< on the disk, in bytes
    unsigned long long size;       ///< 0: only a flush
    unsigned long long log_offset; ///< where its bytes are in the log
};

struct WriteLog {
    std::string file;
    std::vector<DiskWrite> entries;
};

/// Reads the log of a machine that is off. Discarded sectors and notes are left out: nothing is known of what
/// the former hold. Throws std::runtime_error if it is not a write log.
WriteLog read_write_log(const std::string &file);

/// Replays one write, at most its first `size_max` bytes.
void write_again(const std::string &disk, const WriteLog &log, size_t entry,
                 unsigned long long size_max = ~0ULL);

/// Replays all writes from entry `begin` up to, but not including, entry `end`.
void write_again(const std::string &disk, const WriteLog &log, size_t begin, size_t end);

/// Of the entries before `end`, those that a disk may lose when the power goes: written after the last flush,
/// and not through the cache. In their order.
std::vector<size_t> entries_at_risk(const WriteLog &log, size_t end);
