/// Messages as text for people.
#pragma once

#include <stdint.h>

#include <span>
#include <string>

/// A message in one line: name, type, number, size and every field, as in
/// `get_plugin_size (43) number 7, 24 bytes: plugin_id=3`. What is wrong with it comes last.
/// Any bytes will do.
std::string describe_message(std::span<const uint8_t> message);

/// Characters as a quoted text; what could upset a terminal is escaped.
std::string quoted(std::span<const uint8_t> characters);
std::string quoted(const std::string &characters);

/// The first bytes, at most `shown`, in hexadecimal, and how many there are: `40 bytes 00 01 02 ...`.
std::string hex_bytes(std::span<const uint8_t> bytes, size_t shown = 16);
