# SPDX-License-Identifier: LGPL-2.1-or-later
"""The serving and the calling example, as two processes.

usage: examples.py SERVE CALL
"""

import contextlib
import functools
import os
import pathlib
import re
import resource
import select
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time

import tap

SERVE, CALL = sys.argv[1:]
LIMIT = 120


class Pair:
    """A server with a directory of its own, and the callers that are started against it."""

    def __init__(self, *options, callers=1):
        self.scratch = tempfile.TemporaryDirectory()
        self.top = pathlib.Path(self.scratch.name)
        self.stored = self.top / "stored"
        self.stored.mkdir()
        self.log = (self.top / "log").open("w+")
        options = ["--directory", self.stored, "--callers", str(callers), *self.named(options)]
        self.server = subprocess.Popen([SERVE, *options], stdin=subprocess.DEVNULL, text=True,
                                       stdout=subprocess.PIPE, stderr=self.log)
        greeting = self.server.stdout.readline()
        self.port = int(re.search(r"port (\d+)", greeting)[1])

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.server.kill()
        self.server.wait()
        self.server.stdout.close()
        self.log.close()
        self.scratch.cleanup()

    def named(self, options):
        """The options with the names of keys replaced by files that hold them."""
        for option in options:
            if str(option).startswith("key:"):
                name, option = option[4:], self.top / option[4:]
                if not option.exists():
                    option.write_bytes((name * 32).encode()[:32])
            yield option

    def file(self, name, data):
        path = self.top / name
        path.write_bytes(data)
        return path

    def start(self, *options):
        return subprocess.Popen([CALL, "--port", str(self.port), *self.named(options)],
                                stdin=subprocess.DEVNULL, stdout=subprocess.PIPE,
                                stderr=subprocess.PIPE, text=True)

    def call(self, *options):
        """Runs a caller to its end: status, output, complaints."""
        with self.start(*options) as caller:
            output, complaints = caller.communicate(timeout=LIMIT)
        return caller.returncode, output, complaints

    def end(self):
        """Waits for the server: status and complaints."""
        status = self.server.wait(timeout=LIMIT)
        self.log.seek(0)
        return status, self.log.read()


