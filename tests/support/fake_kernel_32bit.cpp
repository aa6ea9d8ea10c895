// The fake kernel in a 32-bit program: there, the product's calls that take times reach libc under names of
// their own (stat is __stat64_time64). Each arrives at the wrapper of fake_kernel.cpp, under the name that
// the call has everywhere else, and that wrapper's libc is the one with 64-bit times.

#include <sys/stat.h>
#include <sys/time.h>
#include <time.h>

#define RENAMED(result, name, libc_name, parameters, arguments)                                              \
    extern "C" result wrapper_##name parameters __asm__("__wrap_" #name);                                    \
    extern "C" result wrap_##name parameters __asm__("__wrap_" #libc_name);                                  \
    result wrap_##name parameters                                                                            \
    {                                                                                                        \
        return wrapper_##name arguments;                                                                     \
    }                                                                                                        \
    extern "C" result libc_##name parameters __asm__("__real_" #libc_name);                                  \
    extern "C" result real_##name parameters __asm__("__real_" #name);                                       \
    result real_##name parameters                                                                            \
    {                                                                                                        \
        return libc_##name arguments;                                                                        \
    }

RENAMED(int, stat64, __stat64_time64, (const char *path, struct stat *status), (path, status))
RENAMED(struct tm *, localtime, __localtime64, (const time_t *seconds), (seconds))
RENAMED(time_t, time, __time64, (time_t * now), (now))
RENAMED(int, gettimeofday, __gettimeofday64, (struct timeval * now, void *zone), (now, zone))
