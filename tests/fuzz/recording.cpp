// qel-host's reading of recordings: any bytes as a file. The packets that are found, and whether the file is
// whole, must be what the model has.

#include "fuzz/fuzz.h"

#include "recording.h"

#include <algorithm>
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
        uint64_t time_us;
    };
    std::vector<Packet> packets;
    size_t foreign = 0;
    bool is_whole;

  private:
    enum : uint32_t { section_type = 0x0A0D0D0A };
    const Exactly<uint8_t> &file;
    struct Interface {
        uint32_t link_type;
        uint64_t ticks_per_second;
    };
    std::vector<Interface> interfaces; ///< of the section

    size_t size() const
    {
        return file.size();
    }
    uint32_t number(size_t at, size_t bytes) const
    {
        uint32_t value = 0;
        for (size_t i = 0; i < bytes; ++i)
            value = value << 8 | file.get()[at + bytes - 1 - i];
        return value;
    }

    /// Returns the length of the block at `at`, 0 when there is none.
    size_t length_at(size_t at)
    {
        if (size() - at < 12)
            return 0;
        if (number(at, 4) == section_type && number(at + 8, 4) != 0x1A2B3C4D)
            return 0;
        const size_t length = number(at + 4, 4);
        const bool fits = length >= 12 && length % 4 == 0 && length <= size() - at;
        return fits && number(at + length - 4, 4) == length ? length : 0;
    }

    bool read(size_t at, size_t length)
    {
        const size_t end = at + length - 4;
        switch (number(at, 4)) {
        case section_type:
            interfaces.clear();
            return length >= 28 && number(at + 12, 2) == 1;
        case 1:
            return length >= 20 && read_interface(at, end);
        case 3:
            ++foreign;
            return true;
        case 6:
            return length >= 32 && read_packet(at, end);
        default:
            return true;
        }
    }

    /// Seconds down to nanoseconds, in powers of ten.
    bool read_interface(size_t at, size_t end)
    {
        const Option option = find_option(9, at + 16, end);
        const int digits = option.size > 0 ? file.get()[option.at] : 6;
        uint64_t ticks = 1;
        for (int i = 0; i < std::min(digits, 9); ++i)
            ticks *= 10;
        interfaces.push_back({number(at + 8, 2), ticks});
        return digits <= 9;
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
        if (interface >= interfaces.size() || options > end)
            return false;
        if (interfaces[interface].link_type != 147) {
            ++foreign;
            return true;
        }
        const Option flags = find_option(2, options, end);
        const unsigned __int128 ticks = uint64_t{number(at + 12, 4)} << 32 | number(at + 16, 4);
        packets.push_back({at + 28, kept, flags.size == 4 ? number(flags.at, 4) % 4 : 0,
                           static_cast<uint64_t>(ticks * 1000000 / interfaces[interface].ticks_per_second)});
        return true;
    }
};

} // namespace

const int input_bytes_max = 2048; // some sixty blocks

void work_on(FuzzedDataProvider &input)
{
    const Exactly<uint8_t> file(input.ConsumeRemainingBytes<uint8_t>());
    const Model model(file);
    const std::span<const uint8_t> bytes(file.get(), file.size());
    run_to_end([&] {
        const RecordingContents contents = recording_read(bytes);
        REQUIRE(contents.problem.empty() == model.is_whole, "the verdict", contents.problem);
        require_same("packets of other kinds", contents.foreign, model.foreign);
        require_same("packets", contents.packets.size(), model.packets.size());
        for (size_t i = 0; i < model.packets.size(); ++i) {
            const std::span<const uint8_t> found = contents.packets[i].bytes;
            REQUIRE(found.data() == file.get() + model.packets[i].at, "where a packet is");
            require_same("its size", found.size(), model.packets[i].size);
            const Direction names[] = {Direction::unknown, Direction::inbound, Direction::outbound,
                                       Direction::unknown};
            REQUIRE(contents.packets[i].direction == names[model.packets[i].direction], "its direction");
            require_same("its time", contents.packets[i].time_us, model.packets[i].time_us);
        }
    });
}
