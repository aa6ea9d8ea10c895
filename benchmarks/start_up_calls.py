"""The system calls of a start-up, as strace sees them, in two groups: what the start-up has to do, call by call, and
what libc adds for itself, by number."""
import collections
import re
import signal
import subprocess
import sys
import time

from processes import PROJECT, SCRATCH, FirstProcess, subject
from roots import Root, equip

EXPECTED = PROJECT / "benchmarks/start_up_calls.txt"
# Memory for streams and open folders, the mark that a folder is not inherited, the place of a stream that is closed
# before its end, the signals that fork holds back, and the start of every program.
OF_LIBC = re.compile(r"(brk|mmap|munmap|lseek|fcntl|rt_sigprocmask|arch_prctl|set_tid_address|ioctl)\(")
# Addresses, sizes of buffers, results, and what is in a record are left out.
CUTS = [(r"0x[0-9a-f]{5,}", "..."), (r"(\[)?\{.*\}(\], 2)?", "..."), (r"\|?O_LARGEFILE", ""),
        (r" += (-1 )?([A-Z0-9]+).*", r" = \2")]


def trace(process, log):
    """Lets strace write what process 1 does until its application runs."""
    with subprocess.Popen(["strace", "-q", "-s", "200", "-o", log, "-p", str(process.pid)]) as tracer:
        while process.number("status", "TracerPid") != tracer.pid:
            if tracer.poll() is not None:
                raise RuntimeError("strace cannot follow process 1")
            time.sleep(0.001)
        process.go()
        process.await_beats(1)
        time.sleep(0.1)
        tracer.send_signal(signal.SIGTERM)


def start_up_calls():
    log = SCRATCH / "calls"
    with Root() as root:
        equip(root)
        root.add_program(subject("bench_loader"), "/init")
        with FirstProcess(root.path, "/init") as process:
            trace(process, log)
    calls, own, forks = [], collections.Counter(), 0
    lines = log.read_text(encoding="ascii").splitlines()
    while not lines[0].startswith("execve("):
        del lines[0]
    for line in lines:
        if of_libc := OF_LIBC.match(line):
            own[of_libc[1]] += 1
        else:
            for pattern, kept in CUTS:
                line = re.sub(pattern, kept, line)
            calls.append(line)
        forks += line.startswith(("fork(", "clone("))
        if forks == 2:
            break
    return calls + [f"libc: {count} x {name}" for name, count in sorted(own.items())]


def print_start_up_calls():
    """Prints the calls up to the fork of the application, then what libc adds. Returns 0 when that is what the list
    says, in whatever order: that of a folder's entries is the file system's."""
    calls = start_up_calls()
    print("\n".join(calls))
    if sorted(calls) == sorted(EXPECTED.read_text(encoding="ascii").splitlines()):
        return 0
    print(f"error: that is not the list in {EXPECTED}; compare them", file=sys.stderr)
    return 1
