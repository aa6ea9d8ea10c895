"""The session of all commands: opening, confirms, what is dropped, waits and their limits, hang-ups."""

import itertools

import other_end
import wire
from other_end import HostTest, Memory

ODD = wire.message(18, b"", 9)  # post_18 has 136 bytes; this one has 12
NOTICE = wire.message(wire.NOTIFY_11)


class Opening(HostTest):
    def test_comes_alone_before_the_first_other_sequenced_message(self):
        run = self.start("query", "info")
        opening = run.receive()
        self.assertEqual((opening.type, opening.size), (35, 12))
        self.assertIn(opening.number, range(1, 256))
        self.assertIsNone(run.receive(until=0.9))
        run.confirm(opening)
        query = run.take(wire.GET_INFO)
        self.assertNotEqual(query.number, opening.number)

    def test_is_sent_by_each_command_that_sends_something_sequenced(self):
        local = self.file("local", "content")
        for words in [["query", "info"], ["post", "post_22"], ["send-file", local, "/remote"],
                      ["send-file", local, "relative"], ["test-pattern", "--sequenced"],
                      ["post", "22", "body="]]:
            run = self.start(*words)
            self.assertEqual(run.receive().type, 35, words)
            run.close()

    def test_is_not_sent_when_nothing_sequenced_is(self):
        run = self.start("post", "notify_11")
        self.assertEqual(run.receive().type, 11)
        self.assertIsNone(run.receive())
        run = self.start("test-pattern")
        self.assertEqual(run.receive().type, 16)
        self.assertIsNone(run.receive())
        run = self.start("connect", "--seconds", "2")
        while (message := run.receive()) is not None:
            self.assertEqual(message.type, wire.CONNECT)

    def test_makes_every_number_of_an_earlier_process_harmless(self):
        for last in [*range(1, 8), 254, 255]:
            memory = Memory()
            memory.last = last
            run = self.start("query", "info")
            memory.serve(run)
            self.assertEqual(run.end().out, "1 2 3\n", f"last number {last}")

    def test_makes_the_messages_of_two_processes_in_a_row_arrive(self):
        memory = Memory()
        for words in [["post", "post_21", "1"], ["post", "post_21", "1"], ["query", "info"],
                      ["query", "info"], ["test-pattern", "--sequenced"]]:
            run = self.start(*words)
            memory.serve(run)
            self.assertEqual(run.end().code, 0, words)
        self.assertEqual([type for type in memory.types() if type != 35], [21, 21, 36, 36, 17])

    def test_unconfirmed_is_sent_three_times_in_three_seconds(self):
        run = self.start("query", "info", "--json")
        self.assertEqual([(m.type, round(m.time, 1)) for m in iter(run.receive, None)], [(35, 0), (35, 1),
                                                                                         (35, 2)])
        ended = run.end()
        result = self.result(ended, 1, "no_peer")
        self.assertAlmostEqual(ended.seconds, 3, delta=0.2)
        self.assertAlmostEqual(result["seconds"], 3, delta=0.2)
        self.assertEqual(result["counts"]["resent"], 2)

    def test_begins_anew_while_messages_keep_coming_ten_seconds_at_most(self):
        run = self.start("post", "post_22", "--json")
        run.receive()
        for half in range(1, 40):
            run.send(NOTICE)
            while (message := run.receive(until=half / 2)) is not None:
                self.assertEqual(message.type, 35)
            if run.gone:
                break
        ended = run.end()
        self.result(ended, 1, "no_peer")
        self.assertAlmostEqual(ended.seconds, 10, delta=0.3)

    def test_that_begins_anew_opens_once_it_is_confirmed(self):
        run = self.start("query", "info")
        run.receive(until=2)
        run.send(NOTICE)
        while run.receive(until=4) is not None:
            pass
        Memory().serve(run)
        self.assertEqual(run.end().out, "1 2 3\n")

    def test_confirmed_by_its_last_transmission_only_opens_as_well(self):
        run = self.start("query", "info")
        run.receive(), run.receive()
        run.opened()
        run.take(wire.GET_INFO)

    def test_is_not_taken_as_confirmed_by_another_number(self):
        run = self.start("query", "info", "--json")
        while (opening := run.receive()) is not None:
            self.assertEqual(opening.type, 35)
            run.send(wire.message(wire.CONFIRMED, bytes([opening.number % 255 + 1, 0, 0, 0])))
        self.result(run.end(), 1, "no_peer")


