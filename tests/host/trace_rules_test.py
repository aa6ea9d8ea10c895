"""trace: what is counted, what is not complete, and what it prints for programs."""

import other_end
import wire
from other_end import HostTest

NOTICE = wire.packets_of(wire.message(wire.NOTIFY_11))
LONG = wire.packets_of(wire.message(39, bytes(52)))
HUGE = b"\x7f\xff\xff\xff\0\0" + bytes(29)


class Trace(HostTest):
    def traced(self, *packets):
        """The objects of a trace of packets that all came in."""
        records = [(1_700_000_000_000_000 + number, "in", packet) for number, packet in enumerate(packets)]
        ended = self.plain("trace", self.file("r", wire.recording(records)), "--json")
        lines = self.lines(ended)
        self.assertEqual((ended.code, lines[-1]["link"], lines[-1]["proof"], lines[-1]["counts"]),
                         (0, None, None, None))
        return lines

    def counts(self, *packets):
        result = self.traced(*packets)[-1]["result"]
        self.assertEqual(set(result), {"packets", "messages", "crc_wrong", "incomplete", "stray", "refused"})
        self.assertEqual(result.pop("packets"), len(packets))
        return {name: count for name, count in result.items() if count}

    def test_counts_whole_messages(self):
        self.assertEqual(self.counts(), {})
        self.assertEqual(self.counts(*NOTICE, *LONG), {"messages": 2})

    def test_counts_wrong_crcs_stray_and_refused_packets(self):
        wrong = wire.packets_of(wire.message(wire.NOTIFY_11), crc=0)
        self.assertEqual(self.counts(*NOTICE, *wrong), {"messages": 1, "crc_wrong": 1})
        self.assertEqual(self.counts(b"\x80a", *NOTICE, b"\x80b"), {"messages": 1, "stray": 2})
        self.assertEqual(self.counts(b"\0\0\0\x08\0\0", b"\x80" * 36, bytes(64)), {"refused": 3})

    def test_a_message_whose_packets_end_early_is_not_complete(self):
        self.assertEqual(self.counts(LONG[0]), {"incomplete": 1})
        self.assertEqual(self.counts(LONG[0], LONG[1]), {"incomplete": 1})
        self.assertEqual(self.counts(LONG[0], *NOTICE), {"messages": 1, "incomplete": 1})
        self.assertEqual(self.counts(LONG[0], LONG[0], *LONG), {"messages": 1, "incomplete": 2})

    def test_a_message_of_any_length_is_not_complete_and_its_packets_are_neither_refused_nor_stray(self):
        for head in [HUGE, b"\x0f\xff\xff\xff\0\0" + bytes(29), b"\x00\xff\xff\xff\0\0" + bytes(29)]:
            self.assertEqual(self.counts(head), {"incomplete": 1})
            self.assertEqual(self.counts(head, b"\x80" + bytes(34), b"\x80" + bytes(34), *NOTICE),
                             {"messages": 1, "incomplete": 1})

    def test_keeps_the_directions_apart(self):
        records = [(1, "in", LONG[0]), (2, "out", NOTICE[0]), (3, "in", LONG[1]), (4, "in", LONG[2]),
                   (5, None, NOTICE[0])]
        lines = self.lines(self.plain("trace", self.file("r", wire.recording(records)), "--json"))
        self.assertEqual([(line["direction"], line["message"]["type"]) for line in lines[:-1]],
                         [("out", 11), ("in", 39), (None, 11)])
        self.assertEqual(
            lines[-1]["result"],
            {"packets": 5, "messages": 3, "crc_wrong": 0, "incomplete": 0, "stray": 0, "refused": 0})

    def test_has_the_time_of_a_message_in_seconds_since_1970(self):
        self.assertAlmostEqual(self.traced(*NOTICE)[0]["time"], 1_700_000_000, delta=0.001)

    def test_prints_what_it_counts(self):
        records = [(number, "in", packet) for number, packet in enumerate([LONG[0], *NOTICE])]
        ended = self.plain("trace", self.file("r", wire.recording(records)))
        self.assertEqual(ended.code, 0)
        self.assertRegex(ended.out + ended.err, "1 not complete|1 incomplete")

    def test_a_file_that_breaks_off_is_bad_and_counted_as_far_as_it_goes(self):
        whole = wire.recording([(1, "in", NOTICE[0]), (2, "in", NOTICE[0])])
        result = self.result(self.plain("trace", self.file("r", whole[:-10]), "--json"), 3, "bad_file")
        self.assertEqual(result["result"]["messages"], 1)


if __name__ == "__main__":
    other_end.main()
