// Messages and their fields as the catalogue has them: read, built, and shown as text and JSON.
#pragma once

#include "catalogue.h"

#include <stdint.h>

#include <map>
#include <nlohmann/json.hpp>
#include <string>
#include <variant>
#include <vector>

using Json = nlohmann::ordered_json;
using Message = std::vector<uint8_t>;

/// A number; a text, or bytes; numbers; texts.
using FieldValue = std::variant<uint64_t, std::string, std::vector<uint64_t>, std::vector<std::string>>;

/// Fields by name.
using FieldValues = std::map<std::string, FieldValue>;

uint32_t type_of(ByteView message);

/// The number of a sequenced message; 0 of others.
uint8_t number_of(ByteView message);

/// The catalogue's entry when it describes the message, else null.
const CatalogueMessage *fitting(ByteView message);

/// The field of a message that has passed both checks of the catalogue.
FieldValue field_value(ByteView message, const CatalogueField &field);

/// All fields of such a message. Empty when its type is unknown.
FieldValues fields_of(ByteView message);

/// The longest text that fits this field, in bytes.
uint32_t text_max(const CatalogueMessage &message, const CatalogueField &field);

/// Builds a message: lengths and counts are computed, and what `values` lacks is zero. Texts must not be
/// longer than text_max, records must have their length.
Message build_message(uint32_t type, const FieldValues &values = {});

/// Builds a message of any type whose body is given.
Message build_raw(uint32_t type, const std::string &body);

/// A message of any bytes, as the results of --json show it.
Json message_json(ByteView message);

/// A message in one line: name, type, number, size and every field, as in
/// `get_plugin_size (43) number 7, 24 bytes: plugin_id=3`. What is wrong with it comes last. Any bytes will
/// do.
std::string describe_message(ByteView message);

/// Characters as a quoted text; what could upset a terminal is escaped.
std::string in_quotes(const std::string &characters);

/// All bytes in hexadecimal: `00ff10`.
std::string hex_digits(const std::string &bytes);

/// The first bytes, at most `shown`, in hexadecimal, and how many there are: `40 bytes 00 01 02 ...`.
std::string hex_bytes(ByteView bytes, size_t shown = 16);
