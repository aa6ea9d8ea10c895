// Turns messages into lines of text, field by field as the catalogue has them.

#include "describe.h"

#include <inttypes.h>
#include <stdio.h>

#include <algorithm>

#include "catalogue.h"
#include "qel_tolbrin/qel_sysmsg.h"

namespace
{

const size_t items_max = 10;
const size_t item_bytes = 100;

std::span<const uint8_t> up_to_nul(std::span<const uint8_t> characters)
{
    auto nul = std::find(characters.begin(), characters.end(), uint8_t{0});
    return characters.first(static_cast<size_t>(nul - characters.begin()));
}

uint32_t get32(std::span<const uint8_t> bytes, size_t offset)
{
    return qel_sysmsg_get32(&bytes[offset], 0);
}

/// The texts that count, as a list.
std::string describe_items(std::span<const uint8_t> message, const CatalogueField &field)
{
    size_t count_offset = (size_t{field.offset} + field.size + 3) / 4 * 4;
    size_t count = std::min<size_t>(get32(message, count_offset), items_max);
    std::string list;
    for (size_t i = 0; i < count; i++)
        list += (i == 0 ? "" : ",") +
                quoted(up_to_nul(message.subspan(field.offset + i * item_bytes, item_bytes)));
    return "[" + list + "]";
}

std::string describe_counters(std::span<const uint8_t> bytes)
{
    size_t count = bytes.size() / 4;
    if (count == 0)
        return hex_bytes(bytes);
    uint32_t first = get32(bytes, 0);
    size_t in_order = 1;
    while (in_order < count && get32(bytes, in_order * 4) == first + in_order)
        in_order++;
    std::string range = std::to_string(first) + ".." + std::to_string(get32(bytes, (count - 1) * 4));
    return std::to_string(count) + " values " + range +
           (in_order == count ? "" : ", out of order from the " + std::to_string(in_order + 1) + ". on");
}

std::string describe_ids(std::span<const uint8_t> bytes)
{
    std::string list;
    for (size_t i = 0; i + 4 <= bytes.size(); i += 4)
        list += (i == 0 ? "" : ",") + std::to_string(get32(bytes, i));
    return "[" + list + "]";
}

/// The message has passed the catalogue's check, so the field lies inside it.
std::string describe_field(std::span<const uint8_t> message, const CatalogueField &field)
{
    auto bytes = message.subspan(field.offset, field.size);
    auto rest = message.subspan(size_t{field.offset} + field.size);
    switch (field.kind) {
    case FieldKind::value8:
        return std::to_string(bytes[0]);
    case FieldKind::value32:
        return std::to_string(get32(bytes, 0));
    case FieldKind::value64:
        return std::to_string(qel_sysmsg_get64(bytes.data(), 0));
    case FieldKind::text:
        return quoted(up_to_nul(bytes));
    case FieldKind::texts:
        return describe_items(message, field);
    case FieldKind::record:
        return hex_bytes(bytes);
    case FieldKind::block:
        return hex_bytes(rest);
    case FieldKind::text_block:
        return quoted(up_to_nul(rest));
    case FieldKind::counters:
        return describe_counters(rest);
    case FieldKind::ids:
        return describe_ids(rest);
    }
    return "";
}

} // namespace

std::string describe_message(std::span<const uint8_t> message)
{
    std::string problem = catalogue_check(message);
    if (message.size() < 8)
        return "broken message: " + problem + ": " + hex_bytes(message);
    uint32_t type = get32(message, 0);
    std::string line = catalogue_name(type);
    if (qel_sysmsg_has_sequence(type) && message.size() > 8)
        line += " number " + std::to_string(message[8]);
    line += ", " + std::to_string(message.size()) + " bytes";
    if (!problem.empty())
        return line + ": BROKEN: " + problem;
    const CatalogueMessage *known = catalogue_find(type);
    if (known == nullptr)
        return line + ": " + hex_bytes(message.subspan(8));
    const char *separator = ": ";
    for (const CatalogueField &field : known->fields) {
        line += separator + (field.name + ("=" + describe_field(message, field)));
        separator = " ";
    }
    return line;
}

std::string quoted(std::span<const uint8_t> characters)
{
    std::string result = "\"";
    for (uint8_t character : characters) {
        char escaped[8];
        if (character == '"' || character == '\\')
            snprintf(escaped, sizeof escaped, "\\%c", character);
        else if (character < 32 || character > 126)
            snprintf(escaped, sizeof escaped, "\\x%02x", character);
        else
            snprintf(escaped, sizeof escaped, "%c", character);
        result += escaped;
    }
    return result + "\"";
}

std::string quoted(const std::string &characters)
{
    return quoted({reinterpret_cast<const uint8_t *>(characters.data()), characters.size()});
}

std::string hex_bytes(std::span<const uint8_t> bytes, size_t shown)
{
    std::string result = std::to_string(bytes.size()) + " bytes";
    for (uint8_t byte : bytes.first(std::min(bytes.size(), shown))) {
        char digits[8];
        snprintf(digits, sizeof digits, " %02x", byte);
        result += digits;
    }
    return bytes.size() > shown ? result + " ..." : result;
}
