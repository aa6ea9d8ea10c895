"""query, post, test-pattern, connect and monitor: what is sent, what is printed, and what success means."""

import struct

import other_end
import wire
from other_end import HostTest, Memory

RECORD = "000102030405060708090a0b0c0d0e0f10111213"


def text(value, size):
    return value.encode().ljust(size, b"\0")


class Queries(HostTest):
    def asked(self, *words, answer, json=False):
        """The question of a query that is answered with (type, body after byte 8 or 12), and how it ended."""
        run = self.start("query", *words, *(["--json"] if json else []))
        run.opened()
        question = run.take()
        self.assertTrue(run.answer(*answer))
        return question, run.end()

    def test_send_what_is_asked_and_print_the_bare_answer(self):
        for words, type, body, answer, printed in [
            (["plugins"], 13, b"\0\0\0", (14, wire.words(2, 3, 12)), "3\n12\n"),
            (["path-exists", "/a/b"], 28, text("/a/b", 103), (29, wire.words(0)), "0\n"),
            (["path-exists", "/a/b"], 28, text("/a/b", 103), (29, wire.words(1)), "1\n"),
            (["info"], 36, b"\0\0\0", (37, wire.words(7, 8, 4294967295)), "7 8 4294967295\n"),
            (["item-size", "7", "0x10",
              "thing"], 39, b"\0\0\0" + wire.words(7) + text("thing", 32) + wire.words(16) + bytes(12),
             (40, bytes(44) + struct.pack("<Q", 5000000000)), "5000000000\n"),
            (["item-size", "7", "8"], 39, b"\0\0\0" + wire.words(7) + bytes(32) + wire.words(8) + bytes(12),
             (40, bytes(44) + struct.pack("<Q", 5)), "5\n"),
            (["plugin-size",
              "3"], 43, b"\0\0\0" + wire.words(3, 0, 0), (44, wire.words(3) + struct.pack("<Q", 9)), "9\n"),
            (["text"], 46, b"\0\0\0", (47, wire.block(b"a text\0")), '"a text"\n'),
            (["41"], 41, b"\0\0\0", (42, bytes(4) + struct.pack("<QQ", 4, 5000000000)), "4 5000000000\n"),
            (["decipher",
              "00:ff 10"], 48, b"\0\0\0" + wire.block(b"\0\xff\x10"), (49, wire.block(b"abc")), "616263\n"),
        ]:
            with self.subTest(words):
                question, ended = self.asked(*words, answer=answer)
                self.assertEqual((question.type, question.raw[12:]), (type, (b"\0" + body)[4:]), words)
                if type == 28:
                    self.assertEqual(question.raw[9:], body)
                self.assertEqual((ended.code, ended.out), (0, printed))

    def test_of_a_name_with_texts_print_the_text_that_comes(self):
        run = self.start("query", "23", "name", "one", "two")
        run.opened()
        reply_24 = b"the answer\"\\\x1b\0".ljust(100, b"z")
        question = run.take(23)
        self.assertEqual(question.raw[9:],
                         text("name", 100) + text("one", 100) + text("two", 900) + b"\0\0\0" + wire.words(2))
        run.send(wire.words(24, 112) + b"\x09" + reply_24 + bytes(3))
        self.assertEqual(run.end().out, '"the answer\\"\\\\\\x1b"\n')

    def test_print_texts_that_upset_no_terminal(self):
        _, ended = self.asked("text", answer=(47, wire.block(b"\x1b[2J\x07\xc3\xa4\0")))
        self.assertEqual(ended.out, '"\\x1b[2J\\x07\\xc3\\xa4"\n')

    def test_take_the_longest_answers_there_are(self):
        _, ended = self.asked("text", answer=(47, wire.block(b"a" * 511 + b"\0")))
        self.assertEqual(ended.out, f'"{"a" * 511}"\n')
        ids = list(range(1, 5001))
        _, ended = self.asked("plugins", answer=(14, wire.words(5000, *ids)))
        self.assertEqual(ended.out, "".join(f"{id}\n" for id in ids))

    def test_have_the_answer_as_their_result(self):
        _, ended = self.asked("info", answer=(37, wire.words(1, 2, 3), 77), json=True)
        result = self.result(ended, 0)
        self.assertEqual(result["proof"], "answered")
        self.assertEqual(result["result"], {"type": 37, "name": "info", "number": 77, "size": 24,
                                            "fields": {"a": 1, "b": 2, "c": 3}})
        _, ended = self.asked("plugins", answer=(14, wire.words(2, 3, 12)), json=True)
        self.assertEqual(self.result(ended, 0)["result"]["fields"]["plugins"], [3, 12])
        _, ended = self.asked("decipher", "00", answer=(49, wire.block(b"\xab")), json=True)
        self.assertEqual(self.result(ended, 0)["result"]["fields"]["block"], "ab")
        _, ended = self.asked("text", answer=(47, wire.block(b"a\xff\0")), json=True)
        self.assertIsInstance(self.result(ended, 0)["result"]["fields"]["text"], str)

    def test_are_asked_as_often_as_said(self):
        run = self.start("query", "--tries", "2", "info")
        run.opened()
        first = run.take(wire.GET_INFO)
        second = run.take(wire.GET_INFO)
        self.assertNotEqual(first.number, second.number)
        self.assertAlmostEqual(second.time - first.time, 15, delta=0.2)
        run.answer(wire.INFO, wire.words(1, 2, 3))
        self.assertEqual(run.end().code, 0)

    def test_are_asked_once_unless_said_otherwise(self):
        run = self.start("query", "info", "--json")
        run.opened()
        run.take(wire.GET_INFO)
        self.assertIsNone(run.receive())
        self.assertEqual(self.result(run.end(), 1, "no_answer")["result"], None)


