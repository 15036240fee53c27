# SPDX-License-Identifier: LGPL-2.1-or-later
"""Checks a server that echoes messages."""

import contextlib
import random
import socket
import struct
import threading

from . import lzo, wire

MIB = 1 << 20
TRAP = bytes.fromhex("0154440000004a") + bytes(range(0x41, 0x7A)) + bytes.fromhex("280d0021")


def variety():
    """Returns data, and a stream for it with every class of instruction."""
    stream, noise = lzo.Stream(), random.Random(5).randbytes
    stream.literals(noise(300))
    for count, distance in ((3, 1), (8, 300), (9, 300), (33, 7), (34, 7), (288, 4), (289, 2), (5000, 1)):
        stream.match(count, distance)
        stream.literals(noise(distance % 3 + 1))
        stream.match(2, 1024 if distance == 1 and count > 9 else 5)
        stream.literals(noise(4 + distance % 18))
    stream.match(3, 2049)
    stream.literals(noise(3))
    stream.match(3, 2048)
    stream.literals(noise(50000))
    stream.match(3, 3072)
    for count, distance in ((4, 2049), (33, 16384), (9, 16385), (10, 32767), (264, 32768), (600, 49151)):
        stream.match(count, distance)
    payload = bytes(stream.out + lzo.END)
    return lzo.decode(payload, MIB), payload


