// Moves bytes between the machine's ports, the host link's socket and the driver's buffers.

#include "ports.h"

#include "common/link_socket.h"

#include <errno.h>
#include <poll.h>
#include <sys/socket.h>
#include <unistd.h>

namespace
{

const size_t record_bytes_max = 64;
const size_t waiting_bytes_max = 4096; ///< towards the machine, before the host link is held up

bool link_may_send(const Cabinet &cabinet)
{
    return cabinet.link_peer >= 0 && cabinet.board_port.out.size() < waiting_bytes_max;
}

void send_waiting(Cabinet::Port &port)
{
    ssize_t sent = send(port.descriptor, port.out.data(), port.out.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
    if (sent > 0)
        port.out.erase(0, static_cast<size_t>(sent));
}

void receive(Cabinet::Port &port)
{
    char bytes[65536];
    ssize_t got = recv(port.descriptor, bytes, sizeof bytes, MSG_DONTWAIT);
    if (got > 0)
        port.in.append(bytes, static_cast<size_t>(got));
}

void accept_peer(Cabinet &cabinet)
{
    int peer = accept4(cabinet.link_listener, nullptr, nullptr, SOCK_CLOEXEC);
    if (peer >= 0)
        cabinet.link_peer = peer;
}

std::vector<Cabinet::Port *> ports_of(Cabinet &cabinet)
{
    return {&cabinet.console_port, &cabinet.board_port, &cabinet.service_port, &cabinet.terminal_port,
            &cabinet.monitor_port};
}

void close_descriptor(int &descriptor)
{
    if (descriptor >= 0)
        close(descriptor);
    descriptor = -1;
}

} // namespace

void move_bytes(Cabinet &cabinet, double seconds)
{
    std::vector<Cabinet::Port *> ports = ports_of(cabinet);
    std::vector<pollfd> sources;
    for (const Cabinet::Port *port : ports)
        sources.push_back(
            {port->descriptor, static_cast<short>(POLLIN | (port->out.empty() ? 0 : POLLOUT)), 0});
    // A peer that connects while another is there waits until that one has gone.
    sources.push_back({cabinet.link_peer < 0 ? cabinet.link_listener : -1, POLLIN, 0});
    sources.push_back({link_may_send(cabinet) ? cabinet.link_peer : -1, POLLIN, 0});
    poll(sources.data(), sources.size(), static_cast<int>(seconds * 1000));
    for (size_t i = 0; i < ports.size(); ++i) {
        if ((sources[i].revents & POLLOUT) != 0)
            send_waiting(*ports[i]);
        if ((sources[i].revents & (POLLIN | POLLHUP)) != 0)
            receive(*ports[i]);
    }
    if (sources[ports.size()].revents != 0)
        accept_peer(cabinet);
}

void close_ports(Cabinet &cabinet)
{
    for (Cabinet::Port *port : ports_of(cabinet))
        close_descriptor(port->descriptor);
    close_descriptor(cabinet.link_peer);
    if (cabinet.link_listener >= 0)
        unlink(cabinet.link_path.c_str());
    close_descriptor(cabinet.link_listener);
}

void open_link(Cabinet &cabinet, const std::string &path)
{
    cabinet.link_listener = listen_link(path);
    cabinet.link_path = path;
}

std::vector<std::string> take_link_records(Cabinet &cabinet)
{
    std::vector<std::string> records;
    size_t waiting = cabinet.board_port.out.size();
    while (cabinet.link_peer >= 0 && waiting < waiting_bytes_max) {
        char bytes[record_bytes_max];
        ssize_t got = recv(cabinet.link_peer, bytes, sizeof bytes, MSG_DONTWAIT);
        if (got < 0 && errno == EAGAIN)
            break;
        // A peer that left with records unread is reported once, before the last that it sent itself.
        if (got < 0 && errno == ECONNRESET)
            continue;
        if (got <= 0) {
            close_descriptor(cabinet.link_peer);
            break;
        }
        records.emplace_back(bytes, static_cast<size_t>(got));
        waiting += records.back().size();
    }
    return records;
}

void send_to_link_peer(Cabinet &cabinet, const std::string &record)
{
    if (cabinet.link_peer >= 0)
        send(cabinet.link_peer, record.data(), record.size(), MSG_NOSIGNAL | MSG_DONTWAIT);
}
