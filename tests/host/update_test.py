"""update: which files it takes, when it waits and sends, and what each end of the watch proves."""

import os
import struct

import other_end
import wire
from other_end import HostTest

SCRIPT = b"#!/bin/sh\nexit\n"
INTERPRETER, LOAD = 3, 1
EXECUTABLE, POSITION_INDEPENDENT = 2, 3
I386, X86_64, ARM = 3, 62, 40


def elf(bits, machine, type, segments=(LOAD,), order="<"):
    """The smallest ELF file of that form."""
    form = order + ("HHIQQQIHHHHHH" if bits == 64 else "HHIIIIIHHHHHH")
    header, segment = (64, 56) if bits == 64 else (52, 32)
    ident = b"\x7fELF" + bytes([2 if bits == 64 else 1, 1 if order == "<" else 2, 1]) + bytes(9)
    table = b"".join(struct.pack(order + "I", kind).ljust(segment, b"\0") for kind in segments)
    return ident + struct.pack(form, type, machine, 1, 0, header, 0, 0, header, segment, len(segments), 0, 0,
                               0) + table


class Loader:
    """The other end of an update, as a loader in update mode or what takes its place."""

    def __init__(self, test, *words, content=SCRIPT, **options):
        self.test = test
        image = test.file("image", content)
        self.run = test.start("update", image, "--json", *words, **options)

    def take_image(self):
        """Answers announcements until the image comes; returns it."""
        while (message := self.run.receive()) is not None:
            if message.type == wire.UPDATER:
                return message
            self.test.assertEqual(message.type, wire.CONNECT)
            self.run.send(wire.message(wire.CONNECT_ANSWER, message.body))
        raise AssertionError(f"no image came: {self.run.said()}")

    def ends(self, code, error=None, proof=None):
        ended = self.run.end()
        result = self.test.result(ended, code, error)
        if proof is not None:
            self.test.assertEqual(result["proof"], proof)
        return result


class Images(HostTest):
    def test_are_static_programs_and_scripts(self):
        for content in [SCRIPT, b"#!/", elf(32, I386, EXECUTABLE), elf(64, X86_64, EXECUTABLE),
                        elf(32, I386, POSITION_INDEPENDENT), elf(64, X86_64, POSITION_INDEPENDENT)]:
            loader = Loader(self, "--watch", "0", content=content)
            self.assertEqual(loader.take_image().raw[8:], wire.block(content))

    def test_of_other_forms_are_bad_before_the_link_is_opened(self):
        for content in [
                b"x", b"#!", b"# !/bin/sh\n", b"\x7fELF", b"MZ" + bytes(100),
                bytes(100), b"\n#!/bin/sh\n",
                elf(64, X86_64, EXECUTABLE, [LOAD, INTERPRETER]),
                elf(32, I386, EXECUTABLE, [INTERPRETER]),
                elf(64, X86_64, POSITION_INDEPENDENT, [INTERPRETER, LOAD]),
                elf(32, ARM, EXECUTABLE),
                elf(64, 183, EXECUTABLE),
                elf(64, X86_64, 1),
                elf(64, X86_64, 4),
                elf(32, I386, EXECUTABLE, order=">"),
                elf(64, X86_64, EXECUTABLE)[:40],
                elf(64, X86_64, EXECUTABLE, [LOAD] * 3)[:-60]
        ]:
            with self.subTest(content[:30]):
                self.wrong("update", self.file("image", content), code=3, error="bad_file")

    def test_of_other_forms_are_forced(self):
        for content in [b"x", elf(64, X86_64, EXECUTABLE, [INTERPRETER])]:
            loader = Loader(self, "--force", "--watch", "0", content=content)
            self.assertEqual(loader.take_image().raw[8:], wire.block(content))

    def test_have_a_byte_at_least_and_2147483635_at_most(self):
        for size, head in [(0, b""), (2147483636, SCRIPT)]:
            name = self.file("image", head)
            os.truncate(name, size)
            for options in [[], ["--force"]]:
                self.wrong("update", name, *options, code=3, error="bad_file")


