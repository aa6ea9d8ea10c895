"""Where the benchmarks find what they measure, a tmpfs for what they make, and whole processes: commands that are timed
from start to end, and programs that are process 1 of namespaces of their own."""
import ctypes
import fcntl
import os
import re
import select
import signal
import subprocess
import time
from pathlib import Path

PROJECT = Path(__file__).resolve().parent.parent
SCRATCH = Path("/tmp/qel_bench")
PATIENCE_S = 20
CLONE_NEWNS, CLONE_NEWPID, SYS_CLONE, SYS_PIVOT_ROOT = 0x20000, 0x20000000, 56, 155
MS_BIND, MS_REC_PRIVATE, MNT_DETACH, PR_SET_PDEATHSIG = 4096, 0x44000, 2, 1
BEATS, GO = 9, 10  # descriptors of a process 1
LIBC = ctypes.PyDLL(None, use_errno=True)


def call(name, *words):
    """Calls a function of libc, numbers as longs; an error is raised."""
    result = getattr(LIBC, name)(*(ctypes.c_long(word) if isinstance(word, int) else word for word in words))
    if result < 0:
        error = ctypes.get_errno()
        raise OSError(error, f"{name}: {os.strerror(error)} (the benchmarks need root)")
    return result


def loader_of(preset):
    """The loader as built by a preset: "product", "product-i586", or "bench", the one on glibc."""
    return PROJECT / "build" / preset / "src/qel_application_loader.stripped"


def subject(name):
    """A program from subjects/, built as the product is."""
    return PROJECT / "build/bench-subjects/benchmarks" / name


def make_scratch():
    """Makes SCRATCH: a tmpfs in a mount namespace of this process's own, gone with it."""
    call("unshare", CLONE_NEWNS)
    call("mount", None, b"/", None, MS_REC_PRIVATE, None)
    SCRATCH.mkdir(exist_ok=True)
    call("mount", b"tmpfs", bytes(SCRATCH), b"tmpfs", 0, b"mode=0755,nr_inodes=0")


# ---- Trees of files ----

def make_file(path, size):
    with open(path, "wb") as file:
        for at in range(0, size, 1 << 20):
            file.write(b"x" * min(1 << 20, size - at))


def make_tree(path, kind):
    """Makes a tree of a kind that subjects/trees.cpp knows, such as "100 x 100", if it is not there."""
    if not path.exists():
        subprocess.run([PROJECT / "build/bench/benchmarks/bench_trees", kind, path], check=True)
    return path


def settle(path):
    """Lets the file system settle, so that nothing is written for the last contender while the next one runs."""
    folder = os.open(path, os.O_RDONLY)
    call("syncfs", folder)
    os.close(folder)


# ---- Commands ----

def time_command(*words):
    """Runs a command, found in PATH, whose output goes nowhere. Returns its seconds; it must end with 0."""
    words, messages = [str(word) for word in words], str(SCRATCH / "messages")
    actions = [(os.POSIX_SPAWN_OPEN, 1, "/dev/null", os.O_WRONLY, 0),
               (os.POSIX_SPAWN_OPEN, 2, messages, os.O_WRONLY | os.O_CREAT | os.O_TRUNC, 0o600)]
    start = time.perf_counter()
    status = os.waitpid(os.posix_spawnp(words[0], words, os.environ, file_actions=actions), 0)[1]
    seconds = time.perf_counter() - start
    if status != 0:
        raise RuntimeError(f"{words[0]} failed: " + Path(messages).read_text(encoding="utf-8", errors="replace"))
    return seconds


# ---- Process 1 ----

class FirstProcess:
    """Process 1 of new mount and process namespaces, with `root` as its root, descriptor 9 as the way to send beats,
    and nothing on its console. Like a cabinet, it and all that it starts have one processor. It waits for go() before
    it becomes the program; at the end of the `with` block it and all it started are ended."""

    def __init__(self, root, *command):
        go, self.go_pipe = os.pipe()
        self.beat_pipe, beats = os.pipe()
        self.pid = call("syscall", SYS_CLONE, CLONE_NEWNS | CLONE_NEWPID | signal.SIGCHLD, 0, 0, 0, 0)
        if self.pid == 0:
            try:
                self.become(bytes(root), [str(word) for word in command], go, beats)
            finally:
                os._exit(98)
        os.close(go)
        os.close(beats)

    @staticmethod
    def become(root, command, go, beats):
        null = os.open("/dev/null", os.O_RDWR)
        # Clear of the target numbers first.
        moved = [fcntl.fcntl(one, fcntl.F_DUPFD, GO + 1) for one in (null, null, null, beats, go)]
        for one, place in zip(moved, (0, 1, 2, BEATS, GO)):
            os.dup2(one, place, inheritable=place != GO)
        os.closerange(3, BEATS)
        os.closerange(GO + 1, 256)
        os.sched_setaffinity(0, {0})
        call("prctl", PR_SET_PDEATHSIG, signal.SIGKILL)
        call("mount", None, b"/", None, MS_REC_PRIVATE, None)
        call("mount", root, root, None, MS_BIND, None)
        os.chdir(root)
        call("syscall", SYS_PIVOT_ROOT, b".", b".")
        call("umount2", b".", MNT_DETACH)
        os.chdir("/")
        os.read(GO, 1)
        os.execve(command[0], command, {"PATH": "/bin"})

    def __enter__(self):
        return self

    def __exit__(self, *_):
        os.kill(self.pid, signal.SIGKILL)
        os.waitpid(self.pid, 0)
        os.close(self.go_pipe)
        os.close(self.beat_pipe)

    def go(self):
        os.write(self.go_pipe, b"!")

    def await_beats(self, count):
        """Waits until so many bytes have come through the descriptor."""
        while count > 0:
            ready = select.select([self.beat_pipe], [], [], PATIENCE_S)[0]
            come = len(os.read(self.beat_pipe, min(count, 512))) if ready else 0
            if come == 0:
                raise RuntimeError("process 1 does not start its program")
            count -= come

    def number(self, file, key):
        """A number in a file of its /proc folder, 0 when that is gone."""
        try:
            found = re.search(rf"(?m)^{key}:\s*(\d+)", Path(f"/proc/{self.pid}/{file}").read_text(encoding="ascii"))
        except OSError:
            found = None
        return int(found[1]) if found else 0

    def peak_memory_kb(self):
        """Waits until it sleeps for good and returns its peak resident memory."""
        peak, before = 0, -1
        while peak != before:
            time.sleep(0.2)
            # Some kernels count the peak roughly, but all count exactly what is there now.
            before, peak = peak, max(peak, self.number("status", "VmHWM"), self.number("smaps_rollup", "Rss"))
        if peak == 0:
            raise RuntimeError("process 1 has ended")
        return peak
