// A flag that the signal handler sets.

#include "interrupt.h"

#include <signal.h>

namespace
{

volatile sig_atomic_t caught = 0;

void catch_signal(int)
{
    caught = 1;
}

} // namespace

void catch_interrupts()
{
    signal(SIGINT, catch_signal);
    signal(SIGTERM, catch_signal);
    signal(SIGHUP, catch_signal);
}

bool interrupted()
{
    return caught != 0;
}
