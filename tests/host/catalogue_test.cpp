// The catalogue against the library that sends the messages, and against the dissector's table; and messages
// as text, the broken ones included.

#include <gmock/gmock.h>

#include "catalogue.h"
#include "fields.h"
#include "qel_tolbrin/qel_sysmsg.h"
#include "support.h"

using testing::HasSubstr;

namespace
{

std::span<const uint8_t> span_of(const std::string &text)
{
    return {reinterpret_cast<const uint8_t *>(text.data()), text.size()};
}

std::string described(const std::string &hex)
{
    return describe_message(span_of(bytes(hex)));
}

std::string checked(const std::string &hex)
{
    std::string message = bytes(hex), broken = broken_rule(span_of(message));
    return broken.empty() ? misfit(span_of(message)) : broken;
}

/// A connection whose peer confirms everything and answers nothing.
struct Captured {
    std::string message; ///< the last one sent
    qel_sysmsg_con *con = qel_sysmsg_create([](qel_sysmsg_con *, const void *) {}, send, this, poll, this);

    static int send(void *context, const void *message, int len)
    {
        static_cast<Captured *>(context)->message.assign(static_cast<const char *>(message),
                                                         static_cast<size_t>(len));
        return len;
    }

    static int poll(void *context)
    {
        auto *captured = static_cast<Captured *>(context);
        if (captured->message.size() < 12 ||
            !qel_sysmsg_has_sequence(static_cast<uint8_t>(captured->message[0])))
            return 0;
        std::string confirm = bytes("0f 00 00 00 0c 00 00 00 00 00 00 00");
        confirm[8] = captured->message[8];
        qel_sysmsg_receive(captured->con, confirm.data(), 12);
        return 1;
    }
};

/// What the library sends, as text, without its number.
std::string sent(const std::function<void(qel_sysmsg_con *)> &operation)
{
    static Captured captured;
    operation(captured.con);
    std::string line = describe_message(span_of(captured.message));
    size_t number = line.find(" number "), comma = line.find(',');
    return number == std::string::npos ? line : line.erase(number, comma - number);
}

} // namespace

#define EXPECT_SENT(call, text) EXPECT_EQ(sent([&](auto *con) { qel_sysmsg_##call; }), text)

