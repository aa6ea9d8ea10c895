// How the application fared, as far as it can be seen from outside.
#pragma once

#include "machine/drive/cabinet.h"

/// How often the application was started.
int application_starts(const Cabinet &cabinet);

/// Why the application cannot be said to have run, at `now` seconds after power-on; empty when one run lived
/// longer than a second, or the first has not ended.
std::string why_it_did_not_run(const Cabinet &cabinet, double now);
