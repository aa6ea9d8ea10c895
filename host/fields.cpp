// Every function that looks into a message goes through the catalogue's offsets. Layout of the rest of a
// message: a 32-bit number at the field's offset, then what it counts.

#include "fields.h"

#include <stdio.h>

#include <algorithm>

#include "qel_tolbrin/qel_sysmsg.h"

namespace
{

using Texts = std::vector<std::string>;
using Numbers = std::vector<uint64_t>;
using enum FieldKind;

uint32_t get32(Bytes bytes, size_t offset)
{
    return qel_sysmsg_get32(&bytes[offset], 0);
}

std::string text_in(Bytes characters)
{
    return {characters.begin(), std::find(characters.begin(), characters.end(), uint8_t{0})};
}

Texts texts_in(Bytes message, const CatalogueField &field)
{
    size_t count_offset = (size_t{field.offset} + field.size + 3) / 4 * 4;
    Texts texts;
    for (size_t i = 0; i < std::min(get32(message, count_offset), texts_max); ++i)
        texts.push_back(text_in(message.subspan(field.offset + i * text_bytes, text_bytes)));
    return texts;
}

Numbers words_in(Bytes bytes)
{
    Numbers words;
    for (size_t i = 0; i + 4 <= bytes.size(); i += 4)
        words.push_back(get32(bytes, i));
    return words;
}

// ---- Building ----

void put32(Message &message, size_t offset, uint64_t value)
{
    qel_sysmsg_put32(&message[offset], 0, static_cast<uint32_t>(value));
}

void put_bytes(Message &message, size_t offset, const std::string &bytes)
{
    std::ranges::copy(bytes, message.begin() + static_cast<ptrdiff_t>(offset));
}

/// What follows the number of a message's rest.
std::string rest_bytes(const CatalogueField &field, const FieldValue &value)
{
    if (field.kind == text_block)
        return std::get<std::string>(value) + '\0';
    if (field.kind == block)
        return std::get<std::string>(value);
    std::string bytes;
    for (uint64_t word : std::get<Numbers>(value))
        for (int shift = 0; shift < 32; shift += 8)
            bytes += static_cast<char>(word >> shift);
    return bytes;
}

void put_field(Message &message, const CatalogueField &field, const FieldValue &value)
{
    if (field.kind == value8)
        message[field.offset] = static_cast<uint8_t>(std::get<uint64_t>(value));
    else if (field.kind == value32)
        put32(message, field.offset, std::get<uint64_t>(value));
    else if (field.kind == value64)
        qel_sysmsg_put64(&message[field.offset], 0, std::get<uint64_t>(value));
    else if (field.kind == texts)
        for (size_t i = 0; i < std::get<Texts>(value).size(); ++i)
            put_bytes(message, field.offset + i * text_bytes, std::get<Texts>(value)[i]);
    else
        put_bytes(message, field.offset, std::get<std::string>(value));
}

void put_rest(Message &message, const CatalogueField &field, const std::string &bytes)
{
    message.resize(size_t{field.offset} + field.size + bytes.size());
    put32(message, field.offset, field.kind == ids ? bytes.size() / 4 : bytes.size());
    put_bytes(message, size_t{field.offset} + field.size, bytes);
}

/// The texts counted by the field `count`, which stands behind them.
uint64_t count_of(const FieldValues &values)
{
    for (const auto &[name, value] : values)
        if (std::holds_alternative<Texts>(value))
            return std::get<Texts>(value).size();
    return 0;
}

Message with_head(uint32_t type, size_t size)
{
    Message message(size);
    put32(message, 0, type);
    put32(message, 4, size);
    return message;
}

// ---- Showing ----

std::string describe_counters(const Numbers &counters)
{
    size_t in_order = 1;
    while (in_order < counters.size() && counters[in_order] == counters[0] + in_order)
        ++in_order;
    if (counters.empty())
        return "0 values";
    return std::to_string(counters.size()) + " values " + std::to_string(counters.front()) + ".." +
           std::to_string(counters.back()) +
           (in_order == counters.size() ? ""
                                        : ", out of order from the " + std::to_string(in_order + 1) + ". on");
}

template <typename List, typename Show> std::string bracketed(const List &list, Show show)
{
    std::string result;
    for (const auto &one : list)
        result += (result.empty() ? "" : ",") + show(one);
    return "[" + result + "]";
}

std::string describe_value(const CatalogueField &field, const FieldValue &value)
{
    if (std::holds_alternative<uint64_t>(value))
        return std::to_string(std::get<uint64_t>(value));
    if (field.kind == counters)
        return describe_counters(std::get<Numbers>(value));
    if (field.kind == ids)
        return bracketed(std::get<Numbers>(value), [](uint64_t id) { return std::to_string(id); });
    if (field.kind == texts)
        return bracketed(std::get<Texts>(value), in_quotes);
    const std::string &bytes = std::get<std::string>(value);
    if (field.kind == block || field.kind == record)
        return hex_bytes({reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size()});
    return in_quotes(bytes);
}

std::string body_of(Bytes message)
{
    size_t offset = message.size() < 8 ? 0 : body_offset(type_of(message));
    Bytes body = message.subspan(std::min(offset, message.size()));
    return {body.begin(), body.end()};
}

/// The catalogue's entry when it describes the message, else null.
const CatalogueMessage *fitting(Bytes message)
{
    if (message.size() < 8 || !broken_rule(message).empty() || !misfit(message).empty())
        return nullptr;
    const CatalogueMessage *known = catalogue_find(type_of(message));
    return known != nullptr && is_assigned(*known) ? known : nullptr;
}

} // namespace

uint32_t type_of(Bytes message)
{
    return get32(message, 0);
}

