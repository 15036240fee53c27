#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""A hostile peer plays a catalogue of attacks against the program and the examples.

usage: hostile.py [--full] [--only WORD] ZELGVC SERVE CALL TLS-ECHO [NAME SERVER CLIENT]...

An honest conversation of each pair of programs is recorded first. The hostile peer replays it up to
some phase, and then attacks. Without --full a choice of the cases is run, in TAP; with it all of them,
and a table is printed.
"""

import collections
import concurrent.futures
import contextlib
import dataclasses
import functools
import itertools
import os
import pathlib
import re
import resource
import select
import shlex
import socket
import ssl
import struct
import subprocess
import sys
import tempfile
import threading
import time
import traceback

import tap

FULL = "--full" in sys.argv
ONLY = sys.argv[sys.argv.index("--only") + 1] if "--only" in sys.argv else ""
WORDS = [word for word in sys.argv[1:] if word not in ("--full", "--only", ONLY)]
ZELGVC, SERVE, CALL, TLS_ECHO = map(os.path.abspath, WORDS[:4])
ECHOES = WORDS[4:]
SANITIZED = os.environ.get("TEST_SANITIZE", "none") != "none"
PATIENCE = 6 * float(os.environ.get("TEST_PATIENCE", "1"))
WATCHDOG = 120 * float(os.environ.get("TEST_PATIENCE", "1"))
TIMEOUT = 2 if FULL else 1  # the --timeout of the victims that have one
HOLD = 3 if FULL else 1  # how long a victim without a deadline is held
STRIDE = 1 if ONLY else 7  # of the cases that the short run plays
CROWD, STORM = (1000, 20000) if FULL else (200, 2000)
VOLUME = 64 << 20  # bytes that follow an announcement of 2 GiB
DESCRIPTORS = 128  # of a victim
KEY = bytes(range(32))
# Meson's perturbation would fill, and so take, what is only set aside for an announcement.
QUIET = {"LC_ALL": "C", "MALLOC_PERTURB_": "0"}
LINGER = struct.pack("ii", 1, 0)  # a close resets
HANDSHAKE = b"TLS"  # a turn of both sides
Turn = collections.namedtuple("Turn", "side data")


# The bytes on the wire.


def frame(data, announced=None):
    return struct.pack("<I", len(data) if announced is None else announced) + data


def block(data, packed=None, unpacked=None):
    """A compressed block of a single run of literals."""
    zeros, rest = divmod(len(data) - 19, 255)
    payload = bytes(zeros + 1) + bytes([rest + 1]) + data + b"\x11\0\0"
    sizes = (given or own for given, own in ((packed, len(payload)), (unpacked, len(data))))
    return struct.pack("<II", *sizes) + payload


def record(data, announced=None):
    """An IV record and one with this text."""
    count = 16 - len(data) % 16
    command = ["openssl", "enc", "-aes-256-cbc", "-nopad", "-K", KEY.hex(), "-iv", "00" * 16]
    done = subprocess.run(command, input=data + bytes([count]) * count, capture_output=True, check=True)
    return bytes(24) + struct.pack("<Q", announced or len(done.stdout)) + done.stdout


def wrap(layers, data):
    for layer in layers:
        data = {"c": block, "e": record}[layer](data)
    return data


def lies(layers):
    """Headers that lie, of each layer, within honest layers below."""
    filler = bytes(range(256)) * 256
    yield "frame of 2 GiB", wrap(layers, frame(filler, 0x7FFFFFFF))
    yield "negative frame", wrap(layers, frame(filler, 0x80000000))
    if "c" in layers:
        below = layers[layers.index("c") + 1 :]
        yield "block of 4 GiB", wrap(below, block(filler, 0xFFFFFFFF, 0xFFFFFFFF))
        yield "block that grows to 4 GiB", wrap(below, block(filler, 0, 0xFFFFFFFF))
        yield "block that holds more", wrap(below, block(filler, 0, 1))
    if "e" in layers:
        yield "record of 2 GiB", record(filler, 0x7FFFFFF0)
        yield "record of 2^63", record(filler, 1 << 63)
        yield "record of no whole block", record(filler, 17)


STRANGERS = {
    "HTTP": b"GET / HTTP/1.1\r\nHost: localhost\r\n\r\n",
    "SSH": b"SSH-2.0-OpenSSH_9.2\r\n",
    "TLS": bytes.fromhex("1603010200010001fc0303") + bytes(509),
}


# The victims.


@dataclasses.dataclass
class Victim:
    """A program that is attacked. `{a}`, `{p}` and `{f}` in a command stand for address, port and
    a file, `{t}` for the directory of all. Deadlines are those that its documents name, in seconds: for the first message, for a
    silence later, for a message that drips. None: it waits as long as the peer is there."""

    name: str
    command: list
    partner: list  # an honest peer of it
    listens: bool = True
    layers: str = ""
    deadlines: tuple = (None, None, None)
    memory: int = 64  # MiB
    serves: str = "once"  # or "in turn", "at once"
    codes: tuple = (0, 1, 4, 5)
    wishes: bool = False  # whether success needs no end of the peer's
    kind: str = "tcp"
    brief: bool = False  # what differs from another victim in its language alone
    turns: list = None

    def deadline(self, phase, attack):
        if attack in ("drip", "empty units") and self.name == "listen --keep":  # they are messages
            return None
        if attack == "empty units" and not self.layers:  # they are messages
            return self.deadlines[0] if self.name in ("receive", "receive --keep") else None
        return self.deadlines[0 if phase == 0 else 2 if attack in ("drip", "empty units") else 1]


STAGES = {"": [], "c": ["--compress"], "ce": ["--compress", "--encrypt", "key"]}


def tool_victims(layers, kind):
    """The commands of the program as victims, each with its honest partner."""
    def tool(command, *options):
        return [ZELGVC, command, *STAGES[layers], *options]

    limit = ["--timeout", TIMEOUT]
    # 64 MiB of a message, again in the stages' buffers and on their way, and the program itself.
    large = 400 if layers else 200
    common = {"layers": layers, "kind": kind}
    drawn = (TIMEOUT, TIMEOUT, TIMEOUT + 32)
    pairs = [
        ("listen", ["{a}"], "connect", ["{a}"], {"memory": large, "wishes": True}),
        ("listen --keep", [*limit, "--keep", "{a}"], "connect", ["{a}"],
         {"deadlines": drawn, "memory": large, "serves": "in turn"}),
        ("listen --strings", ["--strings", "\\n", "--limit", 1 << 20, "{a}"], "connect",
         ["--strings", "\\n", "{a}"], {"memory": 48, "wishes": True}),
        ("receive", [*limit, "--force", "{a}", "."], "send", ["{a}", "{f}"], {"deadlines": drawn}),
        ("receive --keep", [*limit, "--keep", "--force", "{a}", "."], "send", ["{a}", "{f}"],
         {"deadlines": drawn, "serves": "in turn"}),
        ("serve (ping)", [*limit, "{a}"], "ping", ["-c", 2, "{a}"],
         {"deadlines": drawn, "memory": large, "serves": "at once"}),
        ("serve (perf)", [*limit, "{a}"], "perf", ["-t", 0.05, "-s", 1000, "{a}"],
         {"deadlines": drawn, "memory": large, "serves": "at once"}),
    ]
    for name, server, client, options, more in pairs:
        own, their = tool(name.split()[0], *server), tool(client, *options)
        yield Victim(name, own, their, **(common | more))
        if more.get("serves") == "in turn" or name.endswith("strings"):
            continue
        if client != "connect":
            their = tool(client, *limit, *options)
        yield Victim(client, their, own, listens=False, **(common | more | {"serves": "once"}))


def example_victims(layers):
    stages = STAGES[layers]
    limits = (TIMEOUT,) * 3
    server = [SERVE, "--directory", ".", *stages]
    client = [CALL, *stages, "--messages", 2]
    file = ["--port", "{p}", "{f}"]
    # A byte that arrives is up to two bytes of memory, besides what is being sent back.
    large = {"layers": layers, "memory": 64 + (2 if layers else 1) * (VOLUME >> 20)}
    # The partner may have to wait for 1000 others, 100 at a time.
    yield Victim("serve.c", [*server, "--timeout", TIMEOUT], [*client, "--timeout", 60, *file],
                 serves="at once", deadlines=limits, **large)
    yield Victim("call.c", [*client, "--timeout", TIMEOUT, *file], server, listens=False,
                 codes=(0, 1), deadlines=limits, **large)


def echo_victims():
    large = {"layers": "ce", "memory": 128 + 2 * (VOLUME >> 20)}
    for name, server, client in zip(*[iter(ECHOES)] * 3):
        for mode in [], ["--async"]:
            own, their = shlex.split(server) + mode, [*shlex.split(client), "{p}", *mode]
            label = " ".join([name, *mode])
            large["brief"] = name != "c"
            yield Victim(f"echo server, {label}", own, their, codes=(),
                         serves="at once" if mode else "in turn", **large)
            yield Victim(f"echo client, {label}", their, own, listens=False, codes=(0, 1), **large)
    own, their = [TLS_ECHO, "serve", "{t}/tls.pem"], [TLS_ECHO, "call", "{p}", "{t}/tls.crt"]
    message = block(frame(b"hello over TLS in a block"))
    turns = [Turn("*", HANDSHAKE), Turn("client", message), Turn("server", message)]
    large |= {"layers": "c", "turns": turns, "brief": False}
    yield Victim("tls-echo serve", own, their, codes=(0, 1), **large)
    yield Victim("tls-echo call", their, own, listens=False, codes=(0, 1), **large)


def victims():
    for layers, kind in ("", "tcp"), ("ce", "unix"):
        yield from tool_victims(layers, kind)
    for layers in "", "ce":
        yield from example_victims(layers)
    yield from echo_victims()


# Processes.


def make_files(top):
    (top / "key").write_bytes(KEY)
    (top / "file").write_bytes(os.urandom(100_000) + bytes(100_000))
    (top / "lines").write_bytes(b"hello\nanother line of text\n")
    subprocess.run(["openssl", "req", "-x509", "-newkey", "ec", "-pkeyopt",
                    "ec_paramgen_curve:P-256", "-nodes", "-days", "2", "-subj", "/CN=hostile",
                    "-addext", "subjectAltName=IP:127.0.0.1", "-keyout", top / "tls.key", "-out",
                    top / "tls.crt"], check=True, capture_output=True)
    (top / "tls.pem").write_bytes((top / "tls.crt").read_bytes() + (top / "tls.key").read_bytes())


class Process:
    """A program in a directory of its own, and the most memory that it or a child of it had."""

    def __init__(self, top, command, address=None):
        self.home = pathlib.Path(tempfile.mkdtemp(dir=top))
        (self.home / "key").write_bytes(KEY)
        (self.home / f"file-{self.home.name}").symlink_to(top / "file")
        place = {"a": listening(address), "p": str(address), "f": f"file-{self.home.name}",
                 "t": top}
        words = [str(word).format(**place) for word in command]
        self.files = [(self.home / name).open("w+b") for name in ("stdout", "stderr")]
        talks = "connect" in words
        with open(top / "lines" if talks else os.devnull, "rb") as lines:
            self.popen = subprocess.Popen(words, cwd=self.home, stdin=lines, stdout=self.files[0],
                                          stderr=self.files[1], env=os.environ | QUIET)
        # So that a crowd uses them up soon.
        with contextlib.suppress(ProcessLookupError):
            resource.prlimit(self.popen.pid, resource.RLIMIT_NOFILE, (DESCRIPTORS, DESCRIPTORS))
        self.begun, self.time, self.peak = time.monotonic(), None, 0
        self.watcher = threading.Thread(target=self.watch, daemon=True)
        self.watcher.start()

    def watch(self):
        pid = self.popen.pid
        while self.popen.poll() is None:
            children = text_of(f"/proc/{pid}/task/{pid}/children").split()
            for each in [pid, *children[:50]]:
                status = text_of(f"/proc/{each}/status")
                if found := re.search(r"VmHWM:\s*(\d+) kB", status):
                    self.peak = max(self.peak, int(found[1]) / 1024)
            time.sleep(0.01)
        self.time = time.monotonic()

    def output(self):
        return b"".join(os.pread(each.fileno(), 1 << 20, 0) for each in self.files).decode("latin1")

    def complaint(self):
        """The last line on standard error."""
        lines = os.pread(self.files[1].fileno(), 1 << 20, 0).decode("latin1").splitlines()
        lines = [line for line in lines if not re.match("listening|connected|stored", line)]
        return lines[-1] if lines else ""

    def address(self):
        deadline = time.monotonic() + WATCHDOG
        while time.monotonic() < deadline and self.popen.poll() is None:
            for pattern in r"listening on unix:(\S+)\n", r"(?:listening on .*[: ]|^)(\d+)[,\n]":
                if found := re.search(pattern, self.output()):
                    return found[1] if "unix" not in pattern else str(self.home / found[1])
            time.sleep(0.01)
        raise AssertionError(f"no address: {self.output()}")

    def wait(self, seconds):
        self.watcher.join(max(0, seconds))
        return self.time

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.end()

    def end(self):
        if self.popen.poll() is None:
            self.popen.terminate()
            self.wait(3)
            self.popen.kill()
        self.watcher.join()


def text_of(path):
    try:
        return pathlib.Path(path).read_text()
    except OSError:
        return ""


def listening(address):
    """As the program writes it: to listen on where there is none, or to connect to."""
    if address in ("tcp", None):
        return "127.0.0.1:0"
    return "unix:socket" if address == "unix" else f"unix:{address}" if "/" in address else f"127.0.0.1:{address}"


def connect(address, timeout=WATCHDOG):
    sock = socket.socket(socket.AF_UNIX if "/" in address else socket.AF_INET)
    sock.settimeout(timeout)
    sock.connect(address if "/" in address else ("127.0.0.1", int(address)))
    return sock


def listener(top, kind):
    if kind == "unix":
        path = tempfile.mktemp(dir=top)
        sock = socket.socket(socket.AF_UNIX)
        sock.bind(path)
        sock.listen()
    else:
        sock = socket.create_server(("127.0.0.1", 0))
        path = str(sock.getsockname()[1])
    sock.settimeout(WATCHDOG)
    return sock, path


def relay(ends):
    """Carries data between the server and the client; gives the turns in which they talked."""
    turns, names = [], {sock: name for name, sock in ends.items()}
    while names:
        for sock in select.select(list(names), [], [], WATCHDOG)[0]:
            side = names[sock]
            other = ends["client" if side == "server" else "server"]
            with contextlib.suppress(OSError):  # whoever has said all may go first
                data = b""
                data = sock.recv(1 << 20)
                other.sendall(data) if data else other.shutdown(socket.SHUT_WR)
            if not data:
                del names[sock]
            elif turns and turns[-1].side == side:
                turns[-1] = Turn(side, turns[-1].data + data)
            else:
                turns.append(Turn(side, data))
    return turns


recording = threading.Lock()
records = {}


def recorded(top, victim):
    """The turns of an honest conversation."""
    server, client = victim.command, victim.partner
    if not victim.listens:
        server, client = client, server
    with recording:
        key = str((server, client))
        if key not in records:
            records[key] = victim.turns or record_turns(top, server, client)
        return records[key]


def record_turns(top, server, client):
    with contextlib.ExitStack() as stack:
        sock, address = listener(top, "tcp")
        stack.enter_context(sock)
        one = stack.enter_context(Process(top, server))
        far = stack.enter_context(connect(one.address()))
        two = stack.enter_context(Process(top, client, address))
        near = stack.enter_context(sock.accept()[0])
        turns = relay({"server": far, "client": near})
        two.wait(WATCHDOG)
        assert turns and two.popen.returncode == 0, two.output()
        return turns


# The hostile peer.


class Peer:
    def __init__(self, sock, victim, process, turns, top):
        self.sock, self.victim, self.process, self.turns, self.top = sock, victim, process, turns, top
        self.side = "client" if victim.listens else "server"
        self.poll = select.poll()
        self.poll.register(sock, select.POLLRDHUP)
        self.left, self.reads = False, True

    def play(self, phase):
        """The honest part."""
        self.phase = phase
        for turn in self.turns[:phase]:
            if turn.data == HANDSHAKE:
                self.handshake()
            elif turn.side == self.side:
                self.sock.sendall(turn.data)
            else:
                self.take(len(turn.data))

    def handshake(self):
        if self.victim.listens:
            context = ssl.create_default_context(cafile=self.top / "tls.crt")
            self.sock = context.wrap_socket(self.sock, server_hostname="127.0.0.1")
        else:
            context = ssl.SSLContext(ssl.PROTOCOL_TLS_SERVER)
            context.load_cert_chain(self.top / "tls.pem")
            self.sock = context.wrap_socket(self.sock, server_side=True)

    def take(self, count):
        """The messages of the victim. Measured times make them longer or shorter."""
        self.sock.settimeout(1)
        with contextlib.suppress(TimeoutError):
            while count > 0 and (data := self.sock.recv(min(count, 1 << 20))):
                count -= len(data)
        self.sock.settimeout(WATCHDOG)

    def rest(self):
        """The next bytes of an honest peer, turn by turn, and again from the beginning."""
        own = [turn.data for turn in self.turns if turn.side == self.side]
        last = len([turn for turn in self.turns[: self.phase] if turn.side == self.side])
        return own[last:] + own or [bytes(64)]

    def ended(self):
        """Whether the victim has given up this peer."""
        if self.victim.serves == "once":
            return self.process.time is not None
        return self.left or bool(self.poll.poll(0)) or self.cannot_arrive()

    def cannot_arrive(self):
        """Whether the victim has closed a TCP connection behind data that this peer does not take."""
        if self.reads or self.victim.kind != "tcp" or self.left:
            return False
        own, other = self.sock.getsockname()[1], self.sock.getpeername()[1]
        pattern = rf":{other:04X} \w+:{own:04X} (?!01)\w\w"
        return bool(re.search(pattern, text_of("/proc/net/tcp")))

    def leave(self, linger=False):
        if linger:
            self.sock.setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, LINGER)
        self.sock.close()
        self.left = True

    def attack(self, pieces, until, reads):
        """Sends pieces, each followed by a pause, until the victim has ended."""
        data, self.reads = b"", reads
        while not self.ended() and time.monotonic() < until:
            if not data:
                data, pause = next(pieces, (b"", 0.02))
                if pause:
                    self.process.wait(pause) if self.victim.serves == "once" else time.sleep(pause)
            if self.left:
                continue
            try:
                self.sock.settimeout(0.05)
                if data:
                    data = data[self.sock.send(memoryview(data)[: 1 << 20]) :]
                self.sock.settimeout(0.001)
                if reads:
                    self.sock.recv(1 << 20)
            except TimeoutError:
                pass
            except OSError:  # the victim has closed; what else it does is its process's to show
                data, pieces = b"", iter(())


def drip(peer):
    return ((bytes([byte]), 1 if FULL else 0.3) for byte in itertools.cycle(b"".join(peer.rest())))


def empty_units(peer):
    unit = {"": bytes(4), "c": bytes(8), "e": bytes(24)}[peer.victim.layers[-1:]]
    # After the attack a victim without a deadline reads the remaining bytes.
    return itertools.repeat((unit * 1000, 0), *[] if peer.bounded else [50])


def closes(peer):
    peer.leave()
    return iter(())


def half_closes(peer):
    # Inside TLS this is the raw end that TLS calls truncation.
    socket.socket.shutdown(peer.sock, socket.SHUT_WR)
    return iter(())


def resets(peer):
    peer.leave(linger=True)
    return iter(())


def volume(peer):
    """Announces 2 GiB and sends a part of it."""
    start = wrap(peer.victim.layers, frame(bytes(64), 0x7FFFFFFF))
    body = wrap(peer.victim.layers, b"x" * (1 << 20))
    return itertools.chain([(start, 0)], itertools.repeat((body, 0), VOLUME >> 20))


def deaf(peer):
    """Says the same on and on, and reads nothing."""
    data = peer.rest()[0]
    return iter([(data * min(20000, (8 << 20) // len(data) + 1), 0)])


def sip(peer):
    """Reads a byte a second."""
    while True:
        peer.sock.settimeout(0.01)
        with contextlib.suppress(OSError):
            peer.sock.recv(1)
        yield b"", 0.5


def sending(data):
    return lambda peer: iter([(data, 0)])


ATTACKS = {  # how, and whether the peer reads meanwhile
    "silence": (lambda peer: iter(()), False),
    "drip": (drip, True),
    "empty units": (empty_units, True),
    "closes": (closes, True),
    "half closes": (half_closes, True),
    "resets": (resets, True),
    "announces 2 GiB": (volume, True),
    "reads nothing": (deaf, False),
    "reads a byte a second": (sip, False),
}
LOADS = ("crowd", "storm")


@dataclasses.dataclass
class Outcome:
    seconds: float = None  # until the victim gave up; None: it did not while the peer was there
    others: float = None  # how long an honest peer took meanwhile
    peak: float = 0
    code: int = None
    message: str = ""


def honest(top, victim, address, limit):
    begun = time.monotonic()
    while True:
        with Process(top, victim.partner, address) as other:
            other.wait(limit)
            took = (other.time or time.monotonic()) - begun
            if other.popen.returncode == 0:
                return took
            # The kernel turns a connection to a Unix socket away while the queue is full.
            full = "Resource temporarily unavailable" in other.output()
            assert full and (limit is None or took < limit), f"an honest peer after {took:.1f} s: {other.output()!r}"


def under_load(top, victim, address, load):
    """Connections in a crowd that stays, or one after another, while an honest peer comes."""
    crowd, over = [], threading.Event()
    in_turn = victim.serves == "in turn"
    most = 4 if in_turn else CROWD if load == "crowd" else STORM
    if victim.deadlines[0] is None:  # it has no limit that would make room again
        most = min(most, DESCRIPTORS - 40)

    def rush():
        while len(crowd) < most and not over.is_set():
            with contextlib.suppress(OSError):  # too many for the queue of the listener
                crowd.append(connect(address, 0.02))
                if load == "storm":
                    crowd[-1].setsockopt(socket.SOL_SOCKET, socket.SO_LINGER, LINGER)
                    crowd[-1].close()

    with concurrent.futures.ThreadPoolExecutor(1) as pool:
        rushing = pool.submit(rush)
        concurrent.futures.wait([rushing], 1 if load == "storm" else 5)
        # serve.c takes 100 callers at once.
        wait = (victim.deadlines[0] or 0) * (most if in_turn else 1 + most // 100)
        try:
            others = honest(top, victim, address, (wait + 5) * PATIENCE)
        finally:
            over.set()
    for sock in crowd:
        sock.close()
    return Outcome(others=others, message=f"({len(crowd)} connections)")


def under_attack(top, victim, process, sock, address, attack, phase):
    turns = recorded(top, victim)
    peer = Peer(sock, victim, process, turns, top)
    with contextlib.suppress(OSError):  # it may have said all and gone
        peer.play(phase)
    how, reads = attack[1] if len(attack) > 1 else ATTACKS[attack[0]]
    deadline = victim.deadline(phase, attack[0])
    bounded = deadline is not None and deadline < 60
    peer.bounded = bounded
    begun = time.monotonic()
    until = begun + ((deadline + 2) * PATIENCE if bounded else HOLD)
    outcome = Outcome()
    with concurrent.futures.ThreadPoolExecutor(1) as pool:
        other = None
        if victim.serves == "at once" or victim.serves == "in turn" and bounded:
            other = pool.submit(honest, top, victim, address, ((deadline or 0) + 2) * PATIENCE)
        with contextlib.suppress(OSError):  # it may have gone
            peer.attack(how(peer), until, reads)
        if not peer.ended() and not peer.left:
            peer.attack(iter(()), until, False)
        if peer.ended():
            outcome.seconds = (process.time or time.monotonic()) - begun
        assert peer.ended() or not bounded, f"not given up after {deadline} s"
        if not peer.left:
            peer.leave()
        if victim.serves == "once":
            assert process.wait(2 * PATIENCE), "it goes on without its peer"
        other = other or victim.serves != "once" and pool.submit(honest, top, victim, address,
                                                                 2 * PATIENCE)
        outcome.others = other.result() if other else None
    return outcome


def play(top, victim, attack, phase):
    with contextlib.ExitStack() as stack:
        if victim.listens:
            process = stack.enter_context(Process(top, victim.command, victim.kind))
            address = process.address()
        else:
            server, address = listener(top, victim.kind)
            stack.enter_context(server)
            process = stack.enter_context(Process(top, victim.command, address))
        if attack[0] in LOADS:
            outcome = under_load(top, victim, address, attack[0])
        else:
            sock = connect(address) if victim.listens else server.accept()[0]
            stack.enter_context(sock)
            outcome = under_attack(top, victim, process, sock, address, attack, phase)
        stopped = process.time is None
        process.end()
        outcome.code, outcome.peak = process.popen.returncode, process.peak
        outcome.message = outcome.message or process.complaint()
        check(top, victim, process, outcome, attack[0], phase, stopped)
        return outcome


def check(top, victim, process, outcome, attack, phase, stopped):
    output, code = process.output()[-2000:], outcome.code
    assert os.fstat(process.files[1].fileno()).st_size < 1 << 20, f"floods its log: {output[:999]}"
    assert not re.search("CRITICAL|WARNING|Traceback|Sanitizer|runtime error", output), output[-500:]
    assert SANITIZED or outcome.peak < victim.memory, f"{outcome.peak:.0f} MiB"
    assert stopped == (victim.serves != "once"), f"ended with {code}: {output}"
    assert stopped and not victim.codes or code in victim.codes, f"exit code {code}: {output}"
    if not stopped and code == 0 and not victim.wishes:
        turns = recorded(top, victim)
        side = "client" if victim.listens else "server"
        left = [turn.data for turn in turns[phase:] if turn.side == side]
        unsaid = len(b"".join(left[attack in ("drip", "reads nothing") :]))
        # The end of the stages may be missing: all has been said.
        assert unsaid <= 24, f"claims success where {unsaid} bytes are missing: {output}"
    if not stopped and code:
        assert outcome.message, "failed without a word"


def cases(top, victim):
    """Each attack with the phase of it."""
    turns = recorded(top, victim)
    side = "client" if victim.listens else "server"
    phases = [i for i, turn in enumerate(turns) if turn.side in (side, "*")] + [len(turns)]
    phases = phases[:1] if victim.brief else phases if len(phases) <= 4 else phases[:3] + phases[-1:]
    staged = victim.layers
    for attack, phase in itertools.product(ATTACKS, phases):
        # After the end there is nothing to go on about.
        if phase < len(turns) or attack in ("silence", "half closes", "empty units"):
            yield (attack,), phase
    for name, data in STRANGERS.items():
        yield (f"speaks {name}", (sending(data), True)), 0
    for phase in phases[:2]:
        for name, data in lies(staged):
            yield (f"lies: {name}", (sending(data), True)), phase
    yield ("data after the end", (sending(b"more" * 20000), True)), len(turns)
    if victim.serves == "at once" or victim.serves == "in turn" and victim.deadlines[0]:
        yield from (((load,), 0) for load in LOADS)


# The outcome.


def run_all(top):
    """The outcomes, or what went wrong, of every attack on every victim."""
    results = collections.defaultdict(list)

    def one(victim, attack, phase):
        try:
            return play(top, victim, attack, phase)
        except Exception as error:
            where = "".join(traceback.format_exception(error)[-2:]).strip()
            return f"{attack[0]}, phase {phase}: {where}"

    jobs = []
    for victim in victims():
        label = f"{victim.name}/{victim.layers or 'plain'}/{victim.kind}"
        for attack, phase in cases(top, victim):
            if ONLY in f"{label}/{attack[0]}":
                jobs.append((label, victim, attack, phase))
    if not FULL:
        jobs = jobs[::STRIDE]
    # Most of them wait; those of load have the machine to themselves.
    with concurrent.futures.ThreadPoolExecutor(24 if FULL else 12) as pool:
        light = [job for job in jobs if job[2][0] not in LOADS]
        outcomes = list(pool.map(lambda job: one(*job[1:]), light))
    for job, outcome in zip(light, outcomes):
        results[job[0], job[2][0]].append(outcome)
    for label, *job in jobs:
        if job[1][0] in LOADS:
            results[label, job[1][0]].append(one(*job))
    return results


def show(outcomes):
    if failures := [outcome for outcome in outcomes if isinstance(outcome, str)]:
        raise AssertionError("\n".join(failures))


def worst(values, form="{:.1f}"):
    values = list(values)
    return "" if not values else "held" if None in values else form.format(max(values))


def table(results):
    """A row for each program: the worst of all stages, sockets, phases and languages."""
    rows = collections.defaultdict(lambda: collections.defaultdict(list))
    says = collections.defaultdict(collections.Counter)
    for (label, attack), outcomes in results.items():
        name = re.sub(r"echo (\w+), .*", r"echo \1s", label.split("/")[0])
        column = re.sub(r"[: ].*", "", attack) if attack[:4] in ("lies", "spea") else attack
        for outcome in outcomes:
            if not isinstance(outcome, str):
                rows[name][column].append(outcome)
                message = re.sub(r"(the peer|ADDRESS) [\d.:]+", r"\1", outcome.message)
                says[column][message] += message.startswith("zelgvc: ")
    columns = list(dict.fromkeys(column for row in rows.values() for column in row))
    print("| program |", " | ".join(columns), "| others wait | MiB | exit |")
    print("|---|" + "--:|" * (len(columns) + 2) + "---|")
    for name, row in rows.items():
        cells = [worst(o.others if column in LOADS else o.seconds for o in row[column])
                 for column in columns]
        every = [outcome for column in row for outcome in row[column]]
        cells.append(worst(o.others for o in every if o.others is not None))
        cells.append(worst((o.peak for o in every), "{:.0f}"))
        cells.append(", ".join(sorted({str(o.code) for o in every})))
        print("|", name, "|", " | ".join(cells), "|")
    for column in columns:
        for message, count in says[column].most_common(1):
            print(f"{column}: {message}" if count else "", end="\n" * bool(count))


def main():
    soft, hard = resource.getrlimit(resource.RLIMIT_NOFILE)
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    with tempfile.TemporaryDirectory() as directory:
        top = pathlib.Path(directory)
        make_files(top)
        results = run_all(top)
    if FULL:
        table(results)
    return tap.run((f"/hostile/{'/'.join(key).replace(' ', '-')}", functools.partial(show, outcomes))
                   for key, outcomes in results.items())


sys.exit(main())
