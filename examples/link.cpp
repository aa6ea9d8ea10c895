// Builds the host link bottom up: transport, packets, messages; each layer gets the next one's functions as
// callbacks. Also says what a failed check of the libraries does in these programs.

#include "link.h"

#include <qel_tolbrin/qel_lpc_comms.h>
#include <qel_utility/qel_log.h>

#include <fcntl.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

/// Both ends must use the same size.
static const int packet_bytes = 35;

[[noreturn]] static void give_up(const char *path)
{
    perror(path);
    exit(1);
}

/// The libraries' own version of this function parks the program forever, as the loader must. Any program
/// may bring a version of its own.
void qel_assert_fail(const char *expression, const char *file, int line)
{
    fprintf(stderr, "stopped: \"%s\" at %s:%d\n", expression, file, line);
    exit(2);
}

/// Connects to the socket, or makes it and waits for a peer. One send on it is one packet, as on the node.
static int open_socket(const char *path, bool listens)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path, sizeof address.sun_path - 1);
    const auto *name = reinterpret_cast<const sockaddr *>(&address);
    int link = socket(AF_UNIX, SOCK_SEQPACKET, 0);
    if (listens) {
        int listener = link;
        if (bind(listener, name, sizeof address) != 0 || listen(listener, 1) != 0)
            give_up(path);
        link = accept(listener, nullptr, nullptr);
        close(listener);
        unlink(path);
    } else if (connect(link, name, sizeof address) != 0) {
        give_up(path);
    }
    fcntl(link, F_SETFL, O_NONBLOCK);
    return link;
}

static qel_lpc *open_transport(const char *path, bool listens)
{
    struct stat status;
    if (!listens && stat(path, &status) != 0)
        give_up(path);
    if (!listens && S_ISCHR(status.st_mode))
        return qel_lpc_open(path);
    qel_lpc_set_pacing(0); // a socket takes packets faster than the board
    // Not from `new`: for 32-bit cabinets, programs are linked without the C++ library.
    static qel_lpc transport;
    transport.fd = open_socket(path, listens);
    return &transport;
}

ExampleLink open_example_link(const char *path, bool listen, qel_sysmsg_recv_function *handler)
{
    qel_lpc *transport = open_transport(path, listen);
    qel_comms *packets = qel_comms_create(packet_bytes, qel_lpc_get_tx_buf, qel_lpc_packet_send_end,
                                          transport, qel_lpc_poll, transport);
    qel_lpc_set_receiver(transport, qel_comms_receive_packet, packets);
    qel_sysmsg_con *connection = qel_sysmsg_create(handler, qel_comms_send, packets, qel_comms_poll, packets);
    qel_comms_set_receiver(packets, qel_sysmsg_receive, connection);
    return {packets, connection};
}
