#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""The library and the program beside the peer, which shares nothing with them: every stacking, in
both directions, over TCP and Unix sockets, in odd pieces and odd units.

Usage: interop.py SOURCE_ROOT [ZELGVC]
"""

import contextlib
import functools
import hashlib
import itertools
import os
import pathlib
import random
import re
import socket
import subprocess
import sys
import tempfile
import threading

ROOT = pathlib.Path(sys.argv[1])
sys.path.insert(0, str(ROOT))
sys.dont_write_bytecode = True

import tap
from librarychannel import GLib, LibraryChannel
from peer import check, wire

PROGRAM = sys.argv[2] if len(sys.argv) > 2 else ""
PATIENCE = 60  # seconds, against a hang only
MIB = 1 << 20
KEY = bytes(range(100, 132))
SHORT = KEY[:16]
STACKINGS = {
    "plain": [],
    "compress": [None],
    "encrypt": [KEY],
    "encrypt-128": [SHORT],
    "compress-encrypt": [None, KEY],
    "compress-encrypt-128": [None, SHORT],
    "encrypt-compress": [KEY, None],
    "compress-compress": [None, None],
    "encrypt-encrypt": [KEY, KEY],
    "compress-encrypt-compress": [None, KEY, None],
    "encrypt-compress-encrypt": [KEY, None, KEY],
}


@contextlib.contextmanager
def serving(transport, serve):
    """An address at which serve() gets each socket that connects, in a thread of its own."""
    with tempfile.TemporaryDirectory() as directory:
        server = socket.socket(socket.AF_UNIX if transport == "unix" else socket.AF_INET)
        server.bind(f"{directory}/socket" if transport == "unix" else ("127.0.0.1", 0))
        server.listen()

        def accept():
            with contextlib.suppress(OSError):
                while True:
                    threading.Thread(target=serve, args=(server.accept()[0],), daemon=True).start()

        threading.Thread(target=accept, daemon=True).start()
        name = server.getsockname()
        yield f"unix:{name}" if transport == "unix" else f"127.0.0.1:{name[1]}"
        server.shutdown(socket.SHUT_RDWR)
        server.close()


def library_echo(stages, asynchronous, sock):
    context = GLib.MainContext.new()
    context.push_thread_default()
    channel = LibraryChannel(sock, stages)
    read = channel.read_async if asynchronous else channel.read_blocking
    with contextlib.suppress(GLib.Error):
        while True:
            channel.write(read())
    channel.connection.close(None)
    context.pop_thread_default()


class OddWriter(wire.Writer):
    """Cuts frames into units of any size."""

    random = random.Random(3)

    def put(self, message):
        data, out = wire.frame(message), b""
        while data:
            size = self.random.choice((1, 3, 4, 5, 16, 100, 4096, MIB, 2 * MIB))
            out += self.through(data[:size])
            data = data[size:]
        return out


def send_oddly(sock, data, chance):
    while data:
        size = chance.choice((1, 7, 100, 5000, MIB)) if len(data) < 20000 else MIB
        sock.sendall(data[:size])
        data = data[size:]


def peer_echo(stages, notes, sock):
    channel = wire.Channel(sock, stages)
    channel.writer = OddWriter(stages)
    chance = random.Random(4)
    with sock:
        while (message := channel.receive()) is not None:
            send_oddly(sock, channel.writer.put(message), chance)
    notes += [note for layer in channel.reader.layers for note in layer.notes]


def samples(stages):
    """Messages of every size around a border: of a prefix, an AES block, a run, a page, a MiB."""
    chance = random.Random(5)
    yield check.TRAP
    words = [b"channel ", b"record ", b"block ", b"of ", b"the ", b"\n"]
    borders = (2, 4, 12, 16, 28, 32, 68, 238, 256, 4096)
    for size in sorted({border + near for border in borders for near in (-1, 0, 1)}):
        yield chance.randbytes(size)
        yield b"".join(chance.choice(words) for _ in range(size // 2 + 1))[:size]
    for size in (16384, 49151, 65535, 65537, MIB - 4, MIB - 1, MIB, MIB + 1, 2 * MIB + 17):
        # The peer takes seconds to compress a MiB that has no pattern.
        noise = chance.randbytes(size if all(stages) else 500)
        yield (noise * (size // len(noise) + 1))[:size]


def library_serves(transport, stages, asynchronous):
    """The library is the server, and the peer's check finds nothing wrong."""
    lines = []
    with serving(transport, functools.partial(library_echo, stages, asynchronous)) as address:
        wrong = check.Checker(address, stages, PATIENCE, lines.append).run()
    complaints = [line for line in lines if not line.startswith("ok ")]
    assert not wrong and not complaints, "\n".join(complaints)
    assert len(lines) > 12 + 5 * len(stages), lines
    assert f"an empty message: {'taken' if asynchronous else 'refused'}" in "\n".join(lines)