class Numbers(HostTest):
    def test_run_from_1_to_255_and_never_repeat_the_one_before(self):
        run = self.start("test-pattern", "--sequenced", "--count", "300")
        memory = Memory().serve(run)
        self.assertEqual(run.end().code, 0)
        numbers = [message.number for message in memory.accepted]
        self.assertEqual(len(numbers), 301)
        for before, after in zip(numbers, numbers[1:]):
            self.assertEqual(after, before % 255 + 1)


class Confirms(HostTest):
    def monitor(self, *messages):
        """What monitor sends and reports about these messages, each sent as packets."""
        run = self.start("monitor", "--seconds", "1", "--json")
        run.packet(until=0.1)
        for message in messages:
            run.send(message)
        confirmed = [message.raw[8] for message in iter(run.receive, None)]
        lines = self.lines(run.end())
        return confirmed, [line["message"] for line in lines[:-1]], lines[-1]

    def test_are_sent_whatever_size_the_catalogue_has(self):
        confirmed, shown, result = self.monitor(ODD, wire.message(36, b"more", 10), wire.message(4, b"", 11))
        self.assertEqual(confirmed, [9, 10, 11])
        self.assertEqual([(m["type"], m["number"], m["size"]) for m in shown], [(18, 9, 12), (36, 10, 16),
                                                                                (4, 11, 12)])
        self.assertEqual(result["counts"]["refused"], 0)

    def test_show_the_body_of_what_does_not_fit_the_catalogue(self):
        _, shown, _ = self.monitor(wire.message(36, b"\x01\xab", 10), wire.message(77, b"\x02"))
        self.assertEqual([m["fields"] for m in shown], [{"body": "01ab"}, {"body": "02"}])

    def test_are_not_sent_for_what_breaks_the_link_s_rules(self):
        confirmed, shown, result = self.monitor(
            wire.message(18, b"", 0), wire.message(18, b"", 9, size=136), wire.words(18, 8), b"\x12",
            wire.words(18, 11) + b"\1\0\0")
        self.assertEqual((confirmed, shown), ([], []))
        self.assertEqual(result["counts"]["refused"], 5)

    def test_are_sent_for_each_repetition_which_is_shown_once(self):
        confirmed, shown, result = self.monitor(*[wire.message(34, b"", 9)] * 5)
        self.assertEqual(confirmed, [9] * 5)
        self.assertEqual(len(shown), 1)
        self.assertEqual(result["counts"]["duplicates"], 4)

    def test_remember_one_number_only(self):
        _, shown, _ = self.monitor(*[wire.message(34, b"", number) for number in (9, 10, 9, 9)])
        self.assertEqual([message["number"] for message in shown], [9, 10, 9])

    def test_are_not_sent_for_a_message_with_a_wrong_crc(self):
        run = self.start("monitor", "--seconds", "1", "--json")
        run.packet(until=0.1)
        run.send(wire.message(34, b"", 9), crc=0)
        self.assertIsNone(run.receive())
        lines = self.lines(run.end())
        self.assertEqual((len(lines), lines[0]["counts"]["crc_wrong"]), (1, 1))


