"""The loader as a whole: its file, its memory, its start and its restarts. It runs as process 1 of namespaces, in a
root that has what a cabinet has."""
import time
from pathlib import Path

from contest import Contender, Contest
from processes import PROJECT, FirstProcess, loader_of, subject
from roots import APPLICATION, LASTING_APPLICATION, Root, add_busybox, equip, equip_for_install


def sizes(target, preset):
    def size_of(file):
        return lambda: file.stat().st_size
    return Contest(f"size of the loader, {target}", "bytes", [
        Contender("product", size_of(loader_of(preset))),
        Contender("tini-static", size_of(Path("/usr/bin/tini-static")), 0.14),
        Contender("busybox-static", size_of(Path("/bin/busybox")), 0.05),
        Contender("the loader on glibc", size_of(loader_of("bench")), 0.12)], limit=96 * 1024, once=True)


def parked_memory(loader):
    """In a root without anything the loader stops at its third mount and parks."""
    with Root() as root:
        root.add_program(loader, "/init")
        with FirstProcess(root.path, "/init") as process:
            process.go()
            return process.peak_memory_kb()


def waiting_memory(program, *command):
    with Root() as root:
        equip(root, LASTING_APPLICATION)
        root.add_file("/etc/inittab", f"::respawn:{LASTING_APPLICATION}\n")
        root.add_program(program, "/init")
        with FirstProcess(root.path, *command) as process:
            process.go()
            process.await_beats(1)
            return process.peak_memory_kb()


def memory(name, measure):
    return Contest(f"peak memory, {name}", "kB", [
        Contender("product", measure),
        Contender("tini-static, waiting",
                  lambda: waiting_memory("/usr/bin/tini-static", "/init", "--", LASTING_APPLICATION), 0.25),
        Contender("busybox init, waiting", lambda: waiting_memory("/bin/busybox", "/init"), 0.12),
        Contender("the loader on glibc, parked", lambda: parked_memory(loader_of("bench")), 0.2)], limit=160, every=5)


def time_start(root, *command):
    """From process 1 becoming the program to the application's first sign."""
    with FirstProcess(root.path, *command) as process:
        time.sleep(0.02)  # it has entered its root by then
        start = time.perf_counter()
        process.go()
        process.await_beats(1)
        return (time.perf_counter() - start) * 1e3


def time_net_start(program, install=False):
    """A start by `program`, net of the start of a program that does nothing."""
    with Root() as root:
        root.add_program(subject("bench_application"), "/init")
        null = time_start(root, "/init")
    with Root() as root:
        (equip_for_install if install else equip)(root)
        add_busybox(root)
        root.add_program(program, "/init")
        return time_start(root, "/init", *["qelinstall"] * install) - null


def starts():
    script = PROJECT / "benchmarks/subjects/start_up.sh"
    return [
        Contest("start-up, net of a null program", "ms", [
            Contender("product", lambda: time_net_start(subject("bench_loader"))),
            Contender("minimal program, same calls", lambda: time_net_start(subject("bench_start")), 1.1),
            Contender("busybox sh script", lambda: time_net_start(script), 0.1)]),
        Contest("install from a stick and first start", "ms", [
            Contender("product", lambda: time_net_start(subject("bench_loader"), True)),
            Contender("busybox sh script, same tools", lambda: time_net_start(script, True), 1.0)])]


def time_restarts(program, *command, count=1000):
    """A restart, by the beats of the application."""
    with Root() as root:
        equip(root)
        root.add_program(program, "/init")
        with FirstProcess(root.path, *command) as process:
            process.go()
            process.await_beats(2)
            start = time.perf_counter()
            process.await_beats(count)
            return (time.perf_counter() - start) / count * 1e3


def restarts():
    def minimal(loop):
        return lambda: time_restarts(subject("bench_minimal"), "/init", loop, APPLICATION)
    return Contest("restart of the application", "ms", [
        Contender("product", lambda: time_restarts(subject("bench_loader"), "/init")),
        Contender("minimal loop, same calls", minimal("restart-prepared"), 1.1),
        Contender("bare fork, execve, waitpid", minimal("restart"), remark="without what comes before each start")])


def loader_contests():
    return [
        sizes("x86-64", "product"), sizes("i586", "product-i586"),
        memory("parked, x86-64", lambda: parked_memory(loader_of("product"))),
        memory("parked, i586", lambda: parked_memory(loader_of("product-i586"))),
        memory("waiting, x86-64", lambda: waiting_memory(subject("bench_loader"), "/init")),
        *starts(), restarts()]
