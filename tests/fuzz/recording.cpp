// qel-host's reading and printing of recordings: any bytes as a file.

#include "fuzz/fuzz.h"

#include "recording.h"
#include "trace.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // The link for recordings is made once in the life of a process.
    static const bool nothing_is_no_recording = !trace_recording({}, {}, stdout);
    require(nothing_is_no_recording, "an empty file");
    const Exactly<uint8_t> file(data, size);
    const std::span<const uint8_t> bytes(file.get(), size);
    const Outcome outcome = run([&] {
        const RecordingContents contents = recording_read(bytes);
        for (const RecordedPacket &packet : contents.packets)
            require(packet.bytes.empty() ||
                        (packet.bytes.data() >= bytes.data() &&
                         packet.bytes.data() + packet.bytes.size() <= bytes.data() + size),
                    "a packet outside the file");
        const bool is_whole = trace_recording(bytes, {.packets = size % 2 == 0}, stdout);
        require(is_whole == contents.problem.empty(), "the verdict", contents.problem);
    });
    require(!outcome.stopped, "a stop", outcome.text);
    return 0;
}
