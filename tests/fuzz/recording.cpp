// qel-host's reading and printing of recordings: any bytes as a file. The packets that are found, and whether
// the file is whole, must be what the model has.

#include "fuzz/fuzz.h"

#include "recording.h"
#include "trace.h"

#include <vector>

namespace
{

/// A file as the format's rules have it, read byte by byte.
struct Model {
    explicit Model(const Exactly<uint8_t> &whole_file) : file(whole_file)
    {
        const uint32_t first = size() < 4 ? 0 : number(0, 4);
        is_whole = first == section_type;
        for (size_t at = 0; is_whole && at < size();) {
            const size_t length = length_at(at);
            is_whole = length > 0 && read(at, length);
            at += length;
        }
    }

    struct Packet {
        size_t at, size;
        uint32_t direction;
    };
    std::vector<Packet> packets;
    size_t foreign = 0;
    bool is_whole;

  private:
    enum : uint32_t { section_type = 0x0A0D0D0A };
    const Exactly<uint8_t> &file;
    bool is_big_endian = false;
    std::vector<uint32_t> link_types; ///< of the section's interfaces

    size_t size() const
    {
        return file.size();
    }
    uint32_t number(size_t at, size_t bytes) const
    {
        uint32_t value = 0;
        for (size_t i = 0; i < bytes; i++)
            value = value << 8 | file.get()[is_big_endian ? at + i : at + bytes - 1 - i];
        return value;
    }

    /// Returns the length of the block at `at`, 0 when there is none.
    size_t length_at(size_t at)
    {
        if (size() - at < 12)
            return 0;
        if (number(at, 4) == section_type) { // the same in both orders
            is_big_endian = file.get()[at + 8] == 0x1A;
            if (number(at + 8, 4) != 0x1A2B3C4D)
                return 0;
        }
        const size_t length = number(at + 4, 4);
        const bool fits = length >= 12 && length % 4 == 0 && length <= size() - at;
        return fits && number(at + length - 4, 4) == length ? length : 0;
    }

    bool read(size_t at, size_t length)
    {
        const size_t end = at + length - 4;
        switch (number(at, 4)) {
        case section_type:
            link_types.clear();
            return length >= 28 && number(at + 12, 2) == 1;
        case 1:
            return length >= 20 && read_interface(at, end);
        case 3:
            foreign++;
            return true;
        case 6:
            return length >= 32 && read_packet(at, end);
        default:
            return true;
        }
    }

    /// The ticks of a second must fit 64 bits: 10^19 and 2^63 do.
    bool read_interface(size_t at, size_t end)
    {
        link_types.push_back(number(at + 8, 2));
        const Option option = find_option(9, at + 16, end);
        const int digits = option.size > 0 ? file.get()[option.at] : 0;
        return digits < 128 ? digits <= 19 : digits - 128 <= 63;
    }

    struct Option {
        size_t at, size;
    };
    /// Its size is 0 when there is none.
    Option find_option(uint32_t code, size_t at, size_t end) const
    {
        while (end - at >= 4 && number(at, 2) != 0) {
            const size_t length = number(at + 2, 2), next = at + 4 + (length + 3) / 4 * 4;
            if (next > end)
                break;
            if (number(at, 2) == code)
                return {at + 4, length};
            at = next;
        }
        return {0, 0};
    }

    bool read_packet(size_t at, size_t end)
    {
        const uint32_t interface = number(at + 8, 4);
        const size_t kept = number(at + 20, 4);
        const size_t options = at + 28 + (kept + 3) / 4 * 4;
        if (interface >= link_types.size() || options > end)
            return false;
        if (link_types[interface] != 147) {
            foreign++;
            return true;
        }
        const Option flags = find_option(2, options, end);
        packets.push_back({at + 28, kept, flags.size == 4 ? number(flags.at, 4) % 4 : 0});
        return true;
    }
};

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // The link for recordings is made once in the life of a process.
    static const bool nothing_is_no_recording = !trace_recording({}, {}, stdout);
    require(nothing_is_no_recording, "an empty file");
    const Exactly<uint8_t> file(data, size);
    const Model model(file);
    const std::span<const uint8_t> bytes(file.get(), size);
    const Outcome outcome = run([&] {
        const RecordingContents contents = recording_read(bytes);
        require(contents.problem.empty() == model.is_whole, "the verdict", contents.problem);
        require(contents.foreign == model.foreign, "packets of other kinds", std::to_string(contents.foreign),
                std::to_string(model.foreign));
        require(contents.packets.size() == model.packets.size(), "packets");
        for (size_t i = 0; i < model.packets.size(); i++) {
            const std::span<const uint8_t> found = contents.packets[i].bytes;
            require(found.data() == file.get() + model.packets[i].at, "where a packet is");
            require(found.size() == model.packets[i].size, "its size", std::to_string(found.size()),
                    std::to_string(model.packets[i].size));
            const Direction names[] = {Direction::unknown, Direction::inbound, Direction::outbound,
                                       Direction::unknown};
            require(contents.packets[i].direction == names[model.packets[i].direction], "its direction");
        }
        const bool is_whole = trace_recording(bytes, {.packets = size % 2 == 0}, stdout);
        require(is_whole == model.is_whole, "the verdict of the trace");
    });
    require(!outcome.stopped, "a stop", outcome.text);
    return 0;
}
