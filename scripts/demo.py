# SPDX-License-Identifier: LGPL-2.1-or-later
"""Builds and runs the demonstration.

usage: demo.py BUILD_DIR

For every combination of stages, the example server and client hold the same conversation twice over
the loopback interface. The first conversation is direct and timed. The second passes through a relay
in this process, which counts and keeps every byte. Then the program zelgvc shows its commands.
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
from demoprogram import Failure

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
# Part of a variant that every conversation sends; readable on the wire unless compressed or encrypted.
TEXT = b"message 42 of %d" % MESSAGES


def make_sample(path):
    """Writes a file of text (headers) and machine code (shared libraries) in equal parts."""
    with open(path, "wb") as sample:
        for top, pattern, size in (("/usr/include", "*.h", SAMPLE_SIZE // 2),
                                   ("/usr/lib", "*.so*", SAMPLE_SIZE),
                                   ("/usr", "*", SAMPLE_SIZE)):
            for source in pathlib.Path(top).rglob(pattern):
                if sample.tell() >= size:
                    break
                if source.is_file() and not source.is_symlink() and os.access(source, os.R_OK):
                    with source.open("rb") as data:
                        sample.write(data.read(size - sample.tell()))
        if sample.tell() < SAMPLE_LEAST:
            raise Failure("too few files below /usr for the sample")


def checksum(path):
    with open(path, "rb") as data:
        return hashlib.file_digest(data, "sha256").hexdigest()


class Relay:
    """Forwards one client's connection to the server and keeps all bytes."""

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
            # The exit status of the failed program tells.
            pass

    def finish(self):
        self.thread.join(timeout=60)
        if self.thread.is_alive():
            raise Failure("the connection through the relay does not end")
        return self.seen


def converse(serve, call, options, sample, relayed):
    """Runs one conversation; returns the client's figures, a checksum and the relayed bytes."""
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
    """Checks the relayed bytes against the client's figures and returns their count."""
    wire = sum(map(len, seen))
    readable = any(TEXT in direction for direction in seen)
    if name == "plain":
        # Each frame adds a prefix of 4 bytes, and each string a terminator.
        expected = figures["payload"] + 4 * figures["frames"] + figures["strings"]
        if wire != expected:
            raise Failure(f"{wire} bytes on the wire instead of {expected}")
        if not readable:
            raise Failure("the relay did not see the plain text")
    if "compressed" in name and wire >= figures["payload"]:
        raise Failure("compression did not reduce the bytes on the wire")
    if "encrypted" in name and readable:
        raise Failure("encrypted text is readable on the wire")
    return wire


def show(name, figures, wire, size):
    seconds = figures["file_microseconds"] / 1e6
    exchanges = 3 * MESSAGES / (figures["message_microseconds"] / 1e6)
    print(f"{name:<22} {figures['frames'] + figures['strings']:>8,} {figures['payload']:>13,} "
          f"{wire:>13,} {exchanges:>9,.0f} {seconds:>8.3f} {size / 1e6 / seconds:>7.0f}  agree",
          flush=True)


def build(build_dir, *targets):
    """Builds with ninja's output visible: the first build takes a while."""
    print(f"== building {', '.join(targets)}", flush=True)
    if subprocess.run(["ninja", "-C", build_dir, *targets], stdin=subprocess.DEVNULL).returncode:
        raise Failure("the build failed")
    return [os.path.join(build_dir, target) for target in targets]


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
                raise Failure("the received file is not the file that was sent")
            if any(figures[what] != counted[what] for what in ("frames", "strings", "payload")):
                raise Failure("the two conversations differ")
            show(name, figures, check_wire(name, counted, seen), size)
        except (Failure, subprocess.TimeoutExpired) as failure:
            raise Failure(f"{name}: {failure}") from failure
    print(f"""
Messages and payload include both directions: {MESSAGES} byte blocks, variants and strings each, with
their answers, the requests, and the file in parts of 64 KiB. The direct conversation gives the times,
a second one through a relay gives the bytes on the wire.
""")


def main():
    # An exit by exception removes the files and stops the server.
    signal.signal(signal.SIGTERM, lambda *_: sys.exit(128 + signal.SIGTERM))
    try:
        with tempfile.TemporaryDirectory(prefix="zelgvc-demo-") as directory:
            run(*build(sys.argv[1], "examples/serve", "examples/call"), directory)
            sample = os.path.join(directory, "sample")
            program, = build(sys.argv[1], "tools/zelgvc")
            demoprogram.run(program, sample, os.path.join(directory, "program"))
    except (Failure, subprocess.TimeoutExpired) as failure:
        print(f"demo: {failure}", file=sys.stderr)
        return 1
    return 0


sys.exit(main())