class Posts(HostTest):
    def posted(self, *words, code=0):
        """The first message of a post but the opening."""
        run = self.start("post", *words)
        message = run.take()
        message = run.take() if message.type == wire.OPENING else message
        ended = run.end()
        self.assertEqual((ended.code, ended.out), (code, ""), ended.err)
        return message

    def test_send_the_fields_in_order_or_by_name(self):
        whole = text("name", 103) + wire.words(7) + bytes(range(20))
        for words in [["name", "7", RECORD], ["name=name", "value=0x7", "record=" + RECORD],
                      ["record=" + RECORD, "name=name", "value=7"]]:
            message = self.posted("post_19", *words)
            self.assertEqual((message.type, message.raw[9:]), (19, whole))

    def test_send_every_message_of_the_catalogue(self):
        word = wire.words(7)
        for words, type, rest in [  # the rest from byte 8, or 12
            (["transfer_begin", "7"], 1, word), (["transfer_data", "616263"], 2, wire.block(b"abc")),
            (["transfer_end"], 3, b""), (["connect", "7"], 5, word),
            (["file_begin", "/a"], 7, wire.block(b"/a\0")),
            (["file_data", "block=616263"], 8, wire.block(b"abc")), (["file_end"], 9, b""),
            (["updater", "00ff"], 10, wire.block(b"\0\xff")), (["notify_11"], 11, b""),
            (["notify_12"], 12, b""), (["get_plugins"], 13, b""),
            (["plugins", "3", "12"], 14, wire.words(2, 3, 12)),
            (["plugins", "plugins=3", "plugins=0xc"], 14, wire.words(2, 3, 12)),
            (["plugins"], 14, wire.words(0)), (["post_21", "7"], 21, word), (["post_22"], 22, b""),
            (["notify_26"], 26, bytes(24)), (["notify_27", RECORD], 27, b"\0" + bytes(range(20)) + bytes(3)),
            (["reply_path_exists", "1"], 29, wire.words(1)), (["notify_30", "7"], 30, word),
            (["notify_31"], 31, b""), (["post_34"], 34, b""), (["get_info"], 36, b""),
            (["info", "1", "2", "c=3"], 37, wire.words(1, 2, 3)), (["connect_answer", "7"], 38, word),
            (["reply_42", "5000000000", "0x1"], 42, bytes(4) + struct.pack("<QQ", 5000000000, 1)),
            (["get_plugin_size", "3"], 43, wire.words(3, 0, 0)), (["post_45", "7"], 45, word + bytes(8)),
            (["get_text"], 46, b""), (["text", "a text"], 47, wire.block(b"a text\0")),
            (["decipher", "block=00ff"], 48, wire.block(b"\0\xff"))
        ]:
            with self.subTest(words):
                sequenced = type in wire.SEQUENCED
                message = self.posted(*words, code=0 if sequenced else 6)
                self.assertEqual((message.type, message.raw[12 if sequenced else 8:]), (type, rest))

    def test_send_the_texts_that_begin_behind_the_number(self):
        for words, type, rest in [
            (["post_18", "name"], 18, text("name", 127)), (["post_20", "name"], 20, text("name", 127)),
            (["post_32", "name", "7"], 32, text("name", 31) + wire.words(7)),
            (["post_33", "name"], 33, text("name", 31)),
            (["query_23", "n", "one",
              "two"], 23, text("n", 100) + text("one", 100) + text("two", 900) + b"\0\0\0" + wire.words(2)),
            (["query_23", "name=n", "items=one", "items=two"], 23,
             text("n", 100) + text("one", 100) + text("two", 900) + b"\0\0\0" + wire.words(2))
        ]:
            with self.subTest(words):
                message = self.posted(*words)
                self.assertEqual((message.type, message.raw[9:]), (type, rest))

    def test_take_bytes_from_a_file(self):
        content = bytes(range(256)) * 10
        message = self.posted("transfer_data", "block=@" + self.file("block", content))
        self.assertEqual(message.raw[12:], wire.block(content))
        message = self.posted("transfer_data", "@" + self.path("block"))
        self.assertEqual(message.raw[12:], wire.block(content))

    def test_send_any_type_with_any_body(self):
        for type, body in [(77, b""), (77, b"\1\2"), (4, b""), (4, b"\1\2"), (18, b"\1"), (4294967295, b"\3"),
                           (0, b"\4")]:
            sequenced = type in wire.SEQUENCED
            message = self.posted(str(type), "body=" + body.hex(), code=0 if sequenced else 6)
            self.assertEqual((message.type, message.raw[12 if sequenced else 8:]), (type, body))

    def test_are_proved_by_their_confirm(self):
        run = self.start("post", "post_21", "7", "--json")
        run.opened()
        number = run.take(21).number
        result = self.result(run.end(), 0)
        self.assertEqual(result["proof"], "confirmed")
        self.assertEqual(result["result"], {"reply": None, "sent": {
            "type": 21, "name": "post_21", "number": number, "size": 16, "fields": {"value": 7}}})

    def test_that_are_not_confirmed_may_have_arrived_and_are_not_repeated(self):
        run = self.start("post", "post_21", "7", "--json")
        run.opened()
        self.assertEqual(len({message.number for message in iter(run.receive, None)}), 1)
        result = self.result(run.end(), 1, "not_confirmed")
        self.assertEqual(result["counts"]["resent"], 2)

    def test_that_nothing_confirms_are_unverified(self):
        for options, code in [([], 6), (["--unverified-ok"], 0)]:
            run = self.start("post", "notify_12", "--json", *options)
            self.assertEqual(run.receive().type, 12)
            ended = run.end()
            result = self.lines(ended)[-1]
            self.assertEqual((ended.code, result["proof"]), (code, "none"))
            self.assertEqual(result["error"] and result["error"]["code"], "unverified" if code else None)
            self.assertEqual(result["result"]["sent"]["name"], "notify_12")
            self.assertIsNone(result["result"]["sent"]["number"])

    def test_say_on_standard_error_that_nothing_confirms_them(self):
        ended = self.start("post", "notify_12").end()
        self.assertEqual((ended.code, ended.out), (6, ""))
        self.assertRegex(ended.err, "(?m)^error: ")

    def test_print_the_reply_of_the_catalogue(self):
        run = self.start("post", "--reply", "get_info")
        run.opened()
        run.take(wire.GET_INFO)
        run.answer(wire.INFO, wire.words(1, 2, 3))
        ended = run.end()
        self.assertEqual(ended.code, 0)
        self.assertEqual(ended.out, "info (37) number 1, 24 bytes: a=1 b=2 c=3\n")

    def test_wait_for_the_reply_that_is_named(self):
        run = self.start("post", "--reply=notify_12", "post_22", "--json")
        run.opened()
        run.take(22)
        run.answer(34)
        run.send(wire.message(wire.NOTIFY_12))
        result = self.result(run.end(), 0)
        self.assertEqual(result["proof"], "answered")
        self.assertEqual(result["result"]["reply"],
                         {"type": 12, "name": "notify_12", "number": None, "size": 8, "fields": {}})

    def test_wait_for_the_reply_to_what_nothing_confirms(self):
        run = self.start("post", "--reply", "connect", "7", "--json")
        self.assertEqual(run.take(wire.CONNECT).body, wire.words(7))
        run.send(wire.message(wire.CONNECT_ANSWER, wire.words(7)))
        self.assertEqual(self.result(run.end(), 0)["proof"], "answered")

    def test_whose_reply_does_not_come_are_unanswered_after_15_seconds(self):
        for words, sequenced in [(["--reply", "get_info"], True), (["--reply=notify_12",
                                                                    "notify_31"], False)]:
            run = self.start("post", *words, "--json")
            if sequenced:
                run.opened()
            first = run.take()
            ended = run.end()
            self.result(ended, 1, "no_answer")
            self.assertAlmostEqual(ended.seconds - first.time, 15, delta=0.2)


