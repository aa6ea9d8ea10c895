"""serve: a folder as the other end of the link, for peers that ask, send, update and break the rules."""

import os
import random
import struct

import other_end
import wire
from other_end import HostTest, Run


class Serving(HostTest):
    def serve(self, *options):
        os.makedirs(self.path("root"), exist_ok=True)
        run = self.start("serve", self.path("root"), *options)
        run.packet(until=0.05)
        return run

    def root(self, name, content=b""):
        os.makedirs(os.path.dirname(self.path("root/" + name)), exist_ok=True)
        return self.file("root/" + name, content)

    def ask(self, run, type, body=b"", answer=None):
        """Asks as a peer does, and takes the answer."""
        run.number = run.number % 255 + 1
        run.send(wire.message(type, body, run.number))
        run.take(wire.CONFIRMED)
        message = run.take()
        return run.take(answer) if message.type == wire.OPENING else message

    def put(self, run, path, content=b"content"):
        for type, body in [(7, wire.block(path.encode() + b"\0")), (8, wire.block(content)), (9, b"")]:
            self.assertTrue(run.answer(type, body))

    def ended(self, run):
        run.hang_up()
        ended = run.end()
        self.assertEqual(ended.code, 0, ended.err)
        return ended


class Answers(Serving):
    def test_come_from_the_folder(self):
        self.root("plugins/12"), self.root("plugins/3", b"abc"), self.root("items/thing", b"12345")
        run = self.serve()
        self.assertEqual(self.ask(run, 13).raw[12:], wire.words(2, 3, 12))
        self.assertEqual(
            self.ask(run, 43, wire.words(3, 0, 0)).raw[12:],
            wire.words(3) + struct.pack("<Q", 3))
        self.assertEqual(self.ask(run, 43, wire.words(4, 0, 0)).raw[16:], struct.pack("<Q", 0))
        question = wire.words(7) + b"thing".ljust(32, b"\0") + wire.words(16) + bytes(12)
        self.assertEqual(self.ask(run, 39, question).raw[12:], question[:44] + struct.pack("<Q", 5))
        self.ended(run)

    def test_tell_whether_a_path_exists(self):
        self.root("storage/file")
        run = self.serve()
        for path, exists in [(b"/storage/file", 1), (b"/storage/other", 0), (b"/../root", 0)]:
            question = wire.message(28, b"", 0)[:4] + wire.words(112)
            run.number += 1
            run.send(question + bytes([run.number]) + path.ljust(103, b"\0"))
            run.take(wire.CONFIRMED)
            message = run.take()
            message = run.take() if message.type == 35 else message
            self.assertEqual((message.type, message.word(12)), (29, exists))

    def test_come_from_options(self):
        run = self.serve("--info", "1", "2", "3", "--values", "4", "5000000000", "--answer", "a" * 100,
                         "--text", "t" * 511)
        self.assertEqual(self.ask(run, 36).raw[12:], wire.words(1, 2, 3))
        self.assertEqual(self.ask(run, 41).raw[16:], struct.pack("<QQ", 4, 5000000000))
        self.assertEqual(self.ask(run, 46).raw[12:], wire.block(b"t" * 511 + b"\0"))
        self.assertEqual(self.ask(run, 48, wire.block(b"\0\xff")).raw[12:], wire.block(b"\0\xff"))
        self.assertEqual(self.ask(run, 23, bytes(1104)).raw[9:109], b"a" * 100)

    def test_to_announcements_carry_their_value(self):
        run = self.serve()
        run.send(wire.message(wire.CONNECT, wire.words(42)))
        self.assertEqual(run.take(wire.CONNECT_ANSWER).body, wire.words(42))

    def test_follow_one_opening_for_each_peer(self):
        run = Run(self, ["serve", self.folder, "--listen", self.path("s"), "--no-pacing"])
        for _ in range(3):
            run.join(self.path("s"))
            types = []
            for _ in range(2):
                run.send(wire.message(36, b"", 5 + len(types)))
                types += [run.take().type, run.take().type] + ([run.take().type] if not types else [])
            self.assertEqual(types, [15, 35, 37, 15, 37])
        run.interrupt()
        self.assertEqual(run.end().code, 0)

    def test_are_not_given_to_what_does_not_fit_the_catalogue(self):
        run = self.serve("--seconds", "5")
        run.send(wire.message(36, b"more", 9))
        run.send(wire.message(28, b"", 10))
        self.assertEqual([run.take().type, run.take().type], [15, 15])
        self.assertIsNone(run.receive())
        out = run.end().out
        self.assertIn("(36) number 9, 16 bytes", out)
        self.assertIn("(28) number 10, 12 bytes", out)


