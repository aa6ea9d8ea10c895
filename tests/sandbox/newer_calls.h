/// The highest numbers of system calls on Linux 2.6.20. Every call that it has got since has a higher one.
#pragma once

constexpr int last_old_x86_64 = 279, last_old_i386 = 319, last_checked = 1023;
