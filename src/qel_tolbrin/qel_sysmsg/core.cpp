// Numbers, confirms, repeats and waits. What the messages say is the catalogue's business, how they
// travel is the packet link's.
//
//   0  4  type
//   4  4  size of the whole message
//   8  1  number, of sequenced types only: 1 to 255
//   9  3  padding of sequenced types; some bodies use it
//
// Two states, each with its way back to idle:
//
// Confirm: pending_ack is the number of the message just sent. The matching confirm clears it, or the end
// of the third second without one. While it is set, nothing else gets in: what is dropped then has not been
// confirmed, so the peer repeats it.
//
// Reply: pending_wait is set for the whole of a send that wants a reply. The first message of the wanted
// type clears it, or the end of the send. While it is set, the handler sees nothing.

#include "qel_tolbrin/qel_sysmsg/core.h"
#include "qel_tolbrin/qel_sysmsg/build.h"
#include "qel_tolbrin/qel_sysmsg/wire.h"

#include <stdlib.h>
#include <string.h>
#include <sys/time.h>

#include "qel_utility/qel_log.h"

enum {
    sequence_offset = 8,
    transmissions_max = 3,
    confirm_wait_ms = 999, // a confirm is waited for until more than this has passed
    reply_wait_ms = 15000,
};

static const uint8_t sequenced_types[] = {1,  2,  3,  4,  7,  8,  9,  13, 14, 17, 18, 19,
                                          20, 21, 22, 23, 24, 28, 29, 32, 33, 34, 35, 36,
                                          37, 39, 40, 41, 42, 43, 44, 45, 46, 47, 48, 49};

static uint8_t next_sequence = 1;      ///< the number last handed out; the first message gets 2
static uint8_t pending_ack;            ///< number whose confirm is awaited, 0 when none
static uint8_t last_received_sequence; ///< number of the last sequenced message accepted

static int pending_wait;      ///< a reply is awaited
static uint32_t wait_type;    ///< its type
static void *wait_buf;        ///< where it goes
static int32_t wait_buf_size; ///< and how much room is there

// For a developer with a debugger; nothing reads them.
static uint32_t bytes_sent;     ///< of every transmission
static uint32_t bytes_received; ///< of every message, before any filter
static uint32_t flag;

// ---- Helpers ----

/// Reads the header of a message of which `len` bytes, at least 8, are there. Without a number it reads as
/// not numbered.
static struct qel_sysmsg_confirmed _header_of(const void *message, uint32_t len)
{
    struct qel_sysmsg_confirmed header = {};
    header.msg_type = qel_sysmsg_get32(message, 0);
    header.msg_size = qel_sysmsg_get32(message, 4);
    if (len > sequence_offset)
        header.sequence = ((const uint8_t *)message)[sequence_offset];
    return header;
}

/// The same for a message of our own, which is as long as it says.
static struct qel_sysmsg_confirmed _header_of(const void *message)
{
    return _header_of(message, qel_sysmsg_get32(message, 4));
}

/// The same for what the peer sent. Where there is no room for a size, it reads as one that `len` is not.
static struct qel_sysmsg_confirmed _received_header(const void *message, uint32_t len)
{
    return len >= 8 && len <= _qel_sysmsg_bytes_max ? _header_of(message, len)
                                                    : qel_sysmsg_confirmed{0, ~len, 0, {}};
}

/// The clock of all time limits: wraps every 49 days, so only differences mean anything.
static uint32_t _now_ms(void)
{
    struct timeval now;
    gettimeofday(&now, nullptr);
    return (uint32_t)now.tv_sec * 1000U + (uint32_t)now.tv_usec / 1000U;
}

static void _transmit(const struct qel_sysmsg_con *con, const void *message, uint32_t size)
{
    con->send(con->send_ctx, message, (int)size);
    bytes_sent += size;
}

// ---- Connection ----

