// A device is read again and again, because not every driver can be waited for; a socket is waited for with
// poll. No single wait is longer than look_every_s, so that may_go_on is asked often enough.

#include "link/transport.h"

#include "common/clock.h"
#include "common/link_socket.h"
#include "errors.h"
#include "recording.h"

#include <errno.h>
#include <fcntl.h>
#include <linux/sockios.h>
#include <math.h>
#include <poll.h>
#include <string.h>
#include <sys/file.h>
#include <sys/ioctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>

namespace
{

const double look_every_s = 0.05;
const double device_look_every_s = 0.002;
const double retry_connect_s = 0.02;
const double stuck_s = 10;
const unsigned pause_before_record_us = 15000;
const size_t input_records_max = 10000; // what comes beyond this waits in the kernel

std::string error_text(int error)
{
    return strerror(error);
}

int milliseconds(double seconds)
{
    return static_cast<int>(ceil(std::clamp(seconds, 0.0, look_every_s) * 1000));
}

void start_with_peer(Transport &transport, int descriptor)
{
    transport.descriptor = descriptor;
    transport.gone.clear();
    transport.was_reset = false;
    transport.input.clear();
}

void note_record(Transport &transport, Direction direction, ByteView record)
{
    if (transport.recording != nullptr &&
        !recording_add(transport.recording, recording_now_us(), direction, record))
        throw Failure(fault::output,
                      "the recording cannot be written: " + error_text(errno) + "; make room for it");
}

// ---- Input ----

/// Takes what a read has returned. Returns whether to read on.
bool take_record(Transport &transport, ssize_t size, Record &record)
{
    if (size > static_cast<ssize_t>(record_bytes_max)) {
        transport_hang_up(transport,
                          "the other end sends records of more than 64 bytes; is that a host-comms "
                          "socket?");
        return false;
    }
    record.size = static_cast<size_t>(size);
    record.time = seconds_now();
    ++transport.records_received;
    note_record(transport, Direction::inbound, {record.bytes.data(), record.size});
    transport.input.push_back(record);
    return true;
}

bool read_device(Transport &transport)
{
    Record record;
    ssize_t n = read(transport.descriptor, record.bytes.data(), record.bytes.size());
    if (n > 0)
        return take_record(transport, n, record);
    if (n < 0 && (errno == EIO || errno == ENODEV || errno == ENXIO))
        transport_hang_up(transport,
                          "the device is gone: " + error_text(errno) + "; see whether it is still there");
    return false;
}

bool read_socket(Transport &transport)
{
    Record record;
    ssize_t n = recv(transport.descriptor, record.bytes.data(), record.bytes.size(), MSG_TRUNC);
    if (n > 0)
        return take_record(transport, n, record);
    if (n < 0 && errno == ECONNRESET) {
        transport.was_reset = true; // reported before the records that came ahead of it
        return true;
    }
    if (n == 0 || (errno != EAGAIN && errno != EINTR))
        transport_hang_up(transport, "the other end has hung up; see whether it is still there");
    return false;
}

// ---- Output ----

/// Waits until the peer may take more, and reads what comes in the meantime. `unread` and `since` say how
/// much it has left unread, and how long.
void wait_for_room(Transport &transport, int &unread, double &since)
{
    transport.may_go_on();
    if (transport_unread(transport) != unread) {
        unread = transport_unread(transport);
        since = seconds_now();
    }
    if (seconds_now() - since >= stuck_s)
        throw Failure(fault::stuck,
                      "the other end has read nothing for 10 s; see whether it still runs, or restart it");
    if (transport.is_device)
        return short_sleep(device_look_every_s);
    bool has_room = transport.input.size() < input_records_max;
    pollfd room = {transport.descriptor, static_cast<short>(has_room ? POLLOUT | POLLIN : POLLOUT), 0};
    poll(&room, 1, milliseconds(std::min(look_every_s, since + stuck_s - seconds_now())));
}

bool may_try_again(const Transport &transport, int error)
{
    return error == EAGAIN || error == EINTR || (transport.is_device && error == ENOTTY);
}

void write_record(Transport &transport, ByteView record)
{
    int unread = -1;
    double since = 0;
    while (transport.descriptor >= 0) {
        ssize_t n = transport.is_device
                        ? write(transport.descriptor, record.data(), record.size())
                        : send(transport.descriptor, record.data(), record.size(), MSG_NOSIGNAL);
        if (n == static_cast<ssize_t>(record.size()))
            return;
        if (n < 0 && may_try_again(transport, errno)) {
            wait_for_room(transport, unread, since);
            transport_read(transport);
            continue;
        }
        std::string reason = n < 0 ? error_text(errno) : "it takes parts of packets only";
        transport_read(transport); // what it said before it went
        transport_hang_up(transport, transport.is_device
                                         ? "the device cannot be written: " + reason
                                         : "the other end has hung up; see whether it is still there");
    }
    throw Failure(fault::hung_up, transport.gone);
}

} // namespace

