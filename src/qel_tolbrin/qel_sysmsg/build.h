/// How the files of this folder build messages. Not for others.
#pragma once

#include <stdint.h>

#pragma GCC visibility push(hidden)

/// Makes `message`, a buffer of `size` bytes, a message of that size with an all-zero body, not numbered.
void _qel_sysmsg_begin(void *message, uint32_t type, uint32_t size);

/// Puts `text` into a field of `field_bytes` bytes, cut if need be. The rest of the field must be zero.
void _qel_sysmsg_put_text(void *message, int offset, unsigned field_bytes, const char *text);

/// The longest message: its length is an int.
enum : uint32_t { _qel_sysmsg_bytes_max = 0x7FFFFFFF };

/// Builds a message that ends in a byte block: its length as a word at `offset`, then the bytes. `block`
/// may be null when `block_len` is 0. Returns the message; the caller frees it. Stops the program on a
/// negative length ("block_len >= 0"), on one that no message has room for ("size <= _qel_sysmsg_bytes_max")
/// and when there is no memory ("message").
void *_qel_sysmsg_new_block(uint32_t type, const void *block, int block_len, int offset);

#pragma GCC visibility pop
