// The messages of the host link as data: type, name, size, answer and fields of each. The only place that
// knows where fields are: what shows, builds and checks messages (fields.h), the Wireshark dissector and the
// wire document have it from here.
#pragma once

#include <stdint.h>

#include <span>
#include <string>

enum class FieldKind {
    value8,
    value32,    ///< unsigned, little-endian
    value64,    ///< low word first
    text,       ///< characters with a NUL in a field of fixed size
    characters, ///< the same, but they may fill the field, without a NUL
    texts,      ///< ten texts of 100 bytes, of which the count that follows says how many there are
    count,      ///< a value32
    record,     ///< bytes of which only the number is fixed
    // What makes up the rest of a message. A 32-bit number comes first; the field begins there.
    block,      ///< that many bytes
    text_block, ///< that many characters, the NUL included
    counters,   ///< that many bytes: 32-bit values, each one more than the one before
    ids,        ///< that many 32-bit values
};

constexpr uint32_t texts_max = 10;
constexpr uint32_t text_bytes = 100; ///< of each of the texts

struct CatalogueField {
    const char *name;
    uint32_t offset; ///< from the start of the message
    uint32_t size;   ///< in bytes; of the rest of a message, the size of its number
    FieldKind kind;
};

struct CatalogueMessage {
    uint32_t type;
    const char *name;
    uint32_t size;     ///< of the whole message; 0 when it varies
    uint32_t size_max; ///< when it varies; 0 for no limit
    uint32_t answer;   ///< the type that answers it, or 0
    std::span<const CatalogueField> fields;
};

/// A message in memory, whole.
using ByteView = std::span<const uint8_t>;

/// All types that are known, in order of type, those without a meaning included.
std::span<const CatalogueMessage> catalogue();

/// Returns null for an unknown type, or name.
const CatalogueMessage *catalogue_find(uint32_t type);
const CatalogueMessage *catalogue_find(const std::string &name);

/// Whether the type has a meaning, so that its fields are all of its body.
bool is_assigned(const CatalogueMessage &message);

/// "connect (5)", "type 77".
std::string catalogue_name(uint32_t type);

/// The name of a field's kind.
const char *kind_name(FieldKind kind);

/// Whether the field makes up the rest of its message.
bool is_rest(const CatalogueField &field);

/// Where the body of a message of this type begins: after its header, and its number if it has one.
uint32_t body_offset(uint32_t type);

/// What is wrong with a received message by the rules of all messages: its own size, its number. "" when
/// nothing is.
std::string broken_rule(ByteView message);

/// The same by what the catalogue knows of its type: its size, the length of its block. Every field of a
/// message that passes lies inside it.
std::string misfit(ByteView message);

/// The catalogue as the Lua table of the dissector.
std::string catalogue_as_lua();

/// The catalogue for people, a line for each message.
std::string catalogue_as_text();

/// The rows of the table in docs/host-link.md.
std::string catalogue_as_markdown();
