// Writes and reads recordings. A pcapng file is a row of blocks, each with its type and length in front
// and its length again at the end, padded to 4 bytes. Numbers are little-endian, as this machine is.
//
// Section header        Interface description   Enhanced packet
//   0  4  0x0A0D0D0A      0  4  1                 0  4  6
//   4  4  length          4  4  length            4  4  length
//   8  4  0x1A2B3C4D      8  2  link type         8  4  interface number
//  12  4  version 1.0    10  2  0                12  8  time, high word first
//  16  8  -1             12  4  longest packet   20  4  bytes kept
//  24  n  options        16  n  options          24  4  bytes there were
//                                                28  n  packet, padded; then options

#include "recording.h"

#include <string.h>
#include <time.h>

namespace
{

enum : uint32_t {
    section_block = 0x0A0D0D0A,
    interface_block = 1,
    simple_packet_block = 3,
    packet_block = 6,
    byte_order_magic = 0x1A2B3C4D,
    record_bytes_max = 64,
};
enum : uint16_t {
    end_of_options = 0,
    interface_name_option = 2, // in an interface description
    packet_flags_option = 2,   // in a packet block
    time_resolution_option = 9,
};

const uint64_t us_per_second = 1000000;

size_t padded(size_t size)
{
    return (size + 3) & ~size_t{3};
}

// ---- Writing ----

using Block = std::vector<uint8_t>;

template <typename Number> void put(Block &block, Number number)
{
    uint8_t bytes[sizeof number];
    memcpy(bytes, &number, sizeof number);
    block.insert(block.end(), bytes, bytes + sizeof bytes);
}

void put_option(Block &block, uint16_t code, std::span<const uint8_t> value)
{
    put(block, code);
    put(block, static_cast<uint16_t>(value.size()));
    block.insert(block.end(), value.begin(), value.end());
    block.resize(padded(block.size()));
}

bool write_block(FILE *file, uint32_t type, const Block &body)
{
    Block block;
    auto length = static_cast<uint32_t>(body.size() + 12);
    put(block, type);
    put(block, length);
    block.insert(block.end(), body.begin(), body.end());
    put(block, length);
    return fwrite(block.data(), 1, block.size(), file) == block.size() && fflush(file) == 0;
}

bool write_head(FILE *file)
{
    Block section;
    put<uint32_t>(section, byte_order_magic);
    put<uint16_t>(section, 1);
    put<uint16_t>(section, 0);
    put<int64_t>(section, -1);
    Block link;
    put<uint16_t>(link, recording_link_type);
    put<uint16_t>(link, 0);
    put<uint32_t>(link, record_bytes_max);
    const char name[] = "host link";
    put_option(link, interface_name_option, {reinterpret_cast<const uint8_t *>(name), sizeof name - 1});
    put<uint32_t>(link, end_of_options);
    return write_block(file, section_block, section) && write_block(file, interface_block, link);
}

// ---- Reading ----

struct Interface {
    uint16_t link_type;
    uint64_t ticks_per_second;
};

/// The interfaces of the section being read, so far.
using Interfaces = std::vector<Interface>;

/// The caller has made sure that the bytes are there.
uint16_t get16(std::span<const uint8_t> bytes, size_t offset)
{
    uint16_t number;
    memcpy(&number, &bytes[offset], sizeof number);
    return number;
}

uint32_t get32(std::span<const uint8_t> bytes, size_t offset)
{
    uint32_t number;
    memcpy(&number, &bytes[offset], sizeof number);
    return number;
}

/// Returns the option's value; empty when it is not there. Broken options end the search.
std::span<const uint8_t> find_option(std::span<const uint8_t> options, uint16_t code)
{
    while (options.size() >= 4) {
        uint16_t this_code = get16(options, 0);
        size_t length = get16(options, 2);
        if (this_code == end_of_options || padded(length) > options.size() - 4)
            break;
        if (this_code == code)
            return options.subspan(4, length);
        options = options.subspan(4 + padded(length));
    }
    return {};
}

/// Ticks per second: 10 to the power of the option's byte, at most nanoseconds. 0 for any other.
uint64_t read_resolution(std::span<const uint8_t> option)
{
    if (option.empty())
        return us_per_second;
    const int power_max = 9;
    uint64_t ticks = 1;
    for (int power = 0; power < option[0] && power < power_max; ++power)
        ticks *= 10;
    return option[0] <= power_max ? ticks : 0;
}

const char *read_section(Interfaces &interfaces, std::span<const uint8_t> body)
{
    if (body.size() < 16)
        return "section header too short";
    interfaces.clear();
    uint16_t version = get16(body, 4);
    return version == 1 ? nullptr : "unknown version of the file format";
}

const char *read_interface(Interfaces &interfaces, std::span<const uint8_t> body)
{
    if (body.size() < 8)
        return "interface description too short";
    uint64_t ticks = read_resolution(find_option(body.subspan(8), time_resolution_option));
    if (ticks == 0)
        return "time resolution out of range";
    interfaces.push_back({get16(body, 0), ticks});
    return nullptr;
}

uint64_t to_us(uint64_t ticks, uint64_t ticks_per_second)
{
    return ticks / ticks_per_second * us_per_second +
           ticks % ticks_per_second * us_per_second / ticks_per_second;
}

const char *read_packet(const Interfaces &interfaces, std::span<const uint8_t> body,
                        RecordingContents &contents)
{
    if (body.size() < 20)
        return "packet block too short";
    uint32_t interface = get32(body, 0);
    if (interface >= interfaces.size())
        return "packet of an interface that was not described";
    size_t kept = get32(body, 12);
    if (kept > body.size() - 20 || padded(kept) > body.size() - 20)
        return "packet longer than its block";
    if (interfaces[interface].link_type != recording_link_type) {
        ++contents.foreign;
        return nullptr;
    }
    uint64_t ticks = uint64_t{get32(body, 4)} << 32 | get32(body, 8);
    auto flags = find_option(body.subspan(20 + padded(kept)), packet_flags_option);
    uint32_t direction = flags.size() == 4 ? get32(flags, 0) & 3 : 0;
    contents.packets.push_back({to_us(ticks, interfaces[interface].ticks_per_second),
                                direction == 3 ? Direction::unknown : Direction{direction},
                                body.subspan(20, kept)});
    return nullptr;
}

/// Takes the block at the front of `rest`. Returns its length, or 0 and the problem.
size_t read_block(Interfaces &interfaces, std::span<const uint8_t> rest, RecordingContents &contents,
                  const char *&problem)
{
    problem = "cut off in the middle of a block";
    if (rest.size() < 12)
        return 0;
    uint32_t type = get32(rest, 0);
    if (type == section_block && get32(rest, 8) != byte_order_magic) {
        problem = "not a little-endian pcapng file";
        return 0;
    }
    size_t length = get32(rest, 4);
    problem = "block length cannot be right";
    if (length < 12 || length % 4 != 0)
        return 0;
    problem = "cut off in the middle of a block";
    if (length > rest.size())
        return 0;
    problem = "the two lengths of a block differ";
    if (get32(rest, length - 4) != length)
        return 0;

    auto body = rest.subspan(8, length - 12);
    problem = nullptr;
    if (type == section_block)
        problem = read_section(interfaces, body);
    else if (type == interface_block)
        problem = read_interface(interfaces, body);
    else if (type == packet_block)
        problem = read_packet(interfaces, body, contents);
    else if (type == simple_packet_block)
        ++contents.foreign; // without time and direction it is of no use here
    return problem == nullptr ? length : 0;
}

} // namespace