class Arrivals(Serving):
    def test_of_files_are_put_in_their_place(self):
        run = self.serve()
        self.put(run, "/new/folder/remote", b"some bytes")
        out = self.ended(run).out
        with open(self.path("root/new/folder/remote"), "rb") as file:
            self.assertEqual(file.read(), b"some bytes")
        self.assertIn("remote", out)

    def test_of_files_come_in_pieces_of_any_length(self):
        run = self.serve()
        self.put(run, "/large", bytes(100000))
        self.ended(run)
        self.assertEqual(os.path.getsize(self.path("root/large")), 100000)

    def test_of_files_lead_nowhere_else_and_upset_no_terminal(self):
        os.makedirs(self.path("root"))
        os.symlink(self.folder, self.path("root/link"))
        run = self.serve()
        for path in [
                "../outside", "/../outside", "a/../../outside", "link/outside", "", ".", "n" * 300,
                "p" * 5000, "bell\x07\x1b[2J", "good"
        ]:
            self.put(run, path)
        ended = self.ended(run)
        self.assertFalse(os.path.exists(self.path("outside")))
        for name in ["good", "bell\x07\x1b[2J"]:
            with open(self.path("root/" + name), "rb") as file:
                self.assertEqual(file.read(), b"content")
        self.assertNotRegex(ended.out + ended.err, "[\x07\x1b]")
        self.assertIn("error: ", ended.err)

    def test_of_an_updater_end_the_peer_s_session(self):
        run = self.serve()
        run.send(wire.message(wire.UPDATER, wire.block(b"program")))
        self.assertEqual(run.end().code, 0)
        with open(self.path("root/updater"), "rb") as file:
            self.assertEqual((file.read(), os.stat(file.fileno()).st_mode & 0o7777), (b"program", 0o755))

    def test_of_test_patterns_are_checked(self):
        run = self.serve()
        for first in [1, 778, 778]:
            run.send(wire.message(16, wire.block(wire.words(*range(first, first + 777)))))
        ended = self.ended(run)
        self.assertIn("the counters jump from ", ended.err)
        self.assertNotIn("jump", ended.out)

    def test_are_shown(self):
        run = self.serve()
        self.assertTrue(run.answer(21, wire.words(7), 9))
        self.assertIn("post_21 (21) number 9, 16 bytes: value=7\n", self.ended(run).out)

    def test_are_counted(self):
        run = self.serve("--json", "--seconds", "2")
        self.assertTrue(run.answer(21, wire.words(7)))
        run.send(wire.message(wire.NOTIFY_11))
        self.assertEqual(self.result(run.end(), 0)["result"], {"messages": 2})


class Peers(Serving):
    def test_come_one_after_another_or_once(self):
        run = Run(self, ["serve", self.folder, "--listen", self.path("s"), "--once", "--no-pacing"])
        run.join(self.path("s"))
        self.assertEqual(self.ask(run, 36).type, 37)
        self.ended(run)
        self.assertFalse(os.path.exists(self.path("s")), "and takes its socket away")

    def test_are_noticed_once_a_second_until_they_announce_themselves(self):
        run = self.serve("--notices", "--seconds", "3.5")
        self.assertEqual([message.type for message in iter(run.receive, None)], [11, 11, 11])

    def test_replace_a_socket_that_was_left_behind(self):
        self.listen("s").close()
        run = Run(self, ["serve", self.folder, "--listen", self.path("s"), "--no-pacing"])
        run.join(self.path("s"))
        self.assertEqual(self.ask(run, 36).type, 37)

    def test_that_never_confirm_keep_no_other_waiting(self):
        run = Run(self, ["serve", self.folder, "--listen", self.path("s"), "--no-pacing"])
        run.join(self.path("s"))
        for number in range(1, 201):
            run.send(wire.message(36, b"", number))
        run.packet()
        run.join(self.path("s"))
        for _ in range(20):
            run.packet(until=run.now + 1)
        self.assertEqual(self.ask(run, 36).type, 37)

    def test_that_send_noise_stop_nothing(self):
        noise = random.Random(1)
        run = self.serve("--seconds", "1000")
        for _ in range(2000):
            run.send_packet(noise.randbytes(noise.randrange(1, 40)))
        for number in range(600):
            body = noise.randbytes(noise.randrange(60))
            run.send(wire.words(number % 55, len(body) + 12) + b"\7\0\0\0" + body)
        self.assertIn("refused", self.ended(run).err)


if __name__ == "__main__":
    other_end.main()
