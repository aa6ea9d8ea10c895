// The clock that measures how long something takes.
#pragma once

/// Seconds on a clock that is never set.
double seconds_now();