class TestPatterns(HostTest):
    def test_go_on_counting_in_each_type_for_itself(self):
        for options, type, head in [([], 16, 12), (["--sequenced"], 17, 16)]:
            run = self.start("test-pattern", "--count", "3", *options)
            words = []
            for message in iter(run.receive, None):
                run.confirm(message)
                if message.type == type:
                    self.assertEqual(message.word(head - 4), 3108)
                    words += struct.unpack("<777I", message.raw[head:])
            self.assertEqual(words, list(range(1, 3 * 777 + 1)))

    def test_are_proved_by_their_confirms(self):
        run = self.start("test-pattern", "--count", "3", "--sequenced", "--json")
        Memory().serve(run)
        result = self.result(run.end(), 0)
        self.assertEqual((result["proof"], result["result"]), ("confirmed", {"sent": 3, "confirmed": 3}))

    def test_of_which_one_is_not_confirmed_are_not_done(self):
        run = self.start("test-pattern", "--count", "2", "--sequenced", "--json")
        run.opened()
        run.take(17)
        while run.receive() is not None:
            pass
        result = self.result(run.end(), 1, "not_confirmed")
        self.assertEqual(result["result"]["confirmed"], 1)

    def test_that_nothing_confirms_are_unverified(self):
        for options, code in [([], 6), (["--unverified-ok"], 0)]:
            ended = self.start("test-pattern", "--count", "2", "--json", *options).end()
            result = self.lines(ended)[-1]
            self.assertEqual((ended.code, result["proof"], result["result"]["sent"]), (code, "none", 2))


