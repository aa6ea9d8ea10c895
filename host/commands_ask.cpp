// The commands that are tables of messages: query and post.

#include "commands.h"

#include <stdio.h>
#include <string.h>

#include <algorithm>

#include "arguments.h"
#include "describe.h"
#include "errors.h"
#include "qel_utility/qel_filesystem/paths.h"

namespace
{

using Words = std::vector<std::string>;

/// A message and how it is sent: `run` returns 0 when the other end did not answer or confirm.
struct Entry {
    const char *name;
    const char *arguments; ///< for the usage line
    size_t words_min;
    size_t words_max;
    int (*run)(Link &link, const Words &words);
};

const size_t record_bytes = 20;
const int plugin_max = 100000;
const uint32_t text_answer_bytes_max = 528;

// ---- Queries: they print the answer ----

int query_plugins(Link &link, const Words &)
{
    std::vector<uint32_t> plugins(plugin_max);
    uint32_t count = 0;
    link.reply_type = qel_sysmsg_type_plugins;
    link.reply_bytes_max = 16 + 4 * plugin_max;
    if (qel_sysmsg_get_plugins(link.con, plugins.data(), plugin_max, &count) == 0)
        return 0;
    for (uint32_t i = 0; i < count; i++)
        printf("%u\n", plugins[i]);
    return 1;
}

int query_path_exists(Link &link, const Words &words)
{
    uint32_t exists = 0;
    if (qel_path_is_absolute(words[0].c_str()) == 0)
        wrong_call(quoted(words[0]) +
                   " is no absolute path: it must begin with /, not end in it, and have no "
                   "// nor any of \\ : * ? \" < > | in it");
    if (qel_sysmsg_tolbrin_path_exists(link.con, words[0].c_str(), &exists) == 0)
        return 0;
    printf("%u\n", exists);
    return 1;
}

int query_info(Link &link, const Words &)
{
    qel_sysmsg_info info = {};
    if (qel_sysmsg_get_info(link.con, &info) == 0)
        return 0;
    printf("%u %u %u\n", info.a, info.b, info.c);
    return 1;
}

int query_item_size(Link &link, const Words &words)
{
    uint64_t size = 0;
    const char *name = words.size() > 2 ? words[2].c_str() : nullptr;
    if (qel_sysmsg_get_item_size(link.con, to_value(words[0]), name, to_value(words[1]), &size) == 0)
        return 0;
    printf("%llu\n", static_cast<unsigned long long>(size));
    return 1;
}

int query_plugin_size(Link &link, const Words &words)
{
    uint64_t size = 0;
    uint32_t plugin = to_value(words[0]);
    if (plugin == 0)
        wrong_call("plugin ids begin with 1");
    if (qel_sysmsg_get_plugin_size(link.con, plugin, &size) == 0)
        return 0;
    printf("%llu\n", static_cast<unsigned long long>(size));
    return 1;
}

int query_text(Link &link, const Words &)
{
    link.reply_type = qel_sysmsg_type_text;
    link.reply_bytes_max = text_answer_bytes_max;
    const char *text = qel_sysmsg_get_text(link.con);
    if (text == nullptr)
        return 0;
    printf("%s\n", quoted(std::string(text)).c_str());
    return 1;
}

int query_41(Link &link, const Words &)
{
    uint64_t first = 0, second = 0;
    if (qel_sysmsg_query_41(link.con, &first, &second) == 0)
        return 0;
    printf("%llu %llu\n", static_cast<unsigned long long>(first), static_cast<unsigned long long>(second));
    return 1;
}

int query_23(Link &link, const Words &words)
{
    const size_t text_bytes = 100;
    std::vector<const char *> items;
    for (size_t i = 1; i < words.size(); i++)
        items.push_back(words[i].c_str());
    const char *text = nullptr;
    if (qel_sysmsg_query_23(link.con, words[0].c_str(), items.data(), static_cast<uint32_t>(items.size()),
                            &text) == 0)
        return 0;
    printf("%s\n", quoted(std::string(text, strnlen(text, text_bytes))).c_str());
    return 1;
}

int query_decipher(Link &link, const Words &words)
{
    std::vector<uint8_t> cipher = to_bytes(words[0]);
    const void *plain = nullptr;
    uint32_t length = 0;
    link.reply_type = qel_sysmsg_type_plain;
    link.reply_bytes_max = static_cast<uint32_t>(cipher.size()) + 16;
    if (qel_sysmsg_decipher(link.con, cipher.data(), static_cast<int>(cipher.size()), &plain, &length) == 0)
        return 0;
    for (uint32_t i = 0; i < length; i++)
        printf("%02x", static_cast<const uint8_t *>(plain)[i]);
    printf("\n");
    return 1;
}

const Entry queries[] = {
    {"plugins", "", 0, 0, query_plugins},
    {"path-exists", "PATH", 1, 1, query_path_exists},
    {"info", "", 0, 0, query_info},
    {"item-size", "VALUE VALUE2 [NAME]", 2, 3, query_item_size},
    {"plugin-size", "ID", 1, 1, query_plugin_size},
    {"text", "", 0, 0, query_text},
    {"41", "", 0, 0, query_41},
    {"23", "NAME [ITEM, up to 10]", 1, 11, query_23},
    {"decipher", "BYTES as hexadecimal digits", 1, 1, query_decipher},
};

// ---- Posts ----

/// An unsequenced message has nothing to fail.
template <typename... Arguments>
int sent(void (*send)(qel_sysmsg_con *, Arguments...), Link &link, Arguments... arguments)
{
    send(link.con, arguments...);
    return 1;
}

const Entry posts[] = {
    {"transfer_begin", "VALUE", 1, 1,
     [](Link &link, const Words &words) { return qel_sysmsg_transfer_begin(link.con, to_value(words[0])); }},
    {"transfer_data", "FILE", 1, 1,
     [](Link &link, const Words &words) {
         std::vector<uint8_t> block = file_content(words[0]);
         return qel_sysmsg_transfer_data(link.con, block.data(), static_cast<int>(block.size()));
     }},
    {"transfer_end", "", 0, 0, [](Link &link, const Words &) { return qel_sysmsg_transfer_end(link.con); }},
    {"connect", "VALUE", 1, 1,
     [](Link &link, const Words &words) { return sent(qel_sysmsg_connect, link, to_value(words[0])); }},
    {"notify_11", "", 0, 0, [](Link &link, const Words &) { return sent(qel_sysmsg_notify_11, link); }},
    {"notify_12", "", 0, 0, [](Link &link, const Words &) { return sent(qel_sysmsg_notify_12, link); }},
    {"post_18", "NAME", 1, 1,
     [](Link &link, const Words &words) { return qel_sysmsg_post_18(link.con, words[0].c_str()); }},
    {"post_19", "NAME VALUE RECORD", 3, 3,
     [](Link &link, const Words &words) {
         return qel_sysmsg_post_19(link.con, words[0].c_str(), to_value(words[1]),
                                   to_record(words[2], record_bytes).data());
     }},
    {"post_20", "NAME", 1, 1,
     [](Link &link, const Words &words) { return qel_sysmsg_post_20(link.con, words[0].c_str()); }},
    {"post_21", "VALUE", 1, 1,
     [](Link &link, const Words &words) { return qel_sysmsg_post_21(link.con, to_value(words[0])); }},
    {"post_22", "", 0, 0, [](Link &link, const Words &) { return qel_sysmsg_post_22(link.con); }},
    {"notify_26", "", 0, 0, [](Link &link, const Words &) { return sent(qel_sysmsg_notify_26, link); }},
    {"notify_27", "RECORD", 1, 1,
     [](Link &link, const Words &words) {
         std::vector<uint8_t> record = to_record(words[0], record_bytes);
         return sent<const void *>(qel_sysmsg_notify_27, link, record.data());
     }},
    {"notify_30", "VALUE", 1, 1,
     [](Link &link, const Words &words) { return sent(qel_sysmsg_notify_30, link, to_value(words[0])); }},
    {"notify_31", "", 0, 0, [](Link &link, const Words &) { return sent(qel_sysmsg_notify_31, link); }},
    {"post_32", "NAME VALUE", 2, 2,
     [](Link &link, const Words &words) {
         return qel_sysmsg_post_32(link.con, words[0].c_str(), to_value(words[1]));
     }},
    {"post_33", "NAME", 1, 1,
     [](Link &link, const Words &words) { return qel_sysmsg_post_33(link.con, words[0].c_str()); }},
    {"post_34", "", 0, 0, [](Link &link, const Words &) { return qel_sysmsg_post_34(link.con); }},
    {"post_45", "VALUE", 1, 1,
     [](Link &link, const Words &words) { return qel_sysmsg_post_45(link.con, to_value(words[0])); }},
};

// ---- Both ----

const Entry &find_entry(std::span<const Entry> entries, const std::string &name, const Words &words)
{
    auto entry = std::find_if(entries.begin(), entries.end(), [&](const Entry &e) { return name == e.name; });
    if (entry == entries.end())
        wrong_call("there is no \"" + name + "\" to send");
    if (words.size() < entry->words_min || words.size() > entry->words_max)
        wrong_call(name + " takes " + (entry->words_max == 0 ? "no arguments" : entry->arguments));
    return *entry;
}

std::string list_of(std::span<const Entry> entries)
{
    std::string lines;
    for (const Entry &entry : entries)
        lines += std::string("  ") + entry.name + (entry.words_max == 0 ? "" : " ") + entry.arguments + "\n";
    return lines;
}

} // namespace

int command_query(Link &link, const QueryOptions &options)
{
    const Entry &entry = find_entry(queries, options.what, options.arguments);
    for (int i = 0; i < options.tries; i++) {
        if (entry.run(link, options.arguments) != 0)
            return exit_done;
    }
    throw LinkError("no answer to " + options.what +
                    ", or an empty one; is the other end there, and does it know this query?");
}

void check_query(const QueryOptions &options)
{
    find_entry(queries, options.what, options.arguments);
}

std::string query_list()
{
    return list_of(queries);
}

int command_post(Link &link, const PostOptions &options)
{
    const Entry &entry = find_entry(posts, options.message, options.arguments);
    if (entry.run(link, options.arguments) == 0)
        throw LinkError(options.message + " was not confirmed; is the other end there?");
    return exit_done;
}

void check_post(const PostOptions &options)
{
    find_entry(posts, options.message, options.arguments);
}

std::string post_list()
{
    return list_of(posts);
}