// ---- Opening ----

void transport_open_device(Transport &transport, const std::string &path)
{
    const std::string advice = "; is the board's driver loaded, and may you read and write its node?";
    struct stat entry = {};
    if (stat(path.c_str(), &entry) != 0)
        throw Failure(fault::cannot_open, "device " + path + ": " + error_text(errno) + advice);
    if (!S_ISCHR(entry.st_mode))
        throw Failure(fault::not_a_device, path +
                                               " is not a character device; name the board driver's node, as "
                                               "/dev/qellpc_host_comms");
    int device = open(path.c_str(), O_RDWR | O_NONBLOCK | O_NOCTTY | O_CLOEXEC);
    if (device < 0)
        throw Failure(fault::cannot_open, "device " + path + ": " + error_text(errno) + advice);
    if (flock(device, LOCK_EX | LOCK_NB) != 0) {
        close(device);
        throw Failure(fault::busy, "device " + path + ": another process has it; wait until that has ended");
    }
    start_with_peer(transport, device);
    transport.is_device = true;
}

void transport_connect(Transport &transport, const std::string &path, double wait_s)
{
    const double end = seconds_now() + wait_s;
    const std::string advice =
        "; start the simulated cabinet, or another qel-host with --listen, and try again";
    for (;;) {
        int connection = connect_link(path);
        if (connection >= 0)
            return start_with_peer(transport, connection);
        std::string reason = error_text(errno);
        bool nobody_listens = errno == ENOENT || errno == ECONNREFUSED || errno == EAGAIN;
        if (!nobody_listens || seconds_now() >= end)
            throw Failure(fault::cannot_open, "socket " + path + ": " + reason + advice);
        transport.may_go_on();
        short_sleep(std::min(retry_connect_s, end - seconds_now()));
    }
}

Listener::Listener(const std::string &at) : path(at)
{
    try {
        descriptor = listen_link(path);
    } catch (const std::runtime_error &error) {
        throw Failure(fault::cannot_open, error.what());
    }
}

Listener::~Listener()
{
    close(descriptor);
    unlink(path.c_str());
}

bool transport_accept(Transport &transport, const Listener &listener, double wait_s)
{
    pollfd peer = {listener.descriptor, POLLIN, 0};
    if (poll(&peer, 1, milliseconds(wait_s)) != 1)
        return false;
    int connection = accept4(listener.descriptor, nullptr, nullptr, SOCK_CLOEXEC | SOCK_NONBLOCK);
    if (connection < 0)
        return false;
    start_with_peer(transport, connection);
    return true;
}

void transport_hang_up(Transport &transport, const std::string &reason)
{
    if (transport.descriptor < 0)
        return;
    close(transport.descriptor);
    transport.descriptor = -1;
    transport.gone = reason;
}

void transport_record(Transport &transport, const std::string &path)
{
    transport.recording = recording_create(path.c_str());
    if (transport.recording == nullptr)
        throw Failure(fault::output,
                      "recording " + path + ": " + error_text(errno) + "; choose a file that you may write");
}

// ---- Records ----

void transport_send(Transport &transport, ByteView record)
{
    if (transport.paced)
        usleep(pause_before_record_us);
    write_record(transport, record);
    ++transport.records_sent;
    note_record(transport, Direction::outbound, record);
}

void transport_read(Transport &transport)
{
    while (transport.descriptor >= 0 && transport.input.size() < input_records_max)
        if (!(transport.is_device ? read_device(transport) : read_socket(transport)))
            return;
}

void transport_poll(Transport &transport, double wait_s)
{
    transport_read(transport);
    if (!transport.input.empty() || transport.descriptor < 0)
        return;
    if (transport.is_device) {
        short_sleep(std::min(wait_s, device_look_every_s));
    } else {
        pollfd input = {transport.descriptor, POLLIN, 0};
        poll(&input, 1, milliseconds(wait_s));
    }
    transport_read(transport);
}

int transport_unread(const Transport &transport)
{
    int bytes = 0;
    if (!transport.is_device && transport.descriptor >= 0)
        ioctl(transport.descriptor, SIOCOUTQ, &bytes);
    return bytes;
}

void short_sleep(double seconds)
{
    if (seconds > 0)
        usleep(static_cast<useconds_t>(std::min(seconds, look_every_s) * 1e6));
}
