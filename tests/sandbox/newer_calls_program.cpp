// Makes every system call of newer_calls.def, and some numbers that no kernel has, the 32-bit ones through
// the 32-bit gate, and prints those that do not fail with ENOSYS. To be run under old_kernel only: what it
// asks for is not defined.

#include "sandbox/newer_calls.h"

#include <errno.h>
#include <stdio.h>
#include <sys/auxv.h>
#include <unistd.h>

namespace
{

int refused;

void check(const char *name, const char *processor, long result)
{
    if (result == -ENOSYS)
        ++refused;
    else
        printf("%s on %s gives %ld\n", name, processor, result);
}

long call_x86_64(int number)
{
    return syscall(number, 0, 0, 0, 0, 0, 0) < 0 ? -errno : 0;
}

long call_i386(int number)
{
    int result;
    __asm__ volatile("int $0x80"
                     : "=a"(result)
                     : "a"(number), "b"(0), "c"(0), "d"(0), "S"(0), "D"(0)
                     : "memory");
    return result;
}

} // namespace

int main()
{
    for (const NewerCall &call : newer_calls) {
        if (call.x86_64)
            check(call.name, "x86-64", call_x86_64(call.x86_64));
        if (call.i386)
            check(call.name, "i386", call_i386(call.i386));
    }
    const int later[] = {451, 470, 1000};
    for (int number : later) {
        check("a later call", "x86-64", call_x86_64(number));
        check("a later call", "i386", call_i386(number));
    }
    if (getauxval(AT_SYSINFO_EHDR))
        printf("the vDSO is there\n");
    if (call_x86_64(39) != 0 || call_i386(20) != 1)
        printf("getpid fails\n");
    printf("%d calls refused\n", refused);
    fflush(stdout);
    for (;;)
        pause();
}