FILE *recording_create(const char *path)
{
    FILE *file = fopen(path, "wbe");
    if (file != nullptr && !write_head(file)) {
        fclose(file);
        return nullptr;
    }
    return file;
}

bool recording_add(FILE *file, uint64_t time_us, Direction direction, std::span<const uint8_t> record)
{
    Block body;
    put<uint32_t>(body, 0);
    put(body, static_cast<uint32_t>(time_us >> 32));
    put(body, static_cast<uint32_t>(time_us));
    put(body, static_cast<uint32_t>(record.size()));
    put(body, static_cast<uint32_t>(record.size()));
    body.insert(body.end(), record.begin(), record.end());
    body.resize(padded(body.size()));
    Block flags;
    put(flags, static_cast<uint32_t>(direction));
    put_option(body, packet_flags_option, flags);
    put<uint32_t>(body, end_of_options);
    return write_block(file, packet_block, body);
}

uint64_t recording_now_us()
{
    timespec now = {};
    clock_gettime(CLOCK_REALTIME, &now);
    return static_cast<uint64_t>(now.tv_sec) * us_per_second + static_cast<uint64_t>(now.tv_nsec) / 1000;
}

RecordingContents recording_read(std::span<const uint8_t> file)
{
    RecordingContents contents;
    Interfaces interfaces;
    size_t offset = 0;
    const char *problem = nullptr;
    uint32_t first_word = 0;
    if (file.size() >= sizeof first_word)
        memcpy(&first_word, file.data(), sizeof first_word);
    if (first_word != section_block)
        problem = "not a pcapng file";
    while (problem == nullptr && offset < file.size())
        offset += read_block(interfaces, file.subspan(offset), contents, problem);
    if (problem != nullptr)
        contents.problem = std::string(problem) + " (at byte " + std::to_string(offset) + ")";
    return contents;
}
