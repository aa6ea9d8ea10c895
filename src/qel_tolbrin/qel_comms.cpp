// Cuts messages into packets and puts packets together to messages. The CRC is in qel_comms/crc16.cpp.
//
// First packet                                    Continuation
//   0  4  message length, top bit 0                 0  1  0x80 (only the top bit counts)
//   4  2  CRC-16 of the whole message               1  n  the next bytes of the message
//   6  n  the first bytes of the message
//
// Numbers are big-endian. Every packet but the last of a message is full. Receiving, the link is idle
// (message length 0) or in the middle of a message; a first packet always starts a new one, and the byte
// that completes it, or turns out to spoil it, leads back to idle.

#include "qel_tolbrin/qel_comms.h"

#include <stdlib.h>
#include <string.h>

#include "qel_utility/qel_log.h"

enum { first_header_bytes = 6, continuation_header_bytes = 1, continuation_mark = 0x80 };

static int reenter;           ///< qel_comms_receive_packet is running
static uint8_t *buf;          ///< the message in progress; grows, is never freed
static int buf_size;          ///< its capacity in bytes
static int message_len;       ///< declared length of the message in progress, 0 when there is none
static int received;          ///< bytes of it that are in the buffer
static int remaining;         ///< bytes of it that are still to come
static uint16_t expected_crc; ///< from its first packet

static int _smaller(int a, int b)
{
    return a < b ? a : b;
}

// ---- Making a link ----

struct qel_comms *qel_comms_create(int max_packet_size,
                                   qel_comms_packet_send_begin_function *packet_send_begin,
                                   qel_comms_packet_send_end_function *packet_send_end, void *send_ctx,
                                   qel_comms_poll_function *poll, void *poll_ctx)
{
    QEL_ASSERT(max_packet_size > 6);
    QEL_ASSERT(packet_send_begin);
    QEL_ASSERT(packet_send_end);

    auto *result = (struct qel_comms *)calloc(1, sizeof(struct qel_comms));
    QEL_ASSERT(result);
    result->packet_size_max = max_packet_size;
    qel_comms_set_sender(result, packet_send_begin, packet_send_end, send_ctx);
    result->poll = poll;
    result->poll_ctx = poll_ctx;
    return result;
}

void qel_comms_set_receiver(struct qel_comms *comms, qel_comms_recv_function *recv, void *recv_ctx)
{
    comms->recv = recv;
    comms->recv_ctx = recv_ctx;
}

void qel_comms_set_sender(struct qel_comms *comms, qel_comms_packet_send_begin_function *packet_send_begin,
                          qel_comms_packet_send_end_function *packet_send_end, void *send_ctx)
{
    comms->packet_send_begin = packet_send_begin;
    comms->packet_send_end = packet_send_end;
    comms->send_ctx = send_ctx;
}

// ---- Messages ----

/// Gets a packet buffer, to be filled from offset 0.
static uint8_t *_begin_packet(const struct qel_comms *comms)
{
    return (uint8_t *)comms->packet_send_begin(comms->send_ctx);
}

/// Adds as much of the message as the packet has room for behind its header, sends it, and moves `data`
/// and `left` on.
static int _finish_packet(const struct qel_comms *comms, uint8_t *packet, int header_bytes,
                          const uint8_t **data, int *left)
{
    int n = _smaller(*left, comms->packet_size_max - header_bytes);
    memcpy(packet + header_bytes, *data, (size_t)n);
    *data += n;
    *left -= n;
    return comms->packet_send_end(comms->send_ctx, packet, header_bytes + n, *left > 0);
}

int qel_comms_send(void *link, const void *message, int length)
{
    const auto *comms = (const struct qel_comms *)link;
    const auto *data = (const uint8_t *)message;
    auto len = (unsigned long)length;
    QEL_ASSERT(data);
    QEL_ASSERT(len);
    QEL_ASSERT(len <= 0x7FFFFFFFUL);
    QEL_ASSERT(comms);
    QEL_ASSERT(comms->packet_send_begin);
    QEL_ASSERT(comms->packet_send_end);

    uint16_t crc = qel_crc16(data, length);
    uint8_t *packet = _begin_packet(comms);
    packet[0] = len >> 24 & 0x7F;
    packet[1] = len >> 16 & 0xFF;
    packet[2] = len >> 8 & 0xFF;
    packet[3] = len & 0xFF;
    packet[4] = (uint8_t)(crc >> 8);
    packet[5] = (uint8_t)crc;
    int left = length;
    int result = _finish_packet(comms, packet, first_header_bytes, &data, &left);
    while (left > 0) {
        packet = _begin_packet(comms);
        packet[0] = continuation_mark;
        result = _finish_packet(comms, packet, continuation_header_bytes, &data, &left);
    }
    return result;
}

/// Stores what a packet of this link carries behind its header, as far as the message goes. The packet's
/// own length is deliberately not asked: every packet but the last is full.
static void _store(const struct qel_comms *comms, const uint8_t *packet, int header_bytes)
{
    int n = _smaller(comms->packet_size_max - header_bytes, remaining);
    memcpy(buf + received, packet + header_bytes, (size_t)n);
    received += n;
    remaining -= n;
}

/// Starts a message, whatever was in progress.
static void _begin_message(const uint8_t *packet)
{
    message_len = packet[0] << 24 | packet[1] << 16 | packet[2] << 8 | packet[3];
    expected_crc = (uint16_t)(packet[4] << 8 | packet[5]);
    if (buf_size < message_len) {
        free(buf);
        buf = (uint8_t *)calloc((size_t)message_len, 1);
        buf_size = message_len;
    }
    QEL_ASSERT(buf);
    received = 0;
    remaining = message_len;
}

/// Hands the message on when it is whole and its CRC is right; whole, it is no longer in progress.
static void _deliver_if_whole(const struct qel_comms *comms)
{
    if (message_len <= 0 || remaining > 0)
        return;
    if (qel_crc16(buf, message_len) == expected_crc)
        comms->recv(comms->recv_ctx, buf, message_len);
    message_len = 0;
}

int qel_comms_receive_packet(void *link, const void *bytes, int len)
{
    const auto *comms = (const struct qel_comms *)link;
    const auto *packet = (const uint8_t *)bytes;
    QEL_ASSERT(!reenter);
    reenter++;
    QEL_ASSERT(comms);
    QEL_ASSERT(comms->recv);
    QEL_ASSERT(packet);
    QEL_ASSERT(len > 0);
    QEL_ASSERT(len <= comms->packet_size_max);

    int is_first = !(packet[0] & continuation_mark);
    if (is_first) {
        QEL_ASSERT(len > 6);
        _begin_message(packet);
        _store(comms, packet, first_header_bytes);
    } else if (message_len > 0) {
        QEL_ASSERT(remaining > 0);
        _store(comms, packet, continuation_header_bytes);
    }
    _deliver_if_whole(comms);

    reenter--;
    return message_len;
}

int qel_comms_poll(void *link)
{
    const auto *comms = (const struct qel_comms *)link;
    QEL_ASSERT(comms->poll);

    return comms->poll(comms->poll_ctx);
}
