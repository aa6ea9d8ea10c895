/// What system messages look like on the wire: the types that have a meaning, and access to the fields by
/// their offsets from the start of the message. All fields are little-endian on every machine and
/// unaligned.
#pragma once

#include <stdint.h>

// ---- Types ----

/// The layouts belong to the operations of catalogue.h.
enum qel_sysmsg_type {
    qel_sysmsg_type_transfer_begin = 1,
    qel_sysmsg_type_transfer_data = 2,
    qel_sysmsg_type_transfer_end = 3,
    qel_sysmsg_type_connect = 5,
    qel_sysmsg_type_file_begin = 7,
    qel_sysmsg_type_file_data = 8,
    qel_sysmsg_type_file_end = 9,
    qel_sysmsg_type_updater = 10,
    qel_sysmsg_type_notify_11 = 11,
    qel_sysmsg_type_notify_12 = 12,
    qel_sysmsg_type_get_plugins = 13,
    qel_sysmsg_type_plugins = 14,
    qel_sysmsg_type_confirmed = 15,
    qel_sysmsg_type_test_pattern = 16,
    qel_sysmsg_type_test_pattern_sequenced = 17,
    qel_sysmsg_type_post_18 = 18,
    qel_sysmsg_type_post_19 = 19,
    qel_sysmsg_type_post_20 = 20,
    qel_sysmsg_type_post_21 = 21,
    qel_sysmsg_type_post_22 = 22,
    qel_sysmsg_type_query_23 = 23,
    qel_sysmsg_type_reply_24 = 24,
    qel_sysmsg_type_notify_26 = 26,
    qel_sysmsg_type_notify_27 = 27,
    qel_sysmsg_type_path_exists = 28,
    qel_sysmsg_type_reply_path_exists = 29,
    qel_sysmsg_type_notify_30 = 30,
    qel_sysmsg_type_notify_31 = 31,
    qel_sysmsg_type_post_32 = 32,
    qel_sysmsg_type_post_33 = 33,
    qel_sysmsg_type_post_34 = 34,
    qel_sysmsg_type_get_info = 36,
    qel_sysmsg_type_info = 37,
    qel_sysmsg_type_connect_answer = 38,
    qel_sysmsg_type_get_item_size = 39,
    qel_sysmsg_type_item_size = 40,
    qel_sysmsg_type_query_41 = 41,
    qel_sysmsg_type_reply_42 = 42,
    qel_sysmsg_type_get_plugin_size = 43,
    qel_sysmsg_type_plugin_size = 44,
    qel_sysmsg_type_post_45 = 45,
    qel_sysmsg_type_get_text = 46,
    qel_sysmsg_type_text = 47,
    qel_sysmsg_type_decipher = 48,
    qel_sysmsg_type_plain = 49,
};

// ---- Fields ----

static inline uint32_t qel_sysmsg_get32(const void *message, int offset)
{
    const uint8_t *field = (const uint8_t *)message + offset;
    return (uint32_t)field[0] | (uint32_t)field[1] << 8 | (uint32_t)field[2] << 16 | (uint32_t)field[3] << 24;
}

static inline void qel_sysmsg_put32(void *message, int offset, uint32_t value)
{
    uint8_t *field = (uint8_t *)message + offset;
    field[0] = (uint8_t)value;
    field[1] = (uint8_t)(value >> 8);
    field[2] = (uint8_t)(value >> 16);
    field[3] = (uint8_t)(value >> 24);
}

/// 64-bit values have their low word first.
static inline uint64_t qel_sysmsg_get64(const void *message, int offset)
{
    return qel_sysmsg_get32(message, offset) | (uint64_t)qel_sysmsg_get32(message, offset + 4) << 32;
}

static inline void qel_sysmsg_put64(void *message, int offset, uint64_t value)
{
    qel_sysmsg_put32(message, offset, (uint32_t)value);
    qel_sysmsg_put32(message, offset + 4, (uint32_t)(value >> 32));
}