def library_calls(transport, stages, asynchronous):
    """The library is the client of a peer that sends odd units in odd pieces."""
    notes = []
    with serving(transport, functools.partial(peer_echo, stages, notes)) as address:
        channel = LibraryChannel(wire.connect(address, PATIENCE), stages)
        read = channel.read_async if asynchronous else channel.read_blocking
        for message in samples(stages):
            channel.write(message)
            assert read() == message, f"a message of {len(message)} bytes came back changed"
        if asynchronous:
            channel.write(b"")
            assert read() == b""
        channel.close()
    assert not notes, notes


class Careless(wire.Encryptor):
    def put(self, data):
        missing = 16 - len(data) % 16
        return self.blocks(data + bytes(missing - 1) + bytes([missing]))


class Repeating(wire.Encryptor):
    def vector(self, vector=None):
        return super().vector(bytes(range(16)))


class Boasting(wire.Compressor):
    def put(self, data):
        payload = super().put(data)[8:]
        return self.block(payload, len(data) + 5)


class Lying(wire.Writer):
    def put(self, message):
        return super().put(message[:-1] + b"?" if len(message) > 60 else message)


def check_finds(stages, writer, expected):
    """The check complains about a server that writes in this way."""

    def serve(sock):
        channel = wire.Channel(sock, stages)
        channel.writer = writer()
        with contextlib.suppress(OSError, wire.Broken), sock:
            while (message := channel.receive()) is not None:
                sock.sendall(channel.writer.put(message))

    lines = []
    with serving("tcp", serve) as address:
        wrong = check.Checker(address, stages, PATIENCE, lines.append).run()
    complaints = [line for line in lines if line.startswith("WRONG ")]
    assert wrong == len(complaints) > 0
    assert any(expected in line for line in complaints), complaints


def layered(stages, layer):
    writer = wire.Writer(stages)
    writer.layers[-1] = layer
    return writer


def command_line():
    """The command: what it prints, and its exit status."""
    run = functools.partial(subprocess.run, cwd=ROOT, capture_output=True, text=True, timeout=PATIENCE)
    peer = [sys.executable, "-B", "-m", "peer", "check"]
    with tempfile.NamedTemporaryFile() as key:
        key.write(KEY)
        key.flush()
        options = ["--compress", "--encrypt", key.name, "--key-length", "128"]
        with serving("tcp", functools.partial(library_echo, [None, SHORT], True)) as address:
            done = run([*peer, address, *options])
            assert done.returncode == 0 and done.stdout.endswith("\nall right\n"), done
            # With other stages nothing comes back.
            done = run([*peer, address, "--timeout", "0.1"])
            assert done.returncode == 1 and re.search(r"\n\d+ wrong\n$", done.stdout), done
        done = run([*peer, address, *options])
        assert done.returncode == 3 and address in done.stderr, done


class Channel(wire.Channel):
    def send(self, message):
        self.sock.sendall(self.writer.put(message))


def program(*arguments):
    quiet = {"stdin": subprocess.DEVNULL, "stdout": subprocess.DEVNULL}
    return subprocess.Popen([PROGRAM, *arguments], stderr=subprocess.PIPE, text=True, **quiet)


