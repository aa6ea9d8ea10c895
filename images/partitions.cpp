// Reading disks. A boot record is 512 bytes:
//
//   0    440  boot program
//   440  4    disk identifier
//   446  64   four entries of 16 bytes: active (80), 3 bytes not used here, type, 3 bytes not used here,
//             first sector and number of sectors, little-endian, 4 bytes each
//   510  2    55 aa

#include "partitions.h"

#include "images/layout.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <unistd.h>

#include <algorithm>
#include <fstream>
#include <stdexcept>

namespace
{

const size_t table_offset = 446, entry_bytes = 16;
const size_t block_bytes = mebibyte;

} // namespace

DiskReader::DiskReader(const std::string &disk) : name(disk)
{
    descriptor = open(disk.c_str(), O_RDONLY | O_CLOEXEC);
    off_t end = descriptor < 0 ? -1 : lseek(descriptor, 0, SEEK_END);
    if (end < 0)
        throw std::runtime_error(disk + ": " + strerror(errno));
    size = static_cast<unsigned long long>(end);
}

DiskReader::~DiskReader()
{
    if (descriptor >= 0)
        close(descriptor);
}

std::string read_bytes(const DiskReader &disk, unsigned long long offset, size_t count)
{
    std::string bytes(count, '\0');
    size_t done = 0;
    while (done < count) {
        ssize_t got =
            pread(disk.descriptor, bytes.data() + done, count - done, static_cast<off_t>(offset + done));
        if (got < 0)
            throw std::runtime_error(disk.name + ": " + strerror(errno));
        if (got == 0)
            break;
        done += static_cast<size_t>(got);
    }
    bytes.resize(done);
    return bytes;
}

unsigned long number_at(const std::string &bytes, size_t offset)
{
    unsigned long value = 0;
    for (size_t i = 4; i-- > 0;)
        value = value << 8 | static_cast<unsigned char>(bytes.at(offset + i));
    return value;
}

std::array<Partition, 4> partition_table(const std::string &boot_record)
{
    std::array<Partition, 4> table;
    for (size_t i = 0; i < table.size(); ++i) {
        size_t at = table_offset + i * entry_bytes;
        table[i] = {boot_record.at(at) == '\x80', static_cast<unsigned char>(boot_record.at(at + 4)),
                    1ULL * sector_bytes * number_at(boot_record, at + 8),
                    1ULL * sector_bytes * number_at(boot_record, at + 12)};
    }
    return table;
}

Partition find_partition(const std::string &image, int number)
{
    std::string boot_record = read_bytes(DiskReader(image), 0, sector_bytes);
    boot_record.resize(sector_bytes);
    Partition partition = partition_table(boot_record).at(static_cast<size_t>(number) - 1);
    if (partition.type == 0)
        throw std::runtime_error(image + ": partition " + std::to_string(number) + " does not exist");
    return partition;
}

std::string mtools_name(const std::string &image, int number)
{
    return image + "@@" + std::to_string(find_partition(image, number).offset);
}

void copy_piece(const DiskReader &disk, unsigned long long offset, unsigned long long size,
                const std::string &file)
{
    std::ofstream copy(file, std::ios::binary);
    for (unsigned long long done = 0; done < size; done += block_bytes) {
        std::string block = read_bytes(
            disk, offset + done, static_cast<size_t>(std::min<unsigned long long>(block_bytes, size - done)));
        if (block.find_first_not_of('\0') == std::string::npos)
            continue;
        copy.seekp(static_cast<std::streamoff>(done));
        copy << block;
    }
    copy.close();
    if (!copy || truncate(file.c_str(), static_cast<off_t>(size)) != 0)
        throw std::runtime_error(file + ": " + strerror(errno));
}

long long first_difference(const DiskReader &disk, unsigned long long offset, const std::string &file)
{
    std::ifstream original(file, std::ios::binary);
    if (!original)
        throw std::runtime_error(file + ": " + strerror(errno));
    std::string block(block_bytes, '\0');
    for (unsigned long long done = 0;; done += block_bytes) {
        original.read(block.data(), static_cast<std::streamsize>(block_bytes));
        size_t count = static_cast<size_t>(original.gcount());
        if (count == 0)
            return -1;
        std::string found = read_bytes(disk, offset + done, count);
        auto differs = std::mismatch(found.begin(), found.end(), block.begin()).first;
        if (found.size() < count || differs != found.end())
            return static_cast<long long>(done) + (differs - found.begin());
    }
}
