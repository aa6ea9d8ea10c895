// The queries whose answers have a fixed layout: the request on the wire, the answer unpacked, and answers
// that are wrong.

#include "support/product_reset.h"
#include "support/query_cases.h"
#include "support/sysmsg_fixture.h"

#include <gmock/gmock.h>

using testing::ElementsAre;
using testing::IsEmpty;

using QueryPlugins = Query;
using Query23 = Query;
using QueryPathExists = Query;
using QueryInfo = Query;
using QueryItemSize = Query;
using Query41 = Query;

TEST_F(Query, SendsItsRequestAndReturnsAllFieldsOfTheAnswer)
{
    for (const QueryCase &query : query_cases) {
        qel_sysmsg_forget_sequence();
        peer.transmissions.clear();
        peer.answers(message_of(query.answer_type, query.answer));
        EXPECT_EQ(query.ask(&peer.con), query.answered) << query.name;
        EXPECT_EQ(request_sent(), shown(query.request)) << query.name;
    }
}

// ---- Plugins ----

TEST_F(QueryPlugins, KeepsNoMemoryAnsweredOrNot)
{
    peer.answers("0E 00 00 00 14 00 00 00 09 00*3 01 00 00 00 07 00 00 00");
    peer.kernel.watches_memory = 1;
    uint32_t plugins[1];
    uint32_t count;
    EXPECT_EQ(qel_sysmsg_get_plugins(&peer.con, plugins, 1, &count), 1);
    peer.on_send = nullptr;
    EXPECT_EQ(qel_sysmsg_get_plugins(&peer.con, plugins, 1, &count), 0);
    EXPECT_THAT(peer.kernel.calls("calloc"), ElementsAre("calloc 20", "calloc 20"));
    EXPECT_TRUE(peer.kernel.blocks.empty());
}

TEST_F(QueryPlugins, AcceptsNoPluginsInNoRoom)
{
    peer.answers("0E 00 00 00 10 00 00 00 09 00*3 00 00 00 00");
    uint32_t plugins[1] = {1};
    uint32_t count = 99;
    EXPECT_EQ(qel_sysmsg_get_plugins(&peer.con, plugins, 0, &count), 1);
    EXPECT_EQ(count, 0U);
    EXPECT_EQ(plugins[0], 1U);
}

// ---- Query 23 ----

TEST_F(Query23, HasRoomForTenTextsOf99Characters)
{
    peer.answers("18 00 00 00 70 00 00 00 09 'answer' 00*97");
    const std::string text(120, 't');
    const char *const items[] = {text.c_str(), text.c_str(), text.c_str(), text.c_str(), text.c_str(),
                                 text.c_str(), text.c_str(), text.c_str(), text.c_str(), text.c_str()};
    const char *result;
    EXPECT_EQ(qel_sysmsg_query_23(&peer.con, text.c_str(), items, 10, &result), 1);
    EXPECT_EQ(request_sent(),
              shown("17 00 00 00 5C 04 00 00 ## 74*99 00 74*99 00 74*99 00 74*99 00 74*99 00 "
                    "74*99 00 74*99 00 74*99 00 74*99 00 74*99 00 74*99 00 00*3 0A 00 00 00"));
}

TEST_F(Query23, StopsAtTheEleventhText)
{
    const char *const items[] = {"", "", "", "", "", "", "", "", "", "", ""};
    const char *result;
    EXPECT_STOPS_ON("i < 10", sysmsg_unit, qel_sysmsg_query_23(&peer.con, "", items, 11, &result));
    EXPECT_THAT(peer.sent, IsEmpty());
}

TEST_F(Query23, KeepsTheAnswerUntilTheNextOne)
{
    peer.answers("18 00 00 00 70 00 00 00 09 'first' 00*98");
    const char *first;
    const char *second;
    EXPECT_EQ(qel_sysmsg_query_23(&peer.con, "", nullptr, 0, &first), 1);
    EXPECT_STREQ(first, "first");
    peer.answers("18 00 00 00 70 00 00 00 0A 'second' 00*97");
    EXPECT_EQ(qel_sysmsg_query_23(&peer.con, "", nullptr, 0, &second), 1);
    EXPECT_EQ(first, second);
    EXPECT_STREQ(first, "second");
}

// ---- Path exists ----

TEST_F(QueryPathExists, CutsThePathAt99Characters)
{
    peer.answers("1D 00 00 00 10 00 00 00 09 00*3 00*4");
    uint32_t exists = 1;
    EXPECT_EQ(qel_sysmsg_tolbrin_path_exists(&peer.con, ("/" + std::string(150, 'p')).c_str(), &exists), 1);
    EXPECT_EQ(request_sent(), shown("1C 00 00 00 70 00 00 00 ## '/' 70*98 00 00*3"));
    EXPECT_EQ(exists, 0U);
}

