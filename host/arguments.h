/// Words of the command line as what messages carry. A word that does not fit is thrown as CommandError
/// with exit code 2.
#pragma once

#include <stdint.h>

#include <string>
#include <vector>

/// A decimal number, a hexadecimal one with 0x, or an octal one with a leading 0; 32 bits.
uint32_t to_value(const std::string &word);

/// Pairs of hexadecimal digits; blanks and colons between them are welcome.
std::vector<uint8_t> to_bytes(const std::string &word);

/// The same, exactly `count` of them.
std::vector<uint8_t> to_record(const std::string &word, size_t count);

/// What the file holds; it must not be empty nor too long for a message. A file that cannot be read is
/// thrown as FileError.
std::vector<uint8_t> file_content(const std::string &path);

/// The usage line for a call with the wrong number of arguments.
[[noreturn]] void wrong_call(const std::string &text);
