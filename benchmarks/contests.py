"""What is measured besides the loader as a whole: its parts, its library of files, and qel-host."""
import functools
import json
import re
import shutil
import signal
import subprocess
import sys

from contest import Contender, Contest
from processes import PROJECT, SCRATCH, make_file, make_tree, settle, subject, time_command

HOST = PROJECT / "build/tools/host/qel-host"
LIBRARY, MINIMAL = subject("bench_library"), subject("bench_minimal")
CABINET_ROUNDS_MAX = 5  # it is emulated: it takes its time


# ---- CRC and packet link, by Google Benchmark, which repeats and interleaves them itself ----

@functools.cache
def in_process_samples(rounds):
    """All repetitions of all benchmarks, by name, in nanoseconds."""
    report = SCRATCH / "report"
    time_command(PROJECT / "build/bench/benchmarks/bench_in_process", "--benchmark_min_time=0.02",
                 f"--benchmark_repetitions={rounds}", "--benchmark_enable_random_interleaving=true",
                 f"--benchmark_out={report}", "--benchmark_out_format=json")
    samples = {}
    for run in json.loads(report.read_text(encoding="utf-8"))["benchmarks"]:
        if run.get("error_occurred"):
            raise RuntimeError(f"{run['name']}: {run['error_message']}")
        if run["run_type"] == "iteration":
            samples.setdefault(run["run_name"], []).append(run["real_time"])
    return samples


def one_by_one(samples, *names):
    """Measured all at once, when the first of them is asked for; each round takes the next one."""
    taken = iter(range(1000))

    def measure():
        all_of_it = samples()
        for name in names:
            all_of_it = all_of_it[name]
        return all_of_it[next(taken)]
    return measure


def in_process(rounds):
    def of(name):
        return one_by_one(lambda: in_process_samples(rounds), name)

    def crc(name, size, table_max, other_max):
        return Contest(f"CRC of {name}", "ns", [
            Contender("product", of(f"crc/product/{size}")),
            Contender("256-entry table", of(f"crc/table/{size}"), table_max),
            Contender("Boost.CRC", of(f"crc/boost/{size}"), other_max),
            Contender("the form in kernels", of(f"crc/kernel/{size}"), other_max)])
    return [crc("29 bytes", 29, 1 / 1.8, None), crc("64 KiB", 65536, 1 / 6, 1 / 6), crc("1 MiB", 1 << 20, 1 / 6, 1 / 6),
            Contest("1 MiB through the packet link", "ns", [
                Contender("product", of("link/product")),
                Contender("minimal loop, same CRC", of("link/minimal"), 1.4)])]


# ---- Files and trees: the product's library as a command, compared with the usual ones and the least that does it ----

def timed(command, prepare=lambda: None, clean=None):
    """Milliseconds of a command; `clean` is a tree that it makes."""
    def measure():
        prepare()
        seconds = time_command(*command)
        if clean:
            subprocess.run(["rm", "-rf", clean], check=True)
        return seconds * 1e3
    return measure


def copies():
    large, copy = SCRATCH / "large", SCRATCH / "copy"

    def of(*command):
        return timed(command, lambda: large.exists() or make_file(large, 64 << 20), copy)
    return Contest("copy a file of 64 MiB", "ms", [
        Contender("product", of(LIBRARY, "copy", large, copy)),
        Contender("raw loop of 4096 bytes", of(MINIMAL, "copy", large, copy), 1.03),
        Contender("dd bs=4k", of("dd", f"if={large}", f"of={copy}", "bs=4k", "status=none"), 1.03)])


def calls_of(command, calls):
    """How often a command, which must not fail, makes one of the calls, named as strace does."""
    log = SCRATCH / "calls"
    time_command("strace", "-f", "-o", log, "-e", f"trace={calls}", "-e", "signal=none", *command)
    return len(log.read_text(encoding="ascii").splitlines()) - 1  # the last line reports the end


