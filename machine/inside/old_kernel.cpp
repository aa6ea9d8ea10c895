// A filter of the 32-bit kernel's system calls by their numbers, which stays with a process and its children
// for good.

#include "inside.h"

#include <errno.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <sys/prctl.h>

void lose_newer_calls()
{
    const unsigned last_of_2_6_20 = 319; // epoll_pwait
    sock_filter code[] = {
        BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)),
        BPF_JUMP(BPF_JMP | BPF_JGT | BPF_K, last_of_2_6_20, 0, 1),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | ENOSYS),
        BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW),
    };
    const sock_fprog program = {sizeof code / sizeof code[0], code};
    if (sizeof(void *) != 4 || prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program) != 0)
        fail("taking the newer system calls away");
}
