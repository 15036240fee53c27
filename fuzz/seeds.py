#!/usr/bin/python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""Writes seeds for all targets into the given folder: small inputs, mostly what a peer sends. The
test vectors' OpenSSL and liblzo2 make them."""

import pathlib
import struct
import sys

from gi.repository import GLib

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parents[1]))
from vectors import make  # noqa: E402

KEY = b"libzelgvc: this is a fixed key.\0"
TEXT = b"a channel, a channel, a channel and another channel"
COMPRESSION, ENCRYPTION_256, ENCRYPTION_128 = KINDS = 1, 2, 3
FRAMES = make.frame(b"hello") + make.frame(b"") + make.frame(TEXT)


def put(target, name, data):
    folder = pathlib.Path(sys.argv[1]) / target
    folder.mkdir(parents=True, exist_ok=True)
    (folder / name).write_bytes(data)


def put_script(target, name, script, payload=b""):
    put(target, name, bytes([len(script), *script]) + payload)


def staged(kind, plain, piece=None):
    """What a stage makes of one write, or of writes of `piece` bytes."""
    piece = piece or len(plain)
    pieces = [plain[at:at + piece] for at in range(0, len(plain), piece)]
    if kind == COMPRESSION:
        return b"".join(map(make.packed, pieces))
    cipher = make.Aes(256 if kind == ENCRYPTION_256 else 128, KEY)
    return cipher.iv() + b"".join(map(cipher.record, pieces))


def readers():
    message, string, watch, *variants = range(11)
    channel, buffer, split, fails, cancels, repeats, large = 1, 2, 4, 8, 16, 0x40, 0x80
    threads = 0xF2  # a multiple of the number of forms, so messages; 1 more is strings

    def read(name, what, payload, stream=0, numbers=(0, 0), ends=(0, 0), size=0, pieces=()):
        put_script("readers", name, [what, stream, *numbers, *ends, size, *pieces], payload)

    read("bytes", message, FRAMES)
    read("in-pieces", message, FRAMES, pieces=[0, 0, 0, 0, 1, 0x83, 2, 0x80, 5])
    read("in-threads", threads, FRAMES, pieces=[1, 3])
    read("cut-off", message, FRAMES[:-9])
    read("fails", message, FRAMES, fails, (12, 0))
    read("cancelled", message, FRAMES, cancels, (3, 0))
    read("negative", message, b"\xff\xff\xff\xff\1")
    read("large", message, b"\0\0\0\1\1")
    read("large-and-there", message, b"\0\0\0\1\1", large)
    for which, text in ((1, "'hello'"), (2, "('hello', uint32 7)"),
                        (3, "{'one': <1>, 'two': <'zwei'>}"),
                        (7, "(byte 1, int64 2, @ms 'three', <4>)")):
        variant = GLib.Variant.parse(None, text, None, None)
        read(f"variant-{which}", variants[which], make.frame(variant.get_data_as_bytes().get_data()))

    lines, newline = b"one\ntwo\n\nthree", (10, 10)
    read("lines", string, lines, cancels, (20, 0), newline)
    read("lines-wait", string, lines, cancels, (20, 0), newline,
         pieces=[0x80, 1, 0x80, 1, 1, 0x80])
    read("two-terminators", string, lines, cancels, (20, 0), b"o\n")
    read("zero", string, b"a\0b\0", cancels, (20, 0))
    read("line-fails", string, lines, fails, (6, 0), newline)
    read("lines-in-threads", threads + string, lines, cancels, (20, 0), newline)
    read("line-grows", string, b"a" * 27 + b"\n", cancels | repeats, (0, 9), newline)
    read("buffered", string, lines, cancels | buffer, (20, 0), newline, 3, [5, 1, 0, 2])
    read("buffered-fails", string, lines, fails | buffer, (6, 0), newline, 15)
    read("socket", string, lines, channel, (0, 0), newline, pieces=[1, 3, 1, 5])
    read("socket-grows", string, b"a" * 27 + b"\n", channel | repeats, (0, 0), newline,
         pieces=[100])
    for kind in KINDS:
        peer = channel | fails
        read(f"lines-{kind}", string, lines, peer, (kind, 0), newline, pieces=[5, 3, 20, 9])
        read(f"lines-split-{kind}", string, lines, peer | split, (kind, 0), b"\no",
             pieces=[9, 1, 7, 30, 2])
        read(f"lines-buffered-{kind}", string, lines, peer | buffer, (kind, 0), newline, 4, [40])

    frames = FRAMES + make.frame(b"end")
    pieces = [3, 5, 60, 1, 1, 9]
    read("channel", message, frames, channel)
    read("channel-cut-off", message, frames[:-1], channel, pieces=[3, 3])
    # In pieces to a source that stays attached, which reads a few bytes at a time.
    read("watched", watch, frames, channel, (0, 7), pieces=pieces)
    read("watched-stages", watch, frames, channel | cancels, (6, 1), pieces=[40, *pieces[1:]])
    for first in KINDS:
        for second in (0, *KINDS):
            stages, name = (first + 4 * second, 0), f"{first}{second}"
            read(f"peer-{name}", message, frames, channel | cancels, stages)
            if first < 3 and second < 3:
                wire = staged(first, staged(second, frames) if second else frames)
                read(f"wire-{name}", message, wire, channel, stages)
                read(f"split-{name}", message, wire, channel | split, stages, pieces=pieces)


