// On the way to the board: commands, the display, the transport, the packet link.

#include "tapes/golden.h"

#include "qel_tolbrin/qel_comms.h"
#include "qel_tolbrin/qel_h8_command.h"
#include "qel_tolbrin/qel_lpc_comms.h"

#include <errno.h>
#include <string.h>

#include <algorithm>

namespace
{

// ---- Commands to the H8 ----

Scenario command(const char *name, int command_len, int reply_len, const std::vector<std::string> &may_end)
{
    const auto run = [=](Ground &ground) {
        ground.play_board("", 64);
        const std::vector<uint8_t> bytes(static_cast<size_t>(command_len), 4);
        std::vector<uint8_t> reply(100);
        return qel_h8_command(bytes.data(), command_len, reply_len ? reply.data() : nullptr, reply_len);
    };
    return {name, run, may_end, "the device stays open"};
}

/// A command whose reply begins with `reply`.
Scenario query(const char *name, const char *reply, const std::function<long()> &ask,
               const std::vector<std::string> &may_end)
{
    const auto run = [=](Ground &ground) {
        ground.play_board(reply, 64);
        return ask();
    };
    return {name, run, may_end, "the device stays open"};
}

int read_block()
{
    uint8_t block[64];
    return qel_h8_read_block(block);
}

void send_all(Ground &ground)
{
    ground.play_board("", 64);
    const uint8_t image[1024] = {};
    qel_h8_signal(7);
    qel_h8_set_value(1);
    qel_h8_send_text_6("text");
    qel_h8_send_text_8("text");
    qel_h8_set_values(1, 2, 3, 4, 5);
    qel_h8_gfx_set_address(1, 2);
    qel_h8_gfx_write(image, 100);
    qel_h8_gfx_draw_bitmap(image);
}

int write_row(Ground &ground)
{
    ground.play_board("", 0);
    return qel_lcd_write_row(1, "Hi");
}

const std::vector<Scenario> commands = {
    command("Command", 1, 64, {"0", "1", "63"}),
    command("CommandInRecords", 128, 0, {}),
    command("CommandWithALongReply", 1, 100, {"0", "1", "63", "64", "65", "99"}),
    // What no reply fills is AB.
    query("GetMode", "\x03", [] { return qel_h8_get_mode(); }, {"-85"}),
    query("ReadBlock", "", read_block, {"0", "1", "63"}),
    query("ReadNumber", "12abc", [] { return qel_h8_read_number(); }, {"0", "1"}),
    {"LcdWriteRow", write_row, {"-1"}},
};

const std::vector<Scenario> sequences = {
    {"CommandsWithoutReply", send_all, {}, "the device stays open"},
};

// ---- Transport and packet link ----

const char five_bytes[] = "12345";

int write_packet(Ground &ground)
{
    ground.play_board("", 0);
    qel_lpc lpc = {Ground::link_descriptor, nullptr, nullptr};
    return qel_lpc_write(&lpc, five_bytes, 5);
}

int send_packet(Ground &ground)
{
    ground.play_board("", 0);
    qel_lpc lpc = {Ground::link_descriptor, nullptr, nullptr};
    return qel_lpc_packet_send_end(&lpc, qel_lpc_get_tx_buf(&lpc), 5, 0);
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
    qel_lpc lpc = {Ground::link_descriptor, nullptr, nullptr};
    qel_lpc_set_receiver(&lpc, note_size, &notes);
    return std::to_string(qel_lpc_poll(&lpc)) + notes;
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
     [](Ground &ground) {
         ground.play_board("", 0);
         ground.kernel.watches_memory = 1;
         return std::string(qel_lpc_open("/dev/qellpc_host_comms")->fd != -1 ? "open" : "not open");
     }},
    {"LpcWrite", write_packet},
    {"LpcPacketSendEnd", send_packet},
    {"LpcPoll", poll, {"0", "1 1 64", "1 17 64", "1 18", "1 18 1", "1 18 63"}},
    {"CommsCreate",
     [](Ground &ground) {
         ground.kernel.watches_memory = 1;
         const qel_comms *comms = qel_comms_create(35, begin_packet, end_packet, nullptr, nullptr, nullptr);
         return std::string(comms ? "created" : "null");
     }},
    {"CommsReceivePacket", receive_message, {}, "the buffer for the message stays"},
    {"CommsSend",
     [](Ground &ground) {
         ground.kernel.watches_memory = 1;
         uint8_t packet[35];
         qel_comms comms = {};
         comms.packet_size_max = 35;
         qel_comms_set_sender(&comms, begin_packet, end_packet, packet);
         return qel_comms_send(&comms, five_bytes, 5);
     }},
};

} // namespace

INSTANTIATE_TAPES(commands, commands);
INSTANTIATE_TAPES(command_sequences, sequences);
INSTANTIATE_TAPES(host_link, links);
