// Every operation of the catalogue: the bytes it sends, its result, what it requires.

#include "support/scratch.h"
#include "support/sysmsg_fixture.h"

#include <errno.h>
#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;

static const char twenty[] = "ABCDEFGHIJKLMNOPQRSTU"; // and one more, which is not the record's
static const uint32_t two_ids[] = {7, 0x01020304};

/// 40 and 120 characters: more than fit into the fields of 31 and 100 bytes.
static const std::string forty(40, 'n');
static const std::string longer = std::string(99, 'n') + "NOT SENT: longer";

/// An operation that only sends, and what it puts on the wire.
struct Operation {
    const char *name;
    std::function<int(qel_sysmsg_con *)> call;
    const char *bytes;
};

/// Makes one of the operations that return nothing return 1.
#define SENDS(call)   [](qel_sysmsg_con *con) { return (call, 1); }
#define RETURNS(call) [](qel_sysmsg_con *con) { return call; }

static const Operation unsequenced_operations[] = {
    {"connect", SENDS(qel_sysmsg_connect(con, 0x01020304)), "05 00 00 00 0C 00 00 00 04 03 02 01"},
    {"connect_answer",
     SENDS(qel_sysmsg_connect_answer(con, bytes_of("05 00 00 00 0C 00 00 00 D4 C3 B2 A1").data())),
     "26 00 00 00 0C 00 00 00 D4 C3 B2 A1"},
    {"send_updater",
     SENDS(qel_sysmsg_send_updater(con,
                                   "\x7F"
                                   "ELF",
                                   4)),
     "0A 00 00 00 10 00 00 00 04 00 00 00 7F 'ELF'"},
    {"notify_11", SENDS(qel_sysmsg_notify_11(con)), "0B 00 00 00 08 00 00 00"},
    {"notify_12", SENDS(qel_sysmsg_notify_12(con)), "0C 00 00 00 08 00 00 00"},
    {"notify_26", SENDS(qel_sysmsg_notify_26(con)), "1A 00 00 00 20 00 00 00 00*24"},
    {"notify_27", SENDS(qel_sysmsg_notify_27(con, twenty)),
     "1B 00 00 00 20 00 00 00 00 'ABCDEFGHIJKLMNOPQRST' 00*3"},
    {"notify_30", SENDS(qel_sysmsg_notify_30(con, 0x01020304)), "1E 00 00 00 0C 00 00 00 04 03 02 01"},
    {"notify_31", SENDS(qel_sysmsg_notify_31(con)), "1F 00 00 00 08 00 00 00"},
};

