/// Records to and from the other end: over the board driver's device node, or over a UNIX socket, on which
/// the simulated cabinet or another qel-host answers. Every record can be recorded on its way.
///
/// The socket is of the kind SOCK_SEQPACKET: one send is one record of 1 to 64 bytes and one receive gets
/// one, just as on the device.
#pragma once

#include <stdint.h>
#include <stdio.h>

#include <deque>
#include <functional>
#include <span>
#include <string>
#include <vector>

#include "qel_tolbrin/qel_lpc_comms.h"

struct Transport {
    qel_lpc *device = nullptr;              ///< or null when the other end is a socket
    int socket = -1;                        ///< or -1 when there is no peer
    std::string gone;                       ///< why there is no peer any more; "" while there is one
    bool paced = true;                      ///< 15 ms before each record, as the board's link needs
    FILE *recording = nullptr;              ///< or null
    std::deque<std::vector<uint8_t>> input; ///< records read from the socket and not handed on
    uint8_t output[64] = {};                ///< the packet being built
    std::function<void(std::span<const uint8_t>)> on_record;
    uint64_t records_sent = 0;
    uint64_t records_received = 0;
};

// ---- Opening; what cannot be used is thrown as FileError ----

/// Opens the device node of the board driver.
void transport_open_device(Transport &transport, const std::string &path);

/// Connects to the socket `path`; tries for `wait_s` seconds while nobody listens there.
void transport_connect(Transport &transport, const std::string &path, double wait_s);

/// Makes the socket `path` to listen on, in place of one that nobody listens on any more. Returns its
/// descriptor.
int transport_listen(const std::string &path);

/// Waits up to `wait_ms` for a peer on a listening socket. Returns false when none came.
bool transport_accept(Transport &transport, int listener, int wait_ms);

/// Hangs up on the peer, if there is one.
void transport_hang_up(Transport &transport, const std::string &reason);

/// Has every record written to the file `path` from now on.
void transport_record(Transport &transport, const std::string &path);

/// Switches the pause before each record on or off.
void transport_set_pacing(Transport &transport, bool paced);

// ---- Records; a peer that has hung up, or sends what is no record, shows in `gone` ----

/// Where the next packet is to be built: room for 64 bytes.
void *transport_begin_record(Transport &transport);

/// Sends the packet of `len` bytes built there; nothing when the peer is gone.
void transport_end_record(Transport &transport, int len);

/// Hands on every record that has come, after waiting up to `wait_ms` for the first. Returns true when
/// there was one.
bool transport_poll(Transport &transport, int wait_ms);
