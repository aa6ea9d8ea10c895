// Carries the board's records out of the machine and back: the simulated board itself is outside, where
// its answers can be chosen and its records logged whatever disk the machine was started from.

#include "inside.h"

#include <signal.h>
#include <unistd.h>

namespace
{

const size_t head_bytes = 2;
const size_t record_bytes_max = 64;

/// From the driver every read is one frame, which goes out as it is.
[[noreturn]] void carry_out(int back_side, int port)
{
    unsigned char frame[head_bytes + record_bytes_max];
    for (;;) {
        ssize_t size = read(back_side, frame, sizeof frame);
        if (size <= 0 || !write_all(port, frame, static_cast<size_t>(size)))
            _exit(1);
    }
}

bool read_all(int descriptor, unsigned char *bytes, size_t size)
{
    while (size > 0) {
        ssize_t got = read(descriptor, bytes, size);
        if (got <= 0)
            return false;
        bytes += got;
        size -= static_cast<size_t>(got);
    }
    return true;
}

/// From the port come bytes without borders: a head, then as much as the head says.
[[noreturn]] void carry_in(int back_side, int port)
{
    unsigned char frame[head_bytes + record_bytes_max];
    for (;;) {
        if (!read_all(port, frame, head_bytes) || frame[1] > record_bytes_max ||
            !read_all(port, frame + head_bytes, frame[1]))
            _exit(1);
        if (write(back_side, frame, head_bytes + frame[1]) < 0)
            _exit(1);
    }
}

} // namespace

void run_board_bridge(int back_side, int port)
{
    if (fork() == 0)
        carry_in(back_side, port);
    carry_out(back_side, port);
}
