/// One end of the host link in a process of its own: the real stack from the transport up, on a device and
/// a clock that the test plays through a socket. two_ends.h has the other side of that socket.
///
/// The end tells the test, a record for each, a letter and then data:
///   P packet    H message handed on    S wanted type: a send starts    R result, value    T turn please
/// and gets for each T the packets that have arrived (P) and then its turn: time and whether to stop (T).
#pragma once

#include "support/bytes.h"
#include "support/fake_kernel.h"

#include "qel_tolbrin/qel_comms.h"
#include "qel_tolbrin/qel_lpc_comms.h"
#include "qel_tolbrin/qel_sysmsg.h"

#include <errno.h>
#include <string.h>

#include <deque>
#include <random>

struct End {
    End(int socket_to_test, uint32_t seed) : socket(socket_to_test), random(seed)
    {
        kernel.set_time(1000);
        kernel.on_write = [this](int, const void *packet, size_t size) {
            tell('P', packet, size);
            return static_cast<ssize_t>(size);
        };
        kernel.on_read = [this](int, void *packet, size_t) { return next_packet(packet); };
        qel_lpc_set_pacing(0);
        comms = qel_comms_create(35, qel_lpc_get_tx_buf, qel_lpc_packet_send_end, &lpc, poll, this);
        qel_lpc_set_receiver(&lpc, qel_comms_receive_packet, comms);
        con = qel_sysmsg_create(handle, qel_comms_send, comms, qel_comms_poll, comms);
        qel_comms_set_receiver(comms, qel_sysmsg_receive, con);
        the_end = this;
    }

    /// The asking end: one thing after the other, each with its serial number.
    void ask(int exchanges)
    {
        for (uint32_t serial = 1; serial <= static_cast<uint32_t>(exchanges); ++serial) {
            switch (random() % 4) {
            case 0:
                send(0, [&] { return qel_sysmsg_post_21(con, serial); });
                break;
            case 1: {
                const Bytes block(1 + random() % 200, static_cast<uint8_t>(serial));
                send(0, [&] {
                    return qel_sysmsg_transfer_data(con, block.data(), static_cast<int>(block.size()));
                });
                break;
            }
            case 2:
                answer = 0;
                send(44, [&] { return qel_sysmsg_get_plugin_size(con, serial, &answer); });
                break;
            default:
                qel_sysmsg_connect(con, serial);
                qel_comms_poll(comms);
            }
        }
    }

    /// The answering end: answers queries, and now and then sends something of its own.
    void serve(int is_chatty)
    {
        while (!stopped) {
            qel_comms_poll(comms);
            if (asked) {
                const uint32_t id = asked;
                asked = 0;
                send(0, [&] { return qel_sysmsg_reply_plugin_size(con, id, id * 1000003ULL); });
            }
            if (is_chatty && random() % 20 == 0)
                send(0, [&] { return qel_sysmsg_post_45(con, static_cast<uint32_t>(random())); });
        }
    }
    template <typename Send> void send(uint8_t wanted, Send operation)
    {
        tell('S', &wanted, 1);
        uint8_t result[9] = {static_cast<uint8_t>(operation())};
        memcpy(result + 1, &answer, 8);
        tell('R', result, sizeof result);
    }
    void tell(char kind, const void *data, size_t bytes)
    {
        Bytes record(1 + bytes);
        record[0] = static_cast<uint8_t>(kind);
        memcpy(record.data() + 1, data, bytes);
        if (real_write(socket, record.data(), record.size()) != static_cast<ssize_t>(record.size()))
            real__exit(97);
    }
    /// Waits for the turn: a record for each packet that arrives, then the time and whether to stop.
    static int poll(void *context)
    {
        auto *self = static_cast<End *>(context);
        self->tell('T', "", 0);
        long long turn[2];
        for (;;) {
            Bytes record(64);
            const ssize_t size = real_read(self->socket, record.data(), record.size());
            if (size <= 0)
                real__exit(96);
            if (record[0] == 'T') {
                memcpy(turn, record.data() + 1, sizeof turn);
                break;
            }
            self->arrived.emplace_back(record.begin() + 1, record.begin() + size);
        }
        self->kernel.forget_calls();
        self->kernel.clock_usec = turn[0];
        self->stopped = static_cast<int>(turn[1]);
        return qel_lpc_poll(&self->lpc);
    }
    ssize_t next_packet(void *packet)
    {
        if (arrived.empty()) {
            errno = EAGAIN;
            return -1;
        }
        const Bytes next = arrived.front();
        arrived.pop_front();
        memcpy(packet, next.data(), next.size());
        return static_cast<ssize_t>(next.size());
    }
    static void handle(qel_sysmsg_con *connection, const void *message)
    {
        the_end->tell('H', message, qel_sysmsg_get32(message, 4));
        if (qel_sysmsg_get32(message, 0) == qel_sysmsg_type_connect)
            qel_sysmsg_connect_answer(connection, message);
        if (qel_sysmsg_get32(message, 0) == qel_sysmsg_type_get_plugin_size)
            the_end->asked = qel_sysmsg_get32(message, 12);
    }

    inline static End *the_end;
    int socket;
    std::mt19937 random;
    FakeKernel kernel;
    qel_lpc lpc = {9, nullptr, nullptr};
    qel_comms *comms;
    qel_sysmsg_con *con;
    std::deque<Bytes> arrived;
    uint64_t answer = 0; ///< what the last query brought
    uint32_t asked = 0;  ///< query that waits for its answer
    int stopped = 0;
};
