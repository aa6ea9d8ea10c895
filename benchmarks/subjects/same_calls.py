#!/usr/bin/env python3
"""Writes a C++ program that makes exactly the system calls of a list (start_up_calls.txt) and nothing else.

usage: same_calls.py LIST
"""
import re
import sys

# What fork and the start of every program make by themselves.
INCLUDED = {"arch_prctl", "set_tid_address", "rt_sigprocmask"}
OF_LIBC = {"brk": "syscall(SYS_brk, 0);", "fcntl": "fcntl(0, F_GETFD);", "ioctl": "ioctl(1, TIOCGWINSZ, bytes);",
           "lseek": "lseek(0, 0, SEEK_CUR);", "munmap": "munmap(pages[--mapped], 8192);",
           "mmap": "*(pages[mapped++] = map_pages()) = 1;"}  # memory that is mapped is used
PROGRAMS = iter(['"/usr/xorg/bin/Xfake"', '"/storage/qel_application_1"'])
SHAPES = [  # of strace's lines, and what makes the call
    (r"execve\(.*", lambda m: ""),
    (r"writev\(1, \.\.\.\) = (\d+)", lambda m: f"text.iov_len = {m[1]}, writev(1, &text, 1);"),
    (r"read\((\d+), .*, (\d+)\) = .*", lambda m: f"read({m[1]}, bytes, {m[2]});"),
    (r"getdents64\((\d+), .*, (\d+)\) = .*", lambda m: f"syscall(SYS_getdents64, {m[1]}, bytes, {m[2]});"),
    (r"stat\((.*), \.\.\.\) = .*", lambda m: f"stat({m[1]}, &status);"),
    (r"fork\(\) = .*", lambda m: f"start({next(PROGRAMS)});"),
    (r"libc: (\d+) x (\w+)", lambda m: "" if m[2] in INCLUDED else f"for (int i = 0; i < {m[1]}; ++i) {OF_LIBC[m[2]]}"),
    (r"(\w+\(.*\)) = \w+", lambda m: m[1].replace("NULL", "nullptr") + ";"),
]


def statement(line):
    """The C++ that makes the call of one line."""
    for shape, make in SHAPES:
        match = re.fullmatch(shape, line)
        if match:
            return make(match)
    sys.exit(f"error: not a system call as strace writes it: {line}")


print("// NOLINTBEGIN: a list of calls, whose results are of no interest.")
print("#include <dirent.h>\n#include <fcntl.h>\n#include <sys/ioctl.h>\n#include <sys/mman.h>\n#include <sys/mount.h>")
print("#include <sys/stat.h>\n#include <sys/syscall.h>\n#include <sys/sysmacros.h>\n#include <sys/uio.h>\n#include <unistd.h>")
print('''
static void start(const char *program)
{
    char *const none[] = {nullptr};
    char *const words[] = {const_cast<char *>(program), nullptr};
    if (fork() == 0)
        execve(program, words, none);
}

static char *map_pages()
{
    const int prot = PROT_READ | PROT_WRITE, flags = MAP_PRIVATE | MAP_ANONYMOUS;
    return static_cast<char *>(mmap(nullptr, 8192, prot, flags, -1, 0));
}

int main()
{
    static char bytes[2048];
    static char *pages[100];
    int mapped = 0;
    struct stat status;
    struct iovec text = {bytes, 0};''')
lines = open(sys.argv[1], encoding="ascii").read().splitlines()
calls = [line for line in lines if not line.startswith("libc: ")]
for entry in calls[:-1] + sorted(set(lines) - set(calls), key=lambda line: line.split()[-1]) + calls[-1:]:
    print("   ", statement(entry))
print("    pause();\n}\n// NOLINTEND")