def convert():
    for script, (kind, name) in enumerate(zip(KINDS, ("decompress", "decrypt-256", "decrypt-128"))):
        one = staged(kind, TEXT)
        put_script("convert", name, [script], one)
        put_script("convert", f"{name}-several", [script, 0, 9, 0, 40],
                   staged(kind, TEXT, 7))
        put_script("convert", f"{name}-cut-off", [script, 1, 8, 1, 8], one[:-2])
    put_script("convert", "decompress-run", [0], staged(COMPRESSION, b"a" * 10000))
    put_script("convert", "decompress-lies", [0], make.block(make.END, (1 << 32) - 1))
    # Announces more than its payload can hold, but less than the largest room.
    put_script("convert", "decompress-boasts", [0, 0, 0, 0x5C],
               make.block(b"\x12a" + make.END, 0x110000))
    put_script("convert", "decrypt-lies", [1], struct.pack("<Q", 1 << 30) + b"\1\2\3")


def chunked():
    def payload(name, data, room=len(TEXT)):
        put("chunked", name, struct.pack("<H", room) + data)

    payload("plain", make.stock(TEXT))
    for number in 1, 2, 3, 32:
        payload(f"chunks-{number}", make.chunked(TEXT, number))
    payload("too-many", make.chunked(TEXT, 33))
    payload("more-room", make.chunked(TEXT, 2), 200)
    payload("wrong-total", make.chunked(TEXT, 3, total=len(TEXT) + 1), 200)
    payload("wrong-size", make.chunked(TEXT, 2, sizes=[7]))
    payload("wrong-share", make.chunked(TEXT, 2, shares=[20, len(TEXT) - 20]))
    # A plain stream of 68 bytes, and a single chunk of as many.
    both = bytes([0x55, 1, 0x54, 68, 0, 0, 0, 17 + 57, *range(65, 65 + 57), 40, 13, 0, 33]) + make.END
    payload("both-ways", both, 68)
    payload("single-chunk", both, 67)


def roundtrip():
    # In both directions, blocking and asynchronously, bytes and variants, with a reset in between.
    messages = [0x0C, 5, 1, 60, 2, 0xD0, 0x0D, 0, 0x40, 9, 30, 0x0E, 70, 3, 0xFD, 40]
    put_script("roundtrip", "largest", [2, 1, 0, 0, 1, 0xFF, 0xFF])
    put_script("roundtrip", "largest-by-gio", [2, 1, 0, 0, 0x20, 0xFF, 0xFF])
    for stage in 0, 1, 2:
        put_script("roundtrip", f"by-gio-{stage}", [stage, 0, 0, 0, 0x20, 60, 0x22, 0xD0, 0x23, 0,
                                                    0x28, 9, 0x2E, 70, 0x21, 0xFD, 40])
    for name, stages in {"none": [0, 0, 0, 0], "c": [1, 0, 0, 0], "e": [2, 0, 0, 0],
                         "ec": [2, 1, 0, 0], "ce": [1, 3, 0, 0], "cc": [1, 1, 0, 0],
                         "ecec": [2, 1, 3, 1], "split": [4, 1, 4, 2]}.items():
        put_script("roundtrip", name, stages + messages)
        put_script("roundtrip", f"{name}-in-pieces", stages + messages, b"\3" * 40)


