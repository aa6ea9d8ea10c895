// The messages that are sent and then waited for: each query builds its request, has the core send it and
// wait for the answer, and unpacks the fields. An answer is taken as it comes; where it is too short, the
// fields it lacks read as what was in the buffer.

#include "qel_tolbrin/qel_sysmsg/catalogue.h"
#include "qel_tolbrin/qel_sysmsg/build.h"
#include "qel_tolbrin/qel_sysmsg/wire.h"

#include <stdlib.h>
#include <string.h>

#include "qel_utility/qel_filesystem/paths.h"
#include "qel_utility/qel_log.h"

enum { text_answer_bytes_max = 528, text_block = 1, decipher_block = 128 };

/// Keeps an answer for the caller until the next query of its kind. Grows in blocks, is never freed.
struct _reply_buffer {
    uint8_t *bytes;
    uint32_t size;
};

static uint8_t query_23_reply[112];
static struct _reply_buffer text_reply;
static struct _reply_buffer plain_reply;

// ---- Helpers ----

/// Makes room for at least `_needed` bytes; the size becomes the next multiple of `block` above that, and
/// what is new is zero. The reallocation is not checked: without a buffer the core refuses to wait for an
/// answer.
static void _grow(struct _reply_buffer *buffer, uint32_t _needed, uint32_t block)
{
    if (buffer->size >= _needed)
        return;
    uint32_t _replybuf_size = _needed / block * block + block;
    QEL_ASSERT(_replybuf_size >= (_needed));
    buffer->bytes = (uint8_t *)realloc(buffer->bytes, _replybuf_size);
    if (buffer->bytes)
        memset(buffer->bytes + buffer->size, 0, _replybuf_size - buffer->size);
    buffer->size = _replybuf_size;
}

/// Sends `request` and waits for an answer of type `answer` in `reply`.
static int _query(struct qel_sysmsg_con *con, void *request, uint32_t answer, void *reply, int32_t reply_size)
{
    return qel_sysmsg_send_sequenced(con, request, 1, answer, reply, reply_size);
}

/// The same with a request that is a header alone.
static int _query_empty(struct qel_sysmsg_con *con, uint32_t type, uint32_t answer, void *reply,
                        int32_t reply_size)
{
    uint8_t request[12];
    _qel_sysmsg_begin(request, type, sizeof request);
    return _query(con, request, answer, reply, reply_size);
}

// ---- Queries ----

/// Unpacks an answer of type 14.
static void _unpack_plugins(const uint8_t *reply, uint32_t *plugins, int32_t plugin_max,
                            uint32_t *plugin_count)
{
    const struct {
        int64_t num_plugins;
    } fields = {qel_sysmsg_get32(reply, 12)}, *msg = &fields;
    QEL_ASSERT(msg->num_plugins <= plugin_max);
    for (int i = 0; i < msg->num_plugins; i++)
        plugins[i] = qel_sysmsg_get32(reply, 16 + 4 * i);
    *plugin_count = (uint32_t)msg->num_plugins;
}

int qel_sysmsg_get_plugins(struct qel_sysmsg_con *con, uint32_t *plugins, int32_t plugin_max,
                           uint32_t *plugin_count)
{
    QEL_ASSERT(plugins);
    QEL_ASSERT(plugin_count);
    QEL_ASSERT(plugin_max >= 0);
    QEL_ASSERT((uint32_t)plugin_max <= (_qel_sysmsg_bytes_max - 16) / 4);

    int32_t reply_size = 4 * plugin_max + 16;
    auto *reply = (uint8_t *)calloc(1, (size_t)reply_size);
    int result = _query_empty(con, qel_sysmsg_type_get_plugins, qel_sysmsg_type_plugins, reply, reply_size);
    if (result)
        _unpack_plugins(reply, plugins, plugin_max, plugin_count);
    free(reply);
    return result;
}

int qel_sysmsg_query_23(struct qel_sysmsg_con *con, const char *name, const char *const *items,
                        uint32_t count, const char **result)
{
    uint8_t request[1116];
    _qel_sysmsg_begin(request, qel_sysmsg_type_query_23, sizeof request);
    _qel_sysmsg_put_text(request, 9, 100, name);
    qel_sysmsg_put32(request, 1112, count);
    for (uint32_t i = 0; i < count; i++) {
        QEL_ASSERT(i < 10);
        _qel_sysmsg_put_text(request, 109 + 100 * (int)i, 100, items[i]);
    }
    if (!_query(con, request, qel_sysmsg_type_reply_24, query_23_reply, sizeof query_23_reply))
        return 0;
    *result = (const char *)query_23_reply + 9;
    return 1;
}

