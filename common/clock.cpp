// CLOCK_MONOTONIC.

#include "clock.h"

#include <time.h>

double seconds_now()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) / 1e9;
}