static const Operation sequenced_operations[] = {
    {"transfer_begin", RETURNS(qel_sysmsg_transfer_begin(con, 0x01020304)),
     "01 00 00 00 10 00 00 00 ## 00*3 04 03 02 01"},
    {"transfer_data", RETURNS(qel_sysmsg_transfer_data(con, "abc", 3)),
     "02 00 00 00 13 00 00 00 ## 00*3 03 00 00 00 'abc'"},
    {"transfer_end", RETURNS(qel_sysmsg_transfer_end(con)), "03 00 00 00 0C 00 00 00 ## 00*3"},
    {"file_begin", RETURNS(qel_sysmsg_file_begin(con, "a/b")),
     "07 00 00 00 14 00 00 00 ## 00*3 04 00 00 00 'a/b' 00"},
    {"file_begin, empty path", RETURNS(qel_sysmsg_file_begin(con, "")),
     "07 00 00 00 11 00 00 00 ## 00*3 01 00 00 00 00"},
    {"file_data", RETURNS(qel_sysmsg_file_data(con, "abc", 3)),
     "08 00 00 00 13 00 00 00 ## 00*3 03 00 00 00 'abc'"},
    {"file_end", RETURNS(qel_sysmsg_file_end(con)), "09 00 00 00 0C 00 00 00 ## 00*3"},
    {"reply_plugins", RETURNS(qel_sysmsg_reply_plugins(con, two_ids, 2)),
     "0E 00 00 00 18 00 00 00 ## 00*3 02 00 00 00 07 00 00 00 04 03 02 01"},
    {"reply_plugins, none", RETURNS(qel_sysmsg_reply_plugins(con, nullptr, 0)),
     "0E 00 00 00 10 00 00 00 ## 00*3 00*4"},
    {"post_18", RETURNS(qel_sysmsg_post_18(con, "%s%n")), "12 00 00 00 88 00 00 00 ## '%s%n' 00*123"},
    {"post_18, cut", RETURNS(qel_sysmsg_post_18(con, longer.c_str())),
     "12 00 00 00 88 00 00 00 ## 6E*99 00 00*27"},
    {"post_19", RETURNS(qel_sysmsg_post_19(con, "name", 0x01020304, twenty)),
     "13 00 00 00 88 00 00 00 ## 'name' 00*96 00*3 04 03 02 01 'ABCDEFGHIJKLMNOPQRST'"},
    {"post_19, cut", RETURNS(qel_sysmsg_post_19(con, longer.c_str(), 0xFFFFFFFF, twenty)),
     "13 00 00 00 88 00 00 00 ## 6E*99 00 00*3 FF*4 'ABCDEFGHIJKLMNOPQRST'"},
    {"post_20", RETURNS(qel_sysmsg_post_20(con, "name")), "14 00 00 00 88 00 00 00 ## 'name' 00*123"},
    {"post_21", RETURNS(qel_sysmsg_post_21(con, 0x01020304)), "15 00 00 00 10 00 00 00 ## 00*3 04 03 02 01"},
    {"post_22", RETURNS(qel_sysmsg_post_22(con)), "16 00 00 00 0C 00 00 00 ## 00*3"},
    {"reply_24",
     RETURNS(qel_sysmsg_reply_24(
         con, (std::string("text") + '\0' + std::string(96, 'x')).c_str())), // one too many
     "18 00 00 00 70 00 00 00 ## 'text' 00 78*95 00*3"},
    {"reply_path_exists", RETURNS(qel_sysmsg_reply_path_exists(con, 0x01020304)),
     "1D 00 00 00 10 00 00 00 ## 00*3 04 03 02 01"},
    {"post_32", RETURNS(qel_sysmsg_post_32(con, "name", 0x01020304)),
     "20 00 00 00 2C 00 00 00 ## 'name' 00*27 04 03 02 01"},
    {"post_32, cut", RETURNS(qel_sysmsg_post_32(con, forty.c_str(), 0x01020304)),
     "20 00 00 00 2C 00 00 00 ## 6E*30 00 04 03 02 01"},
    {"post_33", RETURNS(qel_sysmsg_post_33(con, "name")), "21 00 00 00 28 00 00 00 ## 'name' 00*27"},
    {"post_33, cut", RETURNS(qel_sysmsg_post_33(con, forty.c_str())), "21 00 00 00 28 00 00 00 ## 6E*30 00"},
    {"post_34", RETURNS(qel_sysmsg_post_34(con)), "22 00 00 00 0C 00 00 00 ## 00*3"},
    {"reply_info", RETURNS(qel_sysmsg_reply_info(con, 0x81020304, 0x82020304, 0xFFFFFFFF)),
     "25 00 00 00 18 00 00 00 ## 00*3 04 03 02 81 04 03 02 82 FF FF FF FF"},
    {"reply_item_size",
     RETURNS(qel_sysmsg_reply_item_size(con, 0x81020304, "name", 0x82020304, 0x8182838485868788)),
     "28 00 00 00 40 00 00 00 ## 00*3 04 03 02 81 'name' 00*28 04 03 02 82 00*4 88 87 86 85 84 83 82 81"},
    {"reply_item_size, cut", RETURNS(qel_sysmsg_reply_item_size(con, 1, forty.c_str(), 2, 3)),
     "28 00 00 00 40 00 00 00 ## 00*3 01 00 00 00 6E*30 00*2 02 00 00 00 00*4 03 00*7"},
    {"reply_item_size, no name", RETURNS(qel_sysmsg_reply_item_size(con, 1, nullptr, 2, 3)),
     "28 00 00 00 40 00 00 00 ## 00*3 01 00 00 00 00*32 02 00 00 00 00*4 03 00*7"},
    {"reply_42", RETURNS(qel_sysmsg_reply_42(con, 0x8182838485868788, 0x9192939495969798)),
     "2A 00 00 00 20 00 00 00 ## 00*3 00*4 88 87 86 85 84 83 82 81 98 97 96 95 94 93 92 91"},
    {"reply_plugin_size", RETURNS(qel_sysmsg_reply_plugin_size(con, 0x81020304, 0x8182838485868788)),
     "2C 00 00 00 18 00 00 00 ## 00*3 04 03 02 81 88 87 86 85 84 83 82 81"},
    {"post_45", RETURNS(qel_sysmsg_post_45(con, 0x01020304)),
     "2D 00 00 00 18 00 00 00 ## 00*3 04 03 02 01 00*8"},
    {"reply_text", RETURNS(qel_sysmsg_reply_text(con, "text")),
     "2F 00 00 00 15 00 00 00 ## 00*3 05 00 00 00 'text' 00"},
    {"reply_text, empty", RETURNS(qel_sysmsg_reply_text(con, "")),
     "2F 00 00 00 11 00 00 00 ## 00*3 01 00 00 00 00"},
    {"reply_text, none", RETURNS(qel_sysmsg_reply_text(con, nullptr)),
     "2F 00 00 00 10 00 00 00 ## 00*3 00*4"},
    {"reply_plain", RETURNS(qel_sysmsg_reply_plain(con, "abc", 3)),
     "31 00 00 00 13 00 00 00 ## 00*3 03 00 00 00 'abc'"},
    {"reply_plain, nothing", RETURNS(qel_sysmsg_reply_plain(con, nullptr, 0)),
     "31 00 00 00 10 00 00 00 ## 00*3 00*4"},
};

