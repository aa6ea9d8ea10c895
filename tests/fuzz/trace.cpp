// qel-host's trace of packets: a recording that is whole, of packets that are not. Nothing in it may stop the
// libraries, and every packet must be accounted for in the closing line.

#include "fuzz/fuzz.h"
#include "support/link_referee.h"

#include "describe.h"
#include "recording.h"
#include "trace.h"

#include <vector>

namespace
{

using File = std::vector<uint8_t>;

void put(File &file, std::initializer_list<uint32_t> words)
{
    for (uint32_t word : words)
        for (int i = 0; i < 4; i++, word >>= 8)
            file.push_back(static_cast<uint8_t>(word));
}

void put_packet(File &file, uint32_t direction, const Bytes &packet)
{
    const auto kept = static_cast<uint32_t>(packet.size());
    const uint32_t length = 44 + (kept + 3) / 4 * 4;
    put(file, {6, length, 0, 0, static_cast<uint32_t>(file.size()), kept, kept});
    file.insert(file.end(), packet.begin(), packet.end());
    file.resize((file.size() + 3) / 4 * 4);
    put(file, {0x00040002, direction, 0, length});
}

/// A message in proper packets.
void put_message(File &file, uint32_t direction, const Bytes &message)
{
    const unsigned crc = LinkReferee::crc16(message);
    const auto size = static_cast<uint16_t>(message.size());
    Bytes packet = {0,
                    0,
                    static_cast<uint8_t>(size >> 8),
                    static_cast<uint8_t>(size),
                    static_cast<uint8_t>(crc >> 8),
                    static_cast<uint8_t>(crc)};
    for (const uint8_t byte : message) {
        if (packet.size() == 35) {
            put_packet(file, direction, packet);
            packet = {0x80};
        }
        packet.push_back(byte);
    }
    put_packet(file, direction, packet);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    // The link for recordings is made once in the life of a process.
    static const bool nothing_is_no_recording = !trace_recording({}, {}, stdout);
    require(nothing_is_no_recording, "an empty file");
    FuzzedDataProvider input(data, size);
    File file;
    put(file,
        {0x0A0D0D0A, 28, 0x1A2B3C4D, 1, 0xFFFFFFFF, 0xFFFFFFFF, 28, 1, 20, recording_link_type, 64, 20});
    while (input.remaining_bytes() > 0) {
        const auto direction = input.ConsumeIntegralInRange<uint32_t>(0, 3);
        if (input.ConsumeBool()) {
            put_packet(file, direction,
                       input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange<size_t>(0, 64)));
            continue;
        }
        Bytes message = input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange<size_t>(1, 1200));
        if (message.size() >= 8 && input.ConsumeBool()) { // of the size that it says
            message[1] = message[2] = message[3] = message[6] = message[7] = 0;
            message[4] = static_cast<uint8_t>(message.size());
            message[5] = static_cast<uint8_t>(message.size() >> 8);
        }
        if (!message.empty())
            put_message(file, direction, message);
    }
    const Outcome outcome =
        run([&] { require(trace_recording(file, {}, stdout), "a recording that is whole"); });
    require(!outcome.stopped, "a stop", outcome.text);
    return 0;
}
