// Messages as text and as JSON, field by field as the catalogue has them.

#include "fields.h"

#include <stdio.h>

#include <algorithm>

#include "qel_tolbrin/qel_sysmsg.h"

namespace
{

using enum FieldKind;

std::string describe_counters(const std::vector<uint64_t> &counters)
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
        return describe_counters(std::get<std::vector<uint64_t>>(value));
    if (field.kind == ids)
        return bracketed(std::get<std::vector<uint64_t>>(value),
                         [](uint64_t id) { return std::to_string(id); });
    if (field.kind == texts)
        return bracketed(std::get<std::vector<std::string>>(value), in_quotes);
    const std::string &bytes = std::get<std::string>(value);
    if (field.kind == block || field.kind == record)
        return hex_bytes({reinterpret_cast<const uint8_t *>(bytes.data()), bytes.size()});
    return in_quotes(bytes);
}

std::string body_of(ByteView message)
{
    size_t offset = message.size() < 8 ? 0 : body_offset(type_of(message));
    ByteView body = message.subspan(std::min(offset, message.size()));
    return {body.begin(), body.end()};
}

} // namespace

Json message_json(ByteView message)
{
    if (message.size() < 8)
        return {{"type", nullptr},
                {"name", nullptr},
                {"number", nullptr},
                {"size", message.size()},
                {"fields", {{"body", hex_digits(body_of(message))}}}};
    uint32_t type = type_of(message);
    const CatalogueMessage *known = catalogue_find(type), *fits = fitting(message);
    Json fields = Json::object();
    if (fits == nullptr)
        fields["body"] = hex_digits(body_of(message));
    else
        for (const CatalogueField &field : fits->fields) {
            FieldValue value = field_value(message, field);
            bool is_binary = field.kind == block || field.kind == record;
            std::visit([&](const auto &v) { fields[field.name] = v; }, value);
            if (is_binary)
                fields[field.name] = hex_digits(std::get<std::string>(value));
        }
    return {{"type", type},
            {"name", known != nullptr && is_assigned(*known) ? Json(known->name) : Json()},
            {"number", number_of(message) == 0 ? Json() : Json(number_of(message))},
            {"size", message.size()},
            {"fields", fields}};
}

std::string describe_message(ByteView message)
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

std::string hex_digits(const std::string &bytes)
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

std::string hex_bytes(ByteView bytes, size_t shown)
{
    std::string result = std::to_string(bytes.size()) + " bytes";
    for (uint8_t byte : bytes.first(std::min(bytes.size(), shown))) {
        char digits[8];
        snprintf(digits, sizeof digits, " %02x", byte);
        result += digits;
    }
    return bytes.size() > shown ? result + " ..." : result;
}