@contextlib.contextmanager
def listening(*arguments):
    """A program that listens at 127.0.0.1:0 or so, and the address that it says."""
    process = program(*arguments)
    try:
        yield re.fullmatch(r"listening on (\S+)\n", process.stderr.readline())[1]
    finally:
        process.terminate()
        process.communicate(timeout=PATIENCE)


def hello(service, options):
    value = GLib.Variant("(susa{sv})", ("zelgvc", 1, service, options))
    return value.get_data_as_bytes().get_data()


def control(**entries):
    forms = {int: "t", bytes: "ay", float: "d"}
    value = {name: GLib.Variant(forms[type(entry)], entry) for name, entry in entries.items()}
    return GLib.Variant("a{sv}", value).get_data_as_bytes().get_data()


def parsed(kind, message):
    return GLib.Variant.new_from_bytes(GLib.VariantType(kind), GLib.Bytes.new(message), False).unpack()


def options_and_stages(directory):
    (directory / "key").write_bytes(KEY)
    return ["--compress", "--encrypt", str(directory / "key")], [None, KEY]


def greeted(address, stages, service):
    channel = Channel(wire.connect(address, PATIENCE), stages)
    channel.send(hello(service, {}))
    answer = parsed("(susa{sv})", channel.receive())
    options = {} if service == "files" else {"limit": 64 << 20}
    assert answer == ("zelgvc", 1, service, options), answer
    return channel


def program_serves():
    """ping and perf as the page on the protocols describes them."""
    with tempfile.TemporaryDirectory() as directory:
        options, stages = options_and_stages(pathlib.Path(directory))
        with listening("serve", *options, "127.0.0.1:0") as address:
            with greeted(address, stages, "ping").sock as sock:
                del sock
            channel = greeted(address, stages, "ping")
            for message in (b"", b"x", bytes(70000)):
                channel.send(message)
                assert channel.receive() == message
            channel.sock.close()
            channel = greeted(address, stages, "perf")
            for _ in range(2):
                channel.send(control(direction=b"receive", size=100, seconds=0.01, data=b"random"))
                sizes = [len(message) for message in iter(channel.receive, b"")]
                assert sizes and set(sizes) == {100}
                assert parsed("a{sv}", channel.receive())["messages"] == len(sizes)
                channel.send(control(direction=b"send"))
                for message in (b"four", b"bytes", b""):
                    channel.send(message)
                report = parsed("a{sv}", channel.receive())
                assert (report["messages"], report["bytes"]) == (2, 9), report
            channel.sock.close()
            channel = Channel(wire.connect(address, PATIENCE), stages)
            channel.send(hello("files", {}))
            refused = parsed("(susa{sv})", channel.receive())
            assert refused[2] == "files" and "refused" in refused[3] and channel.receive() is None
            channel.sock.close()


