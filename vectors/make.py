#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""Writes vectors.json with OpenSSL's AES and liblzo2. With --check, only compares."""

import ctypes
import hashlib
import itertools
import json
import pathlib
import struct
import sys

from cryptography.hazmat.primitives.ciphers import Cipher, algorithms, modes

FILE = pathlib.Path(__file__).resolve().parent / "vectors.json"
KEY = bytes(range(32))
END = b"\x11\0\0"
LZO = ctypes.CDLL("liblzo2.so.2")

DISCONNECTED = "GVC_ERROR", "DISCONNECTED", "Disconnected"
NEGATIVE = "G_IO_ERROR", "INVALID_DATA", "Invalid frame length"
MULTIPLE = "G_IO_ERROR", "FAILED", "Not multiple of AES block"
DECRYPTION = "G_IO_ERROR", "FAILED", "Decryption failed"
LZO_FAILED = "G_IO_ERROR", "FAILED", "Failed to decode LZO"
HEADER = "G_IO_ERROR", "PARTIAL_INPUT", "Partial header"
IV = "G_IO_ERROR", "PARTIAL_INPUT", "Partial IV"
DATA = "G_IO_ERROR", "PARTIAL_INPUT", "Partial data"


def frame(message):
    return struct.pack("<i", len(message)) + message


