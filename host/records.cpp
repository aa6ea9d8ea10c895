// The one place that knows how records are framed on a socket.

#include "records.h"

#include "reassembly.h"

std::vector<uint8_t> framed_record(std::span<const uint8_t> record)
{
    std::vector<uint8_t> bytes = {static_cast<uint8_t>(record.size())};
    bytes.insert(bytes.end(), record.begin(), record.end());
    return bytes;
}

Frame next_frame(std::span<const uint8_t> stream)
{
    if (stream.empty())
        return {FrameState::incomplete, {}, 0};
    size_t length = stream[0];
    if (length == 0 || length > record_bytes_max)
        return {FrameState::broken, {}, 0};
    if (stream.size() < 1 + length)
        return {FrameState::incomplete, {}, 0};
    return {FrameState::complete, stream.subspan(1, length), 1 + length};
}
