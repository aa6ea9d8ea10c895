"""No false success: whatever a line does to one packet, or to many, exit code 0 is the truth."""

import random

import other_end
import wire
from other_end import HostTest, Memory

CONTENT = bytes(range(256))


def lose(packet, held):
    return []


def double(packet, held):
    return [packet, packet]


def garble(packet, held):
    return [packet[:-1] + bytes([packet[-1] ^ 0x10])]


def delay(packet, held):
    """Behind the packet that follows it."""
    held.append(packet)
    return []


ONE_PACKET = [lose, double, garble, delay]


class Line:
    """A line that does `fault` to packet number `at` of a direction."""

    def __init__(self, direction, at, fault):
        self.direction, self.at, self.fault, self.seen, self.held = direction, at, fault, 0, []

    def __call__(self, direction, packet):
        if direction != self.direction:
            return [packet]
        self.seen += 1
        if self.seen - 1 == self.at:
            return self.fault(packet, self.held)
        passed = [packet, *self.held]
        self.held.clear()
        return passed


class BadLine:
    """A line on which every packet may suffer something, and which hangs up or falls silent for good."""

    def __init__(self, seed, rate):
        self.random, self.rate, self.held = random.Random(seed), rate, []

    def __call__(self, direction, packet):
        if self.random.random() < self.rate:
            return self.random.choice(ONE_PACKET)(packet, self.held if direction == "in" else [])
        passed = [packet, *(self.held if direction == "in" else [])]
        if direction == "in":
            self.held.clear()
        return passed


class FalseSuccess(HostTest):
    def sweep(self, words, true, packets):
        """Runs `words` with each fault at each of so many packets; 0 must be true, and come often."""
        done = 0
        for fault in ONE_PACKET:
            for direction in ["in", "out"]:
                for at in range(packets):
                    with self.subTest(fault=fault.__name__, direction=direction, at=at):
                        done += self.ended_well(words, true, Line(direction, at, fault))
        self.assertGreater(done, packets * 6, "one fault is mended by repetition")

    def ended_well(self, words, true, line):
        memory, run = Memory(), self.start(*words)
        run.line = line
        memory.serve(run)
        ended = run.end()
        self.assertIn(ended.code, (0, 1))
        if ended.code == 0:
            true(memory, ended)
        run.close()
        return ended.code == 0

    def test_is_reported_by_no_query(self):
        self.sweep(["query", "info"], lambda memory, ended: self.assertEqual(ended.out, "1 2 3\n"), 4)

    def test_is_reported_by_no_post(self):
        def true(memory, ended):
            self.assertEqual(memory.types(), [35, 18])
            self.assertEqual(memory.accepted[1].text(9), "name")
        self.sweep(["post", "post_18", "name"], true, 6)

    def test_is_reported_by_no_file(self):
        def true(memory, ended):
            self.assertEqual(memory.files, {"/remote": CONTENT})
        local = self.file("local", CONTENT)
        self.sweep(["send-file", local, "/remote", "--chunk", "100", "--tries", "2"], true, 12)

    def test_is_reported_by_nothing_on_a_bad_line(self):
        local, done = self.file("local", CONTENT), 0

        def there(memory, ended):
            self.assertEqual(memory.files, {"/remote": CONTENT})

        def counted(memory, ended):
            self.assertEqual(memory.types().count(17), 2)
        for seed in range(12):
            done += self.ended_well(["send-file", local, "/remote", "--chunk", "20"], there,
                                    BadLine(seed, 0.05))
            done += self.ended_well(["test-pattern", "--sequenced", "--count", "2"], counted,
                                    BadLine(seed, 0.002))
        self.assertGreater(done, 5)


class FalseUpdate(HostTest):
    IMAGE = b"#!/bin/sh\n" + bytes(90)  # four packets

    def updated(self, line, gone):
        """Updates a loader over a line; returns whether it has the image whole, and the result."""
        run = self.start("update", self.file("image", self.IMAGE), "--json", "--tries", "1")
        run.line, taken, notice = line, False, 1
        while not run.gone:
            message = run.receive(until=notice)
            if message is None:
                notice += 1
                if not taken and not run.gone:
                    run.send(wire.message(wire.NOTIFY_11))
            elif message.type == wire.UPDATER:
                taken = message.raw[8:] == wire.block(self.IMAGE)
                if taken and gone:
                    run.hang_up()
            elif message.type == wire.CONNECT and not taken:
                run.send(wire.message(wire.CONNECT_ANSWER, message.body))
                notice = run.now + 1
        return taken, self.lines(run.end())[-1]

    def test_is_reported_by_no_fault_of_one_packet(self):
        taken_in_all = 0
        for fault in ONE_PACKET:
            for direction in ["in", "out"]:
                for at in range(6):
                    for gone in [False, True]:
                        taken, result = self.updated(Line(direction, at, fault), gone)
                        with self.subTest(fault=fault.__name__, direction=direction, at=at, gone=gone):
                            self.assertTrue(taken or result["exit"] != 0, result)
                        taken_in_all += taken and result["exit"] == 0
        self.assertGreater(taken_in_all, 48)

    def test_is_reported_when_no_line_is_left(self):
        """A cable that is cut at each packet: nothing passes any more in either direction."""
        for cut in range(1, 5):
            passed = []

            def line(direction, packet):
                passed.append(packet)
                return [packet] if len(passed) <= cut else []
            taken, result = self.updated(line, False)
            self.assertFalse(taken)
            if cut < 2:  # before the answer
                self.assertEqual(result["error"]["code"], "no_loader")


if __name__ == "__main__":
    other_end.main()