struct Catalogue : Sysmsg {
    /// The only thing that was sent.
    std::string only_message()
    {
        EXPECT_EQ(peer.sent.size(), 1U);
        return peer.transmissions.empty() ? "nothing" : shown(peer.transmissions[0]);
    }
};

using CatalogueFiles = Catalogue;

TEST_F(CatalogueFiles, GoOnWithoutConfirmsAndCloseTheFileBeforeTheirEnd)
{
    Scratch scratch;
    scratch.make_file("file", std::string(44101, 'x'));
    std::vector<int> types, closed_by_then;
    peer.on_send = [&](int, const Bytes &sent) {
        types.push_back(sent[0]);
        closed_by_then.push_back(peer.kernel.count("fclose"));
    };
    EXPECT_EQ(qel_sysmsg_send_file(&peer.con, scratch.at("file").c_str(), "remote"), 0);
    EXPECT_THAT(types, ElementsAre(7, 7, 7, 8, 8, 8, 8, 8, 8, 8, 8, 8, 9, 9, 9));
    EXPECT_THAT(closed_by_then, ElementsAre(0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0, 1, 1, 1));
}

// ---- Memory ----

TEST_F(Catalogue, AsksForTheMemoryOfABlockOfAnyLengthAndStopsWithoutIt)
{
    peer.kernel.watches_memory = 1;
    peer.kernel.fail("malloc", ENOMEM);
    EXPECT_STOPS_ON("message", sysmsg_unit, qel_sysmsg_send_updater(&peer.con, "x", 0x7FFFFFFF - 12));
    EXPECT_STOPS_ON("message", sysmsg_unit, qel_sysmsg_transfer_data(&peer.con, "x", 0x7FFFFFFF - 16));
    EXPECT_STOPS_ON("message", sysmsg_unit, qel_sysmsg_reply_plugins(&peer.con, two_ids, 536870907));
    EXPECT_THAT(peer.kernel.calls("malloc"),
                ElementsAre("malloc 2147483647", "malloc 2147483647", "malloc 2147483644"));
}

// ---- Operations that only send ----

TEST_F(Catalogue, SendsEveryUnsequencedMessageOnceAndGivesItsMemoryBack)
{
    peer.kernel.watches_memory = 1;
    for (const Operation &operation : unsequenced_operations) {
        SCOPED_TRACE(operation.name);
        peer.sent.clear();
        peer.transmissions.clear();
        operation.call(&peer.con);
        EXPECT_EQ(only_message(), shown(operation.bytes));
        EXPECT_TRUE(peer.kernel.blocks.empty());
    }
    EXPECT_EQ(peer.polls, 0);
}

TEST_F(Catalogue, SendsEverySequencedMessageReturns1WhenItIsConfirmedAndGivesItsMemoryBack)
{
    peer.kernel.watches_memory = 1;
    peer.confirms();
    for (const Operation &operation : sequenced_operations) {
        SCOPED_TRACE(operation.name);
        peer.sent.clear();
        peer.transmissions.clear();
        EXPECT_EQ(operation.call(&peer.con), 1);
        EXPECT_EQ(only_message(), shown(operation.bytes));
        EXPECT_TRUE(peer.kernel.blocks.empty());
    }
}

TEST_F(Catalogue, ReturnsZeroForEverySequencedMessageThatNobodyConfirms)
{
    for (const Operation &operation : sequenced_operations) {
        SCOPED_TRACE(operation.name);
        peer.sent.clear();
        EXPECT_EQ(operation.call(&peer.con), 0);
        EXPECT_EQ(peer.sent.size(), 3U);
    }
}