class Waiting(HostTest):
    def test_for_a_confirm_drops_everything_else_unseen(self):
        run = self.start("query", "info", "--json")
        run.opened()
        query = run.receive()
        run.send(wire.message(wire.INFO, wire.words(7, 7, 7), 5))
        run.send(NOTICE)
        self.assertIsNone(run.receive(until=0.5), "nothing is confirmed")
        run.confirm(query)
        self.assertTrue(run.answer(wire.INFO, wire.words(7, 8, 9), 5), "repeated, it is the answer")
        result = self.result(run.end(), 0)
        self.assertEqual(result["counts"]["unseen"], 2)
        self.assertEqual(result["result"]["fields"], {"a": 7, "b": 8, "c": 9})

    def test_for_a_confirm_is_three_times_a_second(self):
        run = self.start("query", "info", "--json")
        opened = run.opened().time
        times = [message.time - opened for message in iter(run.receive, None)]
        self.assertEqual([round(time, 1) for time in times], [0, 1, 2])
        ended = run.end()
        self.result(ended, 1, "not_confirmed")
        self.assertAlmostEqual(ended.seconds - opened, 3, delta=0.2)

    def test_for_an_answer_ends_15_seconds_after_the_first_transmission(self):
        run = self.start("query", "info", "--json")
        run.opened()
        first = run.receive()
        run.receive()
        run.take(wire.GET_INFO)
        ended = run.end()
        self.result(ended, 1, "no_answer")
        self.assertAlmostEqual(ended.seconds - first.time, 15, delta=0.2)

    def test_for_an_answer_takes_the_first_of_the_wanted_type(self):
        run = self.start("query", "info")
        run.opened()
        run.take(wire.GET_INFO)
        self.assertTrue(run.answer(wire.PATH_EXISTS_REPLY, wire.words(1)), "confirmed, and dropped")
        self.assertIsNone(run.receive(until=14))
        self.assertTrue(run.answer(wire.INFO, wire.words(4, 5, 6)))
        self.assertEqual(run.end().out, "4 5 6\n")

    def test_for_an_answer_that_does_not_fit_the_catalogue_ends_at_once(self):
        for query, type, body in [(["info"], 37, wire.words(1)), (["info"], 37, wire.words(1, 2, 3, 4)),
                                  (["plugins"], 14, wire.words(0xFFFFFFFF)),
                                  (["text"], 47, wire.words(9) + b"aaaa"), (["41"], 42, b""),
                                  (["23", "name"], 24, b"text")]:
            run = self.start("query", *query, "--json")
            run.opened()
            run.take()
            self.assertTrue(run.answer(type, body), "it is confirmed")
            ended = run.end()
            self.result(ended, 1, "bad_answer")
            self.assertLess(ended.seconds, 0.5)

    def test_for_a_reader_that_has_stopped_ends_after_ten_seconds(self):
        block = self.file("block", bytes(1_000_000))
        image = self.file("image", b"#!/bin/sh\n" + bytes(1_000_000))
        run = self.start("post", "transfer_data", "block=@" + block, "--json")
        began = run.opened().time
        while run.waits is None or len(run.packets) < 2:
            run.packet(until=0.1)
        self.stops_reading(run, began)
        run = self.start("update", image, "--json")
        began = run.send_answer_to_connect().time
        run.packet()
        self.stops_reading(run, began)

    def stops_reading(self, run, began):
        run.read_packet = lambda: None
        ended = run.end()
        self.result(ended, 1, "stuck")
        self.assertAlmostEqual(ended.seconds - began, 10, delta=0.5)

    def test_for_a_slow_reader_goes_on(self):
        run = self.start("post", "transfer_data", "block=@" + self.file("block", bytes(100_000)))
        run.opened()
        reading, run.read_packet = run.read_packet, lambda: None
        for pause in range(1, 4):
            run.packet(until=9 * pause)
            # Not all that comes: qel-host goes on as soon as there is room.
            for packet in itertools.islice(iter(reading, None), 100):
                run.left = wire.check_packet(packet, run.left)
                run.assembly.add(packet)
        run.read_packet = reading
        Memory().serve(run)
        self.assertEqual(run.end().code, 0)


class Devices(HostTest):
    def test_carry_queries_and_posts(self):
        memory = Memory()
        for words, out in [(["query", "info"], "1 2 3\n"), (["post", "post_22"], ""),
                           (["query", "info"], "1 2 3\n")]:
            run = self.start_on_device(*words)
            memory.serve(run)
            ended = run.end()
            self.assertEqual((ended.code, ended.out), (0, out), ended.err)
        self.assertEqual(memory.types(), [35, 36, 35, 22, 35, 36])


class HangUp(HostTest):
    def expect(self, run, code="hung_up"):
        at = run.now
        run.hang_up()
        ended = run.end()
        self.result(ended, 1, code)
        self.assertLess(ended.seconds - at, 0.25)

    def test_ends_every_wait_within_a_fifth_of_a_second(self):
        for steps, words in [(0, ["query", "info"]), (1, ["query", "info"]), (2, ["query", "info"]),
                             (1, ["post", "post_22"]), (1, ["test-pattern", "--sequenced"])]:
            run = self.start(*words, "--json")
            for _ in range(steps):
                run.take()
            run.packet(until=run.now + 0.5)
            with self.subTest(words, steps=steps):
                self.expect(run)

    def test_ends_what_watches(self):
        for words in [["connect"], ["connect", "--seconds", "60"], ["monitor"],
                      ["monitor", "--seconds", "60"]]:
            run = self.start(*words, "--json")
            run.packet(until=3)
            with self.subTest(words):
                self.expect(run)

    def test_with_unread_messages_is_one_too(self):
        run = self.start("query", "info", "--json")
        run.opened()
        run.settle()
        self.expect(run)

    def test_after_the_answer_is_none(self):
        run = self.start("query", "info")
        run.opened()
        run.take(wire.GET_INFO)
        run.send(wire.message(wire.INFO, wire.words(1, 2, 3)))
        run.hang_up()
        ended = run.end()
        self.assertEqual((ended.code, ended.out), (0, "1 2 3\n"), ended.err)


if __name__ == "__main__":
    other_end.main()