class Loaders(HostTest):
    def test_are_called_twice_a_second_until_one_answers(self):
        loader = Loader(self)
        calls = [loader.run.receive() for _ in range(5)]
        self.assertEqual([(m.type, round(m.time, 1)) for m in calls], [(5, 0), (5, 0.5), (5, 1), (5, 1.5),
                                                                       (5, 2)])
        self.assertEqual(len({message.body for message in calls}), 5)
        loader.run.send(wire.message(wire.CONNECT_ANSWER, calls[3].body))
        self.assertEqual(loader.run.receive().type, wire.UPDATER, "any of the values is one of its own")

    def test_that_do_not_answer_are_waited_for_a_minute(self):
        ended = self.start("update", self.file("image", SCRIPT), "--json").end()
        self.result(ended, 1, "no_loader")
        self.assertAlmostEqual(ended.seconds, 60, delta=0.6)

    def test_that_do_not_answer_are_waited_for_as_long_as_asked(self):
        ended = self.start("update", self.file("image", SCRIPT), "--json", "--loader-wait", "2").end()
        self.result(ended, 1, "no_loader")
        self.assertAlmostEqual(ended.seconds, 2, delta=0.25)

    def test_that_answer_something_else_are_none(self):
        loader = Loader(self, "--loader-wait", "3")
        while (message := loader.run.receive()) is not None:
            self.assertEqual(message.type, wire.CONNECT)
            loader.run.send(wire.message(wire.CONNECT_ANSWER, wire.words(message.word(8) ^ 0x5A5A5A5A)))
            loader.run.send(wire.message(wire.NOTIFY_11))
        loader.ends(1, "no_loader")

    def test_that_hang_up_before_the_image_have_hung_up(self):
        loader = Loader(self)
        loader.run.receive()
        loader.run.hang_up()
        loader.ends(1, "hung_up")


