// System messages without the link: little but memory and the file that is sent can fail.

#include "support/bytes.h"

#include "tapes/golden.h"

#include "qel_tolbrin/qel_sysmsg.h"
#include "qel_tolbrin/qel_sysmsg/build.h"

#include <string.h>

namespace
{

/// A peer that confirms everything at once, and answers with `answer`, if that is not empty.
struct Peer {
    Peer(Ground &fresh_ground, const std::string &answer_bytes)
        : ground(fresh_ground), answer(bytes_of(answer_bytes))
    {
        ground.kernel.watches_memory = 1;
        // No number twice in a row: what comes again with the same one is a repetition.
        if (!answer.empty())
            answer[8] = static_cast<uint8_t>(ground.kernel.clock_usec / 1000000000);
    }
    static void handle(qel_sysmsg_con *, const void *) {}
    static int take(void *context, const void *message, int size)
    {
        auto *peer = static_cast<Peer *>(context);
        const auto *bytes = static_cast<const uint8_t *>(message);
        if (qel_sysmsg_has_sequence(bytes[0]))
            peer->number = bytes[8];
        if (bytes[0] == qel_sysmsg_type_file_data)
            peer->file_bytes += size - 16;
        return 0;
    }
    static int poll(void *context)
    {
        auto *peer = static_cast<Peer *>(context);
        peer->ground.kernel.advance_usec(1000);
        if (!peer->number)
            return 0;
        const uint8_t confirm[12] = {15, 0, 0, 0, 12, 0, 0, 0, peer->number};
        peer->number = 0;
        qel_sysmsg_receive(&peer->con, confirm, sizeof confirm);
        if (!peer->answer.empty())
            qel_sysmsg_receive(&peer->con, peer->answer.data(), static_cast<int>(peer->answer.size()));
        return 0;
    }

    Ground &ground;
    Bytes answer;
    qel_sysmsg_con con = {handle, take, this, poll, this};
    uint8_t number = 0; ///< to be confirmed
    int file_bytes = 0; ///< received in messages of type 8
};

/// A scenario of one operation on a connection whose peer answers with `answer`.
template <typename Operation>
Scenario on_link(const char *name, const std::string &answer, Operation operation, const char *remembers = "")
{
    const auto run = [=](Ground &ground) {
        Peer peer(ground, answer);
        return operation(&peer.con);
    };
    return {name, run, {}, remembers};
}

// ---- Memory ----

std::string get_plugins(qel_sysmsg_con *con)
{
    uint32_t plugins[2] = {}, count = 0;
    const int result = qel_sysmsg_get_plugins(con, plugins, 2, &count);
    return std::to_string(result) + ": " + std::to_string(count) + " " + std::to_string(plugins[0]);
}

std::string get_text(qel_sysmsg_con *con)
{
    const char *text = qel_sysmsg_get_text(con);
    return text ? text : "none";
}

std::string decipher(qel_sysmsg_con *con)
{
    const void *plain;
    uint32_t length;
    const int result = qel_sysmsg_decipher(con, "??", 2, &plain, &length);
    return std::to_string(result) + ": " + std::string(static_cast<const char *>(plain), length);
}

int send_blocks(qel_sysmsg_con *con)
{
    const uint32_t ids[2] = {1, 2};
    qel_sysmsg_send_blob(con, 10, "x", 1);
    qel_sysmsg_send_updater(con, "x", 1);
    qel_sysmsg_test_pattern(con);
    return qel_sysmsg_request_blob(con, 2, "x", 1) + qel_sysmsg_transfer_data(con, "x", 1) +
           qel_sysmsg_file_begin(con, "x") + qel_sysmsg_file_data(con, "x", 1) +
           qel_sysmsg_test_pattern_sequenced(con) + qel_sysmsg_reply_plugins(con, ids, 2) +
           qel_sysmsg_reply_text(con, "x") + qel_sysmsg_reply_plain(con, "x", 1) +
           qel_sysmsg_send_buffer_as_file(con, "x", 1, "/x");
}

const std::vector<Scenario> memory = {
    {"SysmsgCreate",
     [](Ground &ground) {
         ground.kernel.watches_memory = 1;
         const qel_sysmsg_con *con =
             qel_sysmsg_create(Peer::handle, Peer::take, nullptr, Peer::poll, nullptr);
         return std::string(con ? "created" : "null");
     }},
    on_link("SendBlocks", "", send_blocks),
    on_link("GetPlugins", "0E 00 00 00 14 00 00 00 09 00 00 00 01 00 00 00 07 00 00 00", get_plugins),
    on_link("GetText", "2F 00 00 00 13 00 00 00 09 00 00 00 03 00 00 00 'hi' 00", get_text,
            "the buffer for replies stays"),
    on_link("Decipher", "31 00 00 00 12 00 00 00 09 00 00 00 02 00 00 00 'hi'", decipher,
            "the buffer for replies stays"),
};

// ---- Sending a file ----

std::string send_file(Ground &ground)
{
    ground.disk.make_file("/file", "0123456789");
    Peer peer(ground, "");
    const int result = qel_sysmsg_send_file(&peer.con, "/file", "/remote");
    return std::to_string(result) + ": " + std::to_string(peer.file_bytes);
}

// ---- The rest ----

int send_everything_else(qel_sysmsg_con *con)
{
    const uint8_t record[100] = {};
    qel_sysmsg_connect(con, 1);
    qel_sysmsg_connect_answer(con, record);
    qel_sysmsg_notify_11(con);
    qel_sysmsg_notify_12(con);
    qel_sysmsg_notify_26(con);
    qel_sysmsg_notify_27(con, record);
    qel_sysmsg_notify_30(con, 1);
    qel_sysmsg_notify_31(con);
    return qel_sysmsg_transfer_begin(con, 1) + qel_sysmsg_transfer_end(con) + qel_sysmsg_file_end(con) +
           qel_sysmsg_post_18(con, "x") + qel_sysmsg_post_19(con, "x", 1, record) +
           qel_sysmsg_post_20(con, "x") + qel_sysmsg_post_21(con, 1) + qel_sysmsg_post_22(con) +
           qel_sysmsg_reply_24(con, reinterpret_cast<const char *>(record)) +
           qel_sysmsg_reply_path_exists(con, 1) + qel_sysmsg_post_32(con, "x", 1) +
           qel_sysmsg_post_33(con, "x") + qel_sysmsg_post_34(con) + qel_sysmsg_reply_info(con, 1, 2, 3) +
           qel_sysmsg_reply_item_size(con, 1, "x", 2, 3) + qel_sysmsg_reply_42(con, 1, 2) +
           qel_sysmsg_reply_plugin_size(con, 1, 2) + qel_sysmsg_post_45(con, 1);
}

const std::vector<Scenario> without_calls = {
    on_link("EverythingElse", "", send_everything_else),
    on_link("QueriesOfFixedSize", "1D 00 00 00 10 00 00 00 09 00 00 00 01 00 00 00",
            [](qel_sysmsg_con *con) {
                uint32_t exists = 0;
                const int found = qel_sysmsg_tolbrin_path_exists(con, "/x", &exists);
                return std::to_string(found) + " " + std::to_string(qel_sysmsg_flag_off());
            }),
};

} // namespace

INSTANTIATE_TAPES(memory, memory);
INSTANTIATE_TAPES(file_transfer, {{"SendFile", send_file, {"1: 0"}}});
INSTANTIATE_TAPES(without_calls, without_calls);