def noise(size, seed=0):
    """Bytes without a pattern, but the same in every run."""
    parts = (hashlib.sha256(struct.pack("<II", seed, i)).digest() for i in range(size // 32 + 1))
    return b"".join(parts)[:size]


class Aes:
    """Makes records, and keeps the cipher text to which the next is chained."""

    def __init__(self, bits=256, key=KEY):
        self.key, self.chain = key[: bits // 8], bytes(16)

    def iv(self, number=0):
        self.chain = noise(16, 1000 + number)
        return bytes(8) + self.chain

    def padded(self, text):
        cipher = Cipher(algorithms.AES(self.key), modes.CBC(self.chain)).encryptor()
        body = cipher.update(text) + cipher.finalize()
        self.chain = body[-16:]
        return struct.pack("<Q", len(body)) + body

    def record(self, text):
        count = 16 - len(text) % 16
        return self.padded(text + bytes([count]) * count)


def stock(data, encoder="lzo1x_1"):
    memory = ctypes.create_string_buffer(1 << 20)
    out = ctypes.create_string_buffer(len(data) + len(data) // 16 + 67)
    size = ctypes.c_ulong(len(out))
    encode = getattr(LZO, f"{encoder}_compress")
    assert encode(data, ctypes.c_ulong(len(data)), out, ctypes.byref(size), memory) == 0
    return out.raw[: size.value]


def stock_decode(payload, room):
    """Decodes a stream with liblzo2. Returns None if liblzo2 refuses it."""
    out = ctypes.create_string_buffer(room + 1)
    size = ctypes.c_ulong(room)
    status = LZO.lzo1x_decompress_safe(
        payload, ctypes.c_ulong(len(payload)), out, ctypes.byref(size), None
    )
    return out.raw[: size.value] if status == 0 else None


def block(payload, size):
    return struct.pack("<II", len(payload), size) + payload


def packed(data, encoder="lzo1x_1"):
    return block(stock(data, encoder), len(data)) if data else block(b"", 0)


def chunked(data, number, total=None, sizes=None, shares=None):
    share = len(data) // number
    shares = shares or [share] * (number - 1) + [len(data) - share * (number - 1)]
    streams, at = [], 0
    for size in shares:
        streams.append(stock(data[at : at + size]) if size else END)
        at += size
    table = sizes or [len(stream) for stream in streams[:-1]]
    head = bytes(
        [0x55, number, number ^ 0x55]) + struct.pack("<I", len(data) if total is None else total
    )
    return head + struct.pack(f"<{number - 1}I", *table) + b"".join(streams)


CASES = []
# Other readers may refuse what this library accepts here, or accept what it refuses.
OPTIONAL = {
    "frames/empty",
    "encrypted/no-iv",
    "encrypted/padding-of-0",
    "encrypted/padding-of-more-than-a-block",
    "encrypted/padding-of-the-whole-record",
    "encrypted/padding-of-other-values",
    "compressed/chunks-of-less-than-announced",
    "compressed/announces-more",
    "compressed/announces-without-a-payload",
    "compressed/announces-4-gib",
    "compressed/end-marker-12-00-00",
    "compressed/end-marker-11-01-00",
    "compressed/a-byte-behind-the-end-marker",
}


def offsets(units):
    return list(itertools.accumulate(map(len, units), initial=0))[:-1]


def case(name, stages, wire, messages, error, bits=256, blocking=None, orderly=False, zeros=0):
    """`wire` is bytes, a list of units for one stage, or bytes and the borders of each stage."""
    borders = []
    if isinstance(wire, list):
        borders, wire = [offsets(wire)], b"".join(wire)
    elif isinstance(wire, tuple):
        wire, borders = wire
    found = {"name": name, "stages": stages}
    if "encrypt" in stages:
        found |= {"key": KEY.hex(), "key-length": bits}
    found |= {"wire": wire.hex()}
    if zeros:
        found["zeros"] = zeros
    if borders:
        found["borders"] = borders
    found |= {"messages": [message_form(message) for message in messages]}
    found["error"] = dict(zip(("domain", "code", "message"), error))
    if blocking:
        found["blocking"] = {
            "messages": [message_form(message) for message in blocking[0]],
            "error": dict(zip(("domain", "code", "message"), blocking[1])) if blocking[1] else None,
        }
    found |= {"orderly": orderly, "optional": name in OPTIONAL}
    CASES.append(found)


def message_form(message):
    if len(message) <= 1024:
        return message.hex()
    return {"size": len(message), "sha256": hashlib.sha256(message).hexdigest()}


def frames():
    hello, end = frame(b"hello"), DISCONNECTED

    def plain(name, wire, messages, error=end, **more):
        case(f"frames/{name}", [], wire, messages, error, **more)

    plain("one", hello, [b"hello"], orderly=True)
    plain("nothing", b"", [], orderly=True)
    sizes = [noise(size) for size in (1, 255, 256, 257, 1000)]
    plain("sizes", b"".join(map(frame, sizes)), sizes, orderly=True)
    empty, until = hello + frame(b"") + hello, ([b"hello"], end)
    plain("empty", empty, [b"hello", b"", b"hello"], blocking=until, orderly=True)
    plain("ends-in-the-length", hello + b"\x05\0", [b"hello"])
    cut = b"hel" + bytes(2), end
    plain("ends-in-the-payload", hello + hello[:7], [b"hello"], blocking=([b"hello", cut[0]], end))
    plain("negative-length", hello + struct.pack("<i", -1) + hello, [b"hello"], NEGATIVE)
    plain("most-negative-length", struct.pack("<I", 1 << 31), [], NEGATIVE)


def encrypted():
    hello, twice = frame(b"hello"), [b"hello", b"hello"]
    two = frame(noise(28)) + frame(noise(44))

    def records(name, make, messages=(b"hello",), error=HEADER, bits=256, **more):
        case(f"encrypted/{name}", ["encrypt"], make(Aes(bits)), messages, error, bits, **more)

    def good(name, make, messages=(b"hello",), bits=256):
        records(name, lambda a: [a.iv(), *make(a)], messages, HEADER, bits, orderly=True)

    def bad(name, make, error=HEADER):
        """A valid record, and then others."""
        records(name, lambda a: [a.iv(), a.record(hello), *make(a)], [b"hello"], error)

    for bits in (256, 128):
        good(f"{bits}-bits", lambda a: [a.record(hello[:4]), a.record(b"hello")], bits=bits)
        good(f"{bits}-bits-two-messages", lambda a: [a.record(two)], [noise(28), noise(44)], bits)
    good("nothing-but-the-iv", lambda a: [], [])
    records("nothing", lambda a: [], [], orderly=True)
    good("a-byte-each", lambda a: [a.record(bytes([b])) for b in hello])
    for size in (11, 12, 13, 28):
        good(f"{size + 4}-bytes", lambda a, n=size: [a.record(frame(noise(n)))], [noise(size)])
    good("empty-records", lambda a: [a.record(b""), a.record(hello), a.record(b"")])
    good("iv-in-the-middle", lambda a: [a.record(hello[:6]), a.iv(1), a.record(hello[6:] + hello)], twice)
    good("several-ivs", lambda a: [a.iv(1), a.record(hello), a.iv(2), a.iv(3), a.record(hello)], twice)
    records("no-iv", lambda a: [a.record(hello)])
    zeros = frame(bytes(20))[:8]
    records("padding-of-0", lambda a: [a.iv(), a.record(zeros), a.padded(bytes(16))], [bytes(20)])
    long, whole, beyond = hello + bytes(22) + b"\x17", bytes(31) + b"\x20", bytes(15) + b"\x11"
    records("padding-of-more-than-a-block", lambda a: [a.iv(), a.padded(long)])
    records("padding-of-the-whole-record", lambda a: [a.iv(), a.padded(whole), a.record(hello)])
    other = hello[2:] + bytes(range(1, 10))
    records("padding-of-other-values", lambda a: [a.iv(), a.record(hello[:2]), a.padded(other)])
    bad("padding-beyond-the-record", lambda a: [a.padded(beyond)], DECRYPTION)
    bad("padding-of-255", lambda a: [a.padded(bytes(31) + b"\xff")], DECRYPTION)
    bad("length-of-20", lambda a: [struct.pack("<Q", 20) + bytes(28)], MULTIPLE)
    bad("length-of-20-cut", lambda a: [struct.pack("<Q", 20)], MULTIPLE)
    huge = struct.pack("<Q", 1 << 31)
    records("length-of-2-gib", lambda a: [a.iv(), huge], [], DECRYPTION, zeros=1 << 20)
    bad("ends-in-a-length", lambda a: [bytes(7)])
    bad("ends-in-an-iv", lambda a: [a.iv()[:23]], IV)
    bad("ends-in-a-record", lambda a: [a.record(hello)[:-1]], DATA)
    bad("ends-in-a-message", lambda a: [a.record(hello[:6])])
    key = Aes(key=noise(32, 1))
    records("another-key", lambda a: [key.iv(), key.record(noise(48)), key.record(hello)], [], DECRYPTION)
    half = Aes(128)
    records("128-bits-read-as-256", lambda a: [half.iv(), half.record(noise(44))], [], DECRYPTION)


def every_instruction():
    """A hand-made stream: each class of instruction, length bytes, every far distance."""
    run = noise(300, 7)
    stream = b"\0" + bytes([0, 300 - 18 - 255]) + run
    stream += bytes([0x20, 0, 0, 0, 0, 100]) + struct.pack("<H", (299 << 2) | 2) + b"ab"  # 1,153 from 300
    stream += bytes([2 << 2 | 3, 255]) + b"cde"  # 2 from 1,023
    stream += bytes([3 << 2, 255])  # 2 from 1,024
    stream += bytes([1]) + b"wxyz" + bytes([0x20]) + bytes(9) + bytes([7]) + struct.pack("<H", 3 << 2)
    stream += bytes([0x0F]) + run[:18] + bytes([1, 0])  # 3 from 2,049
    stream += b"!" + bytes([0xFF, 255]) + b"..." + bytes([0x3F]) + struct.pack("<H", (1999 << 2) | 0)
    stream += bytes([0x20]) + bytes(200) + bytes([1]) + struct.pack("<H", 0)  # for what follows
    stream += bytes([2]) + b"12345" + bytes([3 << 2, 255])  # 3 from 3,072
    stream += bytes([0x3F]) + struct.pack("<H", 16383 << 2)  # 33 from 16,384
    stream += bytes([0x11]) + struct.pack("<H", 1 << 2)  # 3 from 16,385
    stream += bytes([0x17]) + struct.pack("<H", (16383 << 2) | 1) + b"-"  # 9 from 32,767
    stream += bytes([0x19]) + struct.pack("<H", 0)  # 3 from 32,768
    stream += bytes([0x18, 0, 9]) + struct.pack("<H", (16383 << 2) | 3) + b"end"  # 273 from 49,151
    return stream + END


def compressed():
    def blocks(name, units, messages, error=HEADER, **more):
        case(f"compressed/{name}", ["compress"], units, messages, error, **more)

    def payload(name, content, message, error=HEADER, more=0, **others):
        """A block with the length of a message, then a block with its payload."""
        prefix = packed(frame(message)[:4])
        blocks(
            name,
            [prefix, block(content, len(message) + more)],
            [] if error is LZO_FAILED else [message],
            error,
            **others,
        )

    hello, text = frame(b"hello"), b"All work and no play makes Jack a dull boy. " * 20
    empty, data = block(b"", 0), noise(300)
    blocks("nothing", [], [], orderly=True)
    blocks("nothing-but-the-end", [empty], [], orderly=True)
    blocks("one", [packed(hello[:4]), packed(b"hello"), empty], [b"hello"], orderly=True)
    blocks("a-byte-each", [packed(bytes([b])) for b in hello], [b"hello"], orderly=True)
    blocks("two-messages", [packed(hello + hello)], [b"hello"] * 2, orderly=True)
    blocks(
        "empty-blocks",
        [empty, packed(hello[:4]), empty, empty, packed(b"hello"), empty],
        [b"hello"],
        orderly=True,
    )
    for encoder in ("lzo1x_1", "lzo1x_999"):
        payload(encoder, stock(text, encoder), text, orderly=True)
    payload("noise", stock(data), data, orderly=True)
    payload("68-literals-as-an-instruction", bytes([0, 50]) + data[:68] + END, data[:68], orderly=True)
    example = bytes.fromhex(
        "226120 70656e6e7920 736176656420 697320 e002 07 6561726e65643a206e61 20060900 21 0900 21 110000"
    )
    payload("example-of-the-page", example, stock_decode(example, 1000), orderly=True)
    every = every_instruction()
    payload("every-instruction", every, stock_decode(every, 1 << 20), orderly=True)
    payload("many-zeros", stock(bytes(600000)), bytes(600000), orderly=True)

    for number in (1, 2, 3, 32):
        payload(f"{number}-chunks", chunked(text, number), text)
    payload("more-chunks-than-bytes", chunked(b"hello", 7), b"hello")
    payload("chunks-of-less-than-announced", chunked(text, 3), text, more=5)
    trap = bytes.fromhex("0154440000004a") + bytes(range(0x41, 0x7A)) + bytes.fromhex("280d0021")
    assert stock(trap) == b"\x55" + trap + END
    payload("plain-stream-or-one-chunk", stock(trap), trap)
    for number in (0, 2, 33):
        like = bytes([number, number ^ 0x55]) + data[:66]
        assert stock(like) == b"\x55" + like + END
        payload(f"plain-stream-like-{number}-chunks", stock(like), like)
    payload("chunks-that-give-more", chunked(text, 3, len(text) + 1), text, LZO_FAILED)
    payload("chunks-that-give-less", chunked(text, 3, len(text) - 1), text, LZO_FAILED)
    payload("chunks-of-other-shares", chunked(data, 3, shares=[100, 99, 101]), data, LZO_FAILED)
    sizes = [len(stock(data[:100])), 1 << 31]
    payload("a-chunk-beyond-the-payload", chunked(data, 3, sizes=sizes), data, LZO_FAILED)

    short = stock(b"hello")
    payload("announces-more", short, b"hello", more=4)
    blocks("announces-without-a-payload", [block(b"", 5), packed(hello)], [b"hello"])
    payload("end-marker-alone", END, b"", blocking=([], DISCONNECTED))
    for name, broken in {
        "no-end-marker": short[:-3],
        "a-cut-end-marker": short[:-1],
        "end-marker-12-00-00": short[:-3] + b"\x12\0\0",
        "end-marker-11-01-00": short[:-3] + b"\x11\1\0",
        "a-byte-behind-the-end-marker": short + b"\0",
        "literals-beyond-the-payload": bytes([17 + 9]) + short[1:],
        "a-distance-beyond-the-beginning": short[:-3] + bytes([0x80 | 5 << 2, 0]) + END,
        "length-bytes-without-an-end": short[:-3] + bytes([0x20, 0, 0, 0]),
    }.items():
        payload(name, broken, b"hello", LZO_FAILED)
    payload("gives-more-than-announced", short, b"hello", LZO_FAILED, more=-1)
    blocks("announces-4-gib", [packed(hello), block(short, (1 << 32) - 1)], [b"hello"], LZO_FAILED)
    blocks("ends-in-a-header", [packed(hello), bytes(7)], [b"hello"], HEADER)
    blocks("ends-in-a-payload", [packed(hello), packed(hello)[:-1]], [b"hello"], DATA)
    blocks("ends-in-a-message", [packed(hello), packed(hello[:6])], [b"hello"], HEADER)


def stacked():
    """Stacked stages. A unit of the upper stage is one unit of the lower, unless cut again."""
    messages = [b"hello", noise(500, 3), b"x" * 700]
    data = b"".join(map(frame, messages))

    def cut(units, size):
        whole = b"".join(units)
        return [whole[at : at + size] for at in range(0, len(whole), size)] if size else units

    for bits, stages, size in (
        (256, ["compress", "encrypt"], 0),
        (128, ["compress", "encrypt"], 0),
        (256, ["compress", "encrypt"], 33),
        (256, ["encrypt", "compress"], 0),
        (256, ["encrypt", "compress"], 33),
        (256, ["encrypt", "encrypt"], 100),
        (256, ["compress", "compress"], 100),
        (256, ["compress", "encrypt", "compress", "encrypt"], 41),
    ):
        units, found = [data[:4], data[4:300], data[300:]], []
        for number, stage in enumerate(stages):
            units = cut(units, size)
            if stage == "encrypt":
                aes = Aes(bits)
                units = [aes.iv(number), *map(aes.record, units)]
            else:
                units = list(map(packed, units))
            found.append(offsets(units))
        name = "stacked/" + "-".join(stages) + ("-128" if bits == 128 else "")
        name += f"-cut-at-{size}" if size else ""
        case(name, stages, (b"".join(units), found), messages, HEADER, bits, orderly=True)


def text():
    for make in (frames, encrypted, compressed, stacked):
        make()
    names = {found["name"] for found in CASES}
    assert len(names) == len(CASES) and names > OPTIONAL
    return "[\n" + ",\n".join(json.dumps(found) for found in CASES) + "\n]\n"


if __name__ == "__main__":
    if sys.argv[1:] == ["--check"]:
        sys.exit(text() != FILE.read_text() and f"{FILE} is not what {sys.argv[0]} makes")
    FILE.write_text(text())
