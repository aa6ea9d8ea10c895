"""Standard output and standard error, --quiet, --verbose, --json, --record, and outputs that fail."""

import json
import os
import re

import other_end
import wire
from other_end import STARTED_AT, HostTest, Memory, Run

COUNTS = {"packets_sent", "packets_received", "messages_sent", "messages_received", "resent", "crc_wrong",
          "incomplete", "duplicates", "unseen", "refused"}


class Streams(HostTest):
    def ended(self, *words, memory=None):
        run = self.start(*words)
        (memory or Memory()).serve(run)
        return run.end()

    def test_keep_answers_apart_from_everything_else(self):
        local = self.file("local", "content")
        for words, out in [(["query", "info"], "1 2 3\n"), (["post", "post_22"], ""),
                           (["test-pattern", "--sequenced"], ""), (["send-file", local, "/remote"], "")]:
            ended = self.ended(*words)
            self.assertEqual((ended.code, ended.out), (0, out))
            self.assertNotEqual(ended.err, "", "counts")

    def test_of_an_update_have_nothing_on_standard_output(self):
        run = self.start("update", self.file("image", "#!/bin/sh\n"))
        run.send_answer_to_connect()
        ended = run.end()
        self.assertEqual((ended.code, ended.out), (0, ""))
        self.assertNotEqual(ended.err, "")

    def test_begin_errors_with_error(self):
        run = self.start("query", "info")
        ended = run.end()
        self.assertEqual((ended.code, ended.out), (1, ""))
        self.assertRegex(ended.err, r"(?m)^error: .")

    def test_leave_errors_only_when_quiet(self):
        ended = self.ended("query", "info", "--quiet")
        self.assertEqual((ended.code, ended.out, ended.err), (0, "1 2 3\n", ""))
        ended = self.ended("send-file", self.file("local", "content"), "/remote", "--quiet")
        self.assertEqual((ended.code, ended.out, ended.err), (0, "", ""))
        ended = self.start("query", "info", "--quiet").end()
        self.assertEqual((ended.code, ended.out), (1, ""))
        self.assertRegex(ended.err, r"\Aerror: .+\n\Z")

    def test_show_every_message_when_verbose(self):
        ended = self.ended("query", "info", "--verbose")
        self.assertEqual(ended.out, "1 2 3\n")
        shown = re.findall(r"(?m)\b(in|out)\b.*? (\w+) \((\d+)\)", ended.err)
        self.assertEqual([(direction, int(type)) for direction, _, type in shown],
                         [("out", 35), ("in", 15), ("out", 36), ("in", 15), ("in", 37), ("out", 15)])
        self.assertRegex(ended.err, r"(?m)\bin\b.*info \(37\) number \d+, 24 bytes: a=1 b=2 c=3")

    def test_print_the_counts_at_the_end(self):
        self.assertRegex(
            self.ended("query", "info").err.splitlines()[-1],
            r"packets (sent 3, packets received 3|3 sent, 3 received)")


