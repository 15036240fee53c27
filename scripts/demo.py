# SPDX-License-Identifier: LGPL-2.1-or-later
"""The conversations of scripts/demo, and the table of what was seen.

usage: demo.py SERVE CALL ZELGVC

For every combination of stages the serving and the calling example hold the same conversation
twice, as two processes on the loopback interface: once directly, which is timed, and once through
a relay in this process, which counts and keeps every byte that passes. Then the program zelgvc shows
what it does.
"""

import hashlib
import os
import pathlib
import re
import signal
import socket
import subprocess
import sys
import tempfile
import threading

import demoprogram

MIB = 1 << 20
SAMPLE_SIZE = 48 * MIB
SAMPLE_LEAST = 32 * MIB
MESSAGES = 100
STAGES = {
    "plain": [],
    "compressed": ["--compress"],
    "encrypted": ["--encrypt", "KEY"],
    "compressed, encrypted": ["--compress", "--encrypt", "KEY"],
}
# Part of a variant that every conversation sends; its letters stand so on a wire that hides nothing.
TEXT = b"message 42 of %d" % MESSAGES


class Failure(Exception):
    pass


def files_below(top, suffix):
    for directory, folders, names in os.walk(top):
        folders.sort()
        for name in sorted(names):
            path = os.path.join(directory, name)
            if suffix in name and os.path.isfile(path) and not os.path.islink(path):
                yield path


