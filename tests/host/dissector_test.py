"""The Wireshark dissector and `trace --json` say the same of recordings of a line that loses, doubles and garbles."""

import pathlib
import random
import subprocess

import other_end
import wire
from other_end import HostTest

DISSECTOR = pathlib.Path(__file__).resolve().parents[2] / "host/wireshark/qel_link.lua"
FIELDS = ["qel.message", "qel.type", "qel.size", "qel.sequence"]
SESSION = [
    ("in", wire.message(wire.NOTIFY_11)),
    ("out", wire.message(wire.CONNECT, wire.words(42))),
    ("in", wire.message(wire.CONNECT_ANSWER, wire.words(42))),
    ("out", wire.message(36, b"", 7)),
    ("in", wire.message(wire.CONFIRMED, bytes([7, 0, 0, 0]))),
    ("in", wire.message(39, bytes(range(52)), 9)),
    ("out", wire.message(8, wire.block(bytes(300)), 8)),
    ("in", wire.message(77, b"\xab")),
]


class Recordings(HostTest):
    def recorded(self, seed):
        """A recording of the session five times over on a bad line."""
        chance, records = random.Random(seed), []
        for direction, message in SESSION * 5:
            for packet in wire.packets_of(message):
                fault = chance.choice(["lost", "doubled", "garbled"] + 12 * [""])
                if fault == "garbled":
                    packet = packet[:-1] + bytes([packet[-1] ^ 1])
                for _ in range({"lost": 0, "doubled": 2}.get(fault, 1)):
                    records.append((1_700_000_000_000_000 + len(records), direction, packet))
        return self.file(f"r{seed}", wire.recording(records))

    def of_trace(self, file):
        *events, result = self.lines(self.plain("trace", file, "--json"))
        messages = [event["message"] for event in events]
        return [tuple(str(message[key] or {"name": "unknown"}.get(key, "")) for key in ("name", "type", "size", "number"))
                for message in messages], result["result"]

    def of_tshark(self, file):
        call = ["tshark", "-X", f"lua_script:{DISSECTOR}", "-r", file, "-T", "fields"]
        for field in FIELDS + ["qel.crc_right", "qel.interrupted"]:
            call += ["-e", field]
        rows = [line.split("\t") for line in subprocess.run(
            call, capture_output=True, text=True, check=True).stdout.splitlines()]
        return rows

    def test_have_the_same_messages_wrong_crcs_and_interruptions(self):
        interrupted = wrong = 0
        for seed in range(6):
            with self.subTest(seed=seed):
                file = self.recorded(seed)
                messages, counts = self.of_trace(file)
                rows = self.of_tshark(file)
                self.assertEqual([tuple(row[:4]) for row in rows if row[1]], messages)
                self.assertEqual(len(messages), counts["messages"])
                self.assertEqual(sum(row[4] in ("0", "False") for row in rows), counts["crc_wrong"])
                self.assertEqual(len(rows), counts["packets"])
                interrupted += sum(row[5] != "" for row in rows)
                wrong += counts["crc_wrong"]
        self.assertGreater(interrupted, 0)
        self.assertGreater(wrong, 0)


if __name__ == "__main__":
    other_end.main()
