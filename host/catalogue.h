/// The messages of the host link as data: type, name, size and fields of each. It says what messages look
/// like, for showing and checking them; building and sending them is the library's business
/// (qel_tolbrin/qel_sysmsg.h). The Wireshark dissector has its table from here.
#pragma once

#include <stdint.h>

#include <span>
#include <string>

enum class FieldKind {
    value8,
    value32, ///< unsigned, little-endian
    value64, ///< low word first
    text,    ///< characters with a NUL in a field of fixed size
    texts,  ///< ten texts of 100 bytes; a value32 behind them, at the next multiple of 4, says how many count
    record, ///< bytes of which only the number is fixed
    // What makes up the rest of a message. A 32-bit number comes first; the field begins there.
    block,      ///< that many bytes
    text_block, ///< that many characters, the NUL included
    counters,   ///< that many bytes: 32-bit values, each one more than the one before
    ids,        ///< that many 32-bit values
};

struct CatalogueField {
    const char *name;
    uint32_t offset; ///< from the start of the message
    uint32_t size;   ///< in bytes; of the rest of a message, the size of its number
    FieldKind kind;
};

struct CatalogueMessage {
    uint32_t type;
    const char *name;
    uint32_t size; ///< of the whole message; 0 when it varies
    std::span<const CatalogueField> fields;
};

/// All types that are known, in order of type, those without a meaning included.
std::span<const CatalogueMessage> catalogue();

/// Returns null for an unknown type.
const CatalogueMessage *catalogue_find(uint32_t type);

/// "connect (5)", "type 77".
std::string catalogue_name(uint32_t type);

/// Returns what is wrong with a received message, "" when nothing is: its own size, its number, the size
/// the catalogue has for it, the length of its block. A message that passes can be given to the library,
/// and every field of the catalogue lies inside it.
std::string catalogue_check(std::span<const uint8_t> message);

/// The catalogue as the Lua table of the dissector.
std::string catalogue_as_lua();

/// The catalogue for people, a line for each message.
std::string catalogue_as_text();