def make_sample(path):
    """A file of headers and shared libraries, half and half: text and machine code."""
    with open(path, "wb") as sample:
        for top, suffix, size in (("/usr/include", ".h", SAMPLE_SIZE // 2),
                                  ("/usr/lib", ".so", SAMPLE_SIZE),
                                  ("/usr", "", SAMPLE_SIZE)):
            for source in files_below(top, suffix):
                if sample.tell() >= size:
                    break
                try:
                    with open(source, "rb") as data:
                        sample.write(data.read(size - sample.tell()))
                except OSError:
                    continue
        if sample.tell() < SAMPLE_LEAST:
            raise Failure("too few files below /usr for the sample")


def checksum(path):
    digest = hashlib.sha256()
    with open(path, "rb") as data:
        while block := data.read(MIB):
            digest.update(block)
    return digest.hexdigest()


class Relay:
    """Stands between one caller and the server, and keeps what passes."""

    def __init__(self, port):
        self.server_port = port
        self.seen = (bytearray(), bytearray())
        self.listener = socket.create_server(("127.0.0.1", 0))
        self.port = self.listener.getsockname()[1]
        self.thread = threading.Thread(target=self.run, daemon=True)
        self.thread.start()

    def run(self):
        with self.listener, self.listener.accept()[0] as caller:
            with socket.create_connection(("127.0.0.1", self.server_port)) as server:
                for end in caller, server:
                    end.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
                back = threading.Thread(target=self.pump, args=(server, caller, self.seen[1]))
                back.start()
                self.pump(caller, server, self.seen[0])
                back.join()

    @staticmethod
    def pump(source, sink, seen):
        try:
            while data := source.recv(MIB):
                seen += data
                sink.sendall(data)
            sink.shutdown(socket.SHUT_WR)
        except OSError:
            # An end that went away shows in the exit status of its program.
            pass

    def finish(self):
        self.thread.join(timeout=60)
        if self.thread.is_alive():
            raise Failure("the relay still waits for an end of the connection")
        return self.seen


def converse(serve, call, options, sample, relayed):
    """One conversation: the caller's figures, and with a relay what it saw."""
    with tempfile.TemporaryDirectory() as directory:
        server = subprocess.Popen(
            [serve, "--callers", "1", "--directory", directory, *options],
            stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True)
        try:
            greeting = server.stdout.readline()
            listening = re.search(r"port (\d+)", greeting)
            if not listening:
                raise Failure(f"the server does not listen: {greeting!r}")
            relay = Relay(int(listening[1])) if relayed else None
            port = relay.port if relay else int(listening[1])
            caller = subprocess.run(
                [call, "--summary", "--port", str(port), "--messages", str(MESSAGES), *options, sample],
                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, text=True, timeout=120)
            if caller.returncode != 0:
                raise Failure(f"the caller ended with status {caller.returncode}")
            seen = relay.finish() if relay else None
            if server.wait(timeout=60) != 0:
                raise Failure(f"the server ended with status {server.returncode}")
        finally:
            server.kill()
            server.wait()
            server.stdout.close()
        arrived = checksum(os.path.join(directory, os.path.basename(sample)))
    figures = dict(re.findall(r"(\w+)=(\d+)", caller.stdout.splitlines()[-1]))
    return {name: int(value) for name, value in figures.items()}, arrived, seen


def check_wire(name, figures, seen):
    """What the counted bytes must and must not show."""
    wire = sum(map(len, seen))
    readable = any(TEXT in direction for direction in seen)
    if name == "plain":
        # A frame is its length in 4 bytes and its payload; a string ends with one more byte.
        expected = figures["payload"] + 4 * figures["frames"] + figures["strings"]
        if wire != expected:
            raise Failure(f"{wire} bytes on the wire where {expected} were due")
        if not readable:
            raise Failure("the relay did not see a text that was sent in the clear")
    if "compressed" in name and wire >= figures["payload"]:
        raise Failure("compression saved nothing")
    if "encrypted" in name and readable:
        raise Failure("a text can be read on the wire")
    return wire


def show(name, figures, wire, size):
    seconds = figures["file_microseconds"] / 1e6
    exchanges = 3 * MESSAGES / (figures["message_microseconds"] / 1e6)
    print(f"{name:<22} {figures['frames'] + figures['strings']:>8,} {figures['payload']:>13,} "
          f"{wire:>13,} {exchanges:>9,.0f} {seconds:>8.3f} {size / 1e6 / seconds:>7.0f}  agree",
          flush=True)


def run(serve, call, directory):
    sample = os.path.join(directory, "sample")
    key = os.path.join(directory, "key")
    make_sample(sample)
    pathlib.Path(key).write_bytes(os.urandom(32))
    size = os.path.getsize(sample)
    right = checksum(sample)
    print(f"the file: {size:,} bytes of headers and libraries from /usr, SHA-256 {right[:16]}…\n")
    print(f"{'stages':<22} {'messages':>8} {'payload bytes':>13} {'on the wire':>13} "
          f"{'answers/s':>9} {'file s':>8} {'MB/s':>7}  SHA-256", flush=True)
    for name, options in STAGES.items():
        options = [key if option == "KEY" else option for option in options]
        try:
            figures, arrived, _ = converse(serve, call, options, sample, relayed=False)
            counted, arrived_counted, seen = converse(serve, call, options, sample, relayed=True)
            if right != arrived or right != arrived_counted:
                raise Failure("the file that arrived is not the file that was sent")
            if any(figures[what] != counted[what] for what in ("frames", "strings", "payload")):
                raise Failure("the two conversations differ")
            show(name, figures, check_wire(name, counted, seen), size)
        except (Failure, subprocess.TimeoutExpired) as failure:
            raise Failure(f"{name}: {failure}") from failure
    print(f"""
Messages and payload count both directions: {MESSAGES} byte blocks, variants and strings each with
their answers, the requests, and the file in parts of 64 KiB. Times are those of a direct
conversation; the bytes on the wire were counted by a relay in a second one like it.""")


def main():
    # So that a demonstration that is stopped removes its files and its server.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))
    try:
        with tempfile.TemporaryDirectory(prefix="zelgvc-demo-") as directory:
            run(sys.argv[1], sys.argv[2], directory)
            sample = os.path.join(directory, "sample")
            demoprogram.run(sys.argv[3], sample, os.path.join(directory, "program"))
    except (Failure, demoprogram.Failure, subprocess.TimeoutExpired) as failure:
        print(f"demo: {failure}", file=sys.stderr)
        return 1
    return 0


sys.exit(main())
