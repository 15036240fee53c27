# SPDX-License-Identifier: LGPL-2.1-or-later
"""Shared by the tests of the program: cases reported as TAP, and processes that always end."""

import os
import pathlib
import re
import resource
import shutil
import signal
import socket
import struct
import subprocess
import sys
import tempfile
import time
import traceback

WATCHDOG = 120

# With a sanitizer built in, memory tells nothing of the program.
SANITIZED = os.environ.get("TEST_SANITIZE", "none") != "none"

cases = []
processes = []


class Skip(Exception):
    pass


def case(function):
    cases.append((function.__name__.strip("_").replace("_", "-"), function, ()))
    return function


def each(*values):
    """A case for each value: a tuple of a label and the arguments."""

    def register(function):
        name = function.__name__.replace("_", "-")
        for label, *arguments in values:
            cases.append((f"{name}/{label}", function, arguments))
        return function

    return register


def main():
    print(f"1..{len(cases)}", flush=True)
    failed = 0
    prefix = pathlib.Path(sys.argv[0]).stem
    for number, (name, function, arguments) in enumerate(cases, 1):
        directory = pathlib.Path(tempfile.mkdtemp(prefix="zelgvc-test-"))
        os.chdir(directory)
        result, comment = "ok", ""
        try:
            function(*arguments)
        except Skip as reason:
            comment = f" # SKIP {reason}"
        except BaseException:
            result = "not ok"
            failed += 1
            for line in traceback.format_exc().splitlines():
                print("#", line)
        finally:
            for process in processes:
                process.end()
            processes.clear()
            os.chdir("/")
            shutil.rmtree(directory, ignore_errors=True)
        print(f"{result} {number} /tool/{prefix}/{name}{comment}", flush=True)
    sys.exit(1 if failed else 0)


class Process:
    """The program with its output in files. `ok` lists the exit codes that wait() takes."""

    def __init__(
        self,
        *arguments,
        stdin=subprocess.DEVNULL,
        stdout=None,
        stderr=None,
        before=None,
        under=(),
        environment=None,
    ):
        self.arguments = [str(argument) for argument in arguments]
        self.under = under
        self.files = [tempfile.TemporaryFile(), tempfile.TemporaryFile()]
        self.popen = subprocess.Popen(
            [*under, os.environ["ZELGVC"], *self.arguments],
            stdin=stdin,
            stdout=self.files[0] if stdout is None else stdout,
            stderr=self.files[1] if stderr is None else stderr,
            preexec_fn=before,
            env={**os.environ, **(environment or {})},
        )
        self.usage = None
        self.peak = 0
        processes.append(self)

    @staticmethod
    def read(file):
        return os.pread(file.fileno(), os.fstat(file.fileno()).st_size, 0)

    @property
    def output(self):
        return self.read(self.files[0])

    @property
    def errors(self):
        return self.read(self.files[1]).decode(errors="replace")

    @property
    def complaints(self):
        return [line for line in self.errors.splitlines() if line.startswith("zelgvc: ")]

    def until(self, condition, what):
        deadline = time.monotonic() + WATCHDOG
        while not condition():
            assert time.monotonic() < deadline, f"{self.arguments}: no {what}: {self.errors}"
            time.sleep(0.005)

    def address(self):
        """The address that a listening process has."""
        found = None

        def look():
            nonlocal found
            found = re.search(r"^listening on (\S+)$", self.errors, re.MULTILINE)
            assert found or self.popen.poll() is None, f"{self.arguments} ended: {self.errors}"
            return found

        self.until(look, "address")
        # One look while it certainly runs; a process can end between two others.
        self.look_at_memory()
        return found[1]

    def wait(self, *codes, beside=None):
        """Waits for the end, which has to have one of these exit codes (0 by default). Looks at the
        memory of this process and of the one beside it."""
        deadline = time.monotonic() + WATCHDOG
        while self.usage is None:
            self.look_at_memory()
            if beside:
                beside.look_at_memory()
            pid, status, usage = os.wait4(self.popen.pid, os.WNOHANG)
            if pid:
                self.usage = usage
                self.popen.returncode = os.waitstatus_to_exitcode(status)
            else:
                assert time.monotonic() < deadline, f"{self.arguments} hangs: {self.errors}"
                time.sleep(0.002)
        code = self.popen.returncode
        assert code in (codes or (0,)), f"{self.arguments}: exit code {code}: {self.errors}"
        return self

    def complained(self, text, lines=1):
        found = self.complaints
        assert len(found) == lines and text in found[-1], f"{self.arguments}: {self.errors}"

    def kill(self, number=signal.SIGKILL):
        # Unlike its own method, this leaves the end of the process to wait().
        if self.usage is None:
            os.kill(self.popen.pid, number)

    def look_at_memory(self):
        """Keeps the most memory that was resident, in KiB. What wait4 tells of it counts this
        Python before the exec, too."""
        try:
            status = pathlib.Path(f"/proc/{self.popen.pid}/status").read_text()
        except OSError:
            return
        found = re.search(r"VmHWM:\s*(\d+) kB", status)
        if found and "Name:\tzelgvc" in status:
            self.peak = max(self.peak, int(found[1]))

    def used_at_most(self, kibibytes):
        assert self.peak > 0
        assert SANITIZED or self.peak < kibibytes, f"{self.arguments}: {self.peak} KiB"

    def end(self):
        if self.usage is None and self.popen.poll() is None:
            self.popen.kill()
            self.popen.wait()


