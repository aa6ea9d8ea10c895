// The messages of fixed size that are built and sent: notices, posts and answers. Queries are in
// queries.cpp; byte blocks, and the files that travel in them, in transfers.cpp. The layouts are given in
// the header, at each operation.

#include "qel_tolbrin/qel_sysmsg/catalogue.h"
#include "qel_tolbrin/qel_sysmsg/build.h"
#include "qel_tolbrin/qel_sysmsg/wire.h"

#include <string.h>

enum { record_bytes = 20 };

// ---- The shapes that most messages share ----

static void _send_empty(struct qel_sysmsg_con *con, uint32_t type)
{
    uint8_t message[8];
    _qel_sysmsg_begin(message, type, sizeof message);
    qel_sysmsg_send(con, message);
}

static void _send_value(struct qel_sysmsg_con *con, uint32_t type, uint32_t value)
{
    uint8_t message[12];
    _qel_sysmsg_begin(message, type, sizeof message);
    qel_sysmsg_put32(message, 8, value);
    qel_sysmsg_send(con, message);
}

static int _request_empty(struct qel_sysmsg_con *con, uint32_t type)
{
    uint8_t message[12];
    _qel_sysmsg_begin(message, type, sizeof message);
    return qel_sysmsg_request(con, message);
}

static int _request_value(struct qel_sysmsg_con *con, uint32_t type, uint32_t value)
{
    uint8_t message[16];
    _qel_sysmsg_begin(message, type, sizeof message);
    qel_sysmsg_put32(message, 12, value);
    return qel_sysmsg_request(con, message);
}

static int _request_name_100(struct qel_sysmsg_con *con, uint32_t type, const char *name)
{
    uint8_t message[136];
    _qel_sysmsg_begin(message, type, sizeof message);
    _qel_sysmsg_put_text(message, 9, 100, name);
    return qel_sysmsg_request(con, message);
}

// ---- Connecting and updating ----

void qel_sysmsg_connect(struct qel_sysmsg_con *con, uint32_t value)
{
    _send_value(con, qel_sysmsg_type_connect, value);
}

void qel_sysmsg_connect_answer(struct qel_sysmsg_con *con, const void *message)
{
    _send_value(con, qel_sysmsg_type_connect_answer, qel_sysmsg_get32(message, 8));
}

// ---- Notices ----

void qel_sysmsg_notify_11(struct qel_sysmsg_con *con)
{
    _send_empty(con, qel_sysmsg_type_notify_11);
}

void qel_sysmsg_notify_12(struct qel_sysmsg_con *con)
{
    _send_empty(con, qel_sysmsg_type_notify_12);
}

void qel_sysmsg_notify_26(struct qel_sysmsg_con *con)
{
    uint8_t message[32];
    _qel_sysmsg_begin(message, qel_sysmsg_type_notify_26, sizeof message);
    qel_sysmsg_send(con, message);
}

void qel_sysmsg_notify_27(struct qel_sysmsg_con *con, const void *record)
{
    uint8_t message[32];
    _qel_sysmsg_begin(message, qel_sysmsg_type_notify_27, sizeof message);
    memcpy(message + 9, record, record_bytes);
    qel_sysmsg_send(con, message);
}

void qel_sysmsg_notify_30(struct qel_sysmsg_con *con, uint32_t value)
{
    _send_value(con, qel_sysmsg_type_notify_30, value);
}

void qel_sysmsg_notify_31(struct qel_sysmsg_con *con)
{
    _send_empty(con, qel_sysmsg_type_notify_31);
}

// ---- Posts ----

int qel_sysmsg_post_18(struct qel_sysmsg_con *con, const char *name)
{
    return _request_name_100(con, qel_sysmsg_type_post_18, name);
}

int qel_sysmsg_post_19(struct qel_sysmsg_con *con, const char *name, uint32_t value, const void *record)
{
    uint8_t message[136];
    _qel_sysmsg_begin(message, qel_sysmsg_type_post_19, sizeof message);
    _qel_sysmsg_put_text(message, 9, 100, name);
    qel_sysmsg_put32(message, 112, value);
    memcpy(message + 116, record, record_bytes);
    return qel_sysmsg_request(con, message);
}

int qel_sysmsg_post_20(struct qel_sysmsg_con *con, const char *name)
{
    return _request_name_100(con, qel_sysmsg_type_post_20, name);
}

