/// Recordings of the link as text: every packet, every message put together from them with its CRC verdict,
/// name and fields.
#pragma once

#include <stdint.h>
#include <stdio.h>

#include <span>

struct TraceOptions {
    bool packets = true; ///< a line for each packet, or messages only
};

/// Prints the recording `file` (the bytes of a pcapng file, which are not trusted) to `out`. Returns false
/// when it could not be read to its end; why is the last line.
bool trace_recording(std::span<const uint8_t> file, const TraceOptions &options, FILE *out);
