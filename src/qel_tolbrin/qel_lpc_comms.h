/// The transport of the host link: packets of at most 64 bytes through the board driver's host-comms
/// device. It does not interpret the packets; it gives the packet link (qel_comms.h) a buffer to build
/// packets in, a way to send them and a poll, and hands every packet that arrives to a receiver. A link on
/// top must have packets of at most 64 bytes; that is not checked.
///
/// Operations that serve as callbacks of the packet link take the transport as a context pointer.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/// Receives one packet as the driver framed it. The bytes are valid during the call only; the result is
/// not looked at.
typedef int qel_lpc_recv_function(void *context, const void *bytes, int len);

/// One open device. Made by `qel_lpc_open`, owned by its creator; there is no close.
struct qel_lpc {
    int fd; ///< read-write, non-blocking
    qel_lpc_recv_function *recv;
    void *recv_ctx;
};

// ---- Opening ----

/// Opens the device `path` for reading and writing without blocking, with no receiver yet. Allocates the
/// object zeroed on the heap ("result"); a path that cannot be opened stops the program
/// ("result->fd != -1"). Returns the new transport, which belongs to the caller for the life of the
/// process.
struct qel_lpc *qel_lpc_open(const char *path);

/// Sets who receives packets. Must be done before the first poll, which does not check it.
void qel_lpc_set_receiver(struct qel_lpc *lpc, qel_lpc_recv_function *recv, void *recv_ctx);

// ---- Sending ----

/// Returns the one transmit buffer of the process, 64 bytes, in which every packet must be built. One
/// packet at a time: the next one overwrites it. The argument is ignored.
void *qel_lpc_get_tx_buf(void *);

/// Sends the packet that was built in the transmit buffer; any other buffer stops the program
/// ("packet == tx_buf"). `more_follows` is ignored. Returns the result of `qel_lpc_write`.
int qel_lpc_packet_send_end(void *transport, void *packet, int len, int more_follows);

/// Writes `len` bytes, 1 to 64, as one packet, after a pause of 15 ms unless pacing is off. A write that
/// fails with EAGAIN, EINTR or ENOTTY is repeated at once and without limit; any other failure and a
/// short write stop the program ("n == len"), as do a null transport ("lpc") and a length out of range
/// ("len > 0", "len <= 64"). Returns `len`.
int qel_lpc_write(struct qel_lpc *lpc, const void *bytes, int len);

// ---- Receiving ----

/// Hands all pending packets to the receiver, one call each, until a read returns nothing or fails, for
/// whatever reason. Does not block.
/// Returns 1 when a packet was handed on, else 0.
int qel_lpc_poll(void *transport);

// ---- Pacing ----

/// Switches the pause before every write on (`on` not 0) or off (0), for all transports. It is on at
/// the start and throttles the sender to what the board's link can take, about 66 packets a second.
/// Returns 1 when pacing is now OFF, else 0.
int qel_lpc_set_pacing(int on);

/// Returns 1 when pacing is on, else 0. Mind that `qel_lpc_set_pacing` reports the opposite.
int qel_lpc_get_pacing(void);

#ifdef __cplusplus
}
#endif
