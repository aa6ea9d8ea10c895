// Reads QEMU's write log. Its format is that of the kernel's dm-log-writes; all numbers are little-endian:
//
//   sector 0        magic (8 bytes), version 1 (8), number of entries (8), bytes of a sector (4)
//   then entries    first sector on the disk (8), number of sectors (8), flags (8), bytes of a note (8), the
//                   note, up to the end of the sector; then the sectors that were written
//
// Flags: 1 a flush of all that was written before, which precedes the entry's own sectors; 2 these sectors
// pass the disk's cache; 4 they were discarded, and none follow; 8 a note.

#include "write_log.h"

#include "common/files.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <stdexcept>

namespace
{

const unsigned long long log_magic = 0x6a736677736872;
const unsigned long long flag_flush = 1, flag_through = 2, flag_discard = 4;

Descriptor open_file(const std::string &name, int flags)
{
    int descriptor = open(name.c_str(), flags | O_CLOEXEC);
    if (descriptor < 0)
        throw std::runtime_error(name + ": " + strerror(errno));
    return {descriptor};
}

std::string read_at(const Descriptor &file, unsigned long long offset, unsigned long long size)
{
    std::string bytes(size, '\0');
    if (pread(file.number, bytes.data(), size, static_cast<off_t>(offset)) != static_cast<ssize_t>(size))
        throw std::runtime_error("the write log is shorter than it says");
    return bytes;
}

unsigned long long number_at(const std::string &bytes, size_t offset)
{
    unsigned long long number = 0;
    for (size_t i = 8; i > 0; --i)
        number = number << 8 | static_cast<unsigned char>(bytes[offset + i - 1]);
    return number;
}

} // namespace

WriteLog read_write_log(const std::string &file)
{
    const Descriptor log_file = open_file(file, O_RDONLY);
    const std::string head = read_at(log_file, 0, 32);
    const unsigned long long sector = number_at(head, 24) & 0xffffffff;
    if (number_at(head, 0) != log_magic || number_at(head, 8) != 1 || sector < 512)
        throw std::runtime_error(file + ": not a write log");
    WriteLog log = {file, {}};
    unsigned long long at = sector;
    for (unsigned long long left = number_at(head, 16); left > 0; --left) {
        const std::string entry = read_at(log_file, at, 32);
        const unsigned long long flags = number_at(entry, 16);
        const unsigned long long size = (flags & flag_discard) != 0 ? 0 : number_at(entry, 8) * sector;
        at += sector;
        const bool flush = (flags & flag_flush) != 0;
        if (size > 0 || flush)
            log.entries.push_back(
                {flush, (flags & flag_through) != 0, number_at(entry, 0) * sector, size, at});
        at += size;
    }
    return log;
}

void write_again(const std::string &disk, const WriteLog &log, size_t entry, unsigned long long size_max)
{
    const DiskWrite &write = log.entries[entry];
    const std::string bytes =
        read_at(open_file(log.file, O_RDONLY), write.log_offset, std::min(write.size, size_max));
    const Descriptor image = open_file(disk, O_WRONLY);
    if (pwrite(image.number, bytes.data(), bytes.size(), static_cast<off_t>(write.offset)) !=
        static_cast<ssize_t>(bytes.size()))
        throw std::runtime_error(disk + ": cannot be written to");
}

void write_again(const std::string &disk, const WriteLog &log, size_t begin, size_t end)
{
    for (size_t entry = begin; entry < end; ++entry)
        write_again(disk, log, entry);
}

std::vector<size_t> entries_at_risk(const WriteLog &log, size_t end)
{
    std::vector<size_t> entries;
    for (size_t entry = 0; entry < end; ++entry) {
        const DiskWrite &write = log.entries[entry];
        if (write.flush)
            entries.clear();
        if (write.size > 0 && !write.through)
            entries.push_back(entry);
    }
    return entries;
}