class Json(HostTest):
    def test_of_a_query_is_one_line(self):
        run = self.start("query", "info", "--json")
        Memory().serve(run)
        ended = run.end()
        result = self.result(ended, 0)
        self.assertEqual(ended.out.count("\n"), 1)
        self.assertEqual({key: result[key] for key in ("command", "link", "exit", "proof", "error")}, {
            "command": "query", "link": "socket:" + self.path("socket"), "exit": 0, "proof": "answered",
            "error": None
        })
        self.assertEqual(result["counts"], {
            "packets_sent": 3, "packets_received": 3, "messages_sent": 3, "messages_received": 3, "resent": 0,
            "crc_wrong": 0, "incomplete": 0, "duplicates": 0, "unseen": 0, "refused": 0})
        self.assertLess(result["seconds"], 0.2)

    def test_has_the_same_keys_for_every_command(self):
        for words in [["connect", "--seconds", "1"], ["monitor", "--seconds", "1"], ["post", "notify_11"],
                      ["test-pattern"], ["serve", self.folder, "--seconds", "1"],
                      ["batch", self.file("empty")]]:
            result = self.lines(self.start(*words, "--json").end())[-1]
            self.assertEqual(result["command"], words[0])
            self.assertEqual(result["link"], "socket:" + self.path("socket"))
            if result["counts"] is not None or words[0] != "batch":
                self.assertEqual(set(result["counts"]), COUNTS)

    def test_names_devices_and_listeners_too(self):
        run = self.start_on_device("connect", "--seconds", "1", "--json")
        self.assertEqual(self.lines(run.end())[-1]["link"], "device:" + self.device)
        run = Run(self, ["monitor", "--listen", self.path("l"), "--seconds", "1", "--json"])
        run.join(self.path("l"))
        self.assertEqual(self.result(run.end(), 0)["link"], "listen:" + self.path("l"))

    def test_has_an_event_for_each_message_that_is_shown(self):
        run = self.start("monitor", "--seconds", "2", "--json")
        run.packet(until=1)
        run.send(wire.message(19, bytes(100) + wire.words(7) + bytes(range(20)), 9))
        run.send(wire.message(wire.CONNECT, wire.words(42)))
        run.send(
            wire.words(23, 1116) + b"\x0a" + b"name".ljust(100, b"\0") + b"one".ljust(100, b"\0") +
            b"two".ljust(903, b"\0") + wire.words(2))
        events = self.lines(run.end())[:-1]
        for event in events:
            self.assertEqual((set(event), event["event"], event["direction"]),
                             ({"event", "time", "direction", "message"}, "message", "in"))
            self.assertAlmostEqual(event["time"], STARTED_AT + 1, delta=0.1)
            self.assertEqual(set(event["message"]), {"type", "name", "number", "size", "fields"})
        post, connect, query = [event["message"] for event in events]
        self.assertEqual(post, {"type": 19, "name": "post_19", "number": 9, "size": 136, "fields": {
            "name": "", "value": 7, "record": "000102030405060708090a0b0c0d0e0f10111213"}})
        self.assertEqual(connect,
                         {"type": 5, "name": "connect", "number": None, "size": 12, "fields": {"value": 42}})
        self.assertEqual((query["fields"]["name"], query["fields"]["items"]), ("name", ["one", "two"]))

    def test_has_no_name_for_a_type_that_nobody_knows(self):
        run = self.start("monitor", "--seconds", "1", "--json")
        run.packet(until=0.1)
        run.send(wire.message(77, b"\xab"))
        run.send(wire.message(35, b"", 3))
        shown = [event["message"] for event in self.lines(run.end())[:-1]]
        self.assertEqual(shown[0],
                         {"type": 77, "name": None, "number": None, "size": 9, "fields": {"body": "ab"}})
        self.assertEqual((shown[1]["type"], shown[1]["name"], shown[1]["number"]), (35, None, 3))

    def test_has_an_event_for_every_message_when_verbose(self):
        run = self.start("query", "info", "--json", "--verbose")
        Memory().serve(run)
        lines = self.lines(run.end())
        self.assertEqual([(line["direction"], line["message"]["type"]) for line in lines[:-1]],
                         [("out", 35), ("in", 15), ("out", 36), ("in", 15), ("in", 37), ("out", 15)])

    def test_counts_what_becomes_of_packets_and_messages(self):
        run = self.start("monitor", "--seconds", "1", "--json")
        run.packet(until=0.1)
        run.send(wire.message(wire.NOTIFY_11), crc=0)
        run.send_packet(wire.packets_of(wire.message(34, bytes(50)))[0])
        run.send(wire.message(34, b"", 9))
        run.send(wire.message(34, b"", 9))
        run.send_packet(b"\0\0\0\x08\0\0")
        counts = self.result(run.end(), 0)["counts"]
        self.assertEqual(counts, {
            "packets_sent": 2, "packets_received": 5, "messages_sent": 2, "messages_received": 2, "resent": 0,
            "crc_wrong": 1, "incomplete": 1, "duplicates": 1, "unseen": 0, "refused": 1})

    def test_is_ascii_or_utf_8_whatever_a_text_holds(self):
        run = self.start("monitor", "--seconds", "1", "--json")
        run.packet(until=0.1)
        run.send(
            wire.message(18, b"", 9)[:4] + wire.words(136) + b"\x09" +
            b"\xff\xc3\x28\x1b\"\\".ljust(127, b"\0"))
        self.assertEqual(len(self.lines(run.end())), 2)

    def test_of_errors_before_the_link_is_one_line_too(self):
        ended = self.start("update", self.path("nothing"), "--json").end()
        self.assertEqual(ended.out.count("\n"), 1)
        self.assertEqual(self.result(ended, 3, "bad_file")["command"], "update")


class Outputs(HostTest):
    def test_that_cannot_be_written_are_errors(self):
        for words in [["catalogue"], ["catalogue", "--json"], ["completion", "bash"], ["--help"],
                      ["--version"]]:
            with open("/dev/full", "wb") as full:
                ended = Run(self, words, stdout=full).end()
            self.assertEqual(ended.code, 3, words)
            self.assertRegex(ended.err, r"(?m)^error: ", words)

    def test_that_cannot_be_written_are_errors_of_what_comes_too(self):
        with open("/dev/full", "wb") as full:
            run = self.start("query", "info", stdout=full)
            Memory().serve(run)
            self.assertEqual(run.end().code, 3)

    def test_that_nobody_reads_any_more_are_errors(self):
        reader, writer = os.pipe()
        os.close(reader)
        with os.fdopen(writer, "wb") as closed:
            ended = Run(self, ["catalogue"], stdout=closed).end()
        self.assertEqual(ended.code, 3)

    def test_to_record_into_that_cannot_be_made_are_errors_before_the_link_is_opened(self):
        self.assertEqual(self.start("query", "info", "--record", "/nonexistent/r").end().code, 3)
        self.assert_not_opened()

    def test_to_record_into_that_are_full_are_errors(self):
        run = self.start("query", "info", "--record", "/dev/full", "--json")
        Memory().serve(run)
        self.result(run.end(), 3, "output")

    def test_of_recordings_are_what_trace_reads(self):
        run = self.start("query", "info", "--record", self.path("r"))
        Memory().serve(run)
        self.assertEqual(run.end().code, 0)
        traced = self.lines(self.plain("trace", self.path("r"), "--json"))
        self.assertEqual([(line["direction"], line["message"]["type"]) for line in traced[:-1]],
                         [("out", 35), ("in", 15), ("out", 36), ("in", 15), ("in", 37), ("out", 15)])
        self.assertEqual(json.dumps(traced[-2]["message"]["fields"]), '{"sequence": 2}')


if __name__ == "__main__":
    other_end.main()
