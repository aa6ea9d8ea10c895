// Records to and from the other end: over the board driver's device node, or over a UNIX socket, on which the
// simulated cabinet or another qel-host answers. Every record can be recorded on its way.
//
// One send is one record of 1 to 64 bytes and one receive gets one, on the socket as on the device. What
// comes is read into a queue, also while a write waits for room, so that two ends that both send cannot block
// each other.
#pragma once

#include "fields.h"

#include <stdint.h>
#include <stdio.h>

#include <array>
#include <deque>
#include <functional>
#include <string>

/// The largest record, in bytes.
constexpr size_t record_bytes_max = 64;

struct Record {
    double time; ///< when it came, as by seconds_now
    size_t size;
    std::array<uint8_t, record_bytes_max> bytes;
};

struct Transport {
    int descriptor = -1; ///< or -1 when there is no peer
    bool is_device = false;
    bool paced = true;               ///< 15 ms before each record, as the board's link needs
    std::string gone;                ///< why there is no peer any more; "" while there is one
    bool was_reset = false;          ///< the peer hung up without having read everything
    FILE *recording = nullptr;       ///< or null
    std::deque<Record> input;        ///< records that came and were not taken
    std::function<void()> may_go_on; ///< called wherever something waits; throws what ends the wait
    uint64_t records_sent = 0;
    uint64_t records_received = 0;
};

// ---- Opening; what cannot be used is thrown as Failure ----

/// Opens the device node of the board driver and holds it: no other qel-host can have it meanwhile.
void transport_open_device(Transport &transport, const std::string &path);

/// Connects to the socket `path`; tries for `wait_s` seconds while nobody listens there.
void transport_connect(Transport &transport, const std::string &path, double wait_s);

/// The socket `path`, to listen on; taken away at the end.
struct Listener {
    explicit Listener(const std::string &at);
    ~Listener();
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;

    const std::string path;
    int descriptor;
};

/// Waits up to `wait_s`, at most a twentieth of a second, for a peer. Returns false when none came.
bool transport_accept(Transport &transport, const Listener &listener, double wait_s);

/// Hangs up on the peer, if there is one.
void transport_hang_up(Transport &transport, const std::string &reason);

/// Has every record written to the file `path` from now on.
void transport_record(Transport &transport, const std::string &path);

// ---- Records ----

/// Sends a record. Throws Failure when the peer is gone or has read nothing for ten seconds.
void transport_send(Transport &transport, ByteView record);

/// Reads what has come. A peer that has hung up, or sends what is not a record, shows in `gone`.
void transport_read(Transport &transport);

/// The same, after waiting up to `wait_s`, at most a twentieth of a second, while nothing has come.
void transport_poll(Transport &transport, double wait_s);

/// Bytes that the peer has not read yet; always 0 on a device.
int transport_unread(const Transport &transport);

/// Sleeps, at most a twentieth of a second.
void short_sleep(double seconds);
