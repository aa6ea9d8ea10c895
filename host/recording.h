// Recordings of the host link: pcapng files that Wireshark opens (host/wireshark/qel_link.lua takes them
// apart) and `qel-host trace` prints. One enhanced packet block for each record of the transport, with
// its time in microseconds and its direction; the link type is the first user-defined one.
//
// The directions are those of the end that records: outbound is what it sends. What records for a cabinet
// is at the host's end as well: outbound goes from the host to the cabinet.
#pragma once

#include <stddef.h>
#include <stdint.h>
#include <stdio.h>

#include <span>
#include <string>
#include <vector>

/// The link type of a recording, known to Wireshark as "USER0".
constexpr uint16_t recording_link_type = 147;

/// As the option epb_flags has it.
enum class Direction : uint32_t { unknown = 0, inbound = 1, outbound = 2 };

// ---- Writing ----

/// Creates the file `path`, or empties it, and writes its head. Returns the file, to be closed with
/// fclose, or null with errno.
FILE *recording_create(const char *path);

/// Adds a record, and flushes, so that the recording is whole whatever ends the program. `time_us` counts
/// microseconds since 1970. Returns false when it could not be written.
bool recording_add(FILE *file, uint64_t time_us, Direction direction, std::span<const uint8_t> record);

/// The time of now, for recording_add.
uint64_t recording_now_us();

// ---- Reading ----

struct RecordedPacket {
    uint64_t time_us;
    Direction direction;
    std::span<const uint8_t> bytes; ///< points into the file's bytes
};

struct RecordingContents {
    std::vector<RecordedPacket> packets;
    size_t foreign = 0;  ///< packets of other link types, which are left out
    std::string problem; ///< what ended the reading before the file's end, with the offset; else empty
};

/// Takes the bytes of a pcapng file apart: little-endian, as every computer that records here writes them,
/// with any number of sections and interfaces. Nothing in the file is trusted; reading ends at the first
/// block that cannot be right, and what came before stays. The result refers to `file` and must not outlive
/// it.
RecordingContents recording_read(std::span<const uint8_t> file);
