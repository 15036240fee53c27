#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""The dissector for Wireshark, by tshark, on captures of loopback that are made here."""

import json
import os
import pathlib
import random
import shutil
import signal
import socket
import struct
import subprocess
import time

from support import STAGES, WATCHDOG, Process, Skip, case, each, key, main, run

SCRIPT = pathlib.Path(os.environ["TOOLS_SOURCE"]).parent / "contrib/wireshark/zelgvc.lua"
ENVIRONMENT = {**os.environ, "HOME": "/nonexistent", "LC_ALL": "C.UTF-8"}


def capture(port, action):
    """Records what passes on the port meanwhile. A capture that had not begun when the first bytes
    went, or not seen the last, is made again."""
    if not shutil.which("tshark") or not shutil.which("dumpcap"):
        raise Skip("no tshark here")
    for _ in range(8):
        path = pathlib.Path("capture.pcap")
        path.unlink(missing_ok=True)
        log = open("capture.log", "wb")
        dump = subprocess.Popen(
            ["dumpcap", "-q", "-P", "-i", "lo", "-f", f"tcp port {port}", "-w", path],
            stdin=subprocess.DEVNULL, stdout=log, stderr=log, env=ENVIRONMENT,
        )
        try:
            deadline = time.monotonic() + WATCHDOG
            while not path.exists() and time.monotonic() < deadline:
                if dump.poll() is not None:
                    why = pathlib.Path("capture.log").read_text().strip().splitlines()[-1:]
                    raise Skip("no right to capture: " + "".join(why))
                time.sleep(0.02)
            time.sleep(0.3)
            result = action()
            time.sleep(0.5)
        finally:
            dump.send_signal(signal.SIGINT)
            dump.wait()
            log.close()
        flags = tshark("-T", "fields", "-e", "tcp.flags.syn", "-e", "tcp.flags.fin").split()
        if flags.count("True") + flags.count("1") >= 4:
            return result
    raise AssertionError("no complete capture")


def tshark(*options):
    done = subprocess.run(
        ["tshark", "-r", "capture.pcap", "-X", f"lua_script:{SCRIPT}", *options],
        capture_output=True, text=True, env=ENVIRONMENT, timeout=WATCHDOG,
    )
    assert done.returncode == 0 and "Lua" not in done.stderr, done.stderr
    return done.stdout


def values(port, *names, layer=None):
    """All values of these fields, in order."""
    options = ["-o", f"zelgvc.ports:{port}", "-2", "-T", "json", "--no-duplicate-keys"]
    if layer is not None:
        options += ["-o", f"zelgvc.layer:{layer}"]
    found = {name: [] for name in names}

    def collect(node):
        if isinstance(node, dict):
            for name, value in node.items():
                if name in found:
                    found[name] += value if isinstance(value, list) else [value]
                else:
                    collect(value)
        elif isinstance(node, list):
            for value in node:
                collect(value)

    collect(json.loads(tshark(*options)))
    return [found[name] for name in names]


def exchange(server, data, sizes):
    """Sends the data in pieces of these sizes, each as a segment if the system allows that."""
    def action():
        with socket.create_connection(server.getsockname()) as client:
            peer = server.accept()[0]
            client.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
            at = 0
            for size in sizes:
                client.sendall(data[at : at + size])
                at += size
                time.sleep(0.001)
            client.sendall(data[at:])
            client.shutdown(socket.SHUT_WR)
            while peer.recv(65536):
                pass
            peer.close()
            while client.recv(100):
                pass

    return action


def pieces_of(data):
    generator = random.Random(3)
    sizes = []
    while sum(sizes) < len(data):
        sizes.append(generator.choice((1, 2, 3, 7, 50, 400)))
    return sizes


def server():
    return socket.create_server(("127.0.0.1", 0))


@case
def frames_in_segments_of_any_size():
    messages = [b"hello", b"", b"\0\1\2", b"x" * 3000, b"y"] * 4
    data = b"".join(struct.pack("<i", len(message)) + message for message in messages)
    for sizes in ([], [4], [4, 5] + pieces_of(data)):
        with server() as listener:
            port = listener.getsockname()[1]
            capture(port, exchange(listener, data, sizes))
            # Without the first segment of 4 bytes only the preference can tell.
            lengths, payloads, texts = values(
                port, "zelgvc.frame.length", "zelgvc.frame.payload", "zelgvc.frame.text",
                layer="Message frames",
            )
            assert [int(length) for length in lengths] == [len(m) for m in messages]
            assert [bytes.fromhex(p.replace(":", "")) for p in payloads] == [m for m in messages if m]
            assert texts.count("hello") == 4 and texts.count("y") == 4


@case
def blocks_and_records_in_segments_of_any_size():
    block = struct.pack("<II", 9, 5) + b"\x16hello\x11\0\0"
    record = struct.pack("<Q", 32) + bytes(range(32))
    for data, names, expected in (
        (block * 5 + bytes(8), ("zelgvc.block.payload_size", "zelgvc.block.content_size"),
         (["9"] * 5 + ["0"], ["5"] * 5 + ["0"])),
        (bytes(8) + b"v" * 16 + record * 5, ("zelgvc.record.length", "zelgvc.record.iv"),
         (["0"] + ["32"] * 5, [":".join(["76"] * 16)])),
    ):
        first = len(block) if b"hello" in data else 24
        for sizes in ([], [first] + pieces_of(data)):
            with server() as listener:
                port = listener.getsockname()[1]
                capture(port, exchange(listener, data, sizes))
                assert values(port, *names) == list(expected), values(port, *names)


@case
def a_length_that_cannot_be_is_marked():
    with server() as listener:
        port = listener.getsockname()[1]
        capture(port, exchange(listener, b"\xff\xff\xff\xff rest", []))
        shown = tshark("-o", f"zelgvc.ports:{port}", "-o", "zelgvc.layer:Message frames", "-V")
        assert "A length that cannot be" in shown
        assert "zelgvc" not in tshark("-V").lower().replace("zelgvc.lua", "")


@each(*STAGES.items())
def what_the_program_sends_is_dissected(stages):
    key()
    with server() as unused:
        port = unused.getsockname()[1]
    lines = b"hello\nagain\n" + b"z" * 5000 + b"\n"

    def action():
        listen = Process("listen", f"127.0.0.1:{port}", *stages)
        run("connect", listen.address(), *stages, data=lines)
        listen.wait()
        assert listen.output == lines

    capture(port, action)
    last = [stage for stage in stages if stage in ("--compress", "--encrypt")][-1:]
    if not last:
        lengths, texts = values(port, "zelgvc.frame.length", "zelgvc.frame.text")
        assert lengths == ["5", "5", "5000"] and texts[:2] == ["hello", "again"]
    elif last == ["--encrypt"]:
        lengths, ivs = values(port, "zelgvc.record.length", "zelgvc.record.iv")
        # The side that sends nothing may still send an IV, and the end of its stages.
        assert 1 <= len(ivs) <= 2 and lengths.count("0") == len(ivs)
        assert all(int(length) % 16 == 0 for length in lengths) and len(lengths) >= 7
    else:
        sizes, contents = values(port, "zelgvc.block.payload_size", "zelgvc.block.content_size")
        assert len(sizes) == len(contents) >= 6
        if stages == ["--compress"]:
            assert contents[:6] == ["4", "5", "4", "5", "4", "5000"]


main()