def program_receives():
    """The peer sends files: whole, resumed, given up and refused."""
    content = random.Random(6).randbytes(700000)
    with tempfile.TemporaryDirectory() as name:
        directory = pathlib.Path(name)
        options, stages = options_and_stages(directory)
        (directory / "in").mkdir()
        (directory / "in" / ".resumed.zelgvc-part").write_bytes(content[:300000])
        arguments = ["receive", "--resume", *options, "127.0.0.1:0", str(directory / "in")]
        with listening(*arguments) as address:
            channel = greeted(address, stages, "files")

            def announce(name):
                channel.send(control(name=name, size=len(content), mode=0o640))
                return parsed("a{sv}", channel.receive())

            def pour(offset, end):
                channel.send(control(offset=offset))
                for at in range(offset, end, MIB // 4):
                    channel.send(content[at : min(at + MIB // 4, end)])

            def finish(answer):
                assert answer["have"] in (0, 300000), answer
                assert bytes(answer["sha256"]) == hashlib.sha256(content[: answer["have"]]).digest()
                pour(answer["have"], len(content))
                channel.send(control(sha256=hashlib.sha256(content).digest()))
                return parsed("a{sv}", channel.receive())

            assert "stored" in finish(announce(b"whole"))
            assert "refused" in announce(b"whole")
            assert "refused" in announce(b"../out")
            assert announce(b"resumed")["have"] == 300000
            pour(300000, 500000)
            channel.send(b"")
            channel.send(control(failed=b"a change of mind"))
            assert announce(b"resumed")["have"] == 500000
            channel.send(control(busy=1))
            pour(500000, len(content))
            channel.send(control(sha256=hashlib.sha256(content).digest()))
            assert "stored" in parsed("a{sv}", channel.receive())
            channel.send(control(end=1))
            assert "end" in parsed("a{sv}", channel.receive())
            assert channel.receive() is None
            channel.sock.close()
        for stored in ("whole", "resumed"):
            assert (directory / "in" / stored).read_bytes() == content
            assert (directory / "in" / stored).stat().st_mode & 0o777 == 0o640


def program_sends():
    """The peer receives files, one of which it has the beginning of."""
    content = random.Random(7).randbytes(700000)
    stored, problems = {}, []

    def receive(stages, sock):
        channel = Channel(sock, stages)
        greeting = parsed("(susa{sv})", channel.receive())
        channel.send(hello("files", {}))
        if greeting != ("zelgvc", 1, "files", {"resume": 1}):
            problems.append(greeting)
        while "end" not in (file := parsed("a{sv}", channel.receive())):
            have = content[:300000] if bytes(file["name"]) == b"second" else b""
            channel.send(control(busy=1))
            channel.send(control(have=len(have), sha256=hashlib.sha256(have).digest()))
            data = content[: parsed("a{sv}", channel.receive())["offset"]]
            start = len(data)
            while len(data) < file["size"]:
                data += channel.receive()
            stored[bytes(file["name"])] = start, data
            if bytes(parsed("a{sv}", channel.receive())["sha256"]) != hashlib.sha256(data).digest():
                problems.append("the checksum")
            channel.send(control(stored=1))
        channel.send(control(end=1))
        sock.close()

    with tempfile.TemporaryDirectory() as name:
        directory = pathlib.Path(name)
        options, stages = options_and_stages(directory)
        for file in ("first", "second"):
            (directory / file).write_bytes(content)
        (directory / "empty").touch()
        with serving("tcp", functools.partial(receive, stages)) as address:
            files = [str(directory / file) for file in ("first", "second", "empty")]
            process = program("send", "--resume", *options, address, *files)
            complaints = process.communicate(timeout=PATIENCE)[1]
    assert process.returncode == 0 and not problems, (complaints, problems)
    assert stored == {b"first": (0, content), b"second": (300000, content), b"empty": (0, b"")}


MATRIX = ("tcp", "unix"), ("blocking", "asynchronous"), (library_serves, library_calls)


def cases():
    for name, stages in STACKINGS.items():
        for transport, form, what in itertools.product(*MATRIX):
            path = f"/interop/{what.__name__.replace('_', '-')}/{name}/{transport}/{form}"
            yield path, functools.partial(what, transport, stages, form == "asynchronous")
    for name, stages, layer, expected in (
        ("other-padding", [KEY], functools.partial(Careless, KEY), "padding"),
        ("one-iv-for-all", [KEY], functools.partial(Repeating, KEY), "used before"),
        ("wrong-sizes", [None], Boasting, "announces"),
    ):
        writer = functools.partial(lambda stages, layer: layered(stages, layer()), stages, layer)
        yield f"/interop/check-finds/{name}", functools.partial(check_finds, stages, writer, expected)
    lying = functools.partial(check_finds, [], functools.partial(Lying, []), "other bytes came back")
    yield "/interop/check-finds/other-bytes", lying
    yield "/interop/command-line", command_line
    if PROGRAM:
        for case in (program_serves, program_receives, program_sends):
            yield f"/interop/{case.__name__.replace('_', '-')}", case


os.environ["PYTHONDONTWRITEBYTECODE"] = "1"
sys.exit(tap.run(cases()))
