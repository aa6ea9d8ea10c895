"""The host link on the wire, written from docs/host-link.md: packets, CRC, system messages, recordings."""

import struct

SEQUENCED = {*range(1, 5), *range(7, 10), 13, 14, *range(17, 25), 28, 29, *range(32, 38), *range(39, 50)}
CONNECT, UPDATER, NOTIFY_11, NOTIFY_12, CONFIRMED, OPENING, CONNECT_ANSWER = 5, 10, 11, 12, 15, 35, 38
FILE_BEGIN, FILE_DATA, FILE_END, PATH_EXISTS, PATH_EXISTS_REPLY, GET_INFO, INFO = 7, 8, 9, 28, 29, 36, 37


def _crc_entry(byte):
    crc = byte << 8
    for _ in range(8):
        crc = crc << 1 ^ (0x1021 if crc & 0x8000 else 0)
    return crc & 0xFFFF


_CRC_TABLE = [_crc_entry(byte) for byte in range(256)]


def crc16(data):
    crc = 0x1D0F
    for byte in data:
        crc = (crc << 8 & 0xFFFF) ^ _CRC_TABLE[crc >> 8 ^ byte]
    return crc


assert crc16(b"123456789") == 0xE5CC


def packets_of(message, crc=None):
    """The packets of a message: 29 bytes in the first, 34 in each that follows."""
    head = struct.pack(">IH", len(message), crc16(message) if crc is None else crc)
    return [head + message[:29]] + [b"\x80" + message[at:at + 34] for at in range(29, len(message), 34)]


def message(type, body=b"", number=1, size=None):
    """A message: `body` follows byte 8, in sequenced types byte 12; `size` is what it says of itself."""
    head = bytes([number, 0, 0, 0]) if type in SEQUENCED else b""
    return struct.pack("<II", type, 8 + len(head) + len(body) if size is None else size) + head + body


def words(*values):
    return struct.pack("<%dI" % len(values), *values)


def block(data):
    return words(len(data)) + data


class Message:
    """A message that came: `body` follows byte 8, in sequenced types byte 9, where their texts begin."""

    def __init__(self, raw, time):
        self.raw, self.time = raw, time
        self.type, self.size = struct.unpack_from("<II", raw)
        self.sequenced = self.type in SEQUENCED
        self.number = raw[8] if self.sequenced else None
        self.body = raw[9 if self.sequenced else 8:]

    def word(self, offset):
        return struct.unpack_from("<I", self.raw, offset)[0]

    def text(self, offset):
        return self.raw[offset:].split(b"\0")[0].decode()

    def __repr__(self):
        return f"<type {self.type}, {len(self.raw)} bytes, number {self.number}, at {self.time:.3f} s>"


def check_packet(packet, left):
    """A sender's packets are full except the last, and in order; returns what is left of their message."""
    if packet[0] & 0x80:
        assert packet[0] == 0x80, f"{packet.hex()} begins with something else than 80"
        assert len(packet) == 1 + min(left, 34) > 1, f"{packet.hex()}: {left} bytes are left"
        return left - len(packet) + 1
    assert left == 0, f"{left} bytes were left before {packet.hex()}"
    length = struct.unpack_from(">I", packet)[0]
    assert len(packet) == 6 + min(length, 29) > 6, f"{packet.hex()} is not a full packet"
    return length - len(packet) + 6


class Assembly:
    """Puts packets together as every receiver does: what is not whole disappears."""

    def __init__(self):
        self.left = 0

    def add(self, packet):
        """Returns the message that the packet completes, or None."""
        if not packet[0] & 0x80:
            self.left, self.crc = struct.unpack_from(">IH", packet)
            self.data = b""
        elif self.left == 0:
            return None
        part = packet[1 if packet[0] & 0x80 else 6:]
        self.data += part
        self.left -= len(part)
        return self.data if self.left == 0 and crc16(self.data) == self.crc else None


def recording(packets):
    """A pcapng file of (microseconds, "in" or "out" or None, bytes)."""
    result = struct.pack("<IIIHHqI", 0x0A0D0D0A, 28, 0x1A2B3C4D, 1, 0, -1, 28)
    result += struct.pack("<IIHHII", 1, 20, 147, 0, 64, 20)
    for time, direction, packet in packets:
        data = packet + bytes(-len(packet) % 4)
        options = b"" if direction is None else struct.pack("<HHIHH", 2, 4, 1 if direction == "in" else 2, 0,
                                                            0)
        size = 32 + len(data) + len(options)
        result += struct.pack("<IIIIIII", 6, size, 0, time >> 32, time & 0xFFFFFFFF, len(packet), len(packet))
        result += data + options + struct.pack("<I", size)
    return result