def sample(size):
    """Text that can be compressed, and bytes that cannot."""
    return (b"all work and no play " * (size // 42 + 1))[:size // 2] + os.urandom(size - size // 2)


def agrees(*stages):
    with Pair(*stages) as pair:
        data = sample(1_000_000)
        path = pair.file("sample", data)
        status, output, complaints = pair.call("--messages", "20", *stages, path)
        assert status == 0, complaints
        assert "20 byte messages, 20 variants and 20 strings" in output, output
        assert "SHA-256 agrees" in output, output
        assert pair.end() == (0, "")
        assert (pair.stored / "sample").read_bytes() == data


def sends_files_of_odd_sizes(*stages):
    with Pair(*stages) as pair:
        files = {f"file-{size}": sample(size) for size in (0, 1, 999, 1000, 1001)}
        paths = [pair.file(name, data) for name, data in files.items()]
        status, _, complaints = pair.call("--messages", "0", "--chunk", "1000", *stages, *paths)
        assert status == 0, complaints
        assert pair.end() == (0, "")
        for name, data in files.items():
            assert (pair.stored / name).read_bytes() == data, name


def serves_many_callers_at_once():
    stages = ["--compress", "--encrypt", "key:one"]
    with Pair(*stages, callers=20) as pair:
        data = sample(100_000)
        names = [f"sample-{number}" for number in range(20)]
        callers = [pair.start("--messages", "10", *stages, pair.file(name, data)) for name in names]
        for caller in callers:
            with caller:
                _, complaints = caller.communicate(timeout=LIMIT)
            assert caller.returncode == 0, complaints
        assert pair.end() == (0, "")
        for name in names:
            assert (pair.stored / name).read_bytes() == data, name


def peers_that_differ_fail(serving, calling):
    """If the two sides do not have the same stages, each ends with an error of its own."""
    with Pair("--timeout", "2", *serving) as pair:
        status, output, complaints = pair.call("--timeout", "2", *calling)
        assert status == 1, (status, output)
        assert complaints.startswith("call: "), complaints
        status, complaints = pair.end()
        assert status == 1, complaints
        assert complaints, "the server said nothing"


def refuses_names_that_lead_elsewhere():
    with Pair() as pair:
        path = pair.file(".hidden", b"data")
        status, _, complaints = pair.call("--messages", "0", path)
        assert status == 1
        assert 'the server refuses: not a name for a file: ".hidden"' in complaints, complaints
        assert not list(pair.stored.iterdir())


def shows_nothing_that_controls_a_terminal():
    with Pair() as pair:
        status, _, complaints = pair.call("--messages", "0", pair.file("red\x1b[31m", b"data"))
        log = pair.end()[1] + pair.server.stdout.read()
        assert status == 1 and "not a name for a file: \"red?[31m\"" in log, log
        assert "\x1b" not in complaints + log
    # A server that refuses, and one that sends a wrong checksum.
    size = os.path.getsize(SERVE)
    for answers, complaint in (
        ([b"\0\x1b[31mn\0"], "the server refuses: ?[31mn"),
        ([b"\1\0", struct.pack("<Q", size), b"\x1b[31mn\0"], "checksum ?[31mn instead of"),
    ):
        with socket.create_server(("127.0.0.1", 0)) as server:
            options = ["--port", str(server.getsockname()[1]), "--messages", "0", SERVE]
            with subprocess.Popen([CALL, *options], stdout=subprocess.DEVNULL,
                                  stderr=subprocess.PIPE, text=True) as caller:
                with server.accept()[0] as sock:
                    sock.sendall(b"".join(map(frame, answers)))
                    sock.shutdown(socket.SHUT_WR)
                    while sock.recv(2**20):
                        pass
                complaints = caller.communicate(timeout=LIMIT)[1]
            assert complaint in complaints, complaints


def does_not_overwrite():
    with Pair() as pair:
        (pair.stored / "sample").write_bytes(b"precious")
        status, _, complaints = pair.call("--messages", "0", pair.file("sample", b"other"))
        assert status == 1
        assert "the server refuses: " in complaints, complaints
        assert (pair.stored / "sample").read_bytes() == b"precious"


def reports_a_caller_that_goes_away():
    """After the length of a frame, and before any."""
    frame = b"\x19\x00\x00\x00"
    for sent in frame, b"":
        with Pair("--timeout", "2") as pair:
            with socket.create_connection(("127.0.0.1", pair.port)) as caller:
                caller.sendall(sent)
            status, complaints = pair.end()
            assert status == 1 and "Disconnected" in complaints, (status, complaints)


def keeps_no_part_of_a_file(number=None):
    with Pair() as pair:
        with socket.create_connection(("127.0.0.1", pair.port)) as caller:
            request = b"file\0\0\0\0" + struct.pack("<Q", 10) + b"part\0" + bytes([5])
            caller.sendall(struct.pack("<i", len(request)) + request + struct.pack("<i", 3) + b"abc")
            assert caller.recv(100) and list(pair.stored.iterdir())
            if number:
                pair.server.send_signal(number)
                pair.end()
        status, complaints = pair.end()
        assert status == (0 if number else 1), complaints
        assert not list(pair.stored.iterdir())


def survives_a_file_that_becomes_shorter():
    """While a thread computes its checksum."""
    size = 50_000_000
    with Pair() as pair, socket.create_connection(("127.0.0.1", pair.port)) as caller:
        for request in b"file\0\0\0\0" + struct.pack("<Q", size) + b"short\0\5", bytes(size):
            caller.sendall(frame(request))
            assert caller.recv(100)
        os.truncate(pair.stored / "short", 0)
        assert len(caller.recv(4 + 65, socket.MSG_WAITALL)) == 4 + 65
        caller.close()
        assert pair.end()[0] == 1


def gives_up_on_an_unfinished_string():
    with Pair("--timeout", "1") as pair:
        with socket.create_connection(("127.0.0.1", pair.port)) as caller:
            # ("strings", 1, "") as GVariant lays it out: text, padding, number, text, an offset.
            request = b"strings\0" + (1).to_bytes(8, "little") + b"\0" + b"\x08"
            caller.sendall(len(request).to_bytes(4, "little") + request + b"no end")
            caller.shutdown(socket.SHUT_WR)
            status, complaints = pair.end()
        assert status == 1 and "reading a string: " in complaints, (status, complaints)


def survives_a_negative_length():
    with Pair() as pair:
        with socket.create_connection(("127.0.0.1", pair.port)) as caller:
            caller.sendall(b"\xff\xff\xff\xff")
            status, complaints = pair.end()
        assert status == 1 and "Invalid frame length" in complaints, (status, complaints)


def block(data):
    """A compressed block of a single run of literals."""
    zeros, rest = divmod(len(data) - 19, 255)
    payload = bytes(zeros + 1) + bytes([rest + 1]) + data + b"\x11\0\0"
    return struct.pack("<II", len(payload), len(data)) + payload


def frame(data):
    return len(data).to_bytes(4, "little") + data


def a_caller_that_stops_reading_holds_up_nobody():
    """It asks for more than the sockets between the two hold."""
    with Pair("--compress", "--timeout", "4", callers=0) as pair:
        caller = socket.create_connection(("127.0.0.1", pair.port))
        request = b"bytes\0\0\0" + (1000).to_bytes(8, "little") + b"\0" + b"\x06"
        caller.sendall(block(frame(request)))
        message = memoryview(block(frame(os.urandom(100_000))) * 300)
        caller.setblocking(False)
        while select.select([], [caller], [], 1)[1]:
            message = message[caller.send(message):]
        while not re.search("answering: ", pathlib.Path(pair.log.name).read_text()):
            status, _, complaints = pair.call("--compress", "--messages", "50", "--timeout", "3")
            assert status == 0, complaints
        caller.close()


def gives_up_on_a_server_that_drips():
    """Each byte comes within the timeout, but the answer does not."""
    with socket.create_server(("127.0.0.1", 0)) as server:
        options = ["--port", str(server.getsockname()[1]), "--timeout", "1"]
        with subprocess.Popen([CALL, *options], stdout=subprocess.DEVNULL,
                              stderr=subprocess.PIPE, text=True) as caller:
            with server.accept()[0] as sock, contextlib.suppress(OSError):
                for byte in frame(bytes(60)):
                    sock.sendall(bytes([byte]))
                    time.sleep(0.2)
            _, complaints = caller.communicate(timeout=LIMIT)
    assert caller.returncode == 1 and "the server took too long" in complaints, complaints


def rests_while_it_is_out_of_descriptors():
    with Pair(callers=0) as pair:
        resource.prlimit(pair.server.pid, resource.RLIMIT_NOFILE, (14, 14))
        crowd = [socket.create_connection(("127.0.0.1", pair.port)) for _ in range(12)]
        time.sleep(2)
        log = pathlib.Path(pair.log.name).read_text()
        assert 1 <= log.count("Too many open files") <= 20, log
        for sock in crowd:
            sock.close()
        status, _, complaints = pair.call("--messages", "1")
        assert status == 0, complaints


def calling_nobody_fails():
    with socket.create_server(("127.0.0.1", 0)) as server:
        port = server.getsockname()[1]
    done = subprocess.run([CALL, "--port", str(port)], capture_output=True, text=True, timeout=LIMIT)
    assert done.returncode == 1 and "Connection refused" in done.stderr, done


def wrong_use_is_explained(program, options, explanation):
    with tempfile.NamedTemporaryFile() as short:
        short.write(b"31 bytes, one less than is due.")
        short.flush()
        options = [short.name if option == "SHORT" else option for option in options]
        done = subprocess.run([program, *options], capture_output=True, text=True, timeout=LIMIT)
        assert done.returncode == 2, done
        assert explanation in done.stderr, done


def stops_when_told():
    for number in signal.SIGTERM, signal.SIGINT:
        with Pair(callers=0) as pair:
            pair.server.send_signal(number)
            assert pair.end() == (0, "")


STAGES = {
    "plain": [],
    "compressed": ["--compress"],
    "encrypted": ["--encrypt", "key:one"],
    "encrypted-128": ["--encrypt", "key:one", "--key-length", "128"],
    "compressed-and-encrypted": ["--compress", "--encrypt", "key:one"],
}
DIFFERENT = {
    "keys": (["--encrypt", "key:one"], ["--encrypt", "key:two"]),
    "key-lengths": (STAGES["encrypted"], STAGES["encrypted-128"]),
    "encryption-in-the-server": (STAGES["encrypted"], []),
    "encryption-in-the-caller": ([], STAGES["encrypted"]),
    "compression-in-the-server": (STAGES["compressed"], []),
    "compression-in-the-caller": ([], STAGES["compressed"]),
}
WRONG = {
    "no-port": (CALL, [], "--port PORT is needed"),
    "short-key": (CALL, ["--port", "1", "--encrypt", "SHORT"], "holds 32 bytes, not 31"),
    "no-key": (SERVE, ["--encrypt", "/nonexistent/key"], "No such file"),
    "key-length": (SERVE, ["--key-length", "192"], "128 or 256 bits, not 192"),
    "unknown-option": (SERVE, ["--compact"], "--compact"),
    "argument": (SERVE, ["file"], "file"),
}

sys.exit(tap.run([
    *((f"/examples/agree/{name}", functools.partial(agrees, *stages))
      for name, stages in STAGES.items()),
    *((f"/examples/files-of-odd-sizes/{name}", functools.partial(sends_files_of_odd_sizes, *stages))
      for name, stages in STAGES.items()),
    *((f"/examples/peers-that-differ-fail/{name}", functools.partial(peers_that_differ_fail, *sides))
      for name, sides in DIFFERENT.items()),
    *((f"/examples/wrong-use-is-explained/{name}", functools.partial(wrong_use_is_explained, *use))
      for name, use in WRONG.items()),
    ("/examples/serves-many-callers-at-once", serves_many_callers_at_once),
    ("/examples/refuses-names-that-lead-elsewhere", refuses_names_that_lead_elsewhere),
    ("/examples/shows-nothing-that-controls-a-terminal", shows_nothing_that_controls_a_terminal),
    ("/examples/does-not-overwrite", does_not_overwrite),
    ("/examples/reports-a-caller-that-goes-away", reports_a_caller_that_goes_away),
    ("/examples/keeps-no-part-of-a-file", keeps_no_part_of_a_file),
    ("/examples/keeps-no-part-of-a-file/terminated",
     functools.partial(keeps_no_part_of_a_file, signal.SIGTERM)),
    ("/examples/survives-a-file-that-becomes-shorter", survives_a_file_that_becomes_shorter),
    ("/examples/gives-up-on-an-unfinished-string", gives_up_on_an_unfinished_string),
    ("/examples/survives-a-negative-length", survives_a_negative_length),
    ("/examples/a-caller-that-stops-reading-holds-up-nobody",
     a_caller_that_stops_reading_holds_up_nobody),
    ("/examples/gives-up-on-a-server-that-drips", gives_up_on_a_server_that_drips),
    ("/examples/rests-while-it-is-out-of-descriptors", rests_while_it_is_out_of_descriptors),
    ("/examples/calling-nobody-fails", calling_nobody_fails),
    ("/examples/stops-when-told", stops_when_told),
]))