def run(*arguments, codes=(0,), data=b"", **more):
    """Runs the program to its end with these bytes as standard input."""
    with tempfile.TemporaryFile() as file:
        file.write(data)
        file.seek(0)
        return Process(*arguments, stdin=file, **more).wait(*codes)


def limit_memory(process, more):
    """Lets the address space of a process grow by this many MiB, or without a limit."""
    pid = process.popen.pid
    size = int(pathlib.Path(f"/proc/{pid}/statm").read_text().split()[0]) * resource.getpagesize()
    limit = resource.RLIM_INFINITY if more is None else size + (more << 20)
    resource.prlimit(pid, resource.RLIMIT_AS, (limit, resource.RLIM_INFINITY))


def key(name="key", fill=None):
    pathlib.Path(name).write_bytes(bytes(range(32)) if fill is None else bytes([fill]) * 32)
    return name


def listening_address(kind):
    return {"tcp": "127.0.0.1:0", "tcp6": "[::1]:0", "unix": "unix:socket"}[kind]


# Every combination of stages, as options; "KEY" stands for the key file.
STAGES = {
    "plain": [],
    "compress": ["--compress"],
    "encrypt-256": ["--encrypt", "key"],
    "encrypt-128": ["--encrypt", "key", "--key-length", "128"],
    "compress-encrypt-256": ["--compress", "--encrypt", "key"],
    "compress-encrypt-128": ["--compress", "--encrypt", "key", "--key-length", "128"],
    "encrypt-compress": ["--encrypt", "key", "--compress"],
}

PAIRS = [
    (f"{kind}/{name}", kind, options) for kind in ("tcp", "unix") for name, options in STAGES.items()
]


def frame(data):
    return struct.pack("<i", len(data)) + data


class Peer:
    """A sender written by hand, for what the real one would never send. Its messages are built by
    the dictionaries' own serialised form: padded, with offsets at the end."""

    def __init__(self, address, service=b"files"):
        path = address.removeprefix("unix:")
        self.socket = socket.socket(socket.AF_UNIX)
        self.socket.connect(path)
        self.socket.sendall(frame(self.hello(service)))
        self.receive()

    @classmethod
    def by(cls, server):
        """A receiver by hand, for the sender that has connected to this socket."""
        peer = cls.__new__(cls)
        peer.socket = server.accept()[0]
        peer.receive()
        peer.socket.sendall(frame(cls.hello(b"files")))
        return peer

    @staticmethod
    def entry(name, kind, data):
        """{sv}: the name, the value aligned to 8, the offset of the end of the name."""
        name = name + b"\0"
        variant = data + b"\0" + kind
        body = name + bytes(-len(name) % 8) + variant
        return body + struct.pack("<H" if len(body) > 254 else "<B", len(name))

    @classmethod
    def dictionary(cls, **values):
        body, ends = b"", []
        for name, value in values.items():
            if isinstance(value, bytes):
                item = cls.entry(name.encode(), b"ay", value)
            elif name == "mtime":
                item = cls.entry(name.encode(), b"x", struct.pack("<q", value))
            else:
                item = cls.entry(name.encode(), b"t", struct.pack("<Q", value))
            body += bytes(-len(body) % 8) + item
            ends.append(len(body))
        wide = len(body) + len(ends) > 255
        return body + b"".join(struct.pack("<H" if wide else "<B", end) for end in ends)

    @classmethod
    def hello(cls, service, version=1):
        # (susa{sv}): magic, version, service, an empty dictionary aligned to 8.
        magic = b"zelgvc\0"
        head = magic + bytes(-len(magic) % 4) + struct.pack("<I", version) + service + b"\0"
        body = head + bytes(-len(head) % 8)
        return body + bytes([len(head), len(magic)])

    def send(self, **values):
        self.socket.sendall(frame(self.dictionary(**values)))

    def receive(self):
        prefix = self.socket.recv(4, socket.MSG_WAITALL)
        if len(prefix) < 4:
            return None
        size = struct.unpack("<i", prefix)[0]
        return self.socket.recv(size, socket.MSG_WAITALL) if size else b""
