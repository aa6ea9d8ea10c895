"""The Wireshark dissector and `trace` say the same of recordings of a line that loses, doubles and garbles."""

import pathlib
import random
import re
import subprocess

import other_end
import wire
from other_end import HostTest

DISSECTOR = pathlib.Path(__file__).resolve().parents[2] / "host/wireshark/qel_link.lua"
HEAD = ["qel.message", "qel.type", "qel.size", "qel.sequence", "qel.body"]
VERDICTS = ["qel.crc_right", "qel.stray", "qel.bad_packet", "qel.interrupts"]
LETTERS = bytes(range(ord("a"), ord("z") + 1))


def text(chance, most):
    return bytes(chance.choices(LETTERS, k=chance.randrange(most)))


def put(chance, field, message):
    """Puts something into a field of a message, which grows if the field is its rest."""
    kind, at, size = field["kind"], field["offset"], field["size"]
    if kind == "text":
        data = text(chance, size).ljust(size, b"\0")
    elif kind == "characters":
        data = text(chance, size + 1).ljust(size, b"\0")
    elif kind == "texts":
        data = b"".join(text(chance, 100).ljust(100, b"\0") for _ in range(10))
    elif kind == "count":
        data = wire.words(chance.randrange(12))
    elif kind == "text_block":
        data = wire.block(text(chance, 90) + b"\0")
    elif kind == "block":
        data = wire.block(chance.randbytes(chance.randrange(90)))
    elif kind == "ids":
        data = wire.words(2, 7, chance.getrandbits(32))
    elif kind == "counters":
        data = wire.words(len(message) - at - size) + chance.randbytes(len(message) - at - size)
    else:
        data = chance.randbytes(size)
    message[at:at + len(data) if kind not in ("text_block", "block", "ids") else None] = data


def proper(chance, entry):
    """A message of the catalogue as it has to be."""
    body = 12 if entry["sequenced"] else 8
    message = bytearray(max(entry["size"] or 0, body))
    for field in entry["fields"]:
        put(chance, field, message)
    message[:8] = wire.words(entry["type"], len(message))
    if entry["sequenced"]:
        message[8] = chance.randrange(1, 256)
    return bytes(message)


def session(chance, catalogue):
    """Every message of the catalogue, each once as it has to be and once with another size; and what nobody knows."""
    for entry in catalogue:
        yield proper(chance, entry)
        yield wire.message(entry["type"], chance.randbytes(chance.randrange(30)), chance.randrange(256))
    yield wire.message(77, b"\xab")
    yield wire.message(5, b"\xab", size=100)
    yield b"short"


def tshark(file, *words):
    """The rows that tshark prints about a recording."""
    ended = subprocess.run(["tshark", "-X", f"lua_script:{DISSECTOR}", "-r", file, *words], capture_output=True,
                           text=True, check=True)
    assert "Lua" not in ended.stderr, ended.stderr
    return [line.split("\t") for line in ended.stdout.splitlines()]


class Recordings(HostTest):
    def recorded(self, seed, catalogue):
        """A recording of the session on a bad line."""
        chance, records = random.Random(seed), []
        for message in session(chance, catalogue):
            direction, faults = chance.choice(["in", "out"]), chance.choice([0, 0, 5])
            for packet in wire.packets_of(message):
                fault = chance.choice(["lost", "doubled", "garbled", "cut", "long"][:faults] + 40 * [""])
                if fault == "garbled":
                    packet = packet[:-1] + bytes([packet[-1] ^ 1])
                packet = {"cut": packet[:5], "long": packet + bytes(9)}.get(fault, packet)
                for _ in range({"lost": 0, "doubled": 2}.get(fault, 1)):
                    records.append((1_700_000_000_000_000 + len(records), direction, packet))
        return self.file(f"r{seed}", wire.recording(records))

    def of_trace(self, file):
        """What trace says of each message, as tshark has it; in which packets it sees what; and its counts."""
        *events, result = self.lines(self.plain("trace", file, "--json"))
        messages = []
        for message in (event["message"] for event in events):
            fields = {
                f"qel.{message['name']}.{name}": list(map(str, value if isinstance(value, list) else [value]))
                for name, value in message["fields"].items() if name != "body" and value not in ("", [])}
            head = [message["name"], message["type"], message["size"] if fields else None, message["number"],
                    message["fields"].get("body")]  # of messages without fields, tshark shows the size they claim
            messages.append((["" if value is None else str(value) for value in head], fields))
        lines = self.plain("trace", file).out.splitlines()[:-1]
        seen = [{int(line.split()[0]) for line in lines if re.search(pattern, line)} for pattern in
                ("CRC WRONG", "; without a message", "; refused: ", "; the message before was not complete")]
        return messages, seen, result["result"]

    def of_tshark(self, file, names):
        columns = [word for name in HEAD + VERDICTS + names for word in ("-e", name)]
        rows = tshark(file, "-T", "fields", "-E", "aggregator=;", *columns)
        messages = []
        for row in rows:
            if row[0]:
                values = dict(zip(names, row[len(HEAD) + len(VERDICTS):]))
                fields = {name: value.split(";") for name, value in values.items() if value}
                head = ["" if re.match("unknown|unassigned", row[0]) else row[0], row[1], row[2] if fields else "",
                        "" if row[3] == "0" else row[3], row[4]]
                messages.append((head, fields))
        seen = [{number for number, row in enumerate(rows, 1) if row[len(HEAD) + place] in wanted}
                for place, wanted in enumerate([("0", "False"), ("1",), ("1",), ("1",)])]
        return messages, seen, rows

    def test_of_messages_as_they_have_to_be_have_no_complaint(self):
        catalogue = self.lines(self.plain("catalogue", "--json"))[-1]["result"]["messages"]
        messages = [proper(random.Random(1), entry) for entry in catalogue]
        packets = [packet for message in messages for packet in wire.packets_of(message)]
        file = self.file("r", wire.recording([(time, "in", packet) for time, packet in enumerate(packets)]))
        self.assertEqual(tshark(file, "-Y", "_ws.malformed or _ws.expert or _ws.lua or not qel"), [])
        shown = tshark(file, "-Y", "qel.message", "-T", "fields", "-e", "qel.message", "-e", "qel.crc_right", "-e",
                       "qel.file_begin.path_length", "-e", "qel.updater.block_length")
        lengths = {"file_begin": (16, 2), "updater": (12, 3)}
        for row, entry, message in zip(shown, catalogue, messages, strict=True):
            head, column = lengths.get(entry["name"], (0, 2))
            self.assertEqual(row[:2], [entry["name"], "1"])
            self.assertEqual(row[column], str(len(message) - head) if head else "")

    def test_have_the_same_messages_with_all_fields_and_the_same_troubles(self):
        catalogue = self.lines(self.plain("catalogue", "--json"))[-1]["result"]["messages"]
        names = [f"qel.{entry['name']}.{field['name']}" for entry in catalogue for field in entry["fields"]]
        shown, troubles = set(), [0] * 4
        for seed in range(6):
            with self.subTest(seed=seed):
                file = self.recorded(seed, catalogue)
                messages, seen, counts = self.of_trace(file)
                shown_there, seen_there, rows = self.of_tshark(file, names)
                self.assertEqual(shown_there, messages)
                self.assertEqual(seen_there, seen)
                self.assertEqual((len(rows), len(messages)), (counts["packets"], counts["messages"]))
                shown |= {name for _, fields in messages for name in fields}
                troubles = [before + len(now) for before, now in zip(troubles, seen)]
        self.assertEqual(shown, set(names))
        self.assertNotIn(0, troubles)


if __name__ == "__main__":
    other_end.main()
