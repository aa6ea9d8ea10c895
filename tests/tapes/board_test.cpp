// What failing calls lead to on the way to the board: commands, the display, the transport, the packet link,
// and the update mode that stands on all of them.

#include "tapes/golden.h"

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

// ---- Commands to the H8 ----

std::string command(Ground &ground, int command_len, int reply_len)
{
    ground.play_board("", 64);
    const std::vector<uint8_t> bytes(static_cast<size_t>(command_len), 4);
    std::vector<uint8_t> reply(100);
    return std::to_string(
        qel_h8_command(bytes.data(), command_len, reply_len ? reply.data() : nullptr, reply_len));
}

std::string read_mode(Ground &ground)
{
    ground.play_board("\x03", 64);
    return std::to_string(qel_h8_get_mode());
}

std::string read_block(Ground &ground)
{
    ground.play_board("", 64);
    uint8_t block[64];
    return std::to_string(qel_h8_read_block(block));
}

std::string read_number(Ground &ground)
{
    ground.play_board("12abc", 64);
    return std::to_string(qel_h8_read_number());
}

std::string send_all(Ground &ground)
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
    return "sent";
}

std::string write_row(Ground &ground)
{
    ground.play_board("", 0);
    return std::to_string(qel_lcd_write_row(1, "Hi"));
}

const std::vector<Scenario> commands = {
    {"Command",
     [](Ground &ground) { return command(ground, 1, 64); },
     {"0", "1", "63"},
     "",
     "the device stays open"},
    {"CommandInRecords",
     [](Ground &ground) { return command(ground, 128, 0); },
     {},
     "",
     "the device stays open"},
    {"CommandWithALongReply",
     [](Ground &ground) { return command(ground, 1, 100); },
     {"0", "1", "63", "64", "65", "99"},
     "",
     "the device stays open"},
    // What no reply fills is AB.
    {"GetMode", read_mode, {"-85"}, "", "the device stays open"},
    {"ReadBlock", read_block, {"0", "1", "63"}, "", "the device stays open"},
    {"ReadNumber", read_number, {"0", "1"}, "", "the device stays open"},
    {"LcdWriteRow", write_row, {"-1"}},
};

const std::vector<Scenario> sequences = {
    {"CommandsWithoutReply", send_all, {}, "", "the device stays open"},
};

// ---- Transport and packet link ----

/// Of a device that is read and written by the ground.
const int some_descriptor = 5001;

const char five_bytes[] = "12345";

std::string write_packet(Ground &ground)
{
    ground.play_board("", 0);
    qel_lpc lpc = {some_descriptor, nullptr, nullptr};
    return std::to_string(qel_lpc_write(&lpc, five_bytes, 5));
}

std::string send_packet(Ground &ground)
{
    ground.play_board("", 0);
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
    {"CommsReceivePacket", receive_message, {}, "", "the buffer for the message stays"},
    {"CommsSend",
     [](Ground &ground) {
         ground.kernel.watches_memory = 1;
         uint8_t packet[35];
         qel_comms comms = {};
         comms.packet_size_max = 35;
         qel_comms_set_sender(&comms, begin_packet, end_packet, packet);
         return std::to_string(qel_comms_send(&comms, five_bytes, 5));
     }},
};

// ---- Update mode ----

/// The host's packets, the first with the first poll; a stick after the first look, one second later.
std::string update(Ground &ground, std::vector<std::string> packets)
{
    ground.play_board("", 0);
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

/// What is not done without the message of type 5.
const std::vector<std::string> connect_calls = {"open /dev/qellpc_lcd * #5", "write 13", "close #4",
                                                "usleep 15000 #2", "write 18"};

/// A type 10 message with an image of four bytes, handed over after it was received.
std::string handle_updater(Ground &ground)
{
    ground.play_board("", 0);
    ground.disk.make_folder("/tmp");
    ground.fork_gives_child();
    const std::string message("\x0a\x00\x00\x00\x10\x00\x00\x00\x04\x00\x00\x00"
                              "ABCD",
                              16);
    qel_update_handler(nullptr, message.data());
    return "returned";
}

const std::vector<Scenario> updates = {
    {"UpdateMode", [](Ground &ground) { return update(ground, {}); }},
    {"UpdateModeWithAPeer",
     [](Ground &ground) { return update(ground, {connect_packet}); },
     {},
     "",
     "the link keeps its buffers, and that a host has connected"},
    {"UpdateHandlerWithAnUpdater", handle_updater, {"exit 1"}},
};

} // namespace

INSTANTIATE_TAPES(commands, commands);
INSTANTIATE_TAPES(command_sequences, sequences);
INSTANTIATE_TAPES(host_link, links);
INSTANTIATE_TAPES(updates, updates);
