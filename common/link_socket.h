// The UNIX socket that stands for the host link where no board is: of the kind SOCK_SEQPACKET, so that one
// send is one record, as on the board's device node.
#pragma once

#include <string>

/// Connects to the socket `path`. Returns a descriptor that does not block; -1, with errno, when nobody
/// listens there. Throws std::runtime_error when `path` is too long, or empty, for a socket's name.
int connect_link(const std::string &path);

/// Makes the socket `path` and listens on it. A socket that nobody listens on any more is replaced; a living
/// one is neither disturbed nor replaced, nor is any other file: both are thrown as std::runtime_error.
/// Returns a descriptor that does not block.
int listen_link(const std::string &path);
