// The catalogue's table, and what follows from it alone.

#include "catalogue.h"

#include <algorithm>

#include "qel_tolbrin/qel_sysmsg.h"

namespace
{

using enum FieldKind;

enum : uint32_t { header_bytes = 8, sequence_offset = 8, sequenced_bytes_min = 12 };
enum : uint32_t { text_max = 528 };

const CatalogueField value_at_8[] = {{"value", 8, 4, value32}};
const CatalogueField value_at_12[] = {{"value", 12, 4, value32}};
const CatalogueField block_at_8[] = {{"block", 8, 4, block}};
const CatalogueField block_at_12[] = {{"block", 12, 4, block}};
const CatalogueField name_at_9[] = {{"name", 9, 100, text}};
const CatalogueField short_name_at_9[] = {{"name", 9, 31, text}};
const CatalogueField path_at_9[] = {{"path", 9, 100, text}};

const CatalogueField file_begin[] = {{"path", 12, 4, text_block}};
const CatalogueField plugins[] = {{"plugins", 12, 4, ids}};
const CatalogueField confirmed[] = {{"sequence", 8, 1, value8}};
const CatalogueField counters_at_8[] = {{"counters", 8, 4, counters}};
const CatalogueField counters_at_12[] = {{"counters", 12, 4, counters}};
const CatalogueField post_19[] = {
    {"name", 9, 100, text}, {"value", 112, 4, value32}, {"record", 116, 20, record}};
const CatalogueField query_23[] = {
    {"name", 9, 100, text}, {"items", 109, 1000, texts}, {"count", 1112, 4, count}};
const CatalogueField reply_24[] = {{"text", 9, 100, characters}};
const CatalogueField notify_27[] = {{"record", 9, 20, record}};
const CatalogueField exists[] = {{"exists", 12, 4, value32}};
const CatalogueField post_32[] = {{"name", 9, 31, text}, {"value", 40, 4, value32}};
const CatalogueField info[] = {{"a", 12, 4, value32}, {"b", 16, 4, value32}, {"c", 20, 4, value32}};
const CatalogueField get_item_size[] = {
    {"value", 12, 4, value32}, {"name", 16, 31, text}, {"value2", 48, 4, value32}};
const CatalogueField item_size[] = {{"value", 12, 4, value32},
                                    {"name", 16, 31, text},
                                    {"value2", 48, 4, value32},
                                    {"item_size", 56, 8, value64}};
const CatalogueField reply_42[] = {{"first", 16, 8, value64}, {"second", 24, 8, value64}};
const CatalogueField get_plugin_size[] = {{"plugin_id", 12, 4, value32}};
const CatalogueField plugin_size[] = {{"plugin_id", 12, 4, value32}, {"plugin_size", 16, 8, value64}};
const CatalogueField reply_text[] = {{"text", 12, 4, text_block}};

const CatalogueMessage messages[] = {
    {0, "unassigned_0", 0, 0, 0, {}},
    {1, "transfer_begin", 16, 0, 0, value_at_12},
    {2, "transfer_data", 0, 0, 0, block_at_12},
    {3, "transfer_end", 12, 0, 0, {}},
    {4, "unassigned_4", 0, 0, 0, {}},
    {5, "connect", 12, 0, 38, value_at_8},
    {6, "unassigned_6", 0, 0, 0, {}},
    {7, "file_begin", 0, 0, 0, file_begin},
    {8, "file_data", 0, 0, 0, block_at_12},
    {9, "file_end", 12, 0, 0, {}},
    {10, "updater", 0, 0, 0, block_at_8},
    {11, "notify_11", 8, 0, 0, {}},
    {12, "notify_12", 8, 0, 0, {}},
    {13, "get_plugins", 12, 0, 14, {}},
    {14, "plugins", 0, 0, 0, plugins},
    {15, "confirmed", 12, 0, 0, confirmed},
    {16, "test_pattern", 3120, 0, 0, counters_at_8},
    {17, "test_pattern_sequenced", 3124, 0, 0, counters_at_12},
    {18, "post_18", 136, 0, 0, name_at_9},
    {19, "post_19", 136, 0, 0, post_19},
    {20, "post_20", 136, 0, 0, name_at_9},
    {21, "post_21", 16, 0, 0, value_at_12},
    {22, "post_22", 12, 0, 0, {}},
    {23, "query_23", 1116, 0, 24, query_23},
    {24, "reply_24", 112, 0, 0, reply_24},
    {25, "unassigned_25", 0, 0, 0, {}},
    {26, "notify_26", 32, 0, 0, {}},
    {27, "notify_27", 32, 0, 0, notify_27},
    {28, "path_exists", 112, 0, 29, path_at_9},
    {29, "reply_path_exists", 16, 0, 0, exists},
    {30, "notify_30", 12, 0, 0, value_at_8},
    {31, "notify_31", 8, 0, 0, {}},
    {32, "post_32", 44, 0, 0, post_32},
    {33, "post_33", 40, 0, 0, short_name_at_9},
    {34, "post_34", 12, 0, 0, {}},
    {35, "unassigned_35", 0, 0, 0, {}},
    {36, "get_info", 12, 0, 37, {}},
    {37, "info", 24, 0, 0, info},
    {38, "connect_answer", 12, 0, 0, value_at_8},
    {39, "get_item_size", 64, 0, 40, get_item_size},
    {40, "item_size", 64, 0, 0, item_size},
    {41, "query_41", 12, 0, 42, {}},
    {42, "reply_42", 32, 0, 0, reply_42},
    {43, "get_plugin_size", 24, 0, 44, get_plugin_size},
    {44, "plugin_size", 24, 0, 0, plugin_size},
    {45, "post_45", 24, 0, 0, value_at_12},
    {46, "get_text", 12, 0, 47, {}},
    {47, "text", 0, text_max, 0, reply_text},
    {48, "decipher", 0, 0, 49, block_at_12},
    {49, "plain", 0, 0, 0, block_at_12},
};

const char *const kind_names[] = {"value8", "value32", "value64", "text",       "characters", "texts",
                                  "count",  "record",  "block",   "text_block", "counters",   "ids"};

std::string number(uint64_t value)
{
    return std::to_string(value);
}

/// Checks the number in front of the message's rest against the message's size.
std::string misfit_of_rest(ByteView message, const CatalogueField &rest)
{
    size_t head = rest.offset + rest.size;
    if (message.size() < head)
        return number(message.size()) + " bytes, too short for the length of its " + rest.name;
    uint64_t length = qel_sysmsg_get32(message.data(), static_cast<int>(rest.offset));
    uint64_t bytes = rest.kind == ids ? length * 4 : length;
    if (bytes != message.size() - head)
        return std::string("the length of its ") + rest.name + " says " + number(bytes) +
               " bytes, there are " + number(message.size() - head);
    return "";
}

} // namespace

