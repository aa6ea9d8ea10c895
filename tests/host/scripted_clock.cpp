// A clock that the tests script, put before libc's in one process (LD_PRELOAD). It stands still while the
// process runs. When the process waits, it reports until when to the socket whose descriptor is in
// QEL_TEST_CLOCK, and sleeps until the test moves the clock or one of the awaited descriptors is ready.
// Without the variable, nothing changes.

#include <errno.h>
#include <poll.h>
#include <signal.h>
#include <stdint.h>
#include <stdlib.h>
#include <string.h>
#include <sys/select.h>
#include <sys/socket.h>
#include <sys/syscall.h>
#include <sys/time.h>
#include <time.h>
#include <unistd.h>

#include <algorithm>
#include <vector>

namespace
{

const int64_t second = 1'000'000'000;
const int64_t started_at = 1'700'000'000 * second; // since 1970
const int64_t read_takes = 1'000;                  // so that a loop without a wait ends, too
const int64_t for_ever = INT64_MAX;
const timespec at_once = {};

/// What the process reports: `deadline` is 0 when it runs again.
struct Report {
    int64_t number;
    int64_t deadline;
    int64_t now;
};

/// What the test answers to the report of that number.
struct Move {
    int64_t number;
    int64_t now;
};

int channel = -2; // -1: the real clock
int64_t now = 0;
int64_t reports = 0;

bool scripted()
{
    if (channel == -2) {
        const char *descriptor = getenv("QEL_TEST_CLOCK");
        channel = descriptor == nullptr ? -1 : atoi(descriptor);
        now = started_at;
    }
    return channel >= 0;
}

int real_poll(pollfd *entries, nfds_t count, const timespec *timeout, const sigset_t *mask)
{
    timespec left = timeout == nullptr ? timespec{} : *timeout;
    return static_cast<int>(
        syscall(SYS_ppoll, entries, count, timeout == nullptr ? nullptr : &left, mask, sizeof(uint64_t)));
}

void report(int64_t deadline)
{
    Report message = {++reports, deadline, now};
    send(channel, &message, sizeof message, MSG_NOSIGNAL);
}

/// Waits until an entry is ready or the test moves the clock; returns as poll does.
int wait_for_move(pollfd *entries, nfds_t count, const sigset_t *mask)
{
    std::vector<pollfd> with_channel(entries, entries + count);
    with_channel.push_back({channel, POLLIN, 0});
    for (;;) {
        int ready = real_poll(with_channel.data(), count + 1, nullptr, mask);
        // What the test has sent before it moves the clock comes first.
        if (ready > 0)
            ready = real_poll(entries, count, &at_once, mask);
        if (ready != 0)
            return ready;
        Move move;
        if (recv(channel, &move, sizeof move, 0) != sizeof move)
            _exit(99); // the test is gone
        if (move.number != reports)
            continue; // of a wait that has ended otherwise
        now = std::max(now, move.now);
        return 0;
    }
}

/// Waits as poll does.
int wait_until(int64_t deadline, pollfd *entries, nfds_t count, const sigset_t *mask)
{
    for (;;) {
        int ready = real_poll(entries, count, &at_once, mask);
        if (ready != 0 || now >= deadline)
            return ready;
        // A signal that comes after the report ends the wait, as in a poll that has begun.
        sigset_t every_signal, before;
        sigfillset(&every_signal);
        sigprocmask(SIG_SETMASK, &every_signal, &before);
        report(deadline);
        ready = wait_for_move(entries, count, mask == nullptr ? &before : mask);
        int error = errno;
        if (ready != 0)
            report(0);
        sigprocmask(SIG_SETMASK, &before, nullptr);
        errno = error;
        if (ready != 0)
            return ready;
    }
}

int64_t time_of(const timespec &time)
{
    return time.tv_sec * second + time.tv_nsec;
}

timespec timespec_of(int64_t time)
{
    return {time / second, time % second};
}

int64_t read_clock()
{
    return now += read_takes;
}

int sleep_until(int64_t deadline, timespec *left)
{
    if (wait_until(deadline, nullptr, 0, nullptr) == 0)
        return 0;
    if (left != nullptr)
        *left = timespec_of(std::max<int64_t>(deadline - now, 0));
    return -1;
}

} // namespace