struct qel_sysmsg_con *qel_sysmsg_create(qel_sysmsg_recv_function *recv, qel_sysmsg_send_function *send,
                                         void *send_ctx, qel_sysmsg_poll_function *poll, void *poll_ctx)
{
    auto *result = (struct qel_sysmsg_con *)calloc(1, sizeof(struct qel_sysmsg_con));
    QEL_ASSERT(result);
    *result = {recv, send, send_ctx, poll, poll_ctx};
    return result;
}

int qel_sysmsg_has_sequence(uint32_t type)
{
    for (uint8_t sequenced : sequenced_types) {
        if (type == sequenced)
            return 1;
    }
    return 0;
}

void qel_sysmsg_forget_sequence(void)
{
    last_received_sequence = 0;
}

// ---- Receiving ----

/// Confirms a sequenced message. Returns 0 when it repeats the one before, else 1.
static int _confirm(struct qel_sysmsg_con *con, const struct qel_sysmsg_confirmed *confirmed)
{
    uint8_t message[sizeof(struct qel_sysmsg_confirmed)] = {};
    qel_sysmsg_put32(message, 0, qel_sysmsg_type_confirmed);
    qel_sysmsg_put32(message, 4, sizeof message);
    message[sequence_offset] = confirmed->sequence;
    qel_sysmsg_send(con, message);

    if (confirmed->sequence == last_received_sequence)
        return 0;
    last_received_sequence = confirmed->sequence;
    return 1;
}

/// Gives a message that passed the filters to whoever it is for.
static void _deliver(struct qel_sysmsg_con *con, const void *message,
                     const struct qel_sysmsg_confirmed *sysmsg)
{
    if (!pending_wait) {
        con->recv(con, message);
    } else if (sysmsg->msg_type == wait_type) {
        QEL_ASSERT_TEXT_AT(__LINE__, "sysmsg->msg_size <= wait_buf_size",
                           sysmsg->msg_size <= (uint32_t)wait_buf_size);
        memcpy(wait_buf, message, sysmsg->msg_size);
        pending_wait = 0;
    }
}

void qel_sysmsg_receive(void *connection, const void *message, int length)
{
    static int reenter;
    auto *con = (struct qel_sysmsg_con *)connection;
    auto len = (uint32_t)length;
    QEL_ASSERT(!reenter);
    reenter++;
    QEL_ASSERT(con);
    QEL_ASSERT(con->recv);
    const struct qel_sysmsg_confirmed header = _received_header(message, len);
    const struct qel_sysmsg_confirmed *sysmsg = &header;
    const struct qel_sysmsg_confirmed *confirmed = &header;
    QEL_ASSERT(len == sysmsg->msg_size);
    bytes_received += sysmsg->msg_size;

    if (pending_ack) {
        if (sysmsg->msg_type == qel_sysmsg_type_confirmed && confirmed->sequence == pending_ack) {
            QEL_ASSERT(confirmed->sequence);
            pending_ack = 0;
        }
    } else if (!qel_sysmsg_has_sequence(sysmsg->msg_type)) {
        _deliver(con, message, sysmsg);
    } else {
        QEL_ASSERT(sysmsg->msg_size >= sizeof(struct qel_sysmsg_confirmed));
        QEL_ASSERT(confirmed->sequence);
        if (_confirm(con, confirmed))
            _deliver(con, message, sysmsg);
    }
    reenter--;
}

// ---- Sending ----

void qel_sysmsg_send(struct qel_sysmsg_con *con, const void *message)
{
    QEL_ASSERT(con);
    QEL_ASSERT(con->send);
    const struct qel_sysmsg_confirmed header = _header_of(message);
    const struct qel_sysmsg_confirmed *sysmsg = &header;
    QEL_ASSERT(!qel_sysmsg_has_sequence(sysmsg->msg_type));

    _transmit(con, message, sysmsg->msg_size);
}

/// Returns the number for the next message: 1 to 255, never 0.
static uint8_t _take_sequence(void)
{
    next_sequence++;
    if (next_sequence == 0)
        next_sequence = 1;
    return next_sequence;
}

