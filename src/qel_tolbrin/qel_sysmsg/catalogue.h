/// The catalogue: one operation for each message on the link, for both ends.
///
/// An operation on an unsequenced type sends at once and returns nothing. One on a sequenced type returns 1
/// when the peer confirmed the message, else 0. A query also waits for the answer; it returns 1 with its
/// results filled, or 0 with the results untouched unless said otherwise. Every operation can take as long
/// as the core's time limits allow, and stops the program where the core does; the connection is required.
///
/// A message has 2^31 - 1 bytes at most; a longer block stops the program ("size <= _qel_sysmsg_bytes_max").
///
/// Texts that are longer than their field are cut, one byte of the field being the NUL. Required pointers
/// are named; without one the program stops on its name. An answer that is longer than the buffer it goes
/// to stops the program in `qel_sysmsg_receive`.
///
/// After each operation: the message's type, its size in bytes, and the fields by their offsets. "name[31]
/// at 16" is a text field of 31 bytes, all other fields are unsigned 32-bit words unless said otherwise.
/// For messages with a mere number as their name, the two ends must agree what the fields mean.
#pragma once

#include <stdint.h>

#include "qel_tolbrin/qel_sysmsg/core.h"

#ifdef __cplusplus
extern "C" {
#endif

// ---- Connecting and updating ----

/// Announces us to the peer. The peer answers with `qel_sysmsg_connect_answer`, which arrives at
/// the handler. Type 5, 12 bytes: value at 8.
void qel_sysmsg_connect(struct qel_sysmsg_con *con, uint32_t value);

/// Answers `message`, a received message of type 5, with the value it carries.
/// Type 38, 12 bytes: value at 8.
void qel_sysmsg_connect_answer(struct qel_sysmsg_con *con, const void *message);

/// Sends a program that the peer runs in its own place. Stops on a null image ("blob") and on a length
/// below 1 ("blob_len > 0"). Type 10, length + 12 bytes: length at 8, image from 12.
void qel_sysmsg_send_updater(struct qel_sysmsg_con *con, const void *image, int length);

// ---- Notices ----

/// Type 11, 8 bytes. The waiting loader sends it once a second.
void qel_sysmsg_notify_11(struct qel_sysmsg_con *con);

/// Type 12, 8 bytes.
void qel_sysmsg_notify_12(struct qel_sysmsg_con *con);

/// Type 26, 32 bytes: 24 zero bytes at 8.
void qel_sysmsg_notify_26(struct qel_sysmsg_con *con);

/// Type 27, 32 bytes: a zero byte at 8; the 20 bytes of `record` at 9; zeros to the end.
void qel_sysmsg_notify_27(struct qel_sysmsg_con *con, const void *record);

/// Type 30, 12 bytes: value at 8.
void qel_sysmsg_notify_30(struct qel_sysmsg_con *con, uint32_t value);

/// Type 31, 8 bytes.
void qel_sysmsg_notify_31(struct qel_sysmsg_con *con);

// ---- Posts ----

/// Type 18, 136 bytes: name[100] at 9.
int qel_sysmsg_post_18(struct qel_sysmsg_con *con, const char *name);

/// Type 19, 136 bytes: name[100] at 9; value at 112; the 20 bytes of `record` at 116.
int qel_sysmsg_post_19(struct qel_sysmsg_con *con, const char *name, uint32_t value, const void *record);

/// Type 20, 136 bytes: name[100] at 9.
int qel_sysmsg_post_20(struct qel_sysmsg_con *con, const char *name);

/// Type 21, 16 bytes: value at 12.
int qel_sysmsg_post_21(struct qel_sysmsg_con *con, uint32_t value);

/// Type 22, 12 bytes.
int qel_sysmsg_post_22(struct qel_sysmsg_con *con);

/// Type 32, 44 bytes: name[31] at 9; value at 40.
int qel_sysmsg_post_32(struct qel_sysmsg_con *con, const char *name, uint32_t value);

/// Type 33, 40 bytes: name[31] at 9.
int qel_sysmsg_post_33(struct qel_sysmsg_con *con, const char *name);

/// Type 34, 12 bytes.
int qel_sysmsg_post_34(struct qel_sysmsg_con *con);

/// Type 45, 24 bytes: value at 12.
int qel_sysmsg_post_45(struct qel_sysmsg_con *con, uint32_t value);

// ---- Transfers and files ----

/// Type 1, 16 bytes: value at 12.
int qel_sysmsg_transfer_begin(struct qel_sysmsg_con *con, uint32_t value);

/// Stops on a null block ("blob") and on a length below 1 ("blob_len > 0").
/// Type 2, length + 16 bytes: length at 12, block from 16.
int qel_sysmsg_transfer_data(struct qel_sysmsg_con *con, const void *block, int length);

/// Type 3, 12 bytes.
int qel_sysmsg_transfer_end(struct qel_sysmsg_con *con);

/// Begins a file at the peer. Requires "path", which may be any text.
/// Type 7, text length + 17 bytes: text length with its NUL at 12, text with its NUL from 16.
int qel_sysmsg_file_begin(struct qel_sysmsg_con *con, const char *path);

/// Adds to the file. Stops on a null block ("blob") and on a length below 1 ("blob_len > 0").
/// Type 8, length + 16 bytes: length at 12, block from 16.
int qel_sysmsg_file_data(struct qel_sysmsg_con *con, const void *block, int length);

/// Ends the file. Type 9, 12 bytes.
int qel_sysmsg_file_end(struct qel_sysmsg_con *con);

/// Returns the most bytes of a file that one message carries: 22050.
int qel_sysmsg_chunk_size(void);

/// Sends `length` bytes as the file `path`: begin, data messages of at most `qel_sysmsg_chunk_size` bytes
/// (none for a length of 0), end. Stops on a negative length ("length >= 0"). Returns the result of the end
/// alone; whether begin and data were confirmed is deliberately not looked at.
int qel_sysmsg_send_buffer_as_file(struct qel_sysmsg_con *con, const void *data, int length,
                                   const char *path);

/// Sends the local file `local_path` as the file `remote_path` in the same way. The local path may have any
/// form; a file that cannot be opened stops the program ("f"). A read error counts as the end of the file.
int qel_sysmsg_send_file(struct qel_sysmsg_con *con, const char *local_path, const char *remote_path);

/// Sends the next 777 values of a counter that starts at 1 with the process.
/// Type 16, 3120 bytes: 3108 at 8, the values from 12.
void qel_sysmsg_test_pattern(struct qel_sysmsg_con *con);

/// The same with a separate counter, sequenced. Type 17, 3124 bytes: 3108 at 12, the values from 16.
int qel_sysmsg_test_pattern_sequenced(struct qel_sysmsg_con *con);

// ---- Queries and their answers ----

/// Asks for the peer's plugins: at most `plugin_max` ids go to `plugins`, their number to `plugin_count`.
/// Requires "plugins", "plugin_count" and room for 0 ("plugin_max >= 0") to 536870907 ids
/// ("(uint32_t)plugin_max <= (_qel_sysmsg_bytes_max - 16) / 4"); an answer with more than there is room for
/// stops the program, in the core or here ("msg->num_plugins <= plugin_max").
/// Type 13, 12 bytes; answered by type 14.
int qel_sysmsg_get_plugins(struct qel_sysmsg_con *con, uint32_t *plugins, int32_t plugin_max,
                           uint32_t *plugin_count);

/// Stops on more than 536870907 ids ("count <= (_qel_sysmsg_bytes_max - 16) / 4").
/// Type 14, 16 + 4 x count bytes: count at 12, that many ids from 16.
int qel_sysmsg_reply_plugins(struct qel_sysmsg_con *con, const uint32_t *ids, uint32_t count);

/// `items` are `count` texts, at most 10: an eleventh stops the program ("i < 10"). `result` receives the
/// answer's text, in a buffer that the next such query overwrites.
/// Type 23, 1116 bytes: name[100] at 9; ten texts [100] from 109; count at 1112. Answered by type 24.
int qel_sysmsg_query_23(struct qel_sysmsg_con *con, const char *name, const char *const *items,
                        uint32_t count, const char **result);

/// Sends 100 bytes as they are, so `text` must be a field of 100 bytes.
/// Type 24, 112 bytes: text[100] at 9.
int qel_sysmsg_reply_24(struct qel_sysmsg_con *con, const char *text);

/// Asks whether `path` exists at the peer. Requires "con", an absolute path (else a fatal error, "Path is not
/// absolute") and "exists", which receives the peer's value.
/// Type 28, 112 bytes: path[100] at 9. Answered by type 29.
int qel_sysmsg_tolbrin_path_exists(struct qel_sysmsg_con *con, const char *path, uint32_t *exists);

/// Type 29, 16 bytes: exists at 12.
int qel_sysmsg_reply_path_exists(struct qel_sysmsg_con *con, uint32_t exists);

struct qel_sysmsg_info {
    uint32_t own; ///< the caller's; a query deliberately leaves it alone
    uint32_t a;
    uint32_t b;
    uint32_t c;
};

/// Requires "info" and fills its last three fields. Type 36, 12 bytes; answered by type 37.
int qel_sysmsg_get_info(struct qel_sysmsg_con *con, struct qel_sysmsg_info *info);

/// Type 37, 24 bytes: a at 12, b at 16, c at 20.
int qel_sysmsg_reply_info(struct qel_sysmsg_con *con, uint32_t a, uint32_t b, uint32_t c);

/// Requires "item_size"; `name` may be null for no name.
/// Type 39, 64 bytes: value at 12; name[31] at 16; value2 at 48. Answered by type 40.
int qel_sysmsg_get_item_size(struct qel_sysmsg_con *con, uint32_t value, const char *name, uint32_t value2,
                             uint64_t *item_size);

/// Type 40, 64 bytes: value at 12; name[31] at 16, zeros when null; value2 at 48; 64-bit item_size at 56.
int qel_sysmsg_reply_item_size(struct qel_sysmsg_con *con, uint32_t value, const char *name, uint32_t value2,
                               uint64_t item_size);

/// Either result may be null. Type 41, 12 bytes; answered by type 42.
int qel_sysmsg_query_41(struct qel_sysmsg_con *con, uint64_t *first, uint64_t *second);

/// Type 42, 32 bytes: 64-bit first at 16; 64-bit second at 24.
int qel_sysmsg_reply_42(struct qel_sysmsg_con *con, uint64_t first, uint64_t second);

/// Requires an id of at least 1 ("plugin_id > 0") and "plugin_size".
/// Type 43, 24 bytes: plugin_id at 12. Answered by type 44.
int qel_sysmsg_get_plugin_size(struct qel_sysmsg_con *con, uint32_t plugin_id, uint64_t *plugin_size);

/// Type 44, 24 bytes: plugin_id at 12; 64-bit plugin_size at 16.
int qel_sysmsg_reply_plugin_size(struct qel_sysmsg_con *con, uint32_t plugin_id, uint64_t plugin_size);

/// Returns the peer's text, in a buffer that the next such query overwrites, or null: no answer, no text,
/// or a text without its NUL. Requires "con". Type 46, 12 bytes; answered by type 47 of at most 528 bytes.
const char *qel_sysmsg_get_text(struct qel_sysmsg_con *con);

/// Requires "con"; `text` may be null for no text.
/// Type 47, 16 + n bytes: n, the text's length with its NUL or 0, at 12; the text from 16.
int qel_sysmsg_reply_text(struct qel_sysmsg_con *con, const char *text);

/// Has the peer decipher `cipher_len` bytes. `plain` and `plain_len` are set to null and 0 first and then
/// receive the answer, unchecked, in a buffer that the next such query overwrites. The answer may not be
/// longer than the question. Requires "con", "cipher", "cipher_len > 0", "plain" and "plain_len".
/// Returns 1, or 0 also for an answer of length 0.
/// Type 48, cipher_len + 16 bytes: cipher_len at 12, cipher from 16. Answered by type 49.
int qel_sysmsg_decipher(struct qel_sysmsg_con *con, const void *cipher, int cipher_len, const void **plain,
                        uint32_t *plain_len);

/// `length` may be 0 for "cannot be deciphered", and `bytes` null then. Stops on a negative one
/// ("block_len >= 0").
/// Type 49, length + 16 bytes: length at 12, bytes from 16.
int qel_sysmsg_reply_plain(struct qel_sysmsg_con *con, const void *bytes, int length);

#ifdef __cplusplus
}
#endif
