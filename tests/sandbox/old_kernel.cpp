// Runs a program on what passes for an old kernel:
//
//   old_kernel today|2.6.20 PROGRAM [ARG...]
//
// Mounts, nodes and sync succeed without doing anything, so that the loader can take a prepared tree of files
// for its machine. With 2.6.20, every system call that Linux has got since then fails with ENOSYS, for
// programs of both word sizes. The program gets no environment. The sandbox's own /proc moves to
// /machine/process, and what the test has put below it shows. Time is told by system calls: the code in which
// newer kernels tell it without one (the vDSO) is hidden from the program, though not from those that it
// starts. The process that does so takes the number 2.

#include "sandbox/newer_calls.h"

#include <errno.h>
#include <elf.h>
#include <linux/audit.h>
#include <linux/filter.h>
#include <linux/seccomp.h>
#include <stddef.h>
#include <stdint.h>
#include <stdio.h>
#include <string.h>
#include <sys/mount.h>
#include <sys/prctl.h>
#include <sys/ptrace.h>
#include <sys/stat.h>
#include <sys/uio.h>
#include <sys/user.h>
#include <sys/wait.h>
#include <unistd.h>

namespace
{

struct Filter {
    sock_filter code[50];
    unsigned short length;
};

void add(Filter &filter, const sock_filter &instruction)
{
    filter.code[filter.length++] = instruction;
}

void add_answer(Filter &filter, unsigned error)
{
    add(filter, BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ERRNO | error));
}

/// Calls with this number get this answer.
void answer(Filter &filter, int number, unsigned error)
{
    add(filter, BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, static_cast<unsigned>(number), 0, 1));
    add_answer(filter, error);
}

/// Everything for one word size. `played` ends in a 0; calls got higher numbers as time went on.
void add_word_size(Filter &filter, bool is_old, const int *played, unsigned last_old)
{
    add(filter, BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, nr)));
    for (; *played; ++played)
        answer(filter, *played, 0);
    if (is_old) {
        add(filter, BPF_JUMP(BPF_JMP | BPF_JGT | BPF_K, last_old, 0, 1));
        add_answer(filter, ENOSYS);
    }
    add(filter, BPF_STMT(BPF_RET | BPF_K, SECCOMP_RET_ALLOW));
}

/// mount, umount2, mknod, sync; on i386 also umount.
constexpr int played_x86_64[] = {165, 166, 133, 162, 0};
constexpr int played_i386[] = {21, 52, 14, 36, 22, 0};

void build(Filter &filter, bool is_old)
{
    add(filter, BPF_STMT(BPF_LD | BPF_W | BPF_ABS, offsetof(seccomp_data, arch)));
    add(filter, BPF_JUMP(BPF_JMP | BPF_JEQ | BPF_K, AUDIT_ARCH_X86_64, 1, 0));
    const unsigned short past_x86_64 = filter.length;
    add(filter, BPF_STMT(BPF_JMP | BPF_JA, 0));
    add_word_size(filter, is_old, played_x86_64, last_old_x86_64);
    filter.code[past_x86_64].k = filter.length - past_x86_64 - 1U;
    add_word_size(filter, is_old, played_i386, last_old_i386);
}

// ---- The vDSO ----

/// A stopped process: the size of its words, and where its stack ends.
struct Stack {
    pid_t pid;
    uint64_t word_bytes, at;
};

Stack stack_of(pid_t pid)
{
    union {
        user_regs_struct x86_64;
        uint32_t i386[17];
    } registers;
    iovec room = {&registers, sizeof registers};
    ptrace(PTRACE_GETREGSET, pid, NT_PRSTATUS, &room);
    return room.iov_len == sizeof registers.i386 ? Stack{pid, 4, registers.i386[15]}
                                                 : Stack{pid, 8, registers.x86_64.rsp};
}

uint64_t mask_of(const Stack &stack)
{
    return stack.word_bytes == 4 ? UINT32_MAX : UINT64_MAX;
}

uint64_t peek(const Stack &stack)
{
    return static_cast<uint64_t>(ptrace(PTRACE_PEEKDATA, stack.pid, stack.at, nullptr));
}

/// Takes a word from the stack.
uint64_t pop(Stack &stack)
{
    const uint64_t word = peek(stack) & mask_of(stack);
    stack.at += stack.word_bytes;
    return word;
}

/// Hides it from a program that is about to begin: its count of arguments, its arguments and its environment,
/// each up to a null, and pairs of a type and a value are on its stack.
void hide_vdso(Stack stack)
{
    pop(stack);
    for (int list = 0; list < 2; ++list) {
        while (pop(stack))
            ;
    }
    for (uint64_t type; (type = peek(stack) & mask_of(stack)) != AT_NULL; stack.at += 2 * stack.word_bytes) {
        if (type == AT_SYSINFO_EHDR)
            ptrace(PTRACE_POKEDATA, stack.pid, stack.at, (peek(stack) & ~mask_of(stack)) | AT_IGNORE);
    }
}

/// Makes a process that hides the vDSO from the program that this one becomes.
bool hide_vdso_on_exec()
{
    const pid_t pid = getpid();
    int ready[2];
    if (pipe(ready))
        return false;
    const pid_t other = fork();
    if (other == 0) {
        const bool is_traced = ptrace(PTRACE_SEIZE, pid, nullptr, PTRACE_O_TRACEEXEC) == 0;
        if (write(ready[1], is_traced ? "" : "x", 1) == 1 && is_traced &&
            waitpid(pid, nullptr, __WALL) == pid)
            hide_vdso(stack_of(pid));
        _exit(0);
    }
    char failed = 'x';
    const bool is_ready = other > 0 && read(ready[0], &failed, 1) == 1 && !failed;
    close(ready[0]);
    close(ready[1]);
    return is_ready;
}

int fail(const char *what)
{
    dprintf(1, "old_kernel: %s: %s\n", what, strerror(errno));
    return 98;
}

} // namespace

int main(int argc, char **argv)
{
    if (argc < 3)
        return fail("usage: old_kernel today|2.6.20 PROGRAM [ARG...]");
    mkdir("/machine/process", 0755);
    if (mount("/proc", "/machine/process", nullptr, MS_MOVE, nullptr))
        return fail("move /proc");
    if (!hide_vdso_on_exec())
        return fail("ptrace");

    static Filter filter;
    build(filter, strcmp(argv[1], "2.6.20") == 0);
    const sock_fprog program = {filter.length, filter.code};
    if (prctl(PR_SET_NO_NEW_PRIVS, 1, 0, 0, 0) || prctl(PR_SET_SECCOMP, SECCOMP_MODE_FILTER, &program))
        return fail("filter");
    char *const none[] = {nullptr};
    execve(argv[2], argv + 2, none);
    return fail(argv[2]);
}
