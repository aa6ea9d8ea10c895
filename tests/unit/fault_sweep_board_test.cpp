// What failing calls lead to on the way to the board: commands, the display, the transport, the packet link,
// and the update mode that stands on all of them.

#include "support/fault_sweep.h"

#include "qel_application_loader/update_mode.h"
#include "qel_tolbrin/qel_comms.h"
#include "qel_tolbrin/qel_h8_command.h"
#include "qel_tolbrin/qel_lpc_comms.h"
#include "qel_tolbrin/qel_sysmsg.h"

#include <errno.h>
#include <string.h>

#include <algorithm>

namespace
{

const char *const lpc_unit = "qel_tolbrin/qel_lpc_comms";
const char *const comms_unit = "qel_tolbrin/qel_comms";
const char *const sysmsg_unit = "qel_tolbrin/qel_sysmsg";

/// The board's devices: they take everything, and their replies begin with `reply`.
void play_board(Ground &ground, const std::string &reply, size_t reply_size)
{
    for (const char *device : {"/dev/qellpc_command", "/dev/qellpc_lcd", "/dev/qellpc_host_comms"})
        ground.disk.make_file(device);
    ground.kernel.on_write = [](int, const void *, size_t size) { return static_cast<ssize_t>(size); };
    ground.kernel.on_read = [=](int, void *bytes, size_t size) {
        const size_t count = std::min(size, reply_size);
        memset(bytes, 0, count);
        memcpy(bytes, reply.data(), std::min(count, reply.size()));
        return static_cast<ssize_t>(count);
    };
}

// ---- Commands to the H8 ----

std::string command(Ground &ground, int command_len, int reply_len)
{
    play_board(ground, "", 64);
    const std::vector<uint8_t> bytes(static_cast<size_t>(command_len), 4);
    std::vector<uint8_t> reply(100);
    return std::to_string(
        qel_h8_command(bytes.data(), command_len, reply_len ? reply.data() : nullptr, reply_len));
}

std::string read_mode(Ground &ground)
{
    play_board(ground, "\x03", 64);
    return std::to_string(qel_h8_get_mode());
}

std::string read_block(Ground &ground)
{
    play_board(ground, "", 64);
    uint8_t block[64];
    return std::to_string(qel_h8_read_block(block));
}

std::string read_number(Ground &ground)
{
    play_board(ground, "12abc", 64);
    return std::to_string(qel_h8_read_number());
}

std::string send_all(Ground &ground)
{
    play_board(ground, "", 64);
    const uint8_t image[1024] = {};
    qel_h8_signal(7);
    qel_h8_set_value(1);
    qel_h8_send_text_6("text");
    qel_h8_send_text_8("text");
    qel_h8_set_values(1, 2, 3, 4, 5);
    qel_h8_gfx_set_address(1, 2);
    qel_h8_gfx_write(image, 100);
    qel_h8_gfx_draw_bitmap(image);
    return "sent";
}

std::string write_row(Ground &ground)
{
    play_board(ground, "", 0);
    return std::to_string(qel_lcd_write_row(1, "Hi"));
}

const Rule open_command_rule = {"open /dev/qellpc_command O_RDWR", any_fault, stops("f != -1", h8_unit)};

/// A command of one record, with a reply that must not fail to be read.
const std::vector<Rule> exchange_rules = {open_command_rule,
                                          {"write *", any_fault, stops("n == len", h8_unit)},
                                          {"read *", any_error, stops("n >= 0", h8_unit)}};

/// A command of several records.
const std::vector<Rule> records_rules = {open_command_rule,
                                         {"write *", any_fault, stops("n == bytes_to_write", h8_unit)}};

/// A read of a reply that falls short ends it: the result is what has come, with `before` bytes in front.
std::vector<Rule> short_reply_rules(size_t wanted, size_t before = 0)
{
    std::vector<Rule> rules;
    for (size_t size : {size_t{0}, size_t{1}, wanted - 1})
        rules.push_back(
            {"read " + std::to_string(wanted), moves(size), gives(std::to_string(before + size))});
    return rules;
}

/// What comes of a reply that is empty; what is in its first byte is all that is looked at, else.
std::vector<Rule> empty_reply_rules(const std::string &result)
{
    return {{"read 64", moves(0), gives(result)}, {"read 64", moves_a_part, ignored()}};
}

/// A scenario of commands: the device is opened with the first, and never closed.
Scenario of_commands(const char *name, const std::string &result,
                     const std::function<std::string(Ground &)> &run, const std::vector<Rule> &rules)
{
    return {name, result, run, rules, 1, "/dev/qellpc_command"};
}

const std::vector<Scenario> commands = {
    of_commands(
        "Command", "64", [](Ground &ground) { return command(ground, 1, 64); },
        rules_of({exchange_rules, short_reply_rules(64)})),
    of_commands(
        "CommandInRecords", "0", [](Ground &ground) { return command(ground, 128, 0); }, records_rules),
    of_commands(
        "CommandWithALongReply", "100", [](Ground &ground) { return command(ground, 1, 100); },
        rules_of({exchange_rules, short_reply_rules(64), short_reply_rules(36, 64)})),
    // What no reply fills is AB.
    of_commands("GetMode", "3", read_mode, rules_of({exchange_rules, empty_reply_rules("-85")})),
    of_commands("ReadBlock", "64", read_block, rules_of({exchange_rules, short_reply_rules(64)})),
    of_commands("ReadNumber", "12", read_number,
                rules_of({exchange_rules, {{"read 64", moves(1), gives("1")}}, empty_reply_rules("0")})),
    of_commands("CommandsWithoutReply", "sent", send_all,
                {open_command_rule,
                 // Those of 101 bytes go in two records.
                 {"write 64", any_fault, stops("n == bytes_to_write", h8_unit)},
                 {"write 38", any_fault, stops("n == bytes_to_write", h8_unit)},
                 {"write *", any_fault, stops("n == len", h8_unit)}}),
    {"LcdWriteRow",
     "0",
     write_row,
     {{"open /dev/qellpc_lcd O_WRONLY", any_fault, stops("f != -1", h8_unit)},
      {"write 4", any_fault, stops("bytes_written == bytes", h8_unit)},
      {"close", any_fault, gives("-1")}}},
};

// ---- Transport and packet link ----

/// Opened once, and never closed.
const char *const link_device = "/dev/qellpc_host_comms";

/// Of a device that is read and written by the ground.
const int some_descriptor = 5001;

const char five_bytes[] = "12345";

std::string write_packet(Ground &ground)
{
    play_board(ground, "", 0);
    qel_lpc lpc = {some_descriptor, nullptr, nullptr};
    return std::to_string(qel_lpc_write(&lpc, five_bytes, 5));
}

std::string send_packet(Ground &ground)
{
    play_board(ground, "", 0);
    qel_lpc lpc = {some_descriptor, nullptr, nullptr};
    return std::to_string(qel_lpc_packet_send_end(&lpc, qel_lpc_get_tx_buf(&lpc), 5, 0));
}

int note_size(void *notes, const void *, int size)
{
    *static_cast<std::string *>(notes) += " " + std::to_string(size);
    return 0;
}

/// A packet of 18 bytes and one of 64 are there.
std::string poll(Ground &ground)
{
    std::vector<size_t> packets = {64, 18};
    ground.kernel.on_read = [&packets](int, void *, size_t size) -> ssize_t {
        if (packets.empty()) {
            errno = EAGAIN;
            return -1;
        }
        const size_t count = std::min(packets.back(), size);
        packets.pop_back();
        return static_cast<ssize_t>(count);
    };
    std::string notes;
    qel_lpc lpc = {some_descriptor, nullptr, nullptr};
    qel_lpc_set_receiver(&lpc, note_size, &notes);
    return std::to_string(qel_lpc_poll(&lpc)) + notes;
}

const Rule pace_rule = {"usleep 15000", any_fault, ignored()};

/// What is refused for the moment is written again at once, anything else stops.
std::vector<Rule> packet_rules(const std::string &write)
{
    return {{write, error({EAGAIN, EINTR, ENOTTY}), ignored().goes_on_after({write})},
            {write, any_fault, stops("n == len", lpc_unit)}};
}

std::string receive_message(Ground &ground)
{
    ground.kernel.watches_memory = 1;
    std::string notes;
    qel_comms comms = {};
    comms.packet_size_max = 35;
    qel_comms_set_receiver(
        &comms, [](void *all, const void *, int size) { note_size(all, nullptr, size); }, &notes);
    // Length 12 and CRC, then a message of type 5.
    const uint8_t packet[35] = {0, 0, 0, 12, 0x66, 0x86, 5, 0, 0, 0, 12, 0, 0, 0, 0x78, 0x56, 0x34, 0x12};
    return std::to_string(qel_comms_receive_packet(&comms, packet, 18)) + notes;
}

void *begin_packet(void *packet)
{
    return packet;
}

int end_packet(void *, void *, int, int)
{
    return 0;
}

const std::vector<Scenario> links = {
    {"LpcOpen",
     "open",
     [](Ground &ground) {
         play_board(ground, "", 0);
         ground.kernel.watches_memory = 1;
         return std::string(qel_lpc_open("/dev/qellpc_host_comms")->fd != -1 ? "open" : "not open");
     },
     {{"calloc *", any_fault, stops("result", lpc_unit)},
      {"open /dev/qellpc_host_comms O_RDWR|O_NONBLOCK", any_fault, stops("result->fd != -1", lpc_unit)}},
     0,
     link_device},
    {"LpcWrite", "5", write_packet, rules_of({{pace_rule}, packet_rules("write 5")})},
    {"LpcPacketSendEnd", "5", send_packet, rules_of({{pace_rule}, packet_rules("write 5")})},
    {"LpcPoll",
     "1 18 64",
     poll,
     {{"read 64 #1", error_or_nothing, gives("0")},
      {"read 64 #1", moves(1), gives("1 1 64").goes_on()},
      {"read 64 #1", moves(17), gives("1 17 64").goes_on()},
      {"read 64 #2", error_or_nothing, gives("1 18")},
      {"read 64 #2", moves(1), gives("1 18 1").goes_on()},
      {"read 64 #2", moves(63), gives("1 18 63").goes_on()},
      {"read 64 #3", any_fault, ignored()}}},
    {"CommsCreate",
     "created",
     [](Ground &ground) {
         ground.kernel.watches_memory = 1;
         const qel_comms *comms = qel_comms_create(35, begin_packet, end_packet, nullptr, nullptr, nullptr);
         return std::string(comms ? "created" : "null");
     },
     {{"calloc *", any_fault, stops("result", comms_unit)}}},
    {"CommsReceivePacket", "0 12", receive_message, {{"calloc 12", any_fault, stops("buf", comms_unit)}}, 1},
    {"CommsSend",
     "0",
     [](Ground &ground) {
         ground.kernel.watches_memory = 1;
         uint8_t packet[35];
         qel_comms comms = {};
         comms.packet_size_max = 35;
         qel_comms_set_sender(&comms, begin_packet, end_packet, packet);
         return std::to_string(qel_comms_send(&comms, five_bytes, 5));
     },
     {}},
};

// ---- Update mode ----

/// The host's packets, the first with the first poll; a stick after the first look, one second later.
std::string update(Ground &ground, std::vector<std::string> packets)
{
    play_board(ground, "", 0);
    ground.kernel.watches_memory = 1;
    ground.kernel.on_read = [&packets](int, void *bytes, size_t size) -> ssize_t {
        if (packets.empty()) {
            errno = EAGAIN;
            return -1;
        }
        const std::string packet = packets.back().substr(0, size);
        packets.pop_back();
        memcpy(bytes, packet.data(), packet.size());
        return static_cast<ssize_t>(packet.size());
    };
    ground.kernel.on_access = [&](auto...) {
        if (ground.kernel.count("access") > 1)
            return 0;
        ground.kernel.advance_usec(1000000);
        errno = ENOENT;
        return -1;
    };
    qel_run_update_mode();
    return "went on";
}

/// A message of type 5 in its packet.
const std::string connect_packet("\x00\x00\x00\x0c\x66\x86\x05\x00\x00\x00\x0c\x00\x00\x00\x78\x56\x34\x12",
                                 18);

const std::vector<Rule> update_rules = {
    {"calloc * #1", any_fault, stops("result", lpc_unit)},
    {"calloc * #2", any_fault, stops("result", comms_unit)},
    {"calloc * #3", any_fault, stops("result", sysmsg_unit)},
    {"open /dev/qellpc_host_comms *", any_fault, stops("result->fd != -1", lpc_unit)},
    {"open /dev/qellpc_lcd *", any_fault, stops("f != -1", h8_unit)},
    {"write 2", any_fault, stops("bytes_written == bytes", h8_unit)},
    {"write 19", any_fault, stops("bytes_written == bytes", h8_unit)},
    {"write 24", any_fault, stops("bytes_written == bytes", h8_unit)},
    {"close", any_fault, ignored()},
    pace_rule,
    {"sleep 5", any_fault, ignored()},
    // In no time, there is nothing to be said.
    {"access /sys/block/sda 4 #1", any_fault, ignored().goes_on_without({"usleep 15000 #1", "write 14"})},
    {"access /sys/block/sda 4", any_fault, ignored().goes_on_after({"read 64", "access /sys/block/sda 4"})},
};

/// What is not done without the message of type 5.
const std::vector<std::string> connect_calls = {"open /dev/qellpc_lcd * #5", "write 13", "close #4",
                                                "usleep 15000 #2", "write 18"};

/// A type 10 message with an image of four bytes, handed over after it was received.
std::string handle_updater(Ground &ground)
{
    play_board(ground, "", 0);
    ground.disk.make_folder("/tmp");
    ground.fork_gives_child();
    const std::string message("\x0a\x00\x00\x00\x10\x00\x00\x00\x04\x00\x00\x00"
                              "ABCD",
                              16);
    qel_update_handler(nullptr, message.data());
    return "returned";
}

const std::vector<Scenario> updates = {
    {"UpdateMode", "went on", [](Ground &ground) { return update(ground, {}); },
     rules_of({update_rules, packet_rules("write 14"), {{"read 64", any_fault, ignored()}}}), 1, link_device},
    {"UpdateModeWithAPeer", "went on", [](Ground &ground) { return update(ground, {connect_packet}); },
     rules_of({update_rules,
               packet_rules("write 18"),
               packet_rules("write 14"),
               {// The packet's buffer.
                {"calloc 12 #4", any_fault, stops("buf", comms_unit)},
                {"write 13", any_fault, stops("bytes_written == bytes", h8_unit)},
                {"read 64 #1", moves(1), stops("len > 6", comms_unit)},
                // A message that has lost its last byte is dropped.
                {"read 64 #1", moves(17), ignored().goes_on_without(connect_calls)},
                // The packet stays in the device.
                {"read 64 #1", any_fault,
                 ignored().goes_on_without({"calloc *", "open /dev/qellpc_lcd * #5", "write 13", "close #4",
                                            "usleep 15000 #2", "write 18", "read 64"})},
                {"read 64", any_fault, ignored()}}}),
     1, link_device},
    {"UpdateHandlerWithAnUpdater",
     "became /tmp/updater",
     handle_updater,
     {{"open /tmp/updater O_WRONLY|O_CREAT", any_fault, ignored()},
      {"write 4", any_fault, ignored()},
      {"close", any_fault, ignored()},
      {"open /dev/qellpc_lcd O_WRONLY", any_fault, stops("f != -1", h8_unit)},
      {"write 21", any_fault, stops("bytes_written == bytes", h8_unit)},
      {"execve /tmp/updater *", any_fault, gives("exit 1").also_prints("exec failed: /tmp/updater\n")}}},
};

} // namespace

INSTANTIATE_SWEEP(Commands, commands);
INSTANTIATE_SWEEP(HostLink, links);
INSTANTIATE_SWEEP(Updates, updates);
