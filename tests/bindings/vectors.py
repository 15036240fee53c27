#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""The vectors against the library, against the peer, and in the other direction: what either writes
is read by OpenSSL and liblzo2, and by the other one.

Usage: vectors.py SOURCE_ROOT
"""

import json
import pathlib
import random
import socket
import struct
import subprocess
import sys
import threading

ROOT = pathlib.Path(sys.argv[1])
sys.path[:0] = [str(ROOT), str(ROOT / "vectors")]
sys.dont_write_bytecode = True

from cryptography.hazmat.primitives.ciphers import Cipher, algorithms, modes

import make
import tap
from librarychannel import Gio, GLib, LibraryChannel, ZelGvc
from peer import wire

PATIENCE = 60  # seconds, against a hang only
DOMAINS = {"GVC_ERROR": ZelGvc.error_quark(), "G_IO_ERROR": Gio.io_error_quark()}


def equal(left, right):
    assert left == right, f"{left!r} is not {right!r}"


def library_reads(case, data, blocking=False, piece=1 << 20):
    here, there = socket.socketpair()

    def pour():
        try:
            for at in range(0, len(data), piece):
                here.sendall(data[at : at + piece])
            here.shutdown(socket.SHUT_WR)
        except OSError:
            pass  # the reader had enough

    sender = threading.Thread(target=pour)
    sender.start()
    channel = LibraryChannel(there, keys(case))
    result = channel.read_all(channel.read_blocking if blocking else channel.read_async)
    here.shutdown(socket.SHUT_RDWR)
    channel.connection.close(None)
    sender.join()
    here.close()
    return result


def library_writes(case, messages):
    here, there = socket.socketpair()
    channel = LibraryChannel(there, keys(case))
    written = bytearray()

    def collect():
        while part := here.recv(65536):
            written.extend(part)

    collector = threading.Thread(target=collect)
    collector.start()
    for message in messages:
        channel.write(message)
    channel.close()
    collector.join(PATIENCE)
    here.close()
    return bytes(written)


def keys(case):
    key = bytes.fromhex(case.get("key", ""))[: case.get("key-length", 0) // 8]
    return [key if stage == "encrypt" else None for stage in case["stages"]]


def peer_reads(case, data, piece=1 << 20):
    reader, messages, error = wire.Reader(keys(case)), [], None
    try:
        for at in range(0, len(data), piece):
            messages.extend(reader.feed(data[at : at + piece]))
        error = reader.layers[0].missing()
    except wire.Broken as broken:
        error = str(broken)
    return messages, error, reader


def stock_reads(case, data):
    """The frames of a whole stream, opened with OpenSSL and liblzo2."""
    for key in reversed(keys(case)):
        text = b""
        while data:
            size, room = struct.unpack_from("<II", data)
            if key is None:
                if size:
                    text += make.stock_decode(data[8 : 8 + size], room)
            elif size:
                opened = cipher.update(data[8 : 8 + size])
                equal(opened[-opened[-1] :], bytes([opened[-1]]) * opened[-1])
                text += opened[: -opened[-1]]
            else:
                size = 16
                cipher = Cipher(algorithms.AES(key), modes.CBC(data[8:24])).decryptor()
            data = data[8 + size :]
        data = text
    messages = []
    while data:
        size = struct.unpack_from("<i", data)[0]
        messages.append(data[4 : 4 + size])
        data = data[4 + size :]
    return messages


def check_read(result, wanted):
    messages, error = result
    equal([make.message_form(message) for message in messages], wanted["messages"])
    about = wanted["error"]
    equal(
        (GLib.quark_from_string(error.domain), error.message),
        (DOMAINS[about["domain"]], about["message"]),
    )
    enum = ZelGvc.Error if about["domain"] == "GVC_ERROR" else Gio.IOErrorEnum
    equal(error.code, int(getattr(enum, about["code"])))


def check_peer(case, data):
    for piece in (1 << 20, 7):
        messages, error, reader = peer_reads(case, data, piece)
        equal([make.message_form(message) for message in messages], case["messages"])
        equal(error, case["error"]["message"])
        for layer, borders in zip(reader.layers, reversed(case.get("borders", []))):
            # If the stream was refused or cut, the reader has not reached all of them.
            equal(layer.borders, borders[: len(layer.borders)])
            if case["orderly"]:
                equal(len(layer.borders), len(borders))


def check_written(case, data, messages):
    equal(stock_reads(case, data), messages)
    heard, error, reader = peer_reads(case, data)
    equal((heard, error), (messages, case["error"]["message"]))
    equal([note for layer in reader.layers for note in layer.notes], [])
    equal(library_reads(case, data)[0], messages)


def cases_of(case):
    data = bytes.fromhex(case["wire"]) + bytes(case.get("zeros", 0))
    if not case.get("zeros"):
        yield "odd-pieces", lambda: check_read(library_reads(case, data, piece=3), case)
    yield "asynchronous", lambda: check_read(library_reads(case, data), case)
    blocking = case.get("blocking", case)
    yield "blocking", lambda: check_read(library_reads(case, data, blocking=True), blocking)
    yield "peer", lambda: check_peer(case, data)
    yield "damaged", lambda: damaged(case)
    if case["orderly"]:
        messages = peer_reads(case, data)[0]
        by_peer = b"".join(map(wire.Writer(keys(case)).put, messages))
        yield "written", lambda: check_written(case, library_writes(case, messages), messages)
        yield "written-by-the-peer", lambda: check_written(case, by_peer, messages)


def damage(data, chance):
    data = bytearray(data)
    for _ in range(chance.choice((1, 1, 2, 3))):
        at, size = chance.randrange(len(data) + 1), chance.randrange(1, 4)
        kept = chance.choice((0, size, size))
        data[at : at + kept] = chance.randbytes(chance.choice((0, size, size)))
    return bytes(data)


def damaged(case):
    """The library and the peer make the same of a stream in which some bytes are others."""
    chance = random.Random(case["name"])
    for _ in range(40):
        data = damage(bytes.fromhex(case["wire"]), chance)
        heard, why, reader = peer_reads(case, data)
        frames = reader.layers[-1]
        if len(frames.buffer) >= 4 and frames.number("<i") > 1 << 20:
            continue  # the library would take memory for all of it
        messages, error = library_reads(case, data)
        equal((messages, error.message, data.hex()), (heard, why, data.hex()))


def unused_channels():
    """The bytes of a channel that carries no message and closes."""
    for stages, size in (("", 0), ("c", 8), ("e", 24), ("ce", 48), ("ee", 64)):
        stages = ["encrypt" if stage == "e" else "compress" for stage in stages]
        case = {"stages": stages, "key": make.KEY.hex(), "key-length": 256}
        equal(len(library_writes(case, [])), size)


def up_to_date():
    subprocess.run([sys.executable, ROOT / "vectors/make.py", "--check"], check=True)


def main():
    cases = [("/vectors/are-what-the-script-makes", up_to_date)]
    cases += [("/vectors/unused-channels", unused_channels)]
    for case in json.loads((ROOT / "vectors/vectors.json").read_text()):
        cases += [(f"/vectors/{case['name']}/{what}", check) for what, check in cases_of(case)]
    sys.exit(tap.run(iter(cases)))


main()