class Proofs(HostTest):
    def test_an_end_that_falls_silent_has_taken_it(self):
        loader = Loader(self)
        image = loader.take_image()
        times = [message.time - image.time for message in iter(loader.run.receive, None)]
        self.assertEqual([round(time, 1) for time in times], [0.5, 1.0, 1.5, 2.0, 2.5], "announcements")
        result = loader.ends(0, proof="silent")
        self.assertAlmostEqual(result["seconds"] - image.time, 3, delta=0.2)
        self.assertEqual((result["result"]["bytes"], result["result"]["tries"]), (len(SCRIPT), 1))
        self.assertAlmostEqual(result["result"]["last_sign_s"], 0, delta=0.1)

    def test_the_watch_lasts_as_long_as_asked(self):
        loader = Loader(self, "--watch", "7.3")
        image = loader.take_image()
        self.assertAlmostEqual(loader.ends(0, proof="silent")["seconds"] - image.time, 7.3, delta=0.2)

    def test_an_end_that_hangs_up_cleanly_has_gone(self):
        for pause in [0, 0.2, 0.7, 2]:
            loader = Loader(self)
            image = loader.take_image()
            while loader.run.receive(until=image.time + pause) is not None:
                pass
            loader.run.hang_up()
            loader.ends(0, proof="gone")

    def test_an_end_that_hangs_up_on_announcements_of_the_watch_has_gone(self):
        loader = Loader(self)
        image = loader.take_image()
        loader.run.read_packet = lambda: None
        loader.run.packet(until=image.time + 1.2)
        loader.run.hang_up()
        loader.ends(0, proof="gone")

    def test_an_end_that_resets_the_link_with_the_image_unread_has_hung_up(self):
        loader = Loader(self)
        loader.run.send_answer_to_connect()
        loader.run.read_packet = lambda: None
        loader.run.settle()
        loader.run.packet(until=0.3)
        loader.run.hang_up()
        loader.ends(1, "hung_up")

    def test_an_end_that_hangs_up_during_the_image_has_hung_up(self):
        for pacing in [False, True]:
            loader = Loader(self, content=SCRIPT + bytes(1_000_000), pacing=pacing)
            loader.run.send_answer_to_connect()
            for _ in range(5):
                self.assertIsNotNone(loader.run.packet())
            loader.run.hang_up()
            loader.ends(1, "hung_up")

    def test_an_end_that_leaves_the_image_unread_is_stuck(self):
        loader = Loader(self)
        loader.run.send_answer_to_connect()
        loader.run.read_packet = lambda: None
        self.assertAlmostEqual(loader.ends(1, "stuck")["seconds"], 10, delta=0.5)

    def test_an_end_that_reads_the_image_late_is_watched_from_then_on(self):
        loader = Loader(self)
        loader.run.send_answer_to_connect()
        reading, loader.run.read_packet = loader.run.read_packet, lambda: None
        loader.run.packet(until=2)
        loader.run.read_packet = reading
        loader.take_image()
        self.assertAlmostEqual(loader.ends(0, proof="silent")["seconds"], 5, delta=0.2)

    def test_without_a_watch_nothing_is_known(self):
        for options, code, error in [([], 6, "unverified"), (["--unverified-ok"], 0, None)]:
            loader = Loader(self, "--watch", "0", *options)
            loader.take_image()
            self.assertEqual(loader.ends(code, error)["proof"], "none")

    def test_an_end_that_had_been_silent_before_the_watch_proves_nothing(self):
        content = SCRIPT + bytes(34 * 300)  # 4.5 s at the pace of the board
        loader = Loader(self, content=content, pacing=True)
        loader.take_image()
        result = loader.ends(6, "unverified")
        self.assertEqual(result["proof"], "none")
        self.assertAlmostEqual(result["result"]["last_sign_s"], 4.5, delta=0.2)

    def test_an_end_that_gave_signs_of_life_until_the_watch_has_taken_it(self):
        content = SCRIPT + bytes(34 * 300)
        loader = Loader(self, content=content, pacing=True)
        run = loader.run
        run.send_answer_to_connect()
        for second in [1, 2, 3, 4]:
            while run.receive(until=second) is not None:
                pass
            run.send(wire.message(wire.NOTIFY_11))
        loader.take_image()
        self.assertAlmostEqual(loader.ends(0, proof="silent")["result"]["last_sign_s"], 0.5, delta=0.2)

    def test_a_sign_three_seconds_before_the_watch_is_just_enough(self):
        for size, code in [(190, 0), (210, 6)]:  # 2.85 s and 3.15 s
            loader = Loader(self, content=SCRIPT + bytes(34 * size), pacing=True)
            loader.take_image()
            loader.ends(code, "unverified" if code else None)

    def test_a_message_that_the_loader_does_not_send_is_no_sign_of_life(self):
        loader = Loader(self, content=SCRIPT + bytes(34 * 300), pacing=True)
        loader.run.send_answer_to_connect()
        while loader.run.receive(until=4) is not None:
            pass
        loader.run.send(wire.message(wire.NOTIFY_12))
        loader.take_image()
        loader.ends(6, "unverified")


