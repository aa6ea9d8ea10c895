// Moves packets through the board driver's host-comms device, one write or read for each packet: the
// driver keeps the packet boundaries. What is in the packets is the packet link's business.

#include "qel_tolbrin/qel_lpc_comms.h"

#include <errno.h>
#include <fcntl.h>
#include <stdlib.h>
#include <unistd.h>

#include "qel_utility/qel_log.h"

enum { packet_bytes_max = 64, pause_before_write_us = 15000 };

/// The packet under construction. One for all transports.
static uint8_t tx_buf[packet_bytes_max];

/// The pacing switch; 0 means that pacing is on.
static int pacing_off;

// ---- Opening ----

struct qel_lpc *qel_lpc_open(const char *path)
{
    auto *result = (struct qel_lpc *)calloc(1, sizeof(struct qel_lpc));
    QEL_ASSERT(result);
    result->fd = open(path, O_RDWR | O_NONBLOCK);
    QEL_ASSERT(result->fd != -1);
    return result;
}

void qel_lpc_set_receiver(struct qel_lpc *lpc, qel_lpc_recv_function *recv, void *recv_ctx)
{
    lpc->recv = recv;
    lpc->recv_ctx = recv_ctx;
}

// ---- Sending ----

void *qel_lpc_get_tx_buf(void *)
{
    return tx_buf;
}

int qel_lpc_packet_send_end(void *transport, void *packet, int len, int)
{
    QEL_ASSERT(packet == tx_buf);

    return qel_lpc_write((struct qel_lpc *)transport, packet, len);
}

int qel_lpc_write(struct qel_lpc *lpc, const void *bytes, int len)
{
    QEL_ASSERT(lpc);
    QEL_ASSERT(len > 0);
    QEL_ASSERT(len <= 64);

    if (!pacing_off)
        usleep(pause_before_write_us);
    ssize_t n;
    do {
        n = write(lpc->fd, bytes, (size_t)len);
    } while (n == -1 && (errno == EAGAIN || errno == EINTR || errno == ENOTTY));
    QEL_ASSERT(n == len);
    return len;
}

// ---- Receiving ----

int qel_lpc_poll(void *transport)
{
    auto *lpc = (struct qel_lpc *)transport;
    int anything_read = 0;
    uint8_t packet[packet_bytes_max] = {};
    ssize_t n;
    while ((n = read(lpc->fd, packet, sizeof packet)) > 0) {
        lpc->recv(lpc->recv_ctx, packet, (int)n);
        anything_read = 1;
    }
    return anything_read;
}

// ---- Pacing ----

int qel_lpc_set_pacing(int on)
{
    pacing_off = !on;
    return pacing_off;
}

int qel_lpc_get_pacing(void)
{
    return !pacing_off;
}