extern "C" {

int clock_gettime(clockid_t clock, timespec *time) noexcept
{
    if (!scripted())
        return static_cast<int>(syscall(SYS_clock_gettime, clock, time));
    *time = timespec_of(read_clock());
    return 0;
}

int gettimeofday(timeval *__restrict time, void *__restrict) noexcept
{
    timespec value;
    clock_gettime(CLOCK_REALTIME, &value);
    *time = {value.tv_sec, value.tv_nsec / 1000};
    return 0;
}

time_t time(time_t *result) noexcept
{
    timespec value;
    clock_gettime(CLOCK_REALTIME, &value);
    if (result != nullptr)
        *result = value.tv_sec;
    return value.tv_sec;
}

int ppoll(pollfd *entries, nfds_t count, const timespec *timeout, const sigset_t *mask)
{
    if (!scripted())
        return real_poll(entries, count, timeout, mask);
    return wait_until(timeout == nullptr ? for_ever : now + time_of(*timeout), entries, count, mask);
}

int poll(pollfd *entries, nfds_t count, int timeout_ms)
{
    timespec timeout = timespec_of(std::max(timeout_ms, 0) * (second / 1000));
    return ppoll(entries, count, timeout_ms < 0 ? nullptr : &timeout, nullptr);
}

int clock_nanosleep(clockid_t clock, int flags, const timespec *wanted, timespec *left)
{
    if (!scripted())
        return syscall(SYS_clock_nanosleep, clock, flags, wanted, left) == 0 ? 0 : errno;
    bool absolute = (flags & TIMER_ABSTIME) != 0;
    return sleep_until(absolute ? time_of(*wanted) : now + time_of(*wanted), left) == 0 ? 0 : errno;
}

int nanosleep(const timespec *wanted, timespec *left)
{
    int error = clock_nanosleep(CLOCK_MONOTONIC, 0, wanted, left);
    errno = error;
    return error == 0 ? 0 : -1;
}

int usleep(useconds_t microseconds)
{
    timespec wanted = timespec_of(microseconds * (second / 1'000'000));
    return nanosleep(&wanted, nullptr);
}

unsigned sleep(unsigned seconds)
{
    timespec wanted = {seconds, 0}, left = {};
    return nanosleep(&wanted, &left) == 0 ? 0 : static_cast<unsigned>(left.tv_sec + 1);
}

int select(int count, fd_set *input, fd_set *output, fd_set *, timeval *timeout)
{
    std::vector<pollfd> entries;
    for (int fd = 0; fd < count; ++fd) {
        bool in = input != nullptr && FD_ISSET(fd, input), out = output != nullptr && FD_ISSET(fd, output);
        if (in || out)
            entries.push_back({fd, static_cast<short>((in ? POLLIN : 0) | (out ? POLLOUT : 0)), 0});
    }
    timespec wanted = {};
    if (timeout != nullptr)
        wanted = {timeout->tv_sec, timeout->tv_usec * 1000};
    int ready = ppoll(entries.data(), entries.size(), timeout == nullptr ? nullptr : &wanted, nullptr);
    for (const pollfd &entry : entries) {
        if (ready <= 0 || (entry.revents & (POLLIN | POLLHUP | POLLERR)) == 0)
            if (input != nullptr)
                FD_CLR(entry.fd, input);
        if (ready <= 0 || (entry.revents & (POLLOUT | POLLERR)) == 0)
            if (output != nullptr)
                FD_CLR(entry.fd, output);
    }
    return ready;
}
}