int qel_sysmsg_tolbrin_path_exists(struct qel_sysmsg_con *con, const char *path, uint32_t *exists)
{
    QEL_ASSERT(con);
    if (!qel_path_is_absolute(path))
        QEL_FATAL_ERROR("Path is not absolute: \"%s\"\n", path);
    QEL_ASSERT(exists);

    uint8_t request[112];
    uint8_t reply[16] = {};
    _qel_sysmsg_begin(request, qel_sysmsg_type_path_exists, sizeof request);
    _qel_sysmsg_put_text(request, 9, 100, path);
    if (!_query(con, request, qel_sysmsg_type_reply_path_exists, reply, sizeof reply))
        return 0;
    *exists = qel_sysmsg_get32(reply, 12);
    return 1;
}

int qel_sysmsg_get_info(struct qel_sysmsg_con *con, struct qel_sysmsg_info *info)
{
    QEL_ASSERT(info);

    uint8_t reply[24] = {};
    if (!_query_empty(con, qel_sysmsg_type_get_info, qel_sysmsg_type_info, reply, sizeof reply))
        return 0;
    info->a = qel_sysmsg_get32(reply, 12);
    info->b = qel_sysmsg_get32(reply, 16);
    info->c = qel_sysmsg_get32(reply, 20);
    return 1;
}

int qel_sysmsg_get_item_size(struct qel_sysmsg_con *con, uint32_t value, const char *name, uint32_t value2,
                             uint64_t *item_size)
{
    QEL_ASSERT(item_size);

    uint8_t message[64]; // the request, then the answer
    _qel_sysmsg_begin(message, qel_sysmsg_type_get_item_size, sizeof message);
    qel_sysmsg_put32(message, 12, value);
    if (name)
        _qel_sysmsg_put_text(message, 16, 31, name);
    qel_sysmsg_put32(message, 48, value2);
    if (!_query(con, message, qel_sysmsg_type_item_size, message, sizeof message))
        return 0;
    *item_size = qel_sysmsg_get64(message, 56);
    return 1;
}

int qel_sysmsg_query_41(struct qel_sysmsg_con *con, uint64_t *first, uint64_t *second)
{
    uint8_t reply[32] = {};
    if (!_query_empty(con, qel_sysmsg_type_query_41, qel_sysmsg_type_reply_42, reply, sizeof reply))
        return 0;
    if (first)
        *first = qel_sysmsg_get64(reply, 16);
    if (second)
        *second = qel_sysmsg_get64(reply, 24);
    return 1;
}

int qel_sysmsg_get_plugin_size(struct qel_sysmsg_con *con, uint32_t plugin_id, uint64_t *plugin_size)
{
    QEL_ASSERT(plugin_id > 0);
    QEL_ASSERT(plugin_size);

    uint8_t message[24]; // the request, then the answer
    _qel_sysmsg_begin(message, qel_sysmsg_type_get_plugin_size, sizeof message);
    qel_sysmsg_put32(message, 12, plugin_id);
    if (!_query(con, message, qel_sysmsg_type_plugin_size, message, sizeof message))
        return 0;
    *plugin_size = qel_sysmsg_get64(message, 16);
    return 1;
}

const char *qel_sysmsg_get_text(struct qel_sysmsg_con *con)
{
    QEL_ASSERT(con);

    _grow(&text_reply, text_answer_bytes_max, text_block);
    const uint8_t *reply = text_reply.bytes;
    if (!_query_empty(con, qel_sysmsg_type_get_text, qel_sysmsg_type_text, text_reply.bytes,
                      text_answer_bytes_max))
        return nullptr;
    uint32_t n = qel_sysmsg_get32(reply, 12);
    // A text that would end behind the buffer has no NUL to show.
    if (n == 0 || n > text_reply.size - 16 || reply[15 + n] != 0)
        return nullptr;
    return (const char *)reply + 16;
}

int qel_sysmsg_decipher(struct qel_sysmsg_con *con, const void *cipher, int cipher_len, const void **plain,
                        uint32_t *plain_len)
{
    QEL_ASSERT(con);
    QEL_ASSERT(cipher);
    QEL_ASSERT(cipher_len > 0);
    QEL_ASSERT(plain);
    QEL_ASSERT(plain_len);
    *plain = nullptr;
    *plain_len = 0;

    void *request = _qel_sysmsg_new_block(qel_sysmsg_type_decipher, cipher, cipher_len, 12);
    int32_t size = cipher_len + 16;
    _grow(&plain_reply, (uint32_t)size, decipher_block);
    int result = _query(con, request, qel_sysmsg_type_plain, plain_reply.bytes, size);
    free(request);
    if (!result)
        return 0;
    uint32_t length = qel_sysmsg_get32(plain_reply.bytes, 12);
    if (length == 0)
        return 0;
    *plain = plain_reply.bytes + 16;
    *plain_len = length;
    return 1;
}
