"""Ctrl-C and SIGTERM, and --seconds: when commands end that would go on."""

import signal
import subprocess

import other_end
import wire
from other_end import HostTest, Memory, Run

SOON = 0.25  # a fifth of a second, and the wait that it ends


class Interrupts(HostTest):
    def ends(self, run, number=signal.SIGINT, code=5, error="interrupted"):
        at = run.now
        run.interrupt(number)
        ended = run.end()
        result = self.result(ended, code, error)
        self.assertLess(ended.seconds - at, SOON)
        return result

    def test_end_the_wait_for_somebody_at_the_socket(self):
        run = Run(self, ["query", "info", "--socket", self.path("nobody"), "--json"])
        run.packet(until=1)
        self.ends(run)
        run = Run(self, ["query", "info", "--listen", self.path("nobody"), "--json"])
        run.packet(until=1)
        self.ends(run)

    def test_end_the_wait_for_each_confirm_and_the_answer(self):
        for number in [signal.SIGINT, signal.SIGTERM]:
            for steps, words in enumerate([["query", "info"]] * 3):
                run = self.start(*words, "--json")
                for _ in range(steps):
                    run.take()
                run.packet(until=run.now + 0.5)
                run.packet(until=run.now + 0.3)
                with self.subTest(words, steps=steps, number=number):
                    self.ends(run, number)

    def test_end_the_wait_for_a_loader(self):
        run = self.start("update", self.file("image", "#!/bin/sh\n"), "--json")
        self.assertIsNotNone(run.receive())
        run.packet(until=0.4)
        result = self.ends(run)
        self.assertEqual(result["command"], "update")
        self.assertIsNotNone(result["counts"])

    def test_end_a_transfer(self):
        run = self.start("update", self.file("image", "#!/bin/sh\n" + "x" * 100_000), "--json", pacing=True)
        run.send_answer_to_connect()
        for _ in range(10):
            run.packet()
        self.ends(run)
        run = self.start("send-file", self.path("image"), "relative", "--json", pacing=True)
        run.opened()
        run.take(wire.FILE_BEGIN)
        for _ in range(10):
            run.packet()
        self.ends(run)

    def test_end_a_transfer_to_an_end_that_reads_nothing(self):
        run = self.start("update", self.file("image", "#!/bin/sh\n" + "x" * 1_000_000), "--json")
        run.send_answer_to_connect()
        run.read_packet = lambda: None
        run.packet(until=5)
        self.ends(run)

    def test_end_the_watch(self):
        run = self.start("update", self.file("image", "#!/bin/sh\n"), "--json")
        run.send_answer_to_connect()
        while run.receive().type != wire.UPDATER:
            pass
        run.packet(until=run.now + 0.3)
        self.ends(run)

    def test_end_a_batch_while_it_sleeps_and_while_it_waits_for_a_line(self):
        self.ends(self.started_batch("sleep 100\n"))
        run = self.start("batch", "--json", stdin=subprocess.PIPE)
        run.packet(until=0.5)
        self.ends(run)

    def started_batch(self, text):
        run = self.start("batch", self.file("batch", text), "--json")
        run.packet(until=1)
        return run

    def test_end_what_watches_as_its_seconds_do(self):
        run = self.start("connect", "--json")
        run.send_answer_to_connect()
        run.packet(until=0.3)
        result = self.ends(run, code=0, error=None)
        self.assertEqual((result["result"]["announced"], result["result"]["answered"]), (1, 1))
        run = self.start("connect", "--json")
        run.packet(until=1.2)
        self.ends(run, signal.SIGTERM, 1, "no_answer")
        for words in [["monitor"], ["serve", self.folder]]:
            for number in [signal.SIGINT, signal.SIGTERM]:
                run = self.start(*words, "--json")
                run.packet(until=1.2)
                self.ends(run, number, 0, None)

    def test_end_serve_while_it_waits_for_a_peer_or_a_confirm(self):
        run = Run(self, ["serve", self.folder, "--listen", self.path("s"), "--json"])
        run.packet(until=1)
        self.ends(run, code=0, error=None)
        run = self.start("serve", self.folder, "--json")
        run.packet(until=0.1)
        run.send(wire.message(wire.GET_INFO))
        run.packet(until=0.5)
        run.packet(until=0.7)
        self.ends(run, code=0, error=None)

    def test_the_second_time_end_it_at_once(self):
        for words in [["query", "info"], ["update", self.file("image", "#!/bin/sh\n")]]:
            run = self.start(*words, "--json")
            run.packet()
            run.packet(until=0.3)
            at = run.now
            run.interrupt()
            run.interrupt()
            run.settle()
            self.assertTrue(run.gone, "it waits for something")
            ended = run.end()
            self.result(ended, 5, "interrupted")
            self.assertLess(ended.seconds - at, 0.001)


class Seconds(HostTest):
    def test_are_kept_whatever_is_awaited(self):
        for words, path in [(["connect"], "socket"), (["monitor"], "socket"),
                            (["serve", self.folder], "socket")]:
            ended = self.start(*words, "--seconds", "1.3").end()
            self.assertAlmostEqual(ended.seconds, 1.3, delta=0.2)

    def test_are_kept_while_serve_waits_for_a_confirm(self):
        for steps in [0, 1]:
            run = self.start("serve", self.folder, "--seconds", "1.5")
            run.packet(until=0.1)
            run.send(wire.message(wire.GET_INFO))
            for _ in range(steps):
                self.assertEqual(run.receive().type, wire.CONFIRMED)
                run.opened()
            self.assertIsNotNone(run.receive())
            ended = run.end()
            self.assertEqual(ended.code, 0)
            self.assertAlmostEqual(ended.seconds, 1.5, delta=0.2)

    def test_are_kept_while_nobody_comes(self):
        ended = self.plain("serve", self.folder, "--listen", self.path("l"), "--seconds", "2")
        self.assertEqual(ended.code, 0)
        self.assertAlmostEqual(ended.seconds, 2, delta=0.2)
        for words in [["connect"], ["monitor"]]:
            for link in ["--socket", "--listen"]:
                ended = self.plain(*words, link, self.path("nobody"), "--seconds", "1")
                self.assertNotEqual((words, ended.code), (["connect"], 0))
                self.assertAlmostEqual(ended.seconds, 1, delta=0.2)

    def test_are_kept_while_messages_flood_in(self):
        run = self.start("connect", "--seconds", "1")
        run.packet()
        half = b"\0\0\x10\0\x12\x34" + b"x" * 29
        for hundredth in range(130):
            for _ in range(20):
                run.send_packet(half)
                run.send(wire.message(34, b"", 9))
            while run.packet(until=hundredth / 100):
                pass
        ended = run.end()
        self.assertEqual(ended.code, 1)
        self.assertAlmostEqual(ended.seconds, 1, delta=0.2)

    def test_leave_the_peer_of_one_query_its_answer(self):
        run = self.start("serve", self.folder, "--info", "4", "5", "6", "--seconds", "3")
        run.packet(until=0.1)
        run.send(wire.message(wire.GET_INFO))
        run.take(wire.CONFIRMED)
        run.opened()
        self.assertEqual(run.take(wire.INFO).raw[12:], wire.words(4, 5, 6))
        self.assertEqual(run.end().code, 0)


class Lasting(HostTest):
    def test_commands_leave_an_end_that_serves_the_next_one(self):
        memory = Memory()
        run = self.start("query", "info")
        run.take()
        run.interrupt()
        run.end()
        run = self.start("query", "info")
        memory.serve(run)
        self.assertEqual(run.end().code, 0)


if __name__ == "__main__":
    other_end.main()