TEST(Catalogue, HasTheLayoutOfEveryMessageThatTheLibrarySends)
{
    const uint32_t ids[] = {7, 4000000000};
    const char block[] = {1, 2, 3};
    const char record[] = "twenty bytes exactly";
    char field[100] = "fields are bytes";
    EXPECT_SENT(transfer_begin(con, 77), "transfer_begin (1), 16 bytes: value=77");
    EXPECT_SENT(transfer_data(con, block, 3), "transfer_data (2), 19 bytes: block=3 bytes 01 02 03");
    EXPECT_SENT(transfer_end(con), "transfer_end (3), 12 bytes");
    EXPECT_SENT(connect(con, 5), "connect (5), 12 bytes: value=5");
    EXPECT_SENT(file_begin(con, "/a b"), "file_begin (7), 21 bytes: path=\"/a b\"");
    EXPECT_SENT(file_data(con, block, 3), "file_data (8), 19 bytes: block=3 bytes 01 02 03");
    EXPECT_SENT(file_end(con), "file_end (9), 12 bytes");
    EXPECT_SENT(send_updater(con, block, 3), "updater (10), 15 bytes: block=3 bytes 01 02 03");
    EXPECT_SENT(notify_11(con), "notify_11 (11), 8 bytes");
    EXPECT_SENT(notify_12(con), "notify_12 (12), 8 bytes");
    EXPECT_SENT(reply_plugins(con, ids, 2), "plugins (14), 24 bytes: plugins=[7,4000000000]");
    EXPECT_SENT(test_pattern(con), "test_pattern (16), 3120 bytes: counters=777 values 1..777");
    EXPECT_SENT(test_pattern_sequenced(con),
                "test_pattern_sequenced (17), 3124 bytes: counters=777 values 1..777");
    EXPECT_SENT(post_18(con, "n"), "post_18 (18), 136 bytes: name=\"n\"");
    EXPECT_SENT(
        post_19(con, "n", 9, record),
        "post_19 (19), 136 bytes: name=\"n\" value=9 record=20 bytes 74 77 65 6e 74 79 20 62 79 74 65 "
        "73 20 65 78 61 ...");
    EXPECT_SENT(post_20(con, "n"), "post_20 (20), 136 bytes: name=\"n\"");
    EXPECT_SENT(post_21(con, 8), "post_21 (21), 16 bytes: value=8");
    EXPECT_SENT(post_22(con), "post_22 (22), 12 bytes");
    EXPECT_SENT(reply_24(con, field), "reply_24 (24), 112 bytes: text=\"fields are bytes\"");
    EXPECT_SENT(notify_26(con), "notify_26 (26), 32 bytes");
    EXPECT_SENT(
        notify_27(con, record),
        "notify_27 (27), 32 bytes: record=20 bytes 74 77 65 6e 74 79 20 62 79 74 65 73 20 65 78 61 ...");
    EXPECT_SENT(reply_path_exists(con, 1), "reply_path_exists (29), 16 bytes: exists=1");
    EXPECT_SENT(notify_30(con, 6), "notify_30 (30), 12 bytes: value=6");
    EXPECT_SENT(notify_31(con), "notify_31 (31), 8 bytes");
    EXPECT_SENT(post_32(con, "n", 3), "post_32 (32), 44 bytes: name=\"n\" value=3");
    EXPECT_SENT(post_33(con, "n"), "post_33 (33), 40 bytes: name=\"n\"");
    EXPECT_SENT(post_34(con), "post_34 (34), 12 bytes");
    EXPECT_SENT(reply_info(con, 1, 2, 3), "info (37), 24 bytes: a=1 b=2 c=3");
    EXPECT_SENT(reply_item_size(con, 1, "n", 2, 5000000000),
                "item_size (40), 64 bytes: value=1 name=\"n\" value2=2 item_size=5000000000");
    EXPECT_SENT(reply_42(con, 1, 5000000000), "reply_42 (42), 32 bytes: first=1 second=5000000000");
    EXPECT_SENT(reply_plugin_size(con, 3, 4), "plugin_size (44), 24 bytes: plugin_id=3 plugin_size=4");
    EXPECT_SENT(post_45(con, 3), "post_45 (45), 24 bytes: value=3");
    EXPECT_SENT(reply_text(con, "t"), "text (47), 18 bytes: text=\"t\"");
    EXPECT_SENT(reply_text(con, nullptr), "text (47), 16 bytes: text=\"\"");
    EXPECT_SENT(reply_plain(con, block, 3), "plain (49), 19 bytes: block=3 bytes 01 02 03");
}

TEST(Catalogue, HasTheLayoutOfAConfirmAndOfTheAnswerToConnect)
{
    EXPECT_EQ(described("0f 00 00 00 0c 00 00 00 07 00 00 00"), "confirmed (15), 12 bytes: sequence=7");
    EXPECT_EQ(described("26 00 00 00 0c 00 00 00 07 01 00 00"), "connect_answer (38), 12 bytes: value=263");
}

TEST(Catalogue, HasTheLayoutOfTheQueries)
{
    const std::string number_4 = " 04 00 00 00 ";
    EXPECT_EQ(described("0d 00 00 00 0c 00 00 00" + number_4), "get_plugins (13) number 4, 12 bytes");
    EXPECT_EQ(described("24 00 00 00 0c 00 00 00" + number_4), "get_info (36) number 4, 12 bytes");
    EXPECT_EQ(described("29 00 00 00 0c 00 00 00" + number_4), "query_41 (41) number 4, 12 bytes");
    EXPECT_EQ(described("2e 00 00 00 0c 00 00 00" + number_4), "get_text (46) number 4, 12 bytes");
    EXPECT_EQ(described("30 00 00 00 12 00 00 00" + number_4 + "02 00 00 00 aa bb"),
              "decipher (48) number 4, 18 bytes: block=2 bytes aa bb");
    EXPECT_EQ(described("2b 00 00 00 18 00 00 00" + number_4 + "05 00 00 00 00 00 00 00 00 00 00 00"),
              "get_plugin_size (43) number 4, 24 bytes: plugin_id=5");
    std::string path_exists = bytes("1c 00 00 00 70 00 00 00 04") + "/storage";
    path_exists.resize(112);
    EXPECT_EQ(describe_message(span_of(path_exists)),
              "path_exists (28) number 4, 112 bytes: path=\"/storage\"");
    std::string item_size = bytes("27 00 00 00 40 00 00 00 04 00 00 00 01 00 00 00") + "name";
    item_size.resize(48);
    item_size += bytes("02 00 00 00 00 00 00 00 00 00 00 00 00 00 00 00");
    EXPECT_EQ(describe_message(span_of(item_size)),
              "get_item_size (39) number 4, 64 bytes: value=1 name=\"name\" value2=2");
    std::string query_23 = bytes("17 00 00 00 5c 04 00 00 04") + "name";
    query_23.resize(109);
    query_23 += "first";
    query_23.resize(209);
    query_23 += "second";
    query_23.resize(1112);
    query_23 += bytes("02 00 00 00");
    EXPECT_EQ(describe_message(span_of(query_23)),
              "query_23 (23) number 4, 1116 bytes: name=\"name\" items=[\"first\",\"second\"] count=2");
    query_23.replace(1112, 4, bytes("ff ff ff ff"));
    EXPECT_THAT(describe_message(span_of(query_23)),
                HasSubstr("items=[\"first\",\"second\",\"\",\"\",\"\",\"\",\"\",\"\",\"\",\"\"]"));
}

