// Prints a recording. The packet link puts one direction together at a time, so each direction is taken by
// itself first; then the lines of both are printed in the order of the recording.

#include "trace.h"

#include <inttypes.h>

#include <string>
#include <vector>

#include "describe.h"
#include "reassembly.h"
#include "recording.h"

namespace
{

struct TracedPacket {
    PacketReport report;
    std::string message; ///< described, when this packet completed one
};

struct TraceCounts {
    unsigned packets = 0, messages = 0, crc_wrong = 0, stray = 0, interrupted = 0, refused = 0,
             unfinished = 0;
};

// ---- Taking the packets ----

void *no_packet(void *)
{
    return nullptr;
}

int no_send(void *, void *, int, int)
{
    return 0;
}

/// The link that this process puts recordings together with; it is made once.
qel_comms *listening_link()
{
    static qel_comms *comms =
        qel_comms_create(packet_bytes_max, no_packet, no_send, nullptr, nullptr, nullptr);
    return comms;
}

/// No message in a recording can be longer than all its packets.
uint32_t bytes_in(const RecordingContents &contents)
{
    uint64_t bytes = 0;
    for (const RecordedPacket &packet : contents.packets)
        bytes += packet.bytes.size();
    return static_cast<uint32_t>(bytes < 0x7FFFFFFF ? bytes : 0x7FFFFFFF);
}

void take_direction(const RecordingContents &contents, Direction direction, std::vector<TracedPacket> &traced,
                    TraceCounts &counts)
{
    Reassembly reassembly;
    reassembly.message_bytes_max = bytes_in(contents);
    std::string message;
    reassembly.on_message = [&](std::span<const uint8_t> bytes) { message = describe_message(bytes); };
    reassembly_start(reassembly, listening_link());
    for (size_t i = 0; i < contents.packets.size(); i++) {
        if (contents.packets[i].direction != direction)
            continue;
        message.clear();
        traced[i].report = reassembly_take(reassembly, contents.packets[i].bytes);
        traced[i].message = message;
    }
    counts.messages += reassembly.delivered;
    counts.unfinished += reassembly.in_progress > 0;
}

// ---- Printing ----

const char *direction_name(Direction direction)
{
    switch (direction) {
    case Direction::inbound:
        return "in ";
    case Direction::outbound:
        return "out";
    default:
        return "?  ";
    }
}

void count_outcome(const PacketReport &report, TraceCounts &counts)
{
    counts.packets++;
    counts.interrupted += report.interrupts;
    counts.crc_wrong += report.outcome == PacketOutcome::crc_wrong;
    counts.stray += report.outcome == PacketOutcome::stray;
    counts.refused += report.outcome == PacketOutcome::refused;
}

std::string packet_text(const RecordedPacket &packet, const PacketReport &report)
{
    std::string text = report.is_first ? "first" : "continuation";
    if (packet.bytes.empty())
        text = "packet";
    if (report.message_bytes > 0) {
        char head[80];
        snprintf(head, sizeof head, " of a message of %" PRIu32 " bytes, CRC %04x", report.message_bytes,
                 report.crc);
        text += head;
    }
    text += ": " + hex_bytes(packet.bytes, packet_bytes_max);
    if (report.interrupts)
        text += "; the message before was not complete";
    if (report.outcome == PacketOutcome::stray)
        text += "; without a message";
    if (report.outcome == PacketOutcome::refused)
        text += std::string("; refused: ") + report.reason;
    return text;
}

void print_packet(size_t number, double time_s, const RecordedPacket &packet, const TracedPacket &traced,
                  const TraceOptions &options, FILE *out)
{
    const PacketReport &report = traced.report;
    char head[80];
    snprintf(head, sizeof head, "%5zu %12.6f %s ", number, time_s, direction_name(packet.direction));
    bool is_trouble = report.interrupts || report.outcome == PacketOutcome::stray ||
                      report.outcome == PacketOutcome::refused;
    if (options.packets || is_trouble)
        fprintf(out, "%s %s\n", head, packet_text(packet, report).c_str());
    if (report.outcome == PacketOutcome::delivered)
        fprintf(out, "%s = %s (CRC right)\n", head, traced.message.c_str());
    if (report.outcome == PacketOutcome::crc_wrong)
        fprintf(out, "%s = message dropped: CRC WRONG\n", head);
}

void print_counts(const RecordingContents &contents, const TraceCounts &counts, FILE *out)
{
    fprintf(out,
            "%u packets, %u messages; %u dropped by CRC, %u not complete, %u packets without a message, %u "
            "refused\n",
            counts.packets, counts.messages, counts.crc_wrong, counts.interrupted + counts.unfinished,
            counts.stray, counts.refused);
    if (contents.foreign > 0)
        fprintf(out, "%zu packets of other kinds were left out\n", contents.foreign);
    if (!contents.problem.empty())
        fprintf(out, "the recording is broken: %s\n", contents.problem.c_str());
}

} // namespace

bool trace_recording(std::span<const uint8_t> file, const TraceOptions &options, FILE *out)
{
    RecordingContents contents = recording_read(file);
    std::vector<TracedPacket> traced(contents.packets.size());
    TraceCounts counts;
    for (Direction direction : {Direction::outbound, Direction::inbound, Direction::unknown})
        take_direction(contents, direction, traced, counts);
    for (size_t i = 0; i < traced.size(); i++) {
        const RecordedPacket &packet = contents.packets[i];
        auto time_us = static_cast<int64_t>(packet.time_us - contents.packets[0].time_us);
        count_outcome(traced[i].report, counts);
        print_packet(i + 1, static_cast<double>(time_us) / 1e6, packet, traced[i], options, out);
    }
    print_counts(contents, counts, out);
    return contents.problem.empty();
}