class Checker:
    def __init__(self, address, stages, patience=10.0, say=print):
        self.address, self.stages, self.patience, self.say = address, stages, patience, say
        self.wrong, self.notes, self.vectors, self.random = 0, set(), [], random.Random(1)

    def verdict(self, name, problem, remark=""):
        self.wrong += bool(problem)
        self.say(f"WRONG {name}: {problem}" if problem else f"ok    {name}{remark and ': '}{remark}")

    def pour(self, sock, data, pieces):
        with contextlib.suppress(OSError):
            while data:
                step = self.random.randint(1, pieces)
                sock.sendall(data[:step])
                data = data[step:]

    def ask(self, make, count, pieces=1 << 40):
        """Sends the bytes of make. Returns up to count answers, and how the channel ended."""
        channel, heard = wire.Channel(wire.connect(self.address, self.patience), self.stages), []
        sender = threading.Thread(target=self.pour, args=(channel.sock, make(channel.writer), pieces))
        sender.start()
        try:
            while len(heard) < count and (message := channel.receive()) is not None:
                heard.append(message)
            ending = "closed" if len(heard) < count else ""
        except (OSError, lzo.Broken) as error:
            ending = {TimeoutError: "silent", lzo.Broken: f"unreadable ({error})"}.get(type(error), "closed")
        with contextlib.suppress(OSError):
            channel.sock.shutdown(socket.SHUT_RDWR if count else socket.SHUT_WR)
        sender.join()
        channel.sock.close()
        for layer in channel.reader.layers[:-1]:
            self.notes.update(layer.notes)
            self.vectors += getattr(layer, "vectors", [])
        return heard, ending

    def echo(self, name, messages, make=None, pieces=1 << 40, may_refuse=False):
        make = make or (lambda writer: b"".join(map(writer.put, messages)))
        heard, ending = self.ask(make, len(messages), pieces)
        if heard == messages:
            self.verdict(name, "", "taken" if may_refuse else "")
        elif may_refuse and ending == "closed" and heard == messages[: len(heard)]:
            self.verdict(name, "", "refused")
        else:
            right = "other bytes" if len(heard) == len(messages) else f"{len(heard)} of {len(messages)} messages"
            self.verdict(name, f"{right} came back{ending and ', then '}{ending}")

    def refuse(self, name, make):
        heard, ending = self.ask(make, 1)
        problem = "an answer came" if heard else "the channel stays open" if ending == "silent" else ""
        self.verdict(f"refuses {name}", problem)

    def run(self):
        text, noise = b"All work and no play. " * 40, self.random.randbytes
        self.echo("two messages", [b"hello", TRAP])
        sizes = (1, 2, 3, 4, 15, 16, 17, 31, 32, 33, 238, 239, 4095, 4096, 4097, 65535, 65536, 70001)
        self.echo("sizes up to 70,001 bytes", [noise(size) for size in sizes])
        for size in (MIB - 4, MIB - 1, MIB, MIB + 1, 2 * MIB + 17):
            self.echo(f"a message of {size:,} bytes", [(noise(64) * (size // 64 + 1))[:size]])
        self.echo("100 messages at once", [noise(i + 1) for i in range(100)])
        self.echo("a byte at a time", [b"hello", text[:99]], pieces=1)
        self.echo("odd pieces", [noise(i * 37 % 5000 + 1) for i in range(40)], pieces=777)
        self.echo("an empty message", [b"", b"behind it"], may_refuse=True)
        for index, key in enumerate(self.stages):
            kind = "encrypt" if key else "compress"
            name = f"stage {index + 1}, {kind}: "
            self.units(index, name, text)
            getattr(self, kind)(index, name, text)
        self.refuse("a negative length", lambda w: w.through(struct.pack("<i", -1)))
        for cut in (1, 3, 4, 7, 9, 20, 30, 45):
            self.ask(lambda w, cut=cut: w.put(b"cut off")[:cut], 0)
        self.echo("serves others when channels were cut", [b"still there"])
        if len(set(self.vectors)) < len(self.vectors):
            self.notes.add("a vector that was used before")
        if self.stages:
            self.verdict("what it writes", ", ".join(sorted(self.notes)))
        return self.wrong

    def units(self, index, name, text):
        """Cases for both kinds of stage: two messages, cut into units of a size."""

        def cut(w, size, empty):
            data = b"".join(w.through(wire.frame(text), 0, index) for _ in range(2))
            for at in range(0, len(data), size):
                yield w.through(data[at : at + size], index)
                yield from (w.through(b"", index) for _ in range(empty))

        for size, empty in ((1, 0), (7, 0), (16, 0), (100000, 0), (50, 3)):
            title = f"{name}units of {size:,} bytes{', empty units between' if empty else ''}"
            self.echo(title, [text] * 2, lambda w, s=size, e=empty: b"".join(cut(w, s, e)))

    def encrypt(self, index, name, _):
        def raw(records):
            """A stream with hand-made records of the bytes that enter the stage."""
            return lambda w: w.through(
                records(w.layers[index], w.through(wire.frame(b"hello"), 0, index)), index + 1)

        def padded(data, filling, more, last=0):
            missing = 16 - len(data) % 16 + more
            return data + bytes([filling]) * (missing - 1) + bytes([last or missing])

        def renewed(layer, data):
            parts = data[:3], data[3:6], data[6:]
            return b"".join(layer.put(part) + layer.vector() + layer.vector() for part in parts)

        def unopened(layer, data):
            layer.vector(bytes(16))
            return layer.put(data)

        self.echo(f"{name}IV records in the middle", [b"hello"], raw(renewed))
        for what, make in (
            ("other padding bytes", lambda e, d: e.blocks(padded(d, 7, 0))),
            ("padding of more than a block", lambda e, d: e.blocks(padded(d, 0, 16))),
            ("data before an IV record", unopened),
        ):
            self.echo(name + what, [b"hello"], raw(make), may_refuse=True)
        self.refuse(f"{name}a length of 20", raw(lambda e, d: e.vector() + struct.pack("<Q", 20) + bytes(20)))
        self.refuse(f"{name}padding beyond the record", raw(lambda e, d: e.blocks(bytes(15) + b"\x11")))

    def compress(self, index, name, text):
        def raw(message, payload, more=0):
            """A block with the length of the frame, then a block with this payload."""
            return lambda w: w.through(wire.frame(message)[:4]) + w.through(
                w.layers[0].block(payload, len(message) + more), 1)

        if index:
            return  # a hand-made payload would need the output of the stages above
        other, hello, stream = b"\x02\x57" + bytes(range(66)), b"hello", lzo.encode(b"hello")
        body, counts = stream[:-3], (17, 18, 19, 67, 68, 69, 238, 239, 273, 274)
        runs = [bytes(i * 7 % 251 for i in range(n)) for n in counts]
        for what, data, payload in (
            *((f"{number} chunks", text, lzo.write_chunks(text, number)) for number in (1, 2, 3, 32)),
            ("a plain stream like 1 chunk", TRAP, b"\x55" + TRAP + lzo.END),
            ("a plain stream like 2 chunks", other, b"\x55" + other + lzo.END),
            ("every instruction", *variety()),
            *((f"{len(run)} literals", run, lzo.encode(run)) for run in runs),
        ):
            self.echo(name + what, [data], raw(data, payload))
        for what, payload, more in (
            ("a block that announces more", stream, 4),
            ("the end 12 00 00", body + b"\x12\0\0", 0),
            ("the end 11 01 00", body + b"\x11\1\0", 0),
            ("a byte behind the end", stream + b"\0", 0),
        ):
            self.echo(name + what, [hello], raw(hello, payload, more), may_refuse=True)
        for what, broken in (
            ("a stream without an end", body),
            ("a stream of zeros", bytes(9)),
            ("literals beyond the payload", b"\x30hello"),
            ("a distance beyond the beginning", body + b"\xe0\x01" + lzo.END),
            ("more data than announced", lzo.encode(b"hello!")),
        ):
            self.refuse(f"{name}{what}", raw(hello, broken))
