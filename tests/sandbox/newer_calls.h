/// The system calls that Linux has got since 2.6.20, from newer_calls.def.
#pragma once

struct NewerCall {
    const char *name;
    const char *kernel; ///< the first that has it
    int x86_64, i386;   ///< its numbers; 0 for none, or for one that 2.6.20 has
};

constexpr NewerCall newer_calls[] = {
#define NEWER_CALL(name, kernel, x86_64, i386) {#name, kernel, x86_64, i386},
#include "sandbox/newer_calls.def"
#undef NEWER_CALL
};

/// The highest numbers of 2.6.20.
constexpr int last_old_x86_64 = 279, last_old_i386 = 319;
