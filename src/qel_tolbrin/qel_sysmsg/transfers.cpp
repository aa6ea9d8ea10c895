// The messages that end in a byte block of any length: the updater, transfers, files, test patterns and
// the answers that are texts, bytes or lists.

#include "qel_tolbrin/qel_sysmsg/catalogue.h"
#include "qel_tolbrin/qel_sysmsg/build.h"
#include "qel_tolbrin/qel_sysmsg/wire.h"

#include <stdio.h>
#include <stdlib.h>
#include <string.h>

#include "qel_utility/qel_filesystem/files.h"
#include "qel_utility/qel_log.h"

enum { chunk_bytes_max = 22050, pattern_words = 777, pattern_bytes = 4 * pattern_words };

static uint32_t pattern_counter = 1;           ///< next value of the unsequenced test pattern
static uint32_t pattern_counter_sequenced = 1; ///< next value of the sequenced one

/// The bytes of a text with its NUL.
static int _text_bytes(const char *text)
{
    size_t bytes = strlen(text) + 1;
    QEL_ASSERT(bytes <= _qel_sysmsg_bytes_max);
    return (int)bytes;
}

// ---- Updater, transfers, files ----

void qel_sysmsg_send_updater(struct qel_sysmsg_con *con, const void *image, int length)
{
    qel_sysmsg_send_blob(con, qel_sysmsg_type_updater, image, length);
}

int qel_sysmsg_transfer_data(struct qel_sysmsg_con *con, const void *block, int length)
{
    return qel_sysmsg_request_blob(con, qel_sysmsg_type_transfer_data, block, length);
}

int qel_sysmsg_file_begin(struct qel_sysmsg_con *con, const char *path)
{
    QEL_ASSERT(path);

    return qel_sysmsg_request_blob(con, qel_sysmsg_type_file_begin, path, _text_bytes(path));
}

int qel_sysmsg_file_data(struct qel_sysmsg_con *con, const void *block, int length)
{
    return qel_sysmsg_request_blob(con, qel_sysmsg_type_file_data, block, length);
}

int qel_sysmsg_chunk_size(void)
{
    return chunk_bytes_max;
}

int qel_sysmsg_send_buffer_as_file(struct qel_sysmsg_con *con, const void *data, int length, const char *path)
{
    QEL_ASSERT(length >= 0);

    const auto *next = (const uint8_t *)data;
    qel_sysmsg_file_begin(con, path);
    while (length > 0) {
        int n = length < chunk_bytes_max ? length : chunk_bytes_max;
        qel_sysmsg_file_data(con, next, n);
        next += n;
        length -= n;
    }
    return qel_sysmsg_file_end(con);
}

int qel_sysmsg_send_file(struct qel_sysmsg_con *con, const char *local_path, const char *remote_path)
{
    FILE *f = fopen(local_path, "rb");
    QEL_ASSERT(f);

    qel_sysmsg_file_begin(con, remote_path);
    uint8_t chunk[chunk_bytes_max];
    int n;
    while ((n = (int)qel_read_block(chunk, sizeof chunk, f)) > 0)
        qel_sysmsg_file_data(con, chunk, n);
    QEL_ASSERT(n == 0);
    fclose(f);
    return qel_sysmsg_file_end(con);
}

// ---- Test patterns ----

/// Fills `pattern` (`pattern_bytes` bytes) with the next values of `counter`.
static void _next_pattern(uint8_t *pattern, uint32_t *counter)
{
    for (int word = 0; word < pattern_words; word++)
        qel_sysmsg_put32(pattern, 4 * word, (*counter)++);
}

void qel_sysmsg_test_pattern(struct qel_sysmsg_con *con)
{
    uint8_t pattern[pattern_bytes];
    _next_pattern(pattern, &pattern_counter);
    qel_sysmsg_send_blob(con, qel_sysmsg_type_test_pattern, pattern, sizeof pattern);
}

int qel_sysmsg_test_pattern_sequenced(struct qel_sysmsg_con *con)
{
    uint8_t pattern[pattern_bytes];
    _next_pattern(pattern, &pattern_counter_sequenced);
    return qel_sysmsg_request_blob(con, qel_sysmsg_type_test_pattern_sequenced, pattern, sizeof pattern);
}

// ---- Answers ----

int qel_sysmsg_reply_plugins(struct qel_sysmsg_con *con, const uint32_t *ids, uint32_t count)
{
    QEL_ASSERT(count <= (_qel_sysmsg_bytes_max - 16) / 4);

    uint32_t size = 16 + 4 * count;
    void *message = malloc(size);
    QEL_ASSERT(message);
    _qel_sysmsg_begin(message, qel_sysmsg_type_plugins, size);
    qel_sysmsg_put32(message, 12, count);
    for (uint32_t i = 0; i < count; i++)
        qel_sysmsg_put32(message, 16 + 4 * (int)i, ids[i]);
    int result = qel_sysmsg_request(con, message);
    free(message);
    return result;
}

/// Sends a byte block that may be empty.
static int _reply_block(struct qel_sysmsg_con *con, uint32_t type, const void *block, int length)
{
    void *message = _qel_sysmsg_new_block(type, block, length, 12);
    int result = qel_sysmsg_request(con, message);
    free(message);
    return result;
}

int qel_sysmsg_reply_text(struct qel_sysmsg_con *con, const char *text)
{
    QEL_ASSERT(con);

    return _reply_block(con, qel_sysmsg_type_text, text, text ? _text_bytes(text) : 0);
}

int qel_sysmsg_reply_plain(struct qel_sysmsg_con *con, const void *bytes, int length)
{
    return _reply_block(con, qel_sysmsg_type_plain, bytes, length);
}