uint8_t number_of(Bytes message)
{
    return message.size() > 8 && qel_sysmsg_has_sequence(type_of(message)) ? message[8] : uint8_t{0};
}

FieldValue field_value(Bytes message, const CatalogueField &field)
{
    Bytes bytes = message.subspan(field.offset, field.size);
    Bytes rest = message.subspan(size_t{field.offset} + field.size);
    switch (field.kind) {
    case value8:
        return uint64_t{bytes[0]};
    case value32:
    case count:
        return uint64_t{get32(bytes, 0)};
    case value64:
        return qel_sysmsg_get64(bytes.data(), 0);
    case text:
    case characters:
        return text_in(bytes);
    case texts:
        return texts_in(message, field);
    case record:
        return std::string(bytes.begin(), bytes.end());
    case block:
        return std::string(rest.begin(), rest.end());
    case text_block:
        return text_in(rest);
    case counters:
    case ids:
        return words_in(rest);
    }
    return uint64_t{0};
}

FieldValues fields_of(Bytes message)
{
    FieldValues values;
    if (const CatalogueMessage *known = fitting(message))
        for (const CatalogueField &field : known->fields)
            values[field.name] = field_value(message, field);
    return values;
}

uint32_t text_max(const CatalogueMessage &message, const CatalogueField &field)
{
    if (field.kind == text_block)
        return (message.size_max == 0 ? 0x7FFFFFFF : message.size_max) - field.offset - field.size - 1;
    if (field.kind == texts)
        return text_bytes - 1;
    return field.kind == characters ? field.size : field.size - 1;
}

Message build_message(uint32_t type, const FieldValues &values)
{
    const CatalogueMessage &known = *catalogue_find(type);
    Message message = with_head(type, std::max<size_t>(known.size, body_offset(type)));
    for (const CatalogueField &field : known.fields) {
        auto given = values.find(field.name);
        if (field.kind == count)
            put32(message, field.offset, count_of(values));
        else if (given == values.end() && is_rest(field))
            put_rest(message, field, "");
        else if (given != values.end() && is_rest(field))
            put_rest(message, field, rest_bytes(field, given->second));
        else if (given != values.end())
            put_field(message, field, given->second);
    }
    put32(message, 4, message.size());
    return message;
}

Message build_raw(uint32_t type, const std::string &body)
{
    Message message = with_head(type, body_offset(type) + body.size());
    put_bytes(message, body_offset(type), body);
    return message;
}

Json message_json(Bytes message)
{
    if (message.size() < 8)
        return {{"type", nullptr},
                {"name", nullptr},
                {"number", nullptr},
                {"size", message.size()},
                {"fields", {{"body", hex(body_of(message))}}}};
    uint32_t type = type_of(message);
    const CatalogueMessage *known = catalogue_find(type), *fits = fitting(message);
    Json fields = Json::object();
    if (fits == nullptr)
        fields["body"] = hex(body_of(message));
    else
        for (const CatalogueField &field : fits->fields) {
            FieldValue value = field_value(message, field);
            bool is_binary = field.kind == block || field.kind == record;
            std::visit([&](const auto &v) { fields[field.name] = v; }, value);
            if (is_binary)
                fields[field.name] = hex(std::get<std::string>(value));
        }
    return {{"type", type},
            {"name", known != nullptr && is_assigned(*known) ? Json(known->name) : Json()},
            {"number", number_of(message) == 0 ? Json() : Json(number_of(message))},
            {"size", message.size()},
            {"fields", fields}};
}

std::string describe_message(Bytes message)
{
    std::string problem = broken_rule(message);
    if (message.size() < 8)
        return "broken message: " + problem + ": " + hex_bytes(message);
    std::string line = catalogue_name(type_of(message));
    if (qel_sysmsg_has_sequence(type_of(message)) && message.size() > 8)
        line += " number " + std::to_string(message[8]);
    line += ", " + std::to_string(message.size()) + " bytes";
    if (!problem.empty())
        return line + ": BROKEN: " + problem;
    const CatalogueMessage *known = fitting(message);
    if (known == nullptr) {
        line += ": body=" + hex_bytes(message.subspan(body_offset(type_of(message))));
        return misfit(message).empty() ? line : line + ": DOES NOT FIT: " + misfit(message);
    }
    const char *separator = ": ";
    for (const CatalogueField &field : known->fields) {
        line += separator + (field.name + ("=" + describe_value(field, field_value(message, field))));
        separator = " ";
    }
    return line;
}

std::string in_quotes(const std::string &characters)
{
    std::string result = "\"";
    for (char character : characters) {
        char escaped[8];
        if (character == '"' || character == '\\')
            snprintf(escaped, sizeof escaped, "\\%c", character);
        else if (character < 32 || character > 126)
            snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<uint8_t>(character));
        else
            snprintf(escaped, sizeof escaped, "%c", character);
        result += escaped;
    }
    return result + "\"";
}

std::string hex(const std::string &bytes)
{
    const char digits[] = "0123456789abcdef";
    std::string result;
    result.reserve(bytes.size() * 2);
    for (char byte : bytes) {
        result += digits[static_cast<uint8_t>(byte) >> 4];
        result += digits[static_cast<uint8_t>(byte) & 15];
    }
    return result;
}

std::string hex_bytes(Bytes bytes, size_t shown)
{
    std::string result = std::to_string(bytes.size()) + " bytes";
    for (uint8_t byte : bytes.first(std::min(bytes.size(), shown))) {
        char digits[8];
        snprintf(digits, sizeof digits, " %02x", byte);
        result += digits;
    }
    return bytes.size() > shown ? result + " ..." : result;
}
