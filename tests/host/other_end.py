"""qel-host as a process under a scripted clock, and the other end of its link, which the test plays."""

import collections
import fcntl
import json
import os
import pty
import select
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import termios
import tty
import unittest

import wire

HOST = os.environ["QEL_HOST"]
CLOCK = os.environ["QEL_TEST_CLOCK_LIBRARY"]
PATIENCE = 60  # seconds of real time; only a program that hangs needs so many
LONGEST = 500  # seconds of the scripted clock; no test needs so many
FOR_EVER = 2**63 - 1
STARTED_AT = 1_700_000_000
NAMED = {"QEL_HOST_LINK", "QEL_TEST_CLOCK", "LD_PRELOAD"}

Ended = collections.namedtuple("Ended", "code out err seconds")


def environment(**more):
    return {**{name: value for name, value in os.environ.items() if name not in NAMED}, **more}


def unread(descriptor):
    return struct.unpack("i", fcntl.ioctl(descriptor, termios.FIONREAD, bytes(4)))[0]


class Run:
    """A process of qel-host. Its clock moves only while a method of this object waits for something."""

    def __init__(self, test, words, listener=None, link=None, device=None, stdin=subprocess.DEVNULL,
                 stdout=None, env={}):
        self.test, self.listener, self.link = test, listener, link
        self.assembly = wire.Assembly()
        self.device, self.came, self.messages = device, collections.deque(), collections.deque()
        self.packets, self.left = [], 0
        self.line = lambda direction, packet: [packet]  # what becomes of a packet "in" or "out" of qel-host
        self.ticks = self.target = STARTED_AT * 10**9
        self.waits, self.gone, self.number = None, False, 0
        self.out = open(test.path("out"), "w+b") if stdout is None else stdout
        self.err = open(test.path("err"), "w+b")
        self.clock, other = socket.socketpair(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        os.set_inheritable(other.fileno(), True)
        self.process = subprocess.Popen(
            [HOST, *words], stdin=stdin, stdout=self.out, stderr=self.err, pass_fds=[other.fileno()],
            env=environment(LD_PRELOAD=CLOCK, QEL_TEST_CLOCK=str(other.fileno()), **env))
        other.close()
        test.addCleanup(self.close)

    def close(self):
        if self.process.poll() is None:
            self.process.kill()
            self.process.wait()
        for file in (self.out, self.err, self.clock, self.link):
            if hasattr(file, "close"):
                file.close()

    # ---- The clock ----

    @property
    def now(self):
        return (self.ticks - STARTED_AT * 10**9) / 1e9

    def read_clock(self):
        """Takes a report of the clock; true while the process is there."""
        try:
            report = self.clock.recv(24)
        except ConnectionResetError:
            report = b""
        if len(report) < 24:
            self.gone, self.waits = True, None
            self.ticks = max(self.ticks, self.target)
            return False
        number, deadline, now = struct.unpack("<qqq", report)
        self.ticks = max(self.ticks, now)
        self.waits = (number, deadline) if deadline != 0 else None
        return True

    def move(self, until):
        """Moves the clock of a process that waits; false when it is `until` already."""
        number, deadline = self.waits
        if until is None and (deadline == FOR_EVER or self.now > LONGEST):
            raise AssertionError(f"qel-host waits forever at {self.now:.3f} s: {self.said()}")
        target = deadline if until is None else min(deadline, STARTED_AT * 10**9 + round(until * 1e9))
        if until is not None and self.ticks >= target:
            return False
        try:
            self.clock.send(struct.pack("<qq", number, target))
        except (BrokenPipeError, ConnectionResetError):
            pass  # it has ended; the next report says so
        self.target, self.waits = target, None  # it may have gone on before
        return True

    def read_packet(self):
        """A packet that is there; b"" for a hang-up, None for nothing."""
        if self.link is None and self.listener is not None and select.select([self.listener], [], [], 0)[0]:
            self.link = self.listener.accept()[0]
            self.link.setblocking(False)
        if self.link is None or not select.select([self.link], [], [], 0)[0]:
            return None
        try:
            return os.read(self.link.fileno(), 4096)
        except ConnectionResetError:
            return b""
        except OSError:  # nobody has the other side of the terminal open
            return None

    def packet(self, until=None):
        """Waits for a packet; None when the clock has come to `until`, or the process has ended."""
        while True:
            self.settle()
            packet = self.came.popleft() if self.came else self.read_packet()
            if packet:
                self.packets.append((self.now, packet))
                self.left = wire.check_packet(packet, self.left)
                return packet
            if self.gone or not self.move(until):
                return None

    def await_report(self):
        if not select.select([self.clock], [], [], PATIENCE)[0]:
            raise AssertionError(f"qel-host neither waits nor ends: {self.said()}")
        self.read_clock()

    def settle(self):
        """Lets the process run until it waits, or has ended; the clock does not move."""
        while not self.gone and self.waits is None:
            self.await_report()
        return self

    def interrupt(self, number=signal.SIGINT):
        """Interrupts the process while it waits."""
        before = self.settle().waits
        if not self.gone:
            self.process.send_signal(number)
        while not self.gone and self.waits == before:
            self.await_report()

    def join(self, path):
        """Connects to the socket that the process makes."""
        self.settle()
        if self.link is not None:
            self.link.close()
        self.link = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.link.connect(path)
        self.link.setblocking(False)
        self.assembly = wire.Assembly()

    # ---- Messages ----

    def receive(self, until=None):
        """The next message that is not lost; None as packet() does."""
        while not self.messages:
            packet = self.packet(until)
            if packet is None:
                return None
            complete = [self.assembly.add(passed) for passed in self.line("out", packet)]
            self.messages += [wire.Message(raw, self.now) for raw in complete if raw is not None]
        return self.messages.popleft()

    def take(self, type=None, until=None):
        """Receives a message and confirms it if it is sequenced."""
        message = self.receive(until)
        assert message is not None, f"nothing came until {self.now:.3f} s: {self.said()}"
        self.test.assertIn(message.type, (type, message.type if type is None else type), message)
        self.confirm(message)
        return message

    def confirm(self, message):
        if message.sequenced:
            self.send(wire.message(wire.CONFIRMED, bytes([message.number, 0, 0, 0])))

    def opened(self):
        """Takes the opening, which is to come alone."""
        opening = self.take(wire.OPENING)
        self.test.assertEqual(opening.size, 12)
        return opening

    def send_answer_to_connect(self):
        """Takes an announcement and answers it, as a loader does."""
        announced = self.take(wire.CONNECT)
        self.send(wire.message(wire.CONNECT_ANSWER, announced.body[:4]))
        return announced

    def send(self, message, crc=None):
        for packet in wire.packets_of(message, crc):
            for passed in self.line("in", packet):
                self.send_packet(passed)

    def send_packet(self, packet):
        while not self.wrote(packet):
            self.take_in()
        if self.device is not None:
            self.await_reader()

    def await_reader(self):
        """A terminal keeps no boundaries: the next packet waits until this one has come and been read."""
        waits = self.settle().waits
        while not self.gone and self.waits == waits and unread(self.device) == 0:
            if select.select([self.clock], [], [], 0.0005)[0]:
                self.read_clock()
        while not self.settle().gone and unread(self.device) > 0:
            self.take_in()

    def wrote(self, packet):
        try:
            os.write(self.link.fileno(), packet)
        except BlockingIOError:
            return self.settle().gone
        except (BrokenPipeError, ConnectionResetError):
            pass  # the process has gone
        return True

    def take_in(self):
        """Keeps a packet for later, or lets the time pass when there is none."""
        packet = self.read_packet()
        if packet:
            self.came.append(packet)
        elif self.waits is not None:
            self.move(None)

    def answer(self, type, body=b"", number=None):
        """Sends a sequenced message until it is confirmed, three times at most; true when it was."""
        self.number = self.number % 255 + 1 if number is None else number
        for _ in range(3):
            self.send(wire.message(type, body, self.number))
            until = self.now + 1
            while (message := self.receive(until)) is not None:
                if message.type == wire.CONFIRMED and message.raw[8] == self.number:
                    return True
            if self.gone:
                return False
        return False

    def hang_up(self):
        self.link.close()
        self.link, self.listener = None, None

    # ---- The end ----

    def said(self):
        """What it has printed so far, on both streams."""
        return "".join(open(self.test.path(name), errors="replace").read() for name in ("out", "err"))

    def end(self, until=None):
        """Waits until the process has ended by itself."""
        while not self.gone:
            if self.packet(until) is None and not self.gone:
                raise AssertionError(f"still there at {self.now:.3f} s: {self.said()}")
        code = self.process.wait(PATIENCE)
        self.err.seek(0)
        out = ""
        if self.out.readable():
            self.out.seek(0)
            out = self.out.read().decode()
        return Ended(code, out, self.err.read().decode(), self.now)


class Memory:
    """What the other end keeps from one process of qel-host to the next, and how it answers."""

    def __init__(self):
        self.last = 0      # number of the last sequenced message that was accepted
        self.own = 1       # number of its own last message
        self.accepted = []  # what was not dropped as a repetition
        self.files = {}
        self.path = self.data = None
        self.answers = {
            wire.GET_INFO:
                lambda message: (wire.INFO, wire.words(1, 2, 3)),
            wire.PATH_EXISTS:
                lambda message: (wire.PATH_EXISTS_REPLY, wire.words(message.text(9) in self.files)),
        }

    def serve(self, run, until=None):
        """Confirms, drops repetitions, keeps files and answers, until the process or the time ends."""
        while (message := run.receive(until)) is not None:
            self.handle(run, message)
        return self

    def handle(self, run, message):
        if message.type == wire.CONNECT:
            run.send(wire.message(wire.CONNECT_ANSWER, message.body[:4]))
        if not message.sequenced:
            return
        run.confirm(message)
        if message.number == self.last:
            return
        self.last = message.number
        self.accepted.append(message)
        self.keep_file(message)
        if message.type in self.answers:
            run.number = self.own
            run.answer(*self.answers[message.type](message))
            self.own = run.number

    def keep_file(self, message):
        if message.type == wire.FILE_BEGIN:
            self.path, self.data = message.raw[16:-1].decode(), b""
        elif message.type == wire.FILE_DATA:
            self.data += message.raw[16:]
        elif message.type == wire.FILE_END:
            self.files[self.path] = self.data

    def types(self):
        return [message.type for message in self.accepted]


class HostTest(unittest.TestCase):
    """A folder, a socket at which the other end listens, and processes of qel-host that connect to it."""

    maxDiff = None

    def setUp(self):
        self.folder = tempfile.mkdtemp(prefix="qel-host-")
        self.addCleanup(shutil.rmtree, self.folder)
        self.listener = None

    def path(self, name):
        return os.path.join(self.folder, name)

    def file(self, name, content=b""):
        with open(self.path(name), "wb") as file:
            file.write(content if isinstance(content, bytes) else content.encode())
        return self.path(name)

    def listen(self, name="socket"):
        listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        listener.bind(self.path(name))
        listener.listen(8)
        self.addCleanup(listener.close)
        return listener

    def start(self, *words, pacing=False, **options):
        """qel-host with a link to the socket."""
        self.listener = self.listener or self.listen()
        link = ["--socket", self.path("socket")] + ([] if pacing else ["--no-pacing"])
        return Run(self, [*words, *link], self.listener, **options)

    def plain(self, *words, **options):
        """qel-host without a link, to its end."""
        return Run(self, words, **options).end()

    def assert_not_opened(self):
        """Nobody has come to the socket."""
        if self.listener is not None:
            self.assertEqual(select.select([self.listener], [], [], 0)[0], [], "the link was opened")

    def start_on_device(self, *words, **options):
        """qel-host with a link to a character device that carries bytes as they are."""
        other, terminal = pty.openpty()
        tty.setraw(terminal, termios.TCSANOW)
        os.set_blocking(other, False)
        self.addCleanup(os.close, terminal)
        self.device = os.ttyname(terminal)
        return Run(self, [*words, "--device", self.device], link=os.fdopen(other, "r+b", buffering=0),
                   device=terminal, **options)

    # ---- Results ----

    def lines(self, ended):
        """The objects of --json; the last is the result, with every key."""
        objects = [json.loads(line) for line in ended.out.splitlines()]
        self.assertTrue(objects, f"no result; standard error: {ended.err}")
        result = objects[-1]
        self.assertEqual(
            set(result) - {"line"},
            {"command", "link", "exit", "proof", "result", "error", "seconds", "counts"}, ended.out)
        self.assertEqual(result["exit"], ended.code)
        self.assertEqual(result["error"] is None, ended.code == 0, ended.out)
        return objects

    def result(self, ended, code, error=None):
        """The result of --json, which ended with `code` and error code `error`."""
        result = self.lines(ended)[-1]
        self.assertEqual((ended.code, result["error"] and result["error"]["code"]), (code, error),
                         f"{ended.out}\n{ended.err}")
        if error is not None:
            self.assertEqual(set(result["error"]), {"code", "message"})
            self.assertNotEqual(result["error"]["message"], "")
        return result

    def wrong(self, *words, code=2, error="wrong_call", says="", run=None):
        """A call that ends with that error before the link is opened; `says` stands in its message."""
        ended = (run or self.start)(*words, "--json")
        result = self.result(ended if run else ended.end(), code, error)
        self.assertIn(says, result["error"]["message"])
        self.assert_not_opened()


def main():
    """Runs the tests of the calling program; none run, or one left out, is a failure."""
    result = unittest.main(module="__main__", exit=False, verbosity=2).result
    sys.exit(0 if result.wasSuccessful() and result.testsRun > 0 and not result.skipped else 1)