TEST_F(Catalogue, NeedsAConnectionForEveryOperation)
{
    for (const Operation &operation : unsequenced_operations)
        EXPECT_STOPS_ON("con", sysmsg_unit, operation.call(nullptr)) << operation.name;
    for (const Operation &operation : sequenced_operations)
        EXPECT_STOPS_ON("con", sysmsg_unit, operation.call(nullptr)) << operation.name;
}

// ---- Test patterns ----

/// 777 words that count from `first`, in hex.
static std::string counted_from(uint32_t first)
{
    std::string words;
    for (uint32_t value = first; value < first + 777; ++value) {
        char word[16];
        snprintf(word, sizeof word, " %02X %02X %02X %02X", value & 0xFF, value >> 8 & 0xFF,
                 value >> 16 & 0xFF, value >> 24);
        words += word;
    }
    return words;
}

TEST_F(Catalogue, CountsInTheTestPatternsFrom1EachWithItsOwnCounter)
{
    peer.confirms();
    qel_sysmsg_test_pattern(&peer.con);
    qel_sysmsg_test_pattern(&peer.con);
    EXPECT_EQ(qel_sysmsg_test_pattern_sequenced(&peer.con), 1);
    qel_sysmsg_test_pattern(&peer.con);
    EXPECT_EQ(qel_sysmsg_test_pattern_sequenced(&peer.con), 1);

    const std::string plain = "10 00 00 00 30 0C 00 00 24 0C 00 00";
    const std::string sequenced = "11 00 00 00 34 0C 00 00 ## 00 00 00 24 0C 00 00";
    ASSERT_EQ(peer.transmissions.size(), 5U);
    EXPECT_EQ(shown(peer.transmissions[0]), shown(plain + counted_from(1)));
    EXPECT_EQ(shown(peer.transmissions[1]), shown(plain + counted_from(778)));
    EXPECT_EQ(shown(peer.transmissions[2]), shown(sequenced + counted_from(1)));
    EXPECT_EQ(shown(peer.transmissions[3]), shown(plain + counted_from(1555)));
    EXPECT_EQ(shown(peer.transmissions[4]), shown(sequenced + counted_from(778)));
    EXPECT_EQ(peer.transmissions[0].size(), 3120U);
    EXPECT_EQ(peer.transmissions[2].size(), 3124U);
}

TEST_F(Catalogue, CountsOnInTheSequencedTestPatternThoughNobodyConfirmsIt)
{
    EXPECT_EQ(qel_sysmsg_test_pattern_sequenced(&peer.con), 0);
    peer.confirms();
    EXPECT_EQ(qel_sysmsg_test_pattern_sequenced(&peer.con), 1);
    EXPECT_EQ(qel_sysmsg_get32(peer.transmissions.back().data(), 16), 778U);
}

// ---- Files ----

/// The types and sizes of what was sent.
static std::vector<std::string> outline(const ScriptedPeer &peer)
{
    std::vector<std::string> lines;
    for (const Bytes &message : peer.transmissions)
        lines.push_back("type " + std::to_string(qel_sysmsg_get32(message.data(), 0)) + ", " +
                        std::to_string(message.size()) + " bytes");
    return lines;
}

/// The file's bytes, as the peer puts them together.
static std::string file_content(const ScriptedPeer &peer)
{
    std::string content;
    for (const Bytes &message : peer.transmissions) {
        if (message[0] == 8)
            content.append(message.begin() + 16, message.end());
    }
    return content;
}

/// Bytes that differ from chunk to chunk.
static std::string varied(size_t size)
{
    std::string content(size, 0);
    for (size_t at = 0; at < size; ++at)
        content[at] = static_cast<char>(at % 251);
    return content;
}

