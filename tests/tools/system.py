#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""The program in a hostile operating system. Whatever the system refuses: every command ends, with an
exit code that the manual page lists; nothing is said to be done that is not; no file changes but the
one that is asked for; and none has its final name before it is complete.

usage: system.py [--all] [--table], with ZELGVC and CLOCK as the build sets them

With --all every system call meets each fault, and not only some of them. With --table the results are
printed as a table instead of TAP.
"""

import collections
import contextlib
import fcntl
import hashlib
import itertools
import os
import pathlib
import re
import resource
import shutil
import signal
import socket
import stat
import subprocess
import sys
import threading
import time

import support
from support import SANITIZED, Peer, Process, Skip, case, each, frame, main, run

# A shell starts jobs in the background with SIGINT ignored, and the program leaves it ignored.
signal.signal(signal.SIGINT, signal.default_int_handler)
ALL = "--all" in sys.argv
CODES = {0, 1, 2, 3, 4, 5, 6, 130, 143}
SOCKET = f"socket-{os.getpid()}"  # a name that no other test has
DATA = os.urandom(150_000) + b"all work and no play " * 9_000
LINES = b"".join(b"%d %s\n" % (number, b"x" * (number * 7 % 3000)) for number in range(150))


def snapshot(folder="."):
    """The contents of all files, without those that a command is asked to write."""
    found = {}
    for path in sorted(pathlib.Path(folder).rglob("*")):
        if path.parts[0] not in ("in", "disk", "key", "out", "log") and not path.is_socket():
            found[path] = path.read_bytes() if path.is_file() else None
    return found


def listening():
    """Whether a process listens. Its standard error, which would tell, may be closed."""
    with open("/proc/net/unix", errors="replace") as table:
        found = [line.split() for line in table if line.endswith(f" {SOCKET}\n")]
    return any(columns[3] == "00010000" for columns in found) and os.path.exists(SOCKET)


def has_ended(process):
    return os.waitid(os.P_PID, process.popen.pid, os.WEXITED | os.WNOHANG | os.WNOWAIT) is not None


class Disk:
    """A small file system."""

    def __init__(self, options):
        self.options = options

    def __enter__(self):
        os.mkdir("disk")
        mount = ["mount", "-t", "tmpfs", "-o", self.options, "tmpfs", "disk"]
        if subprocess.run(mount, capture_output=True).returncode:
            raise Skip("no right to mount a small tmpfs")

    def __exit__(self, *_):
        subprocess.run(["umount", "-l", "disk"], check=True)


class Storm(threading.Thread):
    """Stops a process and lets it go on, over and over again: waiting calls are interrupted."""

    def __init__(self, process, seconds):
        super().__init__()
        self.process, self.seconds = process, seconds
        self.start()

    def run(self):
        try:
            while self.process.usage is None and not has_ended(self.process):
                self.process.kill(signal.SIGSTOP)
                time.sleep(self.seconds)
                self.process.kill(signal.SIGCONT)
                time.sleep(self.seconds)
        except (ProcessLookupError, ChildProcessError):
            pass


class Messenger(threading.Thread):
    """Waits until a process stops, sends it a signal and lets it go on."""

    def __init__(self, process, number):
        super().__init__()
        self.process, self.number = process, number
        self.start()

    def run(self):
        try:
            stopped = os.waitid(os.P_PID, self.process.popen.pid, os.WSTOPPED | os.WEXITED | os.WNOWAIT)
            if stopped.si_code == os.CLD_STOPPED:
                self.process.kill(self.number)
                self.process.kill(signal.SIGCONT)
        except (ProcessLookupError, ChildProcessError):
            pass


class Run:
    """A command against its peer, one of them in trouble: `trouble` are arguments for Process, the
    seconds of a storm, the signal that it gets as soon as it stops, and the options of a disk."""

    def __init__(self, victim, trouble):
        trouble = dict(trouble)
        self.victim, self.storm = victim, trouble.pop("storm", None)
        self.signal = trouble.pop("signal", None)
        disk = trouble.pop("disk", None)
        self.trouble = trouble
        pathlib.Path("file").write_bytes(DATA)
        pathlib.Path("lines").write_bytes(LINES)
        before = snapshot()
        with Disk(disk) if disk else contextlib.nullcontext():
            self.folder = "disk" if disk else "in"
            os.makedirs(self.folder, exist_ok=True)
            getattr(self, victim)()
        assert snapshot() == before, "other files have changed"

    def start(self, *arguments, **more):
        if arguments[0] != self.victim:
            return Process(*arguments, **more)
        process = Process(*arguments, **{**more, **self.trouble})
        if self.storm:
            Storm(process, self.storm)
        if self.signal:
            Messenger(process, self.signal)
        return process

    def server(self, *arguments, **more):
        process = self.start(*arguments, **more)
        process.until(lambda: listening() or has_ended(process), "socket")
        return process

    def end(self, process, *more):
        """Waits for the end of a process that may have ended in any documented way."""
        killed = "signal=KILL" in " ".join(process.under)
        process.wait(*CODES, *LOADER, *more, *([-signal.SIGKILL] if killed else []))
        code = process.popen.returncode
        assert code != 127 or "shared libraries" in process.errors, process.errors
        return code

    def release(self, process):
        """Gives a server whose peer never came one that says nothing."""
        if not has_ended(process) and listening():
            with socket.socket(socket.AF_UNIX) as peer:
                try:
                    peer.connect(SOCKET)
                except OSError:
                    pass

    def keygen(self):
        key = f"{self.folder}/key"
        self.code = self.end(self.start("keygen", key))
        killed = self.code < 0
        assert killed or (self.code == 0) == os.path.exists(key), f"exit code {self.code}"
        if os.path.exists(key):
            assert os.path.getsize(key) == 32 and stat.S_IMODE(os.stat(key).st_mode) == 0o600
        assert killed or set(os.listdir(self.folder)) <= {"key"}, os.listdir(self.folder)

    def receive(self):
        options = ["--json", "--timeout", "5"]
        receive = self.server("receive", f"unix:{SOCKET}", self.folder, *options)
        send = self.start("send", f"unix:{SOCKET}", "file", *options)
        sent = self.end(send)
        self.release(receive)
        received = self.end(receive)
        self.code = sent if self.victim == "send" else received
        names = set(os.listdir(self.folder))
        assert names <= {"file", ".file.zelgvc-part"}, names
        complete = "file" in names and pathlib.Path(self.folder, "file").read_bytes() == DATA
        assert complete or "file" not in names, "a part of the file has its final name"
        claims = [sent == 0, b'"sent"' in send.output, b'"received"' in receive.output]
        assert complete or not any(claims), f"said to have arrived: {claims}"

    send = receive

    def listen(self):
        # The victim may have a standard output of its own.
        outputs = [f"{self.folder}/listen", f"{self.folder}/connect"]
        with open("lines", "rb") as back, open(outputs[0], "wb") as out:
            listen = self.server("listen", f"unix:{SOCKET}", stdin=back, stdout=out)
        with open("lines", "rb") as there, open(outputs[1], "wb") as out:
            connect = self.start("connect", f"unix:{SOCKET}", stdin=there, stdout=out)
        connected = self.end(connect)
        self.release(listen)
        listened = self.end(listen)
        self.code = connected if self.victim == "connect" else listened
        for name, output in zip(("listen", "connect"), outputs):
            arrived = pathlib.Path(output).read_bytes()
            assert LINES.startswith(arrived), "lines arrived changed"
            elsewhere = name == self.victim and "stdout" in self.trouble
            assert listened or connected or arrived == LINES or elsewhere, "lines are missing"

    connect = listen

    def serve(self):
        serve = self.server("serve", f"unix:{SOCKET}")
        client = self.victim if self.victim in ("ping", "perf") else "ping"
        counts = ["-c", "3", "-i", "0"] if client == "ping" else ["-t", "0.01", "-s", "100"]
        process = self.start(client, f"unix:{SOCKET}", *counts, "--timeout", "5")
        ended = self.end(process)
        serve.kill(signal.SIGTERM)
        served = self.end(serve, -signal.SIGTERM)
        self.code = served if self.victim == "serve" else ended
        assert ended != 0 or process.output.count(b"\n") > 1

    ping = perf = serve


COMMANDS = ("keygen", "receive", "send", "listen", "connect", "serve", "ping", "perf")
LOADER = (127,)  # where the dynamic loader gets no further
table = []


def sweep(what, victim, levels, judge=None):
    """One run for each level, a label and arguments for Process, in a folder of its own."""
    top, failures, codes = os.getcwd(), [], {}
    assert levels, "nothing to try"
    for number, (label, trouble) in enumerate(levels):
        os.mkdir(str(number))
        os.chdir(str(number))
        try:
            run = Run(victim, trouble)
            codes[run.code] = codes.get(run.code, 0) + 1
            if judge:
                judge(label, run)
        except AssertionError as error:
            failures.append(f"{victim}, {label}: {error}")
        finally:
            for process in support.processes:
                process.end()
            support.processes.clear()
            os.chdir(top)
            shutil.rmtree(str(number), ignore_errors=True)
    table.append((what, victim, sum(codes.values()) + len(failures), codes, len(failures)))
    assert not failures, "\n".join(failures)


def limit(number, value):
    return {"before": lambda: resource.setrlimit(number, (value, value))}


def closed(*descriptors):
    def close():
        for descriptor in descriptors:
            os.close(descriptor)

    return {"before": close}


# The descriptors that each command needs: the exit code is 6 if one of these is closed.
NEEDED = {"receive": {1}, "send": {1}, "listen": {0, 1}, "connect": {0, 1}, "ping": {1}, "perf": {1}}


@each(*((victim, victim) for victim in COMMANDS))
def closed_descriptors(victim):
    def judge(label, run):
        expected = 6 if NEEDED.get(victim, set()) & set(label) else 0
        assert run.code == expected, f"exit code {run.code} instead of {expected}"

    sets = [chosen for size in (1, 2, 3) for chosen in itertools.combinations((0, 1, 2), size)]
    sweep("closed descriptors", victim, [(chosen, closed(*chosen)) for chosen in sets], judge)


@each(*((victim, victim) for victim in COMMANDS))
def few_descriptors(victim):
    if SANITIZED:
        raise Skip("the sanitizers need descriptors of their own")
    levels = [(f"{n} descriptors", limit(resource.RLIMIT_NOFILE, n)) for n in range(3, 21)]
    sweep("RLIMIT_NOFILE 3 to 20", victim, levels if ALL else [*levels[:6], levels[-1]])


@each(*((victim, victim) for victim in ("keygen", "receive", "listen")))
def small_files(victim):
    sizes = [0, 1, 31, 32, 4096, 65536, 262143, 262144, len(DATA) - 1, len(DATA)]
    levels = [(f"{size} bytes", limit(resource.RLIMIT_FSIZE, size)) for size in sizes]
    sweep("RLIMIT_FSIZE 0 to all", victim, levels)


@each(*((victim, victim) for victim in COMMANDS))
def little_memory(victim):
    if SANITIZED:
        raise Skip("the sanitizers reserve address space")
    sizes = range(8, 130, 4 if ALL else 24)
    levels = [(f"{size} MiB", limit(resource.RLIMIT_AS, size << 20)) for size in sizes]
    sweep("RLIMIT_AS 8 to 128 MiB", victim, levels)


@each(*((victim, victim) for victim in ("keygen", "receive", "listen", "connect")))
def full_disk(victim):
    """Full after so many pages, or after so many files."""
    pages = range(1, len(DATA) // 4096 + 4, 1 if ALL else 9)
    levels = [(f"{n} pages", {"disk": f"size={4096 * n}"}) for n in pages]
    if victim in ("keygen", "receive"):
        levels += [(f"{n} files", {"disk": f"nr_inodes={n}"}) for n in range(1, 4)]
    sweep("full disk", victim, levels)


@each(*((victim, victim) for victim in ("receive", "send", "listen", "connect", "serve", "ping")))
def stopped_and_continued(victim):
    if SANITIZED:
        raise Skip("the search for leaks at the end takes longer than an interrupt waits")

    def judge(label, run):
        assert run.code == 0, f"exit code {run.code}"

    seconds = (0.0005, 0.002, 0.005) if ALL else (0.001,)
    sweep("SIGSTOP and SIGCONT", victim, [(each, {"storm": each}) for each in seconds], judge)


@each(*((victim, victim) for victim in COMMANDS))
def clock_that_jumps(victim):
    if SANITIZED:
        raise Skip("the sanitizers want to be loaded first")

    def judge(label, run):
        assert run.code == 0, f"exit code {run.code}"

    preloaded = {"environment": {"LD_PRELOAD": os.environ["CLOCK"]}}
    sweep("clock set by a day at each look", victim, [("a day", preloaded)], judge)


@each(*((victim, victim) for victim in ("listen", "connect", "receive")))
def a_full_pipe(victim):
    """Standard output is a pipe of one page whose reader takes a little now and then; the pipe is
    blocking and not."""
    top = os.getcwd()
    for blocking in (True, False):
        os.mkdir(str(blocking))
        os.chdir(str(blocking))
        reader, writer = os.pipe()
        fcntl.fcntl(writer, fcntl.F_SETPIPE_SZ, 4096)
        os.set_blocking(writer, blocking)
        arrived = bytearray()

        def read():
            while data := os.read(reader, 1500):
                arrived.extend(data)
                time.sleep(0.0005)

        thread = threading.Thread(target=read)
        thread.start()
        run = Run(victim, {"stdout": writer})
        os.close(writer)
        thread.join()
        os.close(reader)
        assert run.code == 0, f"exit code {run.code}"
        whole = b'"received"' in arrived if victim == "receive" else arrived == LINES
        assert whole, "something is missing"
        os.chdir(top)
    table.append(("full pipe as standard output", victim, 2, {0: 2}, 0))


def remove():
    shutil.rmtree("in")


def move_away():
    os.rename("in", "old")


def replace_by_link():
    os.rename("in", "old")
    os.mkdir("other")
    os.symlink("other", "in")


def take_the_name():
    pathlib.Path("in/file").write_text("precious")


def take_the_name_for_a_folder():
    os.mkdir("in/file")


def remove_the_part():
    os.unlink("in/.file.zelgvc-part")


def replace_the_part():
    os.unlink("in/.file.zelgvc-part")
    os.symlink("../precious", "in/.file.zelgvc-part")


# Events in the middle of a transfer, and the place of the file afterwards: none if it fails.
EVENTS = [
    (remove, None),
    (move_away, "old/file"),
    (replace_by_link, "old/file"),
    (take_the_name, None),
    (take_the_name_for_a_folder, None),
    (remove_the_part, None),
    (replace_the_part, None),
]


@each(*((event.__name__.replace("_", "-"), event, result) for event, result in EVENTS))
def a_folder_that_changes(event, result):
    pathlib.Path("precious").write_text("precious")
    os.mkdir("in")
    receive = Process("receive", f"unix:{SOCKET}", "in", "--timeout", "5")
    peer = Peer(receive.address())
    peer.send(name=b"file", size=len(DATA), mode=0o600)
    assert b"have" in peer.receive()
    peer.send(offset=0)
    half = len(DATA) // 2
    peer.socket.sendall(frame(DATA[:half]))
    receive.until(lambda: os.path.getsize("in/.file.zelgvc-part") == half, "half of the file")
    event()
    peer.socket.sendall(frame(DATA[half:]))
    peer.send(sha256=hashlib.sha256(DATA).digest())
    answer = peer.receive()
    if result:
        peer.send(end=1)
    else:
        peer.socket.close()
    receive.wait(0 if result else 6)
    assert (b"stored" in answer) == bool(result), answer
    assert result is None or pathlib.Path(result).read_bytes() == DATA
    assert pathlib.Path("precious").read_text() == "precious"
    if event is take_the_name:
        assert pathlib.Path("in/file").read_text() == "precious"
    assert not os.path.isdir("other") or os.listdir("other") == []
    table.append((f"folder in use: {event.__name__}", "receive", 1, {receive.popen.returncode: 1}, 0))


def stopped_at(*faults):
    """Arguments that stop a process, or make it wait, at a system call."""
    return ["strace", "-D", "-o", "/dev/null", *QUIET, *faults]


@case
def a_part_that_was_stored_meanwhile_is_not_written():
    traced("keygen")
    os.mkdir("in")
    receive = Process("receive", f"unix:{SOCKET}", "in")
    peer = Peer(receive.address())
    peer.send(name=b"file", size=len(DATA), mode=0o600)
    assert b"have" in peer.receive()
    # It has opened the part, and has not tried to lock it.
    under = stopped_at("-P", ".file.zelgvc-part", "-e", "inject=openat:signal=STOP")
    late = Process("receive", f"unix:{SOCKET}-2", "in", "--force", under=under)
    late_peer = Peer(late.address())
    late_peer.send(name=b"file", size=3, mode=0o600)
    os.waitid(os.P_PID, late.popen.pid, os.WSTOPPED | os.WNOWAIT)
    peer.send(offset=0)
    peer.socket.sendall(frame(DATA))
    peer.send(sha256=hashlib.sha256(DATA).digest())
    assert b"stored" in peer.receive()
    late.kill(signal.SIGCONT)
    assert b"refused" in late_peer.receive()
    assert pathlib.Path("in/file").read_bytes() == DATA


@case
def a_listener_that_ends_leaves_the_socket_of_the_next():
    traced("keygen")
    under = stopped_at("-e", "trace=unlink", "-e", "inject=unlink:delay_enter=500000")
    first = Process("listen", f"unix:{SOCKET}", under=under)
    connect = Process("connect", first.address())
    while True:
        second = Process("listen", f"unix:{SOCKET}")
        second.until(lambda: second.errors, "first line")
        if "listening on" in second.errors:
            break
        second.wait(3)
    connect.wait()
    first.wait()
    run("connect", f"unix:{SOCKET}")
    second.wait()


@case
def a_folder_that_cannot_be_written():
    with Disk("ro"):
        run("receive", f"unix:{SOCKET}", "disk", codes=(6,)).complained("Read-only file system")
        run("keygen", "disk/key", codes=(6,)).complained("Read-only file system")


NAMES = [
    b" two  blanks ", b"new\nline", b"\x1b[31mred", b"\xff\xfe", b"-dash", b"--", b"*?[a]", b"'\"",
    b"$(touch evil)`touch evil`;touch evil", b"a:1", b"unix:x", b"100%s%n", b"\xe2\x80\xaetxt", b"a" * 100,
]


@each(*((str(number), name) for number, name in enumerate(NAMES)))
def odd_bytes_in_every_path(name):
    """In the names of the folder that everything is in, of a key, a socket, a file and its target."""
    top = os.fsencode(os.getcwd()) + b"/" + name
    os.mkdir(top)
    os.chdir(top)
    at = os.fsdecode(b"./" + name)
    os.mkdir("in")
    os.mkdir(b"in/" + name)
    os.mkdir("out")
    pathlib.Path("out", at).write_bytes(DATA)
    keygen = run("keygen", at)
    options = ["--encrypt", at]
    receive = Process("receive", "unix:" + os.fsdecode(b"socket " + name[:60]), "in/" + at, *options)
    receive.until(lambda: "listening on" in receive.errors, "address")
    send = run("send", "unix:" + os.fsdecode(b"socket " + name[:60]), *options, "out/" + at)
    receive.wait()
    assert pathlib.Path("in", at, at).read_bytes() == DATA and os.path.getsize(at) == 32
    assert sorted(os.listdir(b".")) == sorted([b"in", b"out", name]), os.listdir(b".")
    for process in (keygen, receive, send):
        shown = process.output.decode() + process.errors
        assert shown.replace("\n", "").isprintable(), repr(shown)
    table.append(("odd bytes in every path", "receive, send", 1, {0: 1}, 0))


def calls(victim):
    """How often the main thread makes each system call before the program has begun, and after."""
    run = Run(victim, {"under": ["strace", "-f", "-o", "log", *QUIET]})
    assert run.code == 0, run.code
    before, after = collections.Counter(), collections.Counter()
    main_thread, started = None, False
    for line in pathlib.Path("log").read_text(errors="replace").splitlines():
        thread, rest = line.split(None, 1)
        main_thread = main_thread or thread
        name = re.match(r"\w+(?=\()", rest)
        if thread == main_thread and name:
            (after if started else before)[name[0]] += 1
        # From here on signals are no longer the system's affair.
        started = started or rest.startswith("rt_sigprocmask(SIG_BLOCK, [INT TERM]")
    return before, after


QUIET = ["-e", "signal=none", "-e", "quiet=all"]
FAULTS = {
    "openat": "EMFILE EACCES",
    "read": "EIO",
    "write": "ENOSPC EIO",
    "pread64": "EIO",
    "pwrite64": "ENOSPC EIO",
    "ftruncate": "EFBIG",
    "fsync": "EIO",
    "fchmod": "EPERM",
    "utimensat": "EPERM",
    "renameat2": "EINVAL EIO",
    "newfstatat": "EIO",
    "fstat": "EIO",
    "flock": "ENOLCK",
    "faccessat2": "EROFS",
    "getrandom": "ENOSYS",
    "mmap": "ENOMEM",
    "clone3": "EAGAIN",
    "eventfd2": "EMFILE",
    "socket": "EMFILE",
    "bind": "EACCES",
    "listen": "ENOBUFS",
    "accept": "ENFILE",
    "connect": "ECONNREFUSED",
    "sendto": "ECONNRESET ENOBUFS",
    "sendmsg": "ECONNRESET ENOBUFS",
    "recvfrom": "ECONNRESET ENOMEM",
    "recvmsg": "ECONNRESET ENOMEM",
    "shutdown": "ENOTCONN",
    "close": "EIO",
    "unlink": "EPERM",
    "poll": "ENOMEM",
}
INTERRUPTIBLE = "read write pread64 pwrite64 recvfrom recvmsg sendto sendmsg poll accept fsync".split()


def inject(call, fault, when):
    return {"under": ["strace", "-f", "-o", "/dev/null", *QUIET, "-e", f"trace={call}",
                      "-e", f"inject={call}:{fault}:when={when}"]}


def some(levels, most):
    """All of them, or so many, evenly spread."""
    step = 1 if ALL else max(1, len(levels) // most)
    return levels[::step]


def traced(victim):
    if SANITIZED:
        raise Skip("LeakSanitizer does not run under a tracer")
    if not shutil.which("strace"):
        raise Skip("no strace")
    os.mkdir("calls")
    os.chdir("calls")
    try:
        return calls(victim)
    except AssertionError as error:
        raise Skip(f"nothing can be traced here: {error}") from None
    finally:
        os.chdir("..")


@each(*((victim, victim) for victim in ("keygen", "receive", "send", "listen", "connect")))
def a_system_call_fails(victim):
    before, after = traced(victim)
    levels = []
    for call, errors in FAULTS.items():
        for error in errors.split():
            # Otherwise one of them, a later one of each next sort.
            numbers = range(1, after[call] + 1)
            for number in numbers if ALL else numbers[len(levels) % max(1, after[call]):][:1]:
                trouble = inject(call, f"error={error}", before[call] + number)
                levels.append((f"{call} {number} fails with {error}", trouble))
    sweep("a system call fails", victim, levels)


@each(("serve", "serve", [], "ping"), ("receive", "receive", ["in", "--keep"], "send", "lines"))
def a_connection_that_the_system_refuses(service, options, client, *operands):
    """A service goes on, and does not fill a log as long as nothing helps."""
    traced("keygen")
    pathlib.Path("lines").write_bytes(LINES)
    os.mkdir("in")
    for when in ("1..2", "1+"):
        under = inject("accept", "error=ENFILE", when)["under"]
        process = Process(service, f"unix:{SOCKET}", *options, under=[under[0], "-D", *under[2:]])
        process.until(lambda: "listening on" in process.errors, "address")
        codes = (0,) if when == "1..2" else (4, 5)
        run(client, f"unix:{SOCKET}", *operands, "--timeout", "5", codes=codes)
        assert 0 < len(process.complaints) < 50, len(process.complaints)
        process.kill(signal.SIGTERM)
        process.wait(0)


@each(*((victim, victim) for victim in ("keygen", "receive", "send", "listen", "connect")))
def interrupted_calls(victim):
    def judge(label, run):
        assert run.code == 0, f"exit code {run.code}"

    before, after = traced(victim)
    levels = [(f"{call} is interrupted", inject(call, "error=EINTR", f"{before[call] + 1}+3"))
              for call in INTERRUPTIBLE if after[call]]
    sweep("every third call is interrupted", victim, levels, judge)


@each(*((victim, victim) for victim in ("keygen", "receive", "send", "listen", "connect")))
def killed_at_a_system_call(victim):
    before, after = traced(victim)
    levels = [(f"{call} {number}", inject(call, "signal=KILL", before[call] + number))
              for call in sorted(after) for number in range(1, after[call] + 1)]
    sweep("SIGKILL at a system call", victim, some(levels, 20))


@each(*((victim, victim) for victim in ("keygen", "receive", "send", "listen", "connect")))
def a_signal_at_a_system_call(victim):
    """SIGTERM or SIGINT comes between two system calls: the program stops there."""

    def judge(label, run):
        assert run.code in (0, 128 + run.signal), f"exit code {run.code}"

    before, after = traced(victim)
    places = [(call, number) for call in sorted(after) for number in range(1, after[call] + 1)]
    signals = itertools.cycle((signal.SIGTERM, signal.SIGINT))
    levels = []
    for (call, number), sent in zip(some(places, 20), signals):
        trouble = inject(call, "signal=STOP", before[call] + number)
        # Traces one thread, from a grandchild: the program itself is the process here.
        trouble["under"][1] = "-D"
        levels.append((f"{sent.name} at {call} {number}", {**trouble, "signal": sent}))
    sweep("SIGTERM or SIGINT at a system call", victim, levels, judge)


def print_table():
    rows = {}
    for what, victim, runs, codes, failures in table:
        row = rows.setdefault(what, [[], 0, collections.Counter(), 0])
        row[0] += [victim] if victim not in row[0] else []
        row[1] += runs
        row[2].update(codes)
        row[3] += failures
    print("| What the system does | to | runs | exit codes | failures |")
    print("|---|---|--:|---|--:|")
    for what, (victims, runs, codes, failures) in rows.items():
        ended = ", ".join(f"{code}: {number}" for code, number in sorted(codes.items()))
        print(f"| {what} | {', '.join(victims)} | {runs} | {ended} | {failures} |")


try:
    main()
finally:
    if "--table" in sys.argv:
        print_table()
