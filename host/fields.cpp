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

uint32_t get32(ByteView bytes, size_t offset)
{
    return qel_sysmsg_get32(&bytes[offset], 0);
}

std::string text_in(ByteView characters)
{
    return {characters.begin(), std::find(characters.begin(), characters.end(), uint8_t{0})};
}

Texts texts_in(ByteView message, const CatalogueField &field)
{
    size_t count_offset = (size_t{field.offset} + field.size + 3) / 4 * 4;
    Texts texts;
    for (size_t i = 0; i < std::min(get32(message, count_offset), texts_max); ++i)
        texts.push_back(text_in(message.subspan(field.offset + i * text_bytes, text_bytes)));
    return texts;
}

Numbers words_in(ByteView bytes)
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

/// The number for the field `count`, which follows the texts.
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

} // namespace

uint32_t type_of(ByteView message)
{
    return get32(message, 0);
}

uint8_t number_of(ByteView message)
{
    return message.size() > 8 && qel_sysmsg_has_sequence(type_of(message)) ? message[8] : uint8_t{0};
}

const CatalogueMessage *fitting(ByteView message)
{
    if (message.size() < 8 || !broken_rule(message).empty() || !misfit(message).empty())
        return nullptr;
    const CatalogueMessage *known = catalogue_find(type_of(message));
    return known != nullptr && is_assigned(*known) ? known : nullptr;
}

FieldValue field_value(ByteView message, const CatalogueField &field)
{
    ByteView bytes = message.subspan(field.offset, field.size);
    ByteView rest = message.subspan(size_t{field.offset} + field.size);
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

FieldValues fields_of(ByteView message)
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
