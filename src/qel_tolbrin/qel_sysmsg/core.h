/// The core of the system messages: numbers, confirms, repeats and waits.
///
/// Messages of the sequenced types carry a number and are confirmed by the peer; a message that is not
/// confirmed within a second is sent again, three times in all. A caller may wait for a reply of a given
/// type. What passes the filters of the receiving side goes to one handler. All waiting is polling on the
/// caller's thread, and the handler runs inside such a poll.
///
/// The numbers and the waits are kept once for the whole process, not for each connection.
///
/// Order of use: make the packet link; make the connection with the link's send and poll; register
/// `qel_sysmsg_receive` with the link; then send and poll.
#pragma once

#include <assert.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

struct qel_sysmsg_con;

/// The header of a sequenced message, and the whole of a confirm. Unsequenced messages have only its first
/// two fields. 12 bytes on the wire, the smallest `msg_size` of a sequenced message.
struct qel_sysmsg_confirmed {
    uint32_t msg_type;
    uint32_t msg_size; ///< bytes of the whole message, header included
    uint8_t sequence;  ///< 1 to 255; 0 is "not numbered yet" and never sent
    uint8_t padding[3];
};
static_assert(sizeof(struct qel_sysmsg_confirmed) == 12, "as on the wire");

/// The application's handler. The message is valid only during the call. The handler may send unsequenced
/// messages; it must not start a sequenced send or cause another message to be received.
typedef void qel_sysmsg_recv_function(struct qel_sysmsg_con *con, const void *message);

/// Sends a whole message: the packet link's `qel_comms_send`. The result is ignored.
typedef int qel_sysmsg_send_function(void *context, const void *message, int len);

/// Reads and delivers what has arrived: the packet link's `qel_comms_poll`. The result is ignored.
typedef int qel_sysmsg_poll_function(void *context);

/// A connection. Made by `qel_sysmsg_create`; there is no close.
struct qel_sysmsg_con {
    qel_sysmsg_recv_function *recv;
    qel_sysmsg_send_function *send;
    void *send_ctx;
    qel_sysmsg_poll_function *poll;
    void *poll_ctx;
};

// ---- Connection ----

/// Makes a connection from the five values, on the heap ("result"). It belongs to the caller for the life
/// of the process.
struct qel_sysmsg_con *qel_sysmsg_create(qel_sysmsg_recv_function *recv, qel_sysmsg_send_function *send,
                                         void *send_ctx, qel_sysmsg_poll_function *poll, void *poll_ctx);

/// Returns 1 when messages of this type are numbered and confirmed, else 0. All types from 50 on are
/// unsequenced.
int qel_sysmsg_has_sequence(uint32_t type);

/// Empties the duplicate filter: the next sequenced message is accepted whatever its number.
void qel_sysmsg_forget_sequence(void);

// ---- Receiving ----

/// The packet link's receive callback: takes a message of `length` bytes.
///
/// While a confirm is awaited, everything but that confirm is dropped, unseen and unconfirmed: the peer
/// will send it again. Otherwise a sequenced message is confirmed first, and dropped when it has the same
/// number as the one before (only one number is remembered). The rest goes to the handler; but while a
/// reply is awaited, messages of other types are dropped (although confirmed) and the reply is copied to
/// the waiting caller instead.
///
/// Stops the program when called from inside itself ("!reenter"), without a connection or handler ("con",
/// "con->recv"), and on a message whose length is not its `msg_size` ("len == sysmsg->msg_size"), a
/// sequenced one that is too short ("sysmsg->msg_size >= sizeof(struct qel_sysmsg_confirmed)") or has
/// number 0 ("confirmed->sequence"), and an awaited reply that does not fit
/// ("sysmsg->msg_size <= wait_buf_size").
void qel_sysmsg_receive(void *connection, const void *message, int length);

// ---- Sending ----

/// Sends an unsequenced message at once. Stops the program without a connection or its send function
/// ("con", "con->send") and on a sequenced type ("!qel_sysmsg_has_sequence(sysmsg->msg_type)").
void qel_sysmsg_send(struct qel_sysmsg_con *con, const void *message);

/// Numbers the message (the number is written into it), sends it and polls until it is confirmed: at most
/// three transmissions, each given a second. With `wait` not 0 it then polls for a message of type
/// `reply_type` and copies it, header included, into `buf`; the time for that is 15 seconds from the FIRST
/// transmission, not from the confirm.
/// Stops the program unless "con", "con->send", "qel_sysmsg_has_sequence(sysmsg->msg_type)",
/// "sysmsg->msg_size >= sizeof(struct qel_sysmsg_confirmed)", neither a confirm nor a reply is awaited
/// already ("!pending_ack", "!pending_wait", "!reenter"), with `wait` also "buf" and "buf_size > 0", and
/// "sysmsg->sequence == 0".
/// Returns 1 when confirmed and, with `wait`, answered; else 0. A late reply is an ordinary message.
int qel_sysmsg_send_sequenced(struct qel_sysmsg_con *con, void *message, int wait, uint32_t reply_type,
                              void *buf, int32_t buf_size);

/// The same without waiting for a reply.
int qel_sysmsg_request(struct qel_sysmsg_con *con, void *message);

/// Sends `blob_len` bytes as an unsequenced message of type `type`: their number at offset 8, the bytes
/// from 12. Stops the program unless "con", "blob", "blob_len > 0", on a message of more than 2^31 - 1 bytes
/// ("size <= _qel_sysmsg_bytes_max") and on a sequenced type. The message is built on the heap ("message")
/// and freed.
void qel_sysmsg_send_blob(struct qel_sysmsg_con *con, uint32_t type, const void *blob, int blob_len);

/// The same as a sequenced message: their number at offset 12, the bytes from 16. Returns the result of
/// `qel_sysmsg_request`.
int qel_sysmsg_request_blob(struct qel_sysmsg_con *con, uint32_t type, const void *blob, int blob_len);

// ---- For developers ----

/// Sets a flag that nothing reads. Returns 1.
int qel_sysmsg_flag_on(void);

/// Clears it. Returns 0.
int qel_sysmsg_flag_off(void);

/// A place for a breakpoint. Requires a text ("message") that is not empty ("*message"); does nothing.
void qel_sysmsg_trace(const char *message);

#ifdef __cplusplus
}
#endif
