// Opens both kinds of transport and moves records. The socket is read into a queue whenever there is
// something, also while a write waits for room, so that two ends that both send cannot block each other.

#include "transport.h"

#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include "errors.h"
#include "recording.h"
#include "reassembly.h"

namespace
{

const unsigned pause_before_record_us = 15000; // as qel_lpc_comms does it for the device
const unsigned retry_connect_us = 20000;
const unsigned idle_us = 1000;
const int write_wait_ms = 30000;
const size_t input_records_max = 10000; // what comes beyond this waits in the kernel

std::string error_text(int error)
{
    return strerror(error);
}

// ---- Sockets ----

sockaddr_un address_of(const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    if (path.empty() || path.size() >= sizeof address.sun_path)
        throw FileError("socket \"" + path + "\": the path must have 1 to " +
                        std::to_string(sizeof address.sun_path - 1) + " characters; choose another");
    memcpy(address.sun_path, path.data(), path.size());
    return address;
}

int new_socket()
{
    int result = socket(AF_UNIX, SOCK_SEQPACKET | SOCK_CLOEXEC | SOCK_NONBLOCK, 0);
    if (result == -1)
        throw FileError("cannot make a socket: " + error_text(errno));
    return result;
}

/// Returns a connection, or -1 with errno.
int try_to_connect(const std::string &path)
{
    sockaddr_un address = address_of(path);
    int connection = new_socket();
    if (connect(connection, reinterpret_cast<sockaddr *>(&address), sizeof address) == 0)
        return connection;
    int error = errno;
    close(connection);
    errno = error;
    return -1;
}

/// Removes the socket that a listener which has ended left behind; a live one, or anything else of that
/// name, stays and makes the later bind fail.
void remove_stale_socket(const std::string &path)
{
    struct stat entry = {};
    if (lstat(path.c_str(), &entry) != 0 || !S_ISSOCK(entry.st_mode))
        return;
    int probe = try_to_connect(path);
    if (probe != -1)
        close(probe);
    else if (errno == ECONNREFUSED)
        unlink(path.c_str());
}

void start_with_peer(Transport &transport, int socket)
{
    transport.socket = socket;
    transport.gone.clear();
    transport.input.clear();
}

// ---- Input ----

/// Reads what is there, as far as the queue goes. At the end the peer is gone.
void read_socket(Transport &transport)
{
    while (transport.socket != -1 && transport.input.size() < input_records_max) {
        std::vector<uint8_t> record(record_bytes_max);
        ssize_t n = recv(transport.socket, record.data(), record.size(), MSG_TRUNC);
        // A reset is reported before the records that came ahead of it.
        if (n == -1 && (errno == EINTR || errno == ECONNRESET))
            continue;
        if (n == -1 && errno == EAGAIN)
            return;
        if (n <= 0)
            return transport_hang_up(transport, "the other end has hung up");
        if (n > record_bytes_max)
            return transport_hang_up(transport, "the other end has sent a record of more than 64 bytes; is "
                                                "that a host-comms socket?");
        record.resize(static_cast<size_t>(n));
        transport.input.push_back(std::move(record));
    }
}

void note(Transport &transport, Direction direction, std::span<const uint8_t> record)
{
    if (transport.recording == nullptr)
        return;
    if (!recording_add(transport.recording, recording_now_us(), direction, record))
        throw FileError("cannot write the recording: " + error_text(errno));
}

void hand_on(Transport &transport, std::span<const uint8_t> record)
{
    transport.records_received++;
    note(transport, Direction::inbound, record);
    transport.on_record(record);
}

/// Hands on the records of the queue. The receiver may send meanwhile, which may add to the queue.
bool hand_on_input(Transport &transport)
{
    bool anything = !transport.input.empty();
    while (!transport.input.empty()) {
        std::vector<uint8_t> record = std::move(transport.input.front());
        transport.input.pop_front();
        hand_on(transport, record);
    }
    return anything;
}

/// The receiver that is registered with the device.
int receive_from_device(void *context, const void *bytes, int len)
{
    hand_on(*static_cast<Transport *>(context),
            {static_cast<const uint8_t *>(bytes), static_cast<size_t>(len)});
    return 0;
}

// ---- Output ----

/// Waits until the socket takes more, and reads what comes in the meantime.
void wait_for_room(Transport &transport)
{
    bool read_too = transport.input.size() < input_records_max;
    pollfd room = {transport.socket, static_cast<short>(read_too ? POLLOUT | POLLIN : POLLOUT), 0};
    int ready = poll(&room, 1, write_wait_ms);
    if (ready == 0)
        transport_hang_up(transport, "the other end has taken nothing for " +
                                         std::to_string(write_wait_ms / 1000) + " s");
    else if (ready == 1 && (room.revents & POLLIN) != 0)
        read_socket(transport);
}

void write_socket(Transport &transport, std::span<const uint8_t> record)
{
    while (transport.socket != -1) {
        if (send(transport.socket, record.data(), record.size(), MSG_NOSIGNAL) != -1)
            return;
        if (errno == EAGAIN) {
            wait_for_room(transport);
        } else if (errno != EINTR) {
            read_socket(transport); // what it said before it went
            transport_hang_up(transport, "the other end has hung up");
        }
    }
}

} // namespace