std::span<const CatalogueMessage> catalogue()
{
    return messages;
}

const CatalogueMessage *catalogue_find(uint32_t type)
{
    return type < std::size(messages) ? &messages[type] : nullptr;
}

const CatalogueMessage *catalogue_find(const std::string &name)
{
    auto found = std::ranges::find(messages, name, &CatalogueMessage::name);
    return found == std::end(messages) ? nullptr : found;
}

bool is_assigned(const CatalogueMessage &message)
{
    return message.size != 0 || !message.fields.empty();
}

std::string catalogue_name(uint32_t type)
{
    const CatalogueMessage *message = catalogue_find(type);
    return message == nullptr ? "type " + number(type)
                              : std::string(message->name) + " (" + number(type) + ")";
}

const char *kind_name(FieldKind kind)
{
    return kind_names[static_cast<int>(kind)];
}

bool is_rest(const CatalogueField &field)
{
    return field.kind >= block;
}

uint32_t body_offset(uint32_t type)
{
    return qel_sysmsg_has_sequence(type) ? sequenced_bytes_min : header_bytes;
}

std::string broken_rule(ByteView message)
{
    if (message.size() < header_bytes)
        return number(message.size()) + " bytes, shorter than a header";
    uint32_t type = qel_sysmsg_get32(message.data(), 0);
    uint32_t size = qel_sysmsg_get32(message.data(), 4);
    if (size != message.size())
        return "it says that it has " + number(size) + " bytes, there are " + number(message.size());
    if (qel_sysmsg_has_sequence(type) && size < sequenced_bytes_min)
        return number(size) + " bytes, too short for a number";
    if (qel_sysmsg_has_sequence(type) && message[sequence_offset] == 0)
        return "its number is 0";
    return "";
}