TEST_F(CatalogueFiles, TravelInChunksOf22050BytesAndWhatIsLeft)
{
    EXPECT_EQ(qel_sysmsg_chunk_size(), 22050);
    peer.confirms();
    const std::pair<size_t, std::vector<std::string>> cases[] = {
        {0, {}},
        {1, {"type 8, 17 bytes"}},
        {22050, {"type 8, 22066 bytes"}},
        {22051, {"type 8, 22066 bytes", "type 8, 17 bytes"}},
        {23000, {"type 8, 22066 bytes", "type 8, 966 bytes"}},
        {2 * 22050 + 1, {"type 8, 22066 bytes", "type 8, 22066 bytes", "type 8, 17 bytes"}},
    };
    const Scratch disk;
    for (auto [size, wanted] : cases) {
        const std::string content = varied(size);
        wanted.insert(wanted.begin(), "type 7, 20 bytes");
        wanted.push_back("type 9, 12 bytes");
        peer.transmissions.clear();
        EXPECT_EQ(qel_sysmsg_send_buffer_as_file(&peer.con, size ? content.data() : nullptr,
                                                 static_cast<int>(size), "a/b"),
                  1);
        EXPECT_EQ(outline(peer), wanted);
        EXPECT_EQ(file_content(peer), content);

        disk.make_file("local", content);
        peer.transmissions.clear();
        peer.kernel.forget_calls();
        EXPECT_EQ(qel_sysmsg_send_file(&peer.con, (disk.path() + "//./local").c_str(), "r/?"), 1);
        EXPECT_EQ(outline(peer), wanted);
        EXPECT_EQ(file_content(peer), content);
        EXPECT_EQ(shown(peer.transmissions[0]),
                  shown("07 00 00 00 14 00 00 00 ## 00*3 04 00 00 00 'r/?' 00"));
        EXPECT_THAT(peer.kernel.calls("fopen fclose"),
                    ElementsAre("fopen " + disk.path() + "//./local rb", "fclose"));
    }
}

TEST_F(CatalogueFiles, SucceedWhenTheirEndIsConfirmedWhateverElseIs)
{
    for (const bool is_end_confirmed : {true, false}) {
        peer.sent.clear();
        peer.on_send = [=, this](int, const Bytes &sent) {
            if ((sent[0] == 9) == is_end_confirmed)
                peer.delivers(0, confirm_of(sent));
        };
        EXPECT_EQ(qel_sysmsg_send_buffer_as_file(&peer.con, "x", 1, "f"), static_cast<int>(is_end_confirmed));
        EXPECT_EQ(peer.sent.size(), is_end_confirmed ? 7U : 5U); // each three times, or once
    }
}

TEST_F(CatalogueFiles, EndWhereReadingFails)
{
    const Scratch disk;
    disk.make_file("local", varied(50000));
    peer.confirms();
    peer.kernel.fail_nth("fread", 2, EIO);
    EXPECT_EQ(qel_sysmsg_send_file(&peer.con, disk.at("local").c_str(), "remote"), 1);
    EXPECT_EQ(file_content(peer).substr(0, 4096), varied(4096));
}

TEST_F(CatalogueFiles, ThatCannotBeOpenedStopTheProgramBeforeAnythingIsSent)
{
    EXPECT_STOPS_ON("f", sysmsg_unit, qel_sysmsg_send_file(&peer.con, "/nowhere/at/all", "remote"));
    EXPECT_THAT(peer.sent, IsEmpty());
}

TEST_F(CatalogueFiles, MayHaveBlocksOfMoreThan65535Bytes)
{
    peer.confirms();
    EXPECT_EQ(qel_sysmsg_transfer_data(&peer.con, std::string(70000, 'x').data(), 70000), 1);
    EXPECT_EQ(hex_of(peer.transmissions.at(0).data(), 8), hex("02 00 00 00 80 11 01 00"));
    EXPECT_EQ(hex_of(peer.transmissions.at(0).data() + 12, 6), hex("70 11 01 00 'xx'"));
}

TEST_F(CatalogueFiles, NeedAPathAndBytesInEveryMessage)
{
    EXPECT_STOPS_ON("path", sysmsg_unit, qel_sysmsg_file_begin(&peer.con, nullptr));
    EXPECT_STOPS_ON("path", sysmsg_unit, qel_sysmsg_send_buffer_as_file(&peer.con, "x", 1, nullptr));
    EXPECT_STOPS_ON("blob", sysmsg_unit, qel_sysmsg_file_data(&peer.con, nullptr, 1));
    EXPECT_STOPS_ON("blob_len > 0", sysmsg_unit, qel_sysmsg_file_data(&peer.con, "x", 0));
    EXPECT_STOPS_ON("blob", sysmsg_unit, qel_sysmsg_transfer_data(&peer.con, nullptr, 1));
    EXPECT_STOPS_ON("blob_len > 0", sysmsg_unit, qel_sysmsg_transfer_data(&peer.con, "x", 0));
    EXPECT_STOPS_ON("blob", sysmsg_unit, qel_sysmsg_send_updater(&peer.con, nullptr, 1));
    EXPECT_STOPS_ON("blob_len > 0", sysmsg_unit, qel_sysmsg_send_updater(&peer.con, "x", 0));
}
