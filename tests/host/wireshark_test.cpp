// The dissector in tshark: a link with troubles shows each of them. dissector_test.py has the messages and
// fields.

#include <gmock/gmock.h>

#include "support.h"
#include "trouble.h"

using testing::HasSubstr;
using testing::Not;

namespace
{

std::string tshark(const std::string &recording, std::vector<std::string> words)
{
    std::vector<std::string> call = {"tshark", "-X", "lua_script:" DISSECTOR, "-r", recording};
    call.insert(call.end(), words.begin(), words.end());
    Finished ended = run(call);
    EXPECT_EQ(ended.code, 0) << ended.err;
    EXPECT_THAT(ended.err, Not(HasSubstr("Lua"))) << ended.err;
    return ended.out;
}

} // namespace

TEST(Wireshark, LinksConfirmsToMessages)
{
    ScratchFolder scratch;
    record_trouble(scratch.at("r.pcapng"));
    // The query ends in frame 7, its confirm is frame 8.
    EXPECT_EQ(tshark(scratch.at("r.pcapng"),
                     {"-Y", "qel.confirms", "-T", "fields", "-e", "frame.number", "-e", "qel.confirms"}),
              "8\t7\n");
    EXPECT_EQ(tshark(scratch.at("r.pcapng"), {"-2", "-Y", "qel.confirmed_in", "-T", "fields", "-e",
                                              "qel.message", "-e", "qel.confirmed_in"}),
              "get_item_size\t8\n");
}

TEST(Wireshark, ShowsEachTrouble)
{
    ScratchFolder scratch;
    record_trouble(scratch.at("r.pcapng"));
    EXPECT_EQ(tshark(scratch.at("r.pcapng"), {"-Y", "_ws.expert or _ws.malformed or _ws.lua",
                                              "-T", "fields",
                                              "-e", "frame.number",
                                              "-e", "qel.crc_wrong",
                                              "-e", "qel.stray",
                                              "-e", "qel.interrupts",
                                              "-e", "qel.short_packet",
                                              "-e", "qel.bad_packet",
                                              "-e", "qel.unknown_type",
                                              "-e", "qel.bad_message",
                                              "-e", "_ws.malformed"}),
              "9\t1\t\t\t\t\t\t\t\n"
              "10\t\t1\t\t\t\t\t\t\n"
              "12\t\t\t1\t\t\t\t\t\n"
              "13\t\t\t\t1\t\t\t\t\n"
              "14\t\t\t\t\t1\t\t\t\n"
              "15\t\t\t\t\t1\t\t\t\n"
              "16\t\t\t\t\t\t1\t\t\n"
              "17\t\t\t1\t\t\t\t1\t\n"
              "20\t\t\t1\t\t1\t\t\t\n");
}