int qel_sysmsg_post_21(struct qel_sysmsg_con *con, uint32_t value)
{
    return _request_value(con, qel_sysmsg_type_post_21, value);
}

int qel_sysmsg_post_22(struct qel_sysmsg_con *con)
{
    return _request_empty(con, qel_sysmsg_type_post_22);
}

int qel_sysmsg_post_32(struct qel_sysmsg_con *con, const char *name, uint32_t value)
{
    uint8_t message[44];
    _qel_sysmsg_begin(message, qel_sysmsg_type_post_32, sizeof message);
    _qel_sysmsg_put_text(message, 9, 31, name);
    qel_sysmsg_put32(message, 40, value);
    return qel_sysmsg_request(con, message);
}

int qel_sysmsg_post_33(struct qel_sysmsg_con *con, const char *name)
{
    uint8_t message[40];
    _qel_sysmsg_begin(message, qel_sysmsg_type_post_33, sizeof message);
    _qel_sysmsg_put_text(message, 9, 31, name);
    return qel_sysmsg_request(con, message);
}

int qel_sysmsg_post_34(struct qel_sysmsg_con *con)
{
    return _request_empty(con, qel_sysmsg_type_post_34);
}

int qel_sysmsg_post_45(struct qel_sysmsg_con *con, uint32_t value)
{
    uint8_t message[24];
    _qel_sysmsg_begin(message, qel_sysmsg_type_post_45, sizeof message);
    qel_sysmsg_put32(message, 12, value);
    return qel_sysmsg_request(con, message);
}

// ---- Transfers and files: the ends of them ----

int qel_sysmsg_transfer_begin(struct qel_sysmsg_con *con, uint32_t value)
{
    return _request_value(con, qel_sysmsg_type_transfer_begin, value);
}

int qel_sysmsg_transfer_end(struct qel_sysmsg_con *con)
{
    return _request_empty(con, qel_sysmsg_type_transfer_end);
}

int qel_sysmsg_file_end(struct qel_sysmsg_con *con)
{
    return _request_empty(con, qel_sysmsg_type_file_end);
}

// ---- Answers ----

int qel_sysmsg_reply_24(struct qel_sysmsg_con *con, const char *text)
{
    uint8_t message[112];
    _qel_sysmsg_begin(message, qel_sysmsg_type_reply_24, sizeof message);
    memcpy(message + 9, text, 100);
    return qel_sysmsg_request(con, message);
}

int qel_sysmsg_reply_path_exists(struct qel_sysmsg_con *con, uint32_t exists)
{
    return _request_value(con, qel_sysmsg_type_reply_path_exists, exists);
}

int qel_sysmsg_reply_info(struct qel_sysmsg_con *con, uint32_t a, uint32_t b, uint32_t c)
{
    uint8_t message[24];
    _qel_sysmsg_begin(message, qel_sysmsg_type_info, sizeof message);
    qel_sysmsg_put32(message, 12, a);
    qel_sysmsg_put32(message, 16, b);
    qel_sysmsg_put32(message, 20, c);
    return qel_sysmsg_request(con, message);
}

int qel_sysmsg_reply_item_size(struct qel_sysmsg_con *con, uint32_t value, const char *name, uint32_t value2,
                               uint64_t item_size)
{
    uint8_t message[64];
    _qel_sysmsg_begin(message, qel_sysmsg_type_item_size, sizeof message);
    qel_sysmsg_put32(message, 12, value);
    if (name)
        _qel_sysmsg_put_text(message, 16, 31, name);
    qel_sysmsg_put32(message, 48, value2);
    qel_sysmsg_put64(message, 56, item_size);
    return qel_sysmsg_request(con, message);
}

int qel_sysmsg_reply_42(struct qel_sysmsg_con *con, uint64_t first, uint64_t second)
{
    uint8_t message[32];
    _qel_sysmsg_begin(message, qel_sysmsg_type_reply_42, sizeof message);
    qel_sysmsg_put64(message, 16, first);
    qel_sysmsg_put64(message, 24, second);
    return qel_sysmsg_request(con, message);
}

int qel_sysmsg_reply_plugin_size(struct qel_sysmsg_con *con, uint32_t plugin_id, uint64_t plugin_size)
{
    uint8_t message[24];
    _qel_sysmsg_begin(message, qel_sysmsg_type_plugin_size, sizeof message);
    qel_sysmsg_put32(message, 12, plugin_id);
    qel_sysmsg_put64(message, 16, plugin_size);
    return qel_sysmsg_request(con, message);
}