std::string misfit(ByteView message)
{
    const CatalogueMessage *known = catalogue_find(qel_sysmsg_get32(message.data(), 0));
    if (known == nullptr || !is_assigned(*known))
        return "";
    if (known->size != 0 && known->size != message.size())
        return number(message.size()) + " bytes instead of " + number(known->size);
    if (known->size_max != 0 && message.size() > known->size_max)
        return number(message.size()) + " bytes, more than " + number(known->size_max);
    const CatalogueField *last = known->fields.empty() ? nullptr : &known->fields.back();
    return last == nullptr || !is_rest(*last) ? "" : misfit_of_rest(message, *last);
}

// ---- Printing ----

std::string catalogue_as_lua()
{
    std::string lua = "local catalogue = {\n";
    for (const CatalogueMessage &message : messages) {
        lua += "    [" + number(message.type) + "] = \"" + message.name +
               (qel_sysmsg_has_sequence(message.type) ? " sequenced " : " - ") + number(message.size) + " " +
               number(message.size_max);
        for (const CatalogueField &field : message.fields)
            lua += std::string(" ") + field.name + ":" + kind_name(field.kind) + ":" + number(field.offset) +
                   ":" + number(field.size);
        lua += "\",\n";
    }
    return lua + "}\n";
}

std::string catalogue_as_text()
{
    std::string lines;
    for (const CatalogueMessage &message : messages) {
        char head[80];
        snprintf(head, sizeof head, "%2u %-23s %-10s %5s ", message.type, message.name,
                 qel_sysmsg_has_sequence(message.type) ? "sequenced" : "-",
                 message.size == 0 ? "-" : number(message.size).c_str());
        lines += head;
        for (const CatalogueField &field : message.fields)
            lines += std::string(" ") + field.name + "[" + kind_name(field.kind) + ", " + number(field.size) +
                     " at " + number(field.offset) + "]";
        lines += "\n";
    }
    return lines;
}

namespace
{

/// "name: text 100 at 9".
std::string field_text(const CatalogueField &field)
{
    bool has_size = field.kind == text || field.kind == characters || field.kind == record;
    return std::string(field.name) + ": " + kind_name(field.kind) +
           (has_size ? " " + number(field.size) : "") + " at " + number(field.offset);
}

/// "16 + 4n", where n counts the rest's bytes or, of ids, its numbers.
std::string size_text(const CatalogueMessage &message)
{
    if (message.size != 0)
        return number(message.size);
    const CatalogueField &rest = message.fields.back();
    return (rest.kind == ids ? "4n + " : "n + ") + number(rest.offset + rest.size);
}

} // namespace

std::string catalogue_as_markdown()
{
    std::string rows;
    for (const CatalogueMessage &message : messages) {
        if (!is_assigned(message))
            continue;
        std::string fields;
        for (const CatalogueField &field : message.fields)
            fields += (fields.empty() ? " " : ", ") + field_text(field);
        rows += "| " + number(message.type) + " | " + message.name + " | " + size_text(message) + " |" +
                fields + " | " + (message.answer == 0 ? "" : number(message.answer) + " ") + "|\n";
    }
    return rows;
}
