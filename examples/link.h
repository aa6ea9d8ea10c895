/// What both examples need: the stack of the host link, opened on the board's node or on a socket.
#pragma once

#include <qel_tolbrin/qel_comms.h>
#include <qel_tolbrin/qel_sysmsg.h>

struct ExampleLink {
    qel_comms *packets;
    qel_sysmsg_con *connection;
};

/// Opens the link at `path`: the board driver's node, or a UNIX socket of the kind SOCK_SEQPACKET, as
/// `./run --link` and `qel-host --listen` make them. With `listen` it makes such a socket and waits for one
/// peer. `handler` gets what arrives. Ends the program when there is no such link.
ExampleLink open_example_link(const char *path, bool listen, qel_sysmsg_recv_function *handler);
