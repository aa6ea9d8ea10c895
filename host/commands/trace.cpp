// trace: prints a recording, every packet and every message put together from them, with its CRC verdict,
// name and fields.

#include "arguments.h"
#include "call.h"
#include "errors.h"
#include "link/reassembly.h"
#include "recording.h"

#include <CLI/CLI.hpp>

namespace
{

struct TraceOptions {
    std::string file;
    bool messages_only = false;
};

struct TraceCounts {
    uint64_t packets = 0, messages = 0, crc_wrong = 0, incomplete = 0, stray = 0, refused = 0;
};

Way way_of(Direction direction)
{
    return direction == Direction::inbound    ? Way::in
           : direction == Direction::outbound ? Way::out
                                              : Way::unknown;
}

const char *name_of(Direction direction)
{
    return direction == Direction::inbound ? "in " : direction == Direction::outbound ? "out" : "?  ";
}

void count(TraceCounts &counts, const PacketReport &report)
{
    ++counts.packets;
    counts.incomplete += report.interrupts;
    counts.messages += report.outcome == PacketOutcome::delivered;
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
        char crc[20];
        snprintf(crc, sizeof crc, ", CRC %04x", report.crc);
        text += " of a message of " + std::to_string(report.message_bytes) + " bytes" + crc;
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

void print_packet(const TraceOptions &options, size_t number, int64_t time_us, const RecordedPacket &packet,
                  const PacketReport &report, ByteView message)
{
    bool is_trouble = report.interrupts || report.outcome == PacketOutcome::stray ||
                      report.outcome == PacketOutcome::refused;
    bool is_message =
        report.outcome == PacketOutcome::delivered || report.outcome == PacketOutcome::crc_wrong;
    if (options.messages_only && !is_trouble && !is_message)
        return;
    char head[80];
    snprintf(head, sizeof head, "%5zu %12.6f %s ", number, static_cast<double>(time_us) / 1e6,
             name_of(packet.direction));
    if (!options.messages_only || is_trouble)
        print_line(std::string(head) + " " + packet_text(packet, report));
    if (report.outcome == PacketOutcome::delivered)
        print_line(std::string(head) + " = " + describe_message(message) + " (CRC right)");
    if (report.outcome == PacketOutcome::crc_wrong)
        print_line(std::string(head) + " = message dropped: CRC WRONG");
}

void print_packets(const RecordingContents &contents, const TraceOptions &options, TraceCounts &counts)
{
    Reassembly directions[3];
    for (const RecordedPacket &packet : contents.packets) {
        Reassembly &reassembly = directions[static_cast<size_t>(packet.direction)];
        PacketReport report = reassembly_take(reassembly, packet.bytes);
        count(counts, report);
        if (!output.json)
            print_packet(options, counts.packets,
                         static_cast<int64_t>(packet.time_us - contents.packets[0].time_us), packet, report,
                         reassembly.message);
        else if (report.outcome == PacketOutcome::delivered)
            show_message(way_of(packet.direction), reassembly.message,
                         static_cast<double>(packet.time_us) / 1e6);
    }
    for (const Reassembly &reassembly : directions)
        counts.incomplete += reassembly.missing > 0;
}

std::string counts_line(const TraceCounts &counts)
{
    auto number = [](uint64_t value) { return std::to_string(value); };
    return number(counts.packets) + " packets, " + number(counts.messages) + " messages; " +
           number(counts.crc_wrong) + " dropped by CRC, " + number(counts.incomplete) + " not complete, " +
           number(counts.stray) + " packets without a message, " + number(counts.refused) + " refused";
}

void run_trace(Outcome &outcome, const TraceOptions &options)
{
    LocalFile file = open_file(options.file);
    const std::string bytes = read_piece(file, 0, file.size);
    RecordingContents contents =
        recording_read({reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size()});
    TraceCounts counts;
    output_buffered(true);
    print_packets(contents, options, counts);
    if (!output.json)
        print_line(counts_line(counts));
    output_buffered(false);
    flush_output();
    outcome.result = {{"packets", counts.packets},     {"messages", counts.messages},
                      {"crc_wrong", counts.crc_wrong}, {"incomplete", counts.incomplete},
                      {"stray", counts.stray},         {"refused", counts.refused}};
    if (contents.foreign > 0)
        note(std::to_string(contents.foreign) + " packets of other kinds were left out");
    if (!contents.problem.empty())
        throw Failure(fault::bad_file, "file " + options.file +
                                           ": the recording is broken: " + contents.problem +
                                           "; what came before is shown, record it anew for the rest");
}

} // namespace

void add_trace(CLI::App &app, Command &command)
{
    auto options = std::make_shared<TraceOptions>();
    CLI::App *sub = app.add_subcommand("trace", "Print a recording of the link");
    sub->add_option("file", options->file, "the pcapng file")->required();
    sub->add_flag("--messages", options->messages_only, "messages and trouble only, not their packets");
    sub->callback([=, &command] {
        command = {.name = "trace", .has_link = false};
        command.check = [=] { open_file(options->file); };
        command.run = [=](Session &, Outcome &outcome) { run_trace(outcome, *options); };
    });
}
