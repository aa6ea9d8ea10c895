/// The packet link: carries messages of any length (up to 2^31 - 1 bytes) over a transport that moves
/// small packets.
///
/// An outgoing message is cut into one first packet, which carries the message's length and CRC, and as
/// many continuations as needed. Incoming packets are put together again, the CRC is checked, and the
/// whole message goes to a receiver. The link knows neither the transport nor the messages: both are
/// reached through callbacks. It never asks for a repetition; a message with a wrong CRC disappears.
///
/// A half received message is kept once for the whole process: only one link may receive in a process.
///
/// Operations that serve as callbacks of other layers take the link as a context pointer.
#pragma once

#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/// Receives a whole message. It belongs to the link and is overwritten by the next one: copy what is to
/// be kept. Must not feed another packet into the link.
typedef void qel_comms_recv_function(void *context, const void *message, int len);

/// Returns the buffer for the next packet, with room for `packet_size_max` bytes.
typedef void *qel_comms_packet_send_begin_function(void *context);

/// Sends the packet that was built in that buffer. `more_follows` is 1 when further packets of the same
/// message come, else 0.
typedef int qel_comms_packet_send_end_function(void *context, void *packet, int len, int more_follows);

/// Pulls pending packets from the transport, which feeds them to `qel_comms_receive_packet`.
typedef int qel_comms_poll_function(void *context);

/// A packet link. Made by `qel_comms_create`, owned by its creator; there is no close.
struct qel_comms {
    int packet_size_max; ///< bytes, header included, both sent and accepted; more than 6
    qel_comms_recv_function *recv;
    void *recv_ctx;
    qel_comms_packet_send_begin_function *packet_send_begin;
    qel_comms_packet_send_end_function *packet_send_end;
    void *send_ctx; ///< for both send callbacks
    qel_comms_poll_function *poll;
    void *poll_ctx;
};

// ---- Making a link ----

/// Makes a link without a receiver. Stops the program unless "max_packet_size > 6", "packet_send_begin"
/// and "packet_send_end"; `poll` may be null until `qel_comms_poll` is called. Allocates the object
/// zeroed on the heap ("result"). Returns the new link, which belongs to the caller for the life of the
/// process.
struct qel_comms *qel_comms_create(int max_packet_size,
                                   qel_comms_packet_send_begin_function *packet_send_begin,
                                   qel_comms_packet_send_end_function *packet_send_end, void *send_ctx,
                                   qel_comms_poll_function *poll, void *poll_ctx);

/// Sets who receives whole messages.
void qel_comms_set_receiver(struct qel_comms *comms, qel_comms_recv_function *recv, void *recv_ctx);

/// Replaces the send callbacks.
void qel_comms_set_sender(struct qel_comms *comms, qel_comms_packet_send_begin_function *packet_send_begin,
                          qel_comms_packet_send_end_function *packet_send_end, void *send_ctx);

// ---- Messages ----

/// Sends `length` bytes as one message; every packet but the last is full. Stops the program on a null
/// message ("data"), a length of 0 ("len"), a negative one ("len <= 0x7FFFFFFFUL"), a null link ("comms")
/// and missing send callbacks ("comms->packet_send_begin", "comms->packet_send_end").
/// Returns the result of the last `packet_send_end`; those before it are ignored.
int qel_comms_send(void *link, const void *message, int length);

/// Takes one packet from the transport, and hands the message on when this packet completes it and its
/// CRC is right. A continuation without a message in progress is ignored; a first packet while a message
/// is in progress silently starts over; a wrong CRC silently drops the message.
/// Stops the program when called from inside itself ("!reenter"), and unless "comms", "comms->recv",
/// "packet", "len > 0", "len <= comms->packet_size_max", and for a first packet "len > 6". A message
/// buffer that cannot be allocated stops it too ("buf"), and so does a message of length 0 before any
/// other.
/// How much is copied follows from `packet_size_max`, NOT from `len`: every packet but the last is
/// expected to be full, as the sender makes them. For a shorter one in between, the bytes after it are copied
/// too, so `bytes` must be readable for `packet_size_max` bytes. Do not "repair" this: peers depend on it.
/// Returns the length of the message still in progress, or 0.
int qel_comms_receive_packet(void *link, const void *bytes, int len);

/// Pulls pending packets from the transport. Stops the program without a poll callback ("comms->poll").
/// Returns the callback's result.
int qel_comms_poll(void *link);

// ---- CRC ----
//
// CRC-16/AUG-CCITT: polynomial 0x1021, most significant bit first, start register 0xFFFF, 16 zero bits
// shifted through at the end, no final XOR. The bytes "123456789" give 0xE5CC, no bytes give 0x1D0F.
// A length of 0 or less leaves a register unchanged. The tables behind it (8 KiB) are made at first use.

/// Returns the CRC of the bytes.
uint16_t qel_crc16(const void *bytes, int length);

/// Returns the start register, 0xFFFF.
uint16_t qel_crc16_init(void);

/// Returns the register after the bytes have been shifted in.
uint16_t qel_crc16_update(uint16_t crc, const void *bytes, int length);

/// Returns the register after the 16 zero bits.
uint16_t qel_crc16_final(uint16_t crc);

/// Returns `qel_crc16_final` of `qel_crc16_update`.
uint16_t qel_crc16_update_final(uint16_t crc, const void *bytes, int length);

/// Returns the register unchanged: the CRC once it is final.
uint16_t qel_crc16_value(uint16_t crc);

#ifdef __cplusplus
}
#endif