def memory_calls_of_copy():
    make_file(SCRATCH / "small", 100000)
    return calls_of([LIBRARY, "copy", SCRATCH / "small", SCRATCH / "copy"], "brk,mmap,mremap")


def removal_calls():
    """Unlike the time of a removal, the same however busy the computer is."""
    def of(*command):
        return lambda: calls_of([*command, make_tree(SCRATCH / "tree", "10 x 100")], "all")
    return Contest("system calls to remove 10 x 100 files", "calls", [
        Contender("product", of(LIBRARY, "remove")),
        Contender("minimal loop, same calls", of(MINIMAL, "remove"), 1.03),
        Contender("rm -rf", of("rm", "-rf"))], once=True)


def removals(name, kind):
    tree = SCRATCH / "tree"

    def of(*command):
        return timed([*command, tree], lambda: settle(make_tree(tree, kind)))
    return Contest(f"remove {name}", "ms", [
        Contender("product", of(LIBRARY, "remove")),
        Contender("minimal loop, same calls", of(MINIMAL, "remove"), 1.03),
        Contender("rm -rf", of("rm", "-rf"), 1.4, "no chmod, no batches of 20")])


def growth():
    def a_file_of(count):
        return lambda: time_command(LIBRARY, "remove", make_tree(SCRATCH / "tree", f"0 x {count}")) / count * 1e6
    return Contest("remove a file of 100,000 in one folder", "us", [
        Contender("product", a_file_of(100000)), Contender("product, of 10,000", a_file_of(10000), 1.2)], every=3)


def tree_copies():
    source, target = SCRATCH / "source", SCRATCH / "target"

    def of(*command):
        return timed(command, lambda: make_tree(source, "100 x 100"), target)
    return Contest("copy a tree of 10,000 small files", "ms", [
        Contender("product", of(LIBRARY, "copy-tree", source, target)),
        Contender("cp -a", of("cp", "-a", source, target), 1.0, "keeps owners and times"),
        Contender("rsync -a", of("rsync", "-a", f"{source}/", target), 0.6, "keeps owners and times"),
        Contender("busybox cp -r", of("busybox", "cp", "-r", source, target), 1.1)])


def searches():
    tree, prefix = SCRATCH / "searched", "qel_application_"

    def prepare():
        if not tree.exists():
            make_tree(tree, "100 x 100")
            make_file(tree / "folder_7" / f"{prefix}1", 1)
            make_file(tree / "folder_70" / f"{prefix}2", 1)
    return Contest("search 10,000 entries by prefix", "ms", [
        Contender("product", timed([LIBRARY, "search", tree, prefix], prepare)),
        Contender("find -name", timed(["find", tree, "-name", f"{prefix}*"], prepare), 0.6),
        Contender("busybox find", timed(["busybox", "find", tree, "-name", f"{prefix}*"], prepare), 0.25)])


def starts_of_commands():
    """What a process costs before it works: it is in every other figure of a command."""
    empty, target = SCRATCH / "empty", SCRATCH / "empty_too"

    def of(*command):
        return timed(command, lambda: empty.mkdir(exist_ok=True))
    return Contest("an empty job, for what the start of a command costs", "ms", [
        Contender("product", of(LIBRARY, "remove", empty)),
        Contender("minimal loop", of(MINIMAL, "remove", empty)),
        Contender("rm -rf", of("rm", "-rf", empty)),
        Contender("dd", of("dd", "if=/dev/null", f"of={target}_file", "status=none")),
        Contender("cp -a", of("cp", "-a", empty, target)),
        Contender("rsync -a", of("rsync", "-a", f"{empty}/", target)),
        Contender("find", of("find", empty)),
        Contender("busybox find", of("busybox", "find", empty))])


# ---- qel-host: a trace compared with tshark's, an update with a plain copy of its records ----

