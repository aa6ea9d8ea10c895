// Words of the command line as values, fields and files. What does not fit is thrown as Failure: wrong_call,
// or bad_file.
#pragma once

#include "common/files.h"
#include "fields.h"

#include <string>
#include <vector>

[[noreturn]] void wrong_call(const std::string &text);

/// A number, decimal or hexadecimal with 0x.
uint64_t to_number(const std::string &word, uint64_t most);

/// Pairs of hexadecimal digits, with or without blanks and colons between them; or @FILE, the bytes of a
/// file.
std::string to_bytes(const std::string &word);

/// A message of the catalogue by name or number; null for a number that it does not have. `type` is the
/// number.
const CatalogueMessage *to_message(const std::string &word, uint32_t &type);

/// What a field gets from a word; a list field, from several.
FieldValue to_field(const CatalogueMessage &message, const CatalogueField &field,
                    const std::vector<std::string> &words);

/// A regular file of this computer that can be read, and its size.
struct LocalFile {
    Descriptor descriptor;
    uint64_t size;
    std::string path;
};
LocalFile open_file(const std::string &path);

/// Reads up to `count` bytes from byte `offset` on; fewer at the end of the file.
std::string read_piece(const LocalFile &file, uint64_t offset, size_t count);
