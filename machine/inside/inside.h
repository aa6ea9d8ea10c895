// What the programs that stand in for the cabinet's hardware share inside the machine: ports to the
// outside, and the processes that the first program leaves behind when it becomes the loader.
#pragma once

#include <string>

/// Opens the virtio port of this name and returns its descriptor (closed on exec), or -1 when the machine
/// has no such port. Needs /sys mounted. Makes the node as /cabinet/NAME.
int open_port(const std::string &name);

/// Reads one line, without its end, byte by byte so that nothing behind it is taken. False at the end.
bool read_line(int descriptor, std::string &line);

/// Writes all bytes; false when the other end is gone.
bool write_all(int descriptor, const void *bytes, size_t size);

/// Stops the machine's start with a line on the kernel's console.
[[noreturn]] void fail(const char *what);

/// Passes frames between the board driver's back side and the port "board" in both directions, until the
/// machine ends. A frame is a minor byte, a length byte and the record (see kernel/drivers/qellpc.c).
[[noreturn]] void run_board_bridge(int back_side, int port);

/// Tells the outside through the port "service" which programs the loader starts and how they end, and
/// runs commands that the outside asks for. The lines are described in attendant.cpp.
[[noreturn]] void run_attendant(int port);

/// A shell on the terminal `path`, started again whenever it ends.
[[noreturn]] void run_shell(const char *path);

/// From now on every system call that Linux has got since 2.6.20 fails with ENOSYS, in this process and in
/// all that it becomes or starts. For the 32-bit cabinet.
void lose_newer_calls();