def states():
    # The numbers of the calls.
    (add_stage, open_reader, open_writer, read_async, _, read_blocking, write_async, _,
     write_blocking, cancel, close_something, drop_something, iterate, _, peer_sends_message,
     peer_reads, peer_sends_payload, peer_goes, write_by_gio) = range(19)

    def put_calls(name, *calls, payload=b""):
        put_script("states", name, [number for call in calls for number in call], payload)

    for kind, other in (0, 1), (1, 0), (2, 0):
        stages = [(add_stage, kind), (add_stage, other)]
        put_calls(f"stages-{kind}{other}-read", *stages,
                  (open_reader, 1), (peer_sends_message, 20, 0, 0), (read_async, 0, 0),
                  (iterate, 15), (iterate, 15), (peer_sends_message, 9, 3, 3, 3),
                  (read_blocking,), (peer_goes, 1), (read_async, 1, 0), (iterate, 15),
                  (close_something, 1))
        put_calls(f"stages-{kind}{other}-write", *stages,
                  (open_writer, 0), (write_async, 30, 0), (iterate, 15), (peer_reads, 0),
                  (write_blocking, 40), (peer_reads, 0), (write_async, 0xFF, 0), (iterate, 9),
                  (cancel, 0), (iterate, 15), (peer_goes, 0), (close_something, 1))
    put_calls("drop-while-reading",
              (open_reader, 1), (read_async, 0, 0), (drop_something, 0), (drop_something, 2),
              (iterate, 3), (peer_sends_message, 5), (iterate, 15))
    put_calls("close-while-writing",
              (open_writer, 4), (write_async, 0xFC, 0), (close_something, 1), (close_something, 4),
              (peer_reads, 0), (iterate, 15), (peer_reads, 0), (iterate, 15), (close_something, 4))
    put_calls("strings",
              (open_reader, 0), (read_async, 10, 0), (peer_sends_payload, 3), (iterate, 9),
              (peer_sends_payload, 9), (iterate, 15), (read_async, 10, 0), (cancel, 0),
              payload=b"one\ntwo\n")
    for stage in range(4):
        put_calls(f"writes-by-gio-{stage}", *([(add_stage, stage - 1)] if stage else []),
                  (open_writer, 0), (write_by_gio, 0xF8, 0), (iterate, 15), (peer_reads, 0),
                  (iterate, 15), (peer_reads, 0), (iterate, 15), (write_by_gio, 31, 0),
                  (iterate, 9), (write_async, 0xFE, 0), (iterate, 5), (peer_reads, 90),
                  (cancel, 0), (iterate, 9), (peer_reads, 0), (write_by_gio, 0xFB, 0),
                  (peer_reads, 0), (iterate, 15), (peer_goes, 0))
    put_calls("ill-behaved",
              (add_stage, 0), (open_reader, 1), (read_async, 0, 0), (peer_sends_payload, 40),
              (iterate, 15), (close_something, 0, 0), (iterate, 15),
              payload=staged(COMPRESSION, make.frame(b"hello")))


def codec():
    """Data, and the same data encoded by the fastest and by the best encoder of liblzo2."""
    noise = make.noise(2000)
    words = b"".join((b"the ", b"of ", b"channel ", b"window ", b"session\n")[byte % 5]
                     for byte in noise[:120])
    # Matches of many lengths and distances between runs of literals.
    mixed = b"".join(noise[i * 30:i * 30 + i % 40] + words[i:4 + i * 3] for i in range(60))
    for name, data in {"empty": b"", "one": b"x", "run": b"a" * 700, "period3": b"\x10\x20\x30" * 60,
                       "text": words, "noise": noise[:300], "mixed": mixed}.items():
        put("lzo1xroundtrip", name, b"\0" + data)
        for encoder in "lzo1x_1", "lzo1x_999":
            put("lzo1xdecode", f"{name}-{encoder}",
                struct.pack("<HB", len(data), 0) + make.stock(data, encoder))


for target in readers, convert, chunked, roundtrip, states, codec:
    target()
