// The dissector in tshark: a session with every message of the catalogue shows every field by name and no
// complaint, and a link with troubles shows each of them.

#include <gmock/gmock.h>
#include <signal.h>

#include <filesystem>
#include <map>
#include <nlohmann/json.hpp>
#include <set>

#include "catalogue.h"
#include "support.h"
#include "trouble.h"

using nlohmann::json;
using testing::Contains;
using testing::ElementsAre;
using testing::HasSubstr;
using testing::IsSupersetOf;
using testing::Not;

namespace
{

std::string tshark(const std::string &recording, std::vector<std::string> words)
{
    std::vector<std::string> call = {"tshark", "-X", "lua_script:" DISSECTOR, "-r", recording};
    call.insert(call.end(), words.begin(), words.end());
    Finished ended = Process(call).end(50);
    EXPECT_EQ(ended.code, 0) << ended.err;
    EXPECT_THAT(ended.err, Not(HasSubstr("Lua"))) << ended.err;
    return ended.out;
}

/// Collects the values of every field of the link, at any depth.
void collect(const json &node, std::map<std::string, std::set<std::string>> &values)
{
    for (const auto &[key, value] : node.items()) {
        for (const json &one : value.is_array() ? value : json::array({value})) {
            if (key.starts_with("qel.") && one.is_string())
                values[key].insert(one.get<std::string>());
            if (one.is_structured())
                collect(one, values);
        }
    }
}

/// A session in which every message of the catalogue travels, recorded by the end that serves.
void record_every_message(const ScratchFolder &scratch, const std::string &recording)
{
    const std::string record = "000102030405060708090a0b0c0d0e0f10111213";
    const std::string root = scratch.at("root"), socket = scratch.at("socket"), local = scratch.at("local");
    put_file(root + "/plugins/3", "abc");
    put_file(root + "/plugins/12", "");
    put_file(root + "/items/thing", "12345");
    put_file(local, "content");
    Process server(host_words({"serve", root, "--listen", socket, "--no-pacing", "--record", recording,
                               "--info", "21", "22", "23", "--values", "24", "5000000000", "--answer",
                               "the answer", "--text", "a text", "--notices"}));
    const std::vector<std::vector<std::string>> calls = {
        {"connect", "--seconds", "0.2"},
        {"query", "plugins"},
        {"query", "path-exists", "/plugins/3"},
        {"query", "info"},
        {"query", "item-size", "31", "32", "thing"},
        {"query", "plugin-size", "3"},
        {"query", "text"},
        {"query", "41"},
        {"query", "23", "the name", "item one", "item two"},
        {"query", "decipher", "c0ffee"},
        {"send-file", local, "/sent/file"},
        {"test-pattern"},
        {"test-pattern", "--sequenced"},
        {"post", "transfer_begin", "41"},
        {"post", "transfer_data", "block=@" + local},
        {"post", "transfer_end"},
        {"post", "notify_11"},
        {"post", "notify_12"},
        {"post", "post_18", "name 18"},
        {"post", "post_19", "name 19", "42", record},
        {"post", "post_20", "name 20"},
        {"post", "post_21", "43"},
        {"post", "post_22"},
        {"post", "notify_26"},
        {"post", "notify_27", record},
        {"post", "notify_30", "44"},
        {"post", "notify_31"},
        {"post", "post_32", "name 32", "45"},
        {"post", "post_33", "name 33"},
        {"post", "post_34"},
        {"post", "post_45", "46"},
        {"update", "--force", local},
    };
    for (std::vector<std::string> call : calls) {
        call.insert(call.end(), {"--socket", socket, "--no-pacing", "--unverified-ok"});
        Finished ended = host(call);
        ASSERT_EQ(ended.code, 0) << call[0] << " " << call[1] << ": " << ended.err;
    }
    kill(server.process, SIGTERM);
    server.end();
}

} // namespace

TEST(Wireshark, ShowsEveryFieldOfEveryMessageAndNoComplaint)
{
    ScratchFolder scratch;
    const std::string recording = scratch.at("r.pcapng");
    record_every_message(scratch, recording);

    EXPECT_EQ(tshark(recording, {"-Y", "_ws.malformed or _ws.expert or _ws.lua or not qel"}), "");

    std::map<std::string, std::set<std::string>> values;
    collect(json::parse(tshark(recording, {"-T", "json", "--no-duplicate-keys", "-J", "qel"})), values);
    unsigned messages = 0, fields = 0;
    for (const CatalogueMessage &message : catalogue()) {
        std::string name = message.name;
        if (name.starts_with("unassigned"))
            continue;
        messages++;
        EXPECT_THAT(values["qel.message"], Contains(name));
        EXPECT_THAT(values["qel.type"], Contains(std::to_string(message.type)));
        for (const CatalogueField &field : message.fields) {
            fields++;
            EXPECT_THAT(values["qel." + name + "." + field.name], Not(testing::IsEmpty()))
                << name << "." << field.name;
        }
    }
    EXPECT_EQ(messages, 45u);
    EXPECT_EQ(fields, 47u);
    EXPECT_THAT(values["qel.crc_right"], ElementsAre("1"));

    EXPECT_THAT(values["qel.transfer_begin.value"], ElementsAre("41"));
    EXPECT_THAT(values["qel.file_begin.path"], ElementsAre("/sent/file"));
    EXPECT_THAT(values["qel.file_begin.path_length"], ElementsAre("11"));
    EXPECT_THAT(values["qel.file_data.block"], ElementsAre("63:6f:6e:74:65:6e:74"));
    EXPECT_THAT(values["qel.updater.block_length"], ElementsAre("7"));
    EXPECT_THAT(values["qel.plugins.plugins"], ElementsAre("12", "3"));
    EXPECT_THAT(values["qel.post_19.name"], ElementsAre("name 19"));
    EXPECT_THAT(values["qel.post_19.record"],
                ElementsAre("00:01:02:03:04:05:06:07:08:09:0a:0b:0c:0d:0e:0f:10:11:12:13"));
    EXPECT_THAT(values["qel.query_23.items"], ElementsAre("item one", "item two"));
    EXPECT_THAT(values["qel.query_23.count"], ElementsAre("2"));
    EXPECT_THAT(values["qel.reply_24.text"], ElementsAre("the answer"));
    EXPECT_THAT(values["qel.path_exists.path"], ElementsAre("/plugins/3", "/sent/file"));
    EXPECT_THAT(values["qel.reply_path_exists.exists"], ElementsAre("0", "1"));
    EXPECT_THAT(values["qel.post_32.value"], ElementsAre("45"));
    EXPECT_THAT(values["qel.info.c"], ElementsAre("23"));
    EXPECT_THAT(values["qel.get_item_size.value2"], ElementsAre("32"));
    EXPECT_THAT(values["qel.item_size.item_size"], ElementsAre("5"));
    EXPECT_THAT(values["qel.reply_42.second"], ElementsAre("5000000000"));
    EXPECT_THAT(values["qel.plugin_size.plugin_size"], ElementsAre("3"));
    EXPECT_THAT(values["qel.text.text"], ElementsAre("a text"));
    EXPECT_THAT(values["qel.decipher.block"], ElementsAre("c0:ff:ee"));
}

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