TEST(Catalogue, FindsWhatIsWrongWithAMessage)
{
    EXPECT_EQ(checked("0b 00 00 00 08 00 00"), "7 bytes, shorter than a header");
    EXPECT_EQ(checked(""), "0 bytes, shorter than a header");
    EXPECT_EQ(checked("0b 00 00 00 09 00 00 00"), "it says that it has 9 bytes, there are 8");
    EXPECT_EQ(checked("04 00 00 00 08 00 00 00"), "8 bytes, too short for a number");
    EXPECT_EQ(checked("04 00 00 00 0c 00 00 00 00 00 00 00"), "its number is 0");
    EXPECT_EQ(checked("05 00 00 00 08 00 00 00"), "8 bytes instead of 12");
    EXPECT_EQ(checked("0a 00 00 00 0a 00 00 00 01 00"), "10 bytes, too short for the length of its block");
    EXPECT_EQ(checked("0a 00 00 00 0d 00 00 00 ff ff ff ff 61"),
              "the length of its block says 4294967295 bytes, there are 1");
    EXPECT_EQ(checked("0e 00 00 00 14 00 00 00 01 00 00 00 00 00 00 40 01 00 00 00"),
              "the length of its plugins says 4294967296 bytes, there are 4");
    EXPECT_EQ(checked("4d 00 00 00 09 00 00 00 61"), "") << "an unknown type may have any body";
    EXPECT_EQ(checked("04 00 00 00 0c 00 00 00 01 00 00 00"), "");
}

TEST(Describe, ShowsBrokenAndUnknownMessages)
{
    EXPECT_EQ(described("0b 00"), "broken message: 2 bytes, shorter than a header: 2 bytes 0b 00");
    EXPECT_EQ(described("05 00 00 00 08 00 00 00"),
              "connect (5), 8 bytes: body=0 bytes: DOES NOT FIT: 8 bytes instead of 12");
    EXPECT_EQ(described("4d 00 00 00 09 00 00 00 61"), "type 77, 9 bytes: body=1 bytes 61");
}

TEST(Describe, EscapesWhatCouldUpsetATerminal)
{
    EXPECT_EQ(in_quotes(std::string("a\x1b[2J\"\\\n\xff")), "\"a\\x1b[2J\\\"\\\\\\x0a\\xff\"");
    EXPECT_EQ(described("07 00 00 00 13 00 00 00 02 00 00 00 03 00 00 00 61 1b 00"),
              "file_begin (7) number 2, 19 bytes: path=\"a\\x1b\"");
}

TEST(Describe, TellsWhereCountersLeaveTheirOrder)
{
    std::string pattern = bytes("10 00 00 00 30 0c 00 00 24 0c 00 00");
    for (uint8_t i = 0; i < 4; i++)
        pattern += bytes("00 00 00 00");
    pattern.resize(3120);
    EXPECT_EQ(describe_message(span_of(pattern)),
              "test_pattern (16), 3120 bytes: counters=777 values 0..0, out of order from the 2. on");
}

TEST(Catalogue, IsTheTableOfTheDissector)
{
    std::string lua = content_of(DISSECTOR);
    size_t begin = lua.find("-- catalogue begin\n"), end = lua.find("-- catalogue end\n");
    ASSERT_NE(begin, std::string::npos);
    ASSERT_NE(end, std::string::npos);
    begin += sizeof "-- catalogue begin\n" - 1;
    EXPECT_EQ(lua.substr(begin, end - begin), catalogue_as_lua())
        << "replace the part between the marks by the output of: qel-host catalogue --lua";
}
