/// How records travel on a stream socket: a length byte, 1 to 64, then the record.
#pragma once

#include <stddef.h>
#include <stdint.h>

#include <span>
#include <vector>

/// The bytes that carry `record` (1 to 64 bytes) on the stream.
std::vector<uint8_t> framed_record(std::span<const uint8_t> record);

enum class FrameState { incomplete, complete, broken };

struct Frame {
    FrameState state;
    std::span<const uint8_t> record; ///< of a complete one, inside the stream's bytes
    size_t stream_bytes;             ///< that it takes up there
};

/// Looks for a record at the front of what has been read. A length byte of 0 or above 64 is `broken`: the
/// other end does not speak of records, or the two have lost step, which a stream does not mend.
Frame next_frame(std::span<const uint8_t> stream);
