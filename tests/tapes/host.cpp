// The host at the other end.

#include "tapes/host.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

#include <algorithm>

namespace
{

constexpr size_t packet_bytes = 35;
constexpr long idle_ms = 500;

void add_bytes(Bytes &all, const Bytes &more)
{
    all.insert(all.end(), more.begin(), more.end());
}

} // namespace

// ---- Host ----

Host::Host(Ground &world)
    : ground(world), first_number(static_cast<uint8_t>(100 + world.kernel.clock_usec / 1000000000))
{
    ground.play_board("", 0);
    ground.kernel.on_write = [this](int file, const void *bytes, size_t size) {
        const auto *packet = static_cast<const uint8_t *>(bytes);
        if (!ground.is_board(file))
            return real_write(file, bytes, size);
        // A row of the display begins with its digit.
        if (packet[0] == 0 || packet[0] == 0x80)
            take(packet, size);
        return static_cast<ssize_t>(size);
    };
    ground.kernel.on_read = [this](int, void *bytes, size_t size) { return look(bytes, size); };
}

void Host::finds(long ms, const Bytes &bytes)
{
    if (bytes.empty())
        looks.push_back({ms, {}});
    for (const Bytes &packet : bytes.empty() ? std::vector<Bytes>() : packets_of(bytes)) {
        looks.push_back({ms, packet});
        ms = 0;
    }
}

ssize_t Host::look(void *bytes, size_t size)
{
    // A poll takes what is there at once, and no more.
    const bool is_over =
        has_found && (looks.empty() || looks.front().ms != 0 || looks.front().packet.empty());
    const Look next = is_over ? Look{} : looks.empty() ? Look{idle_ms, {}} : looks.front();
    if (!is_over && !looks.empty())
        looks.pop_front();
    ground.kernel.advance_usec(next.ms * 1000LL);
    has_found = !next.packet.empty();
    if (!has_found) {
        errno = EAGAIN;
        return -1;
    }
    const size_t count = std::min(size, next.packet.size());
    memcpy(bytes, next.packet.data(), count);
    return static_cast<ssize_t>(count);
}

void Host::take(const uint8_t *packet, size_t size)
{
    const size_t header = packet[0] == 0 ? 6 : 1;
    if (size <= header)
        return;
    if (header == 6) {
        message.clear();
        missing = static_cast<size_t>(packet[2] << 8 | packet[3]);
    }
    add_bytes(message, Bytes(packet + header, packet + size));
    if (message.size() == missing && on_message)
        on_message(Bytes(message));
}

// ---- Link ----

Link::Link(Ground &ground) : host(ground)
{
    comms.packet_size_max = packet_bytes;
    qel_comms_set_sender(&comms, qel_lpc_get_tx_buf, qel_lpc_packet_send_end, &lpc);
    comms.poll = qel_lpc_poll;
    comms.poll_ctx = &lpc;
    qel_lpc_set_receiver(&lpc, qel_comms_receive_packet, &comms);
    qel_comms_set_receiver(&comms, qel_sysmsg_receive, &con);
    const auto hand_on = [](qel_sysmsg_con *, const void *message) {
        printf("handed on: message %d\n", *static_cast<const uint8_t *>(message));
        fflush(stdout);
    };
    con = {hand_on, qel_comms_send, &comms, qel_comms_poll, &comms};
}