class Watching(HostTest):
    def test_connect_announces_twice_a_second_with_a_value_of_its_own(self):
        run = self.start("connect", "--seconds", "2.2", "--json")
        announced = list(iter(run.receive, None))
        self.assertEqual([round(message.time, 1) for message in announced], [0, 0.5, 1, 1.5, 2])
        self.assertEqual(len({message.body for message in announced}), 5)
        result = self.result(run.end(), 1, "no_answer")
        self.assertEqual(result["result"], {"announced": 5, "answered": 0, "round_trip_ms": None})

    def test_connect_measures_the_round_trips(self):
        run = self.start("connect", "--seconds", "1.7", "--json")
        for trip in [0.1, 0.2, 0.3]:
            announced = run.take(wire.CONNECT)
            self.assertIsNone(run.receive(until=run.now + trip))
            run.send(wire.message(wire.CONNECT_ANSWER, announced.body))
        result = self.result(run.end(), 0)["result"]
        self.assertEqual((result["announced"], result["answered"]), (4, 3))
        for measured, right in zip(result["round_trip_ms"], [100, 200, 300]):
            self.assertAlmostEqual(measured, right, delta=20)

    def test_connect_counts_no_answer_that_it_did_not_ask_for(self):
        run = self.start("connect", "--seconds", "1", "--json")
        announced = run.take(wire.CONNECT).word(8)
        run.send(wire.message(wire.CONNECT_ANSWER, wire.words(announced ^ 0x5A5A5A5A)))
        self.result(run.end(), 1, "no_answer")

    def test_connect_shows_what_comes(self):
        run = self.start("connect", "--seconds", "1")
        run.packet()
        run.send(wire.message(wire.NOTIFY_11))
        self.assertTrue(run.answer(18, text("name", 124), 9))
        out = run.end().out
        self.assertIn("notify_11 (11), 8 bytes\n", out)
        self.assertIn("post_18 (18) number 9, 136 bytes", out)

    def test_monitor_sends_nothing_but_confirms(self):
        run = self.start("monitor", "--seconds", "30", "--json")
        run.packet(until=0.1)
        run.send(wire.message(wire.CONNECT, wire.words(7)))
        run.send(wire.message(wire.GET_INFO, b"", 7))
        run.send(wire.message(wire.NOTIFY_11))
        sent = list(iter(run.receive, None))
        self.assertEqual([(m.type, m.raw[8]) for m in sent], [(wire.CONFIRMED, 7)])
        ended = run.end()
        self.assertAlmostEqual(ended.seconds, 30, delta=0.2)
        self.assertEqual(self.result(ended, 0)["result"], {"messages": 3})

    def test_monitor_is_done_when_nothing_came(self):
        result = self.result(self.start("monitor", "--seconds", "1", "--json").end(), 0)
        self.assertEqual((result["result"], result["proof"]), ({"messages": 0}, None))


if __name__ == "__main__":
    other_end.main()