TEST_F(QueryPathExists, StopsWithAMessageOnAPathThatIsNotAbsolute)
{
    uint32_t exists;
    for (const std::string path : {"a/b", "", "/a/", "/a//b", "/a?"}) {
        EXPECT_FATAL("Path is not absolute: \"" + path + "\"\n", "qel_sysmsg_tolbrin_path_exists",
                     sysmsg_unit, any_line, qel_sysmsg_tolbrin_path_exists(&peer.con, path.c_str(), &exists));
    }
    EXPECT_THAT(peer.sent, IsEmpty());
}

// ---- Answers that are too short ----

/// Leaves something else than zeros where the next call has its variables.
[[gnu::noinline]] static void soil_the_stack()
{
    volatile char soil[4096];
    for (volatile char &byte : soil)
        byte = '\x5A';
}

TEST_F(QueryInfo, AndItsLikeReadWhatAShortAnswerLacksAsZeros)
{
    // A whole answer first, of which nothing is left over for the short one.
    uint32_t exists = 1;
    peer.answers("1D 00 00 00 10 00 00 00 09 00*3 04 03 02 01");
    EXPECT_EQ(qel_sysmsg_tolbrin_path_exists(&peer.con, "/a", &exists), 1);
    peer.answers("1D 00 00 00 0C 00 00 00 0A 00*3");
    soil_the_stack();
    EXPECT_EQ(qel_sysmsg_tolbrin_path_exists(&peer.con, "/a", &exists), 1);
    EXPECT_EQ(exists, 0U);

    qel_sysmsg_info info = {4711, 1, 1, 1};
    peer.answers("25 00 00 00 18 00 00 00 0B 00*3 01 00 00 00 02 00 00 00 03 00 00 00");
    EXPECT_EQ(qel_sysmsg_get_info(&peer.con, &info), 1);
    peer.answers("25 00 00 00 10 00 00 00 0C 00*3 05 00 00 00");
    soil_the_stack();
    EXPECT_EQ(qel_sysmsg_get_info(&peer.con, &info), 1);
    EXPECT_TRUE(info.a == 5 && info.b == 0 && info.c == 0);

    uint64_t first = 1, second = 1;
    peer.answers("2A 00 00 00 20 00 00 00 0D 00*3 00*4 88 87 86 85 84 83 82 81 98 97 96 95 94 93 92 91");
    EXPECT_EQ(qel_sysmsg_query_41(&peer.con, &first, &second), 1);
    peer.answers("2A 00 00 00 0C 00 00 00 0E 00*3");
    soil_the_stack();
    EXPECT_EQ(qel_sysmsg_query_41(&peer.con, &first, &second), 1);
    EXPECT_TRUE(first == 0 && second == 0);
}

// ---- Item size ----

TEST_F(QueryItemSize, SendsZerosForNoNameAndCutsALongOne)
{
    peer.answers("28 00 00 00 40 00 00 00 09 00*55");
    uint64_t size = 1;
    EXPECT_EQ(qel_sysmsg_get_item_size(&peer.con, 1, nullptr, 2, &size), 1);
    EXPECT_EQ(request_sent(), shown("27 00 00 00 40 00 00 00 ## 00*3 01 00 00 00 00*32 02 00 00 00 00*12"));
    EXPECT_EQ(size, 0U);

    peer.transmissions.clear();
    qel_sysmsg_forget_sequence();
    EXPECT_EQ(qel_sysmsg_get_item_size(&peer.con, 1, std::string(40, 'n').c_str(), 2, &size), 1);
    EXPECT_EQ(request_sent(),
              shown("27 00 00 00 40 00 00 00 ## 00*3 01 00 00 00 6E*30 00*2 02 00 00 00 00*12"));
}

TEST_F(QueryItemSize, ReadsAShortAnswerOverItsRequest)
{
    peer.answers("28 00 00 00 0C 00 00 00 09 00*3");
    uint64_t size = 99;
    EXPECT_EQ(qel_sysmsg_get_item_size(&peer.con, 1, "name", 2, &size), 1);
    EXPECT_EQ(size, 0U); // the request's zeros
}

// ---- Query 41 ----

TEST_F(Query41, NeedsNeitherResult)
{
    peer.answers("2A 00 00 00 20 00 00 00 09 00*3 00*4 01 00*7 02 00*7");
    uint64_t first = 0;
    uint64_t second = 0;
    EXPECT_EQ(qel_sysmsg_query_41(&peer.con, nullptr, &second), 1);
    qel_sysmsg_forget_sequence();
    EXPECT_EQ(qel_sysmsg_query_41(&peer.con, &first, nullptr), 1);
    qel_sysmsg_forget_sequence();
    EXPECT_EQ(qel_sysmsg_query_41(&peer.con, nullptr, nullptr), 1);
    EXPECT_EQ(first, 1U);
    EXPECT_EQ(second, 2U);
}