class NotTaken(HostTest):
    def test_images_are_sent_three_times_in_all(self):
        loader, images = Loader(self), 0
        while (message := loader.run.receive()) is not None:
            images += message.type == wire.UPDATER
            if message.type == wire.CONNECT:
                loader.run.send(wire.message(wire.CONNECT_ANSWER, message.body))
        self.assertEqual(loader.ends(1, "still_loader")["result"]["tries"], 3)
        self.assertEqual(images, 3)

    def test_images_are_sent_as_often_as_asked(self):
        for tries in [1, 5]:
            loader, images = Loader(self, "--tries", str(tries)), 0
            while (message := loader.run.receive()) is not None:
                images += message.type == wire.UPDATER
                if message.type == wire.CONNECT:
                    loader.run.send(wire.message(wire.CONNECT_ANSWER, message.body))
            loader.ends(1, "still_loader")
            self.assertEqual(images, tries)

    def test_an_image_that_is_taken_the_second_time_is_taken(self):
        loader = Loader(self)
        loader.take_image()
        image = loader.take_image()
        self.assertEqual(image.raw[8:], wire.block(SCRIPT))
        self.assertEqual(loader.ends(0, proof="silent")["result"]["tries"], 2)

    def test_a_notice_after_half_a_second_is_the_loader_s(self):
        for pause, error in [(0.6, "still_loader"), (2.9, "still_loader"), (0.3, None)]:
            loader = Loader(self, "--tries", "1")
            image = loader.take_image()
            while loader.run.receive(until=image.time + pause) is not None:
                pass
            loader.run.send(wire.message(wire.NOTIFY_11))
            loader.ends(1 if error else 0, error)

    def test_a_late_answer_to_an_announcement_before_the_image_is_none_to_those_after(self):
        loader = Loader(self, "--tries", "1")
        first = loader.run.receive()
        loader.run.send(wire.message(wire.CONNECT_ANSWER, first.body))
        image = loader.take_image()
        while loader.run.receive(until=image.time + 1.2) is not None:
            pass
        loader.run.send(wire.message(wire.CONNECT_ANSWER, first.body))
        loader.ends(0, proof="silent")

    def test_nothing_is_sent_for_half_a_second_after_the_image(self):
        loader = Loader(self)
        image = loader.take_image()
        self.assertIsNone(loader.run.receive(until=image.time + 0.49))
        self.assertEqual(loader.run.receive(until=image.time + 0.6).type, wire.CONNECT)


class Expected(HostTest):
    def test_a_message_of_the_updater_within_the_watch_is_proof(self):
        for type, name in [(wire.NOTIFY_12, "notify_12"), (18, "post_18"), (wire.INFO, "info")]:
            loader = Loader(self, "--expect", name)
            image = loader.take_image()
            self.assertIsNone(loader.run.receive(until=image.time + 2.5), "nothing is announced")
            if type in wire.SEQUENCED:
                size = {18: 124, wire.INFO: 12}[type]
                self.assertTrue(loader.run.answer(type, bytes(size)), "it is confirmed")
            else:
                loader.run.send(wire.message(type))
            result = loader.ends(0, proof="message")
            self.assertLess(result["seconds"] - image.time, 2.8)

    def test_without_its_message_there_is_no_updater(self):
        for message in [None, wire.message(wire.NOTIFY_12 + 19)]:
            loader = Loader(self, "--expect", "notify_12", "--watch", "5")
            image = loader.take_image()
            self.assertIsNone(loader.run.receive(until=image.time + 1))
            if message:
                loader.run.send(message)
            result = loader.ends(1, "no_updater")
            self.assertAlmostEqual(result["seconds"] - image.time, 5, delta=0.2)

    def test_a_message_before_the_watch_does_not_count(self):
        loader = Loader(self, "--expect", "notify_12", content=SCRIPT + bytes(34 * 50), pacing=True)
        loader.run.send_answer_to_connect()
        self.assertIsNone(loader.run.receive(until=0.3))
        loader.run.send(wire.message(wire.NOTIFY_12))
        loader.take_image()
        loader.ends(1, "no_updater")

    def test_the_loader_s_notice_shows_that_it_is_still_there(self):
        loader = Loader(self, "--expect", "notify_12", "--tries", "1")
        image = loader.take_image()
        loader.run.receive(until=image.time + 1)
        loader.run.send(wire.message(wire.NOTIFY_11))
        loader.ends(1, "still_loader")


if __name__ == "__main__":
    other_end.main()