def time_with_peer(*command):
    """Seconds of a command of qel-host that talks to another one."""
    folder, link = SCRATCH / "served", SCRATCH / "link"
    folder.mkdir(exist_ok=True)
    with subprocess.Popen([HOST, "serve", folder, "--listen", link, "--no-pacing", "--once"],
                          stdout=subprocess.DEVNULL, stderr=subprocess.DEVNULL):
        return time_command(HOST, *command, "--socket", link, "--no-pacing", "--unverified-ok")


def recording():
    """10,870 test patterns of 92 packets each, made once."""
    file = SCRATCH / "recording.pcapng"
    if not file.exists():
        time_with_peer("test-pattern", "--count", "10870", "--record", file)
    return file


def time_update():
    make_file(SCRATCH / "updater", 20000000)
    return time_with_peer("update", SCRATCH / "updater", "--force", "--watch", "0") * 1e3


def host():
    dissector = f"lua_script:{PROJECT}/host/wireshark/qel_link.lua"
    tshark = ["-T", "fields", "-e", "frame.number", "-e", "qel.message"]
    return [
        Contest("trace of 1,000,000 records", "s", [
            Contender("product", lambda: time_command(HOST, "trace", recording())),
            Contender("tshark -T fields",
                      lambda: time_command("tshark", "-X", dissector, "-r", recording(), *tshark), 0.2)], once=True),
        Contest("update of 20 MB without pacing", "ms", [
            Contender("product", time_update),
            Contender("plain copy of its records", timed([MINIMAL, "records", 20000000 // 34]),
                      remark="no CRC, no answers")], every=3)]


# ---- In the simulated cabinet: a real kernel with the file system that the product is for ----

@functools.cache
def cabinet_samples():
    """Reads "bench|TREE|COMMAND|MS" lines up to the last one."""
    stick, samples = SCRATCH / "stick", {}
    stick.mkdir()
    for name in "library", "minimal":
        shutil.copy(subject(f"bench_{name}"), stick / name)
    (stick / "rounds").write_text(f"{CABINET_ROUNDS_MAX}\n", encoding="ascii")
    # With a limit, so that it ends also when nobody ends it.
    with subprocess.Popen([PROJECT / "run", "--stick", stick, "--application",
                           PROJECT / "build/bench/benchmarks/bench_trees", "--seconds", "3600"],
                          stdout=subprocess.PIPE, text=True, errors="replace") as run:
        try:
            for line in run.stdout:
                if match := re.search(r"bench\|([^|]*)(?:\|([^|]*)\|?([\d.]*))?", line.rstrip()):
                    tree, command, milliseconds = match.groups()
                    if tree.startswith("end"):
                        return samples
                    if tree == "error":
                        raise RuntimeError(f"in the cabinet: {command}")
                    samples.setdefault(tree, {}).setdefault(command, []).append(float(milliseconds))
                    print(f"in the cabinet: {tree}, {command}: {milliseconds} ms", file=sys.stderr)
        finally:
            run.send_signal(signal.SIGINT)
            run.stdout.read()
    raise RuntimeError("the cabinet stopped before it had measured; see ./run")


def cabinet(tree, rounds):
    def of(command):
        return one_by_one(cabinet_samples, tree, command)
    return Contest(f"remove {tree}, vfat, in the cabinet", "ms", [
        Contender("product", of("product")), Contender("minimal loop, same calls", of("minimal"), 1.03),
        Contender("busybox rm -rf", of("rm"), remark="no chmod, no batches of 20")],
        every=-(-rounds // CABINET_ROUNDS_MAX))


def part_contests(rounds):
    return [
        *in_process(rounds), starts_of_commands(), copies(),
        Contest("calls for memory while copying a file", "calls", [Contender("product", memory_calls_of_copy)], limit=0,
                once=True),
        removal_calls(), removals("100 x 100 files", "100 x 100"), removals("10,000 files in one folder", "0 x 10000"),
        removals("a Wine prefix", "prefix"), growth(), tree_copies(), searches(), *host(),
        *(cabinet(tree, rounds) for tree in ("10 x 100 files", "1,000 files in one folder", "a Wine prefix"))]