// ---- What all of them have in common ----

TEST_F(Query, StopsOnAnAnswerOneByteTooLongAndOnACountBeyondWhatFits)
{
    static uint32_t words[2];
    static uint64_t size;
    static const char *text;
    static qel_sysmsg_info info;
    const std::string too_long = "sysmsg->msg_size <= wait_buf_size",
                      too_many = "msg->num_plugins <= plugin_max";
    const auto plugins = [](qel_sysmsg_con *con) { qel_sysmsg_get_plugins(con, words, 1, words + 1); };
    const struct {
        const char *answer;
        std::string text;
        void (*ask)(qel_sysmsg_con *con);
    } cases[] = {
        {"0E 00 00 00 18 00 00 00 09 00*3 02 00 00 00 07 00 00 00 08 00 00 00", too_long, plugins},
        {"0E 00 00 00 15 00 00 00 09 00*3 01 00 00 00 07 00 00 00 00", too_long, plugins},
        {"0E 00 00 00 14 00 00 00 09 00*3 02 00 00 00 07 00 00 00", too_many, plugins},
        {"0E 00 00 00 14 00 00 00 09 00*3 FF FF FF FF 07 00 00 00", too_many, plugins},
        {"18 00 00 00 71 00 00 00 09 00*104", too_long,
         [](qel_sysmsg_con *con) { qel_sysmsg_query_23(con, "", nullptr, 0, &text); }},
        {"1D 00 00 00 11 00 00 00 09 00*3 00*5", too_long,
         [](qel_sysmsg_con *con) { qel_sysmsg_tolbrin_path_exists(con, "/a", words); }},
        {"25 00 00 00 19 00 00 00 09 00*3 00*13", too_long,
         [](qel_sysmsg_con *con) { qel_sysmsg_get_info(con, &info); }},
        {"28 00 00 00 41 00 00 00 09 00*56", too_long,
         [](qel_sysmsg_con *con) { qel_sysmsg_get_item_size(con, 1, "name", 2, &size); }},
        {"2A 00 00 00 21 00 00 00 09 00*3 00*21", too_long,
         [](qel_sysmsg_con *con) { qel_sysmsg_query_41(con, nullptr, nullptr); }},
    };
    for (const auto &each : cases) {
        ScriptedPeer asked;
        asked.answers(each.answer);
        EXPECT_STOPS_ON(each.text.c_str(), sysmsg_unit, each.ask(&asked.con)) << each.answer;
        reset_product(); // it had stopped in the middle of a send
    }
}

TEST_F(Query, NeedsAConnectionAndRoomForItsResults)
{
    uint32_t word;
    uint64_t size;
    EXPECT_STOPS_ON("plugins", sysmsg_unit, qel_sysmsg_get_plugins(nullptr, nullptr, 1, nullptr));
    EXPECT_STOPS_ON("plugin_count", sysmsg_unit, qel_sysmsg_get_plugins(nullptr, &word, 1, nullptr));
    EXPECT_STOPS_ON("con", sysmsg_unit, qel_sysmsg_get_plugins(nullptr, &word, 1, &word));
    EXPECT_STOPS_ON("con", sysmsg_unit, qel_sysmsg_tolbrin_path_exists(nullptr, "a", nullptr));
    EXPECT_STOPS_ON("0", sysmsg_unit, qel_sysmsg_tolbrin_path_exists(&peer.con, "a", nullptr));
    EXPECT_STOPS_ON("exists", sysmsg_unit, qel_sysmsg_tolbrin_path_exists(&peer.con, "/a", nullptr));
    EXPECT_STOPS_ON("info", sysmsg_unit, qel_sysmsg_get_info(nullptr, nullptr));
    EXPECT_STOPS_ON("item_size", sysmsg_unit, qel_sysmsg_get_item_size(nullptr, 1, "name", 2, nullptr));
    EXPECT_STOPS_ON("plugin_id > 0", sysmsg_unit, qel_sysmsg_get_plugin_size(&peer.con, 0, &size));
    EXPECT_STOPS_ON("plugin_id > 0", sysmsg_unit, qel_sysmsg_get_plugin_size(nullptr, 0, nullptr));
    EXPECT_STOPS_ON("plugin_size", sysmsg_unit, qel_sysmsg_get_plugin_size(nullptr, 1, nullptr));
}
