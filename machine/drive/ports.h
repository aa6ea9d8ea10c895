// The bytes between a cabinet and its driver: the machine's ports and the host link's socket.
#pragma once

#include "machine/drive/cabinet.h"

/// Sends what waits in the ports, receives what has come, and lets a peer connect; waits for at most
/// `seconds` when there is nothing to do.
void move_bytes(Cabinet &cabinet, double seconds);

void close_ports(Cabinet &cabinet);

/// Makes the host link's socket at `path`.
void open_link(Cabinet &cabinet, const std::string &path);

/// Records of the peer. They stay with the peer while the machine is slow to take what it was sent, so that
/// a fast peer is held up instead of filling memory.
std::vector<std::string> take_link_records(Cabinet &cabinet);

/// A record to the peer, if there is one and it keeps up.
void send_to_link_peer(Cabinet &cabinet, const std::string &record);