// ---- Opening ----

void transport_open_device(Transport &transport, const std::string &path)
{
    // The library stops on a device that cannot be opened, so a wrong one is found before.
    if (access(path.c_str(), R_OK | W_OK) != 0)
        throw FileError("device " + path + ": " + error_text(errno) +
                        "; is the board's driver loaded, and may you read and write its node?");
    transport.device = qel_lpc_open(path.c_str());
    qel_lpc_set_receiver(transport.device, receive_from_device, &transport);
    qel_lpc_set_pacing(transport.paced);
}

void transport_connect(Transport &transport, const std::string &path, double wait_s)
{
    int connection;
    auto tries_left = static_cast<long>(wait_s * 1e6 / retry_connect_us);
    while ((connection = try_to_connect(path)) == -1) {
        bool nobody_listens = errno == ENOENT || errno == ECONNREFUSED || errno == EAGAIN;
        if (!nobody_listens || tries_left-- <= 0)
            throw FileError(
                "socket " + path + ": " + error_text(errno) +
                "; start the simulated cabinet, or another qel-host with --listen, and try again");
        usleep(retry_connect_us);
    }
    start_with_peer(transport, connection);
}

int transport_listen(const std::string &path)
{
    sockaddr_un address = address_of(path);
    remove_stale_socket(path);
    int listener = new_socket();
    if (bind(listener, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        listen(listener, 1) != 0)
        throw FileError("socket " + path + ": " + error_text(errno) +
                        "; choose a path in a folder of yours that nothing else uses");
    return listener;
}

bool transport_accept(Transport &transport, int listener, int wait_ms)
{
    pollfd peer = {listener, POLLIN, 0};
    if (poll(&peer, 1, wait_ms) != 1)
        return false;
    int connection = accept4(listener, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (connection == -1)
        return false;
    start_with_peer(transport, connection);
    return true;
}

void transport_hang_up(Transport &transport, const std::string &reason)
{
    if (transport.socket == -1)
        return;
    close(transport.socket);
    transport.socket = -1;
    transport.gone = reason;
}

void transport_record(Transport &transport, const std::string &path)
{
    transport.recording = recording_create(path.c_str());
    if (transport.recording == nullptr)
        throw FileError("recording " + path + ": " + error_text(errno) +
                        "; choose a file that you may write");
}

void transport_set_pacing(Transport &transport, bool paced)
{
    transport.paced = paced;
    qel_lpc_set_pacing(paced);
}

// ---- Records ----

void *transport_begin_record(Transport &transport)
{
    return transport.device != nullptr ? qel_lpc_get_tx_buf(transport.device) : transport.output;
}

void transport_end_record(Transport &transport, int len)
{
    void *packet = transport_begin_record(transport);
    std::span<const uint8_t> record(static_cast<const uint8_t *>(packet), static_cast<size_t>(len));
    if (transport.device != nullptr) {
        qel_lpc_packet_send_end(transport.device, packet, len, 0);
    } else {
        if (transport.socket == -1)
            return;
        if (transport.paced)
            usleep(pause_before_record_us);
        write_socket(transport, record);
    }
    transport.records_sent++;
    note(transport, Direction::outbound, record);
}

bool transport_poll(Transport &transport, int wait_ms)
{
    if (transport.device != nullptr) {
        bool anything = qel_lpc_poll(transport.device) != 0;
        if (!anything && wait_ms > 0)
            usleep(idle_us); // not every driver can be waited for
        return anything;
    }
    if (hand_on_input(transport))
        return true;
    if (transport.socket == -1) {
        if (wait_ms > 0)
            usleep(idle_us);
        return false;
    }
    pollfd input = {transport.socket, POLLIN, 0};
    if (poll(&input, 1, wait_ms) == 1)
        read_socket(transport);
    return hand_on_input(transport);
}