/// Transmits until the confirm is there, three times at most. Returns 1 when it came, else 0.
static int _send_until_confirmed(const struct qel_sysmsg_con *con, const void *message, uint32_t size)
{
    for (int transmissions = 0; pending_ack && transmissions < transmissions_max; transmissions++) {
        _transmit(con, message, size);
        uint32_t sent_at = _now_ms();
        do {
            con->poll(con->poll_ctx);
        } while (_now_ms() - sent_at <= confirm_wait_ms && pending_ack);
    }
    int confirmed = !pending_ack;
    pending_ack = 0;
    return confirmed;
}

static void _poll_for_reply(const struct qel_sysmsg_con *con, uint32_t first_sent_at)
{
    while (pending_wait && _now_ms() - first_sent_at < reply_wait_ms)
        con->poll(con->poll_ctx);
}

/// Ends the wait for a reply. Returns 1 when the reply has come, else 0.
static int _end_wait(void)
{
    int answered = !pending_wait;
    pending_wait = 0;
    wait_buf = nullptr;
    wait_buf_size = 0;
    wait_type = 0;
    return answered;
}

int qel_sysmsg_send_sequenced(struct qel_sysmsg_con *con, void *message, int wait, uint32_t reply_type,
                              void *buf, int32_t buf_size)
{
    static int reenter;
    QEL_ASSERT(con);
    QEL_ASSERT(con->send);
    const struct qel_sysmsg_confirmed header = _header_of(message);
    const struct qel_sysmsg_confirmed *sysmsg = &header;
    QEL_ASSERT(qel_sysmsg_has_sequence(sysmsg->msg_type));
    QEL_ASSERT(sysmsg->msg_size >= sizeof(struct qel_sysmsg_confirmed));
    QEL_ASSERT(!pending_ack);
    QEL_ASSERT(!pending_wait);
    QEL_ASSERT(!reenter);
    reenter++;
    if (wait) {
        QEL_ASSERT(buf);
        QEL_ASSERT(buf_size > 0);
        wait_buf = buf;
        wait_buf_size = buf_size;
        wait_type = reply_type;
        pending_wait = 1;
    }
    QEL_ASSERT(sysmsg->sequence == 0);

    pending_ack = _take_sequence();
    ((uint8_t *)message)[sequence_offset] = pending_ack;
    uint32_t started_at = _now_ms();
    int result = _send_until_confirmed(con, message, sysmsg->msg_size);
    if (result)
        _poll_for_reply(con, started_at);
    if (wait && !_end_wait())
        result = 0;

    reenter--;
    return result;
}

int qel_sysmsg_request(struct qel_sysmsg_con *con, void *message)
{
    return qel_sysmsg_send_sequenced(con, message, 0, 0, nullptr, 0);
}

void qel_sysmsg_send_blob(struct qel_sysmsg_con *con, uint32_t type, const void *blob, int blob_len)
{
    QEL_ASSERT(con);
    QEL_ASSERT(blob);
    QEL_ASSERT(blob_len > 0);

    void *message = _qel_sysmsg_new_block(type, blob, blob_len, 8);
    qel_sysmsg_send(con, message);
    free(message);
}

int qel_sysmsg_request_blob(struct qel_sysmsg_con *con, uint32_t type, const void *blob, int blob_len)
{
    QEL_ASSERT(con);
    QEL_ASSERT(blob);
    QEL_ASSERT(blob_len > 0);

    void *message = _qel_sysmsg_new_block(type, blob, blob_len, 12);
    int result = qel_sysmsg_request(con, message);
    free(message);
    return result;
}

// ---- For developers ----

int qel_sysmsg_flag_on(void)
{
    flag = 1;
    return 1;
}

int qel_sysmsg_flag_off(void)
{
    flag = 0;
    return 0;
}

void qel_sysmsg_trace(const char *message)
{
    QEL_ASSERT(message);
    QEL_ASSERT(*message);
}
