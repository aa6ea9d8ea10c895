// qel-host's trace of packets: a recording that is whole, of packets that are not. Nothing in it may stop the
// libraries; the closing line must count as the rules do, and every packet and message must have its line.

#include "fuzz/fuzz.h"
#include "fuzz/rules.h"

#include "call.h"
#include "recording.h"

#include <CLI/CLI.hpp>

#include <sys/mman.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

namespace
{

struct Recorded {
    uint32_t direction;
    Bytes packet;
};

// ---- The recording ----

void put(Bytes &file, std::initializer_list<uint32_t> words)
{
    for (uint32_t word : words)
        for (int i = 0; i < 4; i++, word >>= 8)
            file.push_back(static_cast<uint8_t>(word));
}

void put_packet(Bytes &file, uint32_t direction, const Bytes &packet)
{
    const auto kept = static_cast<uint32_t>(packet.size());
    const uint32_t length = 44 + (kept + 3) / 4 * 4;
    put(file, {6, length, 0, 0, static_cast<uint32_t>(file.size()), kept, kept});
    file.insert(file.end(), packet.begin(), packet.end());
    file.resize((file.size() + 3) / 4 * 4);
    put(file, {0x00040002, direction, 0, length});
}

Bytes file_of(const std::vector<Recorded> &packets)
{
    Bytes file;
    put(file,
        {0x0A0D0D0A, 28, 0x1A2B3C4D, 1, 0xFFFFFFFF, 0xFFFFFFFF, 28, 1, 20, recording_link_type, 64, 20});
    for (const Recorded &recorded : packets)
        put_packet(file, recorded.direction, recorded.packet);
    return file;
}

std::vector<Recorded> any_packets(FuzzedDataProvider &input)
{
    std::vector<Recorded> packets;
    while (input.remaining_bytes() > 0) {
        const auto direction = input.ConsumeIntegralInRange<uint32_t>(0, 3);
        if (input.ConsumeBool()) {
            packets.push_back(
                {direction, input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange<size_t>(0, 64))});
            continue;
        }
        Bytes message = input.ConsumeBytes<uint8_t>(input.ConsumeIntegralInRange<size_t>(1, 1200));
        if (message.size() >= 8 && input.ConsumeBool()) { // of the size that it says
            message[1] = message[2] = message[3] = 0;
            put_word(message, 4, static_cast<uint32_t>(message.size()));
        }
        if (!message.empty())
            for (const Bytes &packet : packets_of(message))
                packets.push_back({direction, packet});
    }
    return packets;
}

// ---- What must be printed ----

struct Expected {
    std::string closing;
    unsigned lines;
    Json result;
};

Expected expected_of(const std::vector<Recorded> &packets)
{
    GuardedPackets sum, directions[3]; // neither of the two, and unknown, are one
    for (const Recorded &recorded : packets)
        directions[recorded.direction % 3].take(recorded.packet);
    for (const GuardedPackets &direction : directions) {
        sum.messages += direction.messages;
        sum.packets.crc_wrong += direction.packets.crc_wrong;
        sum.interrupted += direction.interrupted + (direction.packets.length > 0);
        sum.stray += direction.stray;
        sum.refused += direction.refused;
    }
    return {std::to_string(packets.size()) + " packets, " + std::to_string(sum.messages) + " messages; " +
                std::to_string(sum.packets.crc_wrong) + " dropped by CRC, " + std::to_string(sum.interrupted) +
                " not complete, " + std::to_string(sum.stray) + " packets without a message, " +
                std::to_string(sum.refused) + " refused\n",
            static_cast<unsigned>(packets.size()) + sum.messages + sum.packets.crc_wrong + 1,
            {{"packets", packets.size()},
             {"messages", sum.messages},
             {"crc_wrong", sum.packets.crc_wrong},
             {"incomplete", sum.interrupted},
             {"stray", sum.stray},
             {"refused", sum.refused}}};
}

/// The command on a file in memory; what it prints goes to another.
struct Trace {
    int file = memfd_create("recording", 0), printed = memfd_create("printed", 0);
    Command command;
    Trace()
    {
        CLI::App app;
        add_trace(app, command);
        app.parse("trace /proc/self/fd/" + std::to_string(file));
        REQUIRE(dup2(printed, STDOUT_FILENO) == STDOUT_FILENO, "standard output");
    }
};

void put_file(int file, const Bytes &bytes)
{
    const bool is_put = ftruncate(file, 0) == 0 &&
                        pwrite(file, bytes.data(), bytes.size(), 0) == static_cast<ssize_t>(bytes.size());
    REQUIRE(is_put && lseek(file, 0, SEEK_SET) == 0, "a file in memory");
}

/// Returns what is printed.
std::string trace_of(const Bytes &file, bool as_json, const Json &result)
{
    static const Trace trace;
    put_file(trace.file, file);
    put_file(trace.printed, {});
    output.json = as_json;
    run_to_end([&] {
        Session session;
        Outcome outcome;
        trace.command.check();
        trace.command.run(session, outcome);
        REQUIRE(outcome.result == result, "the result", outcome.result.dump(), result.dump());
    });
    std::string text(static_cast<size_t>(lseek(trace.printed, 0, SEEK_END)), ' ');
    REQUIRE(pread(trace.printed, text.data(), text.size(), 0) == static_cast<ssize_t>(text.size()), "text");
    return text;
}

unsigned lines_of(const std::string &text)
{
    return static_cast<unsigned>(std::count(text.begin(), text.end(), '\n'));
}

} // namespace

const int input_bytes_max = 1280; // a message has 1200 bytes at most

void work_on(FuzzedDataProvider &input)
{
    const std::vector<Recorded> packets = any_packets(input);
    const Expected expected = expected_of(packets);
    const Bytes file = file_of(packets);
    const std::string traced = trace_of(file, false, expected.result);
    const size_t end = traced.rfind('\n', traced.size() - 2) + 1; // npos + 1 is 0
    REQUIRE(traced.substr(end) == expected.closing, "the closing line", traced.substr(end), expected.closing);
    require_same("lines", lines_of(traced), expected.lines);
    require_same("events", lines_of(trace_of(file, true, expected.result)), expected.result["messages"]);
}
