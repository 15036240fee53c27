#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""send and receive, each as a real process against the other."""

import contextlib
import fcntl
import hashlib
import json
import os
import pathlib
import random
import resource
import shutil
import signal
import socket
import stat
import struct
import subprocess
import time

from support import (
    PAIRS, SANITIZED, STAGES, Peer, Process, Skip, case, each, frame, key, listening_address, main, run,
)

MEMORY = 64 * 1024  # KiB


def content(size, seed=1):
    """Half of it compresses well, half of it not at all."""
    generator = random.Random(seed)
    text = b"".join(b"%d bottles of beer\n" % generator.randrange(100) for _ in range(size // 30))
    return (text + generator.randbytes(max(0, size - len(text))))[:size]


def receiver(kind="unix", *options, **more):
    os.makedirs("in", exist_ok=True)
    return Process("receive", listening_address(kind), "in", *options, **more)


def parts():
    return [name for name in os.listdir("in") if name.endswith(".zelgvc-part")]


def growing():
    """Whether something of a file has arrived. A part without content may belong to a sender that
    has not been told to begin yet."""
    return any(os.path.getsize(f"in/{name}") > 0 for name in parts())


@each(*PAIRS)
def files_arrive_with_name_mode_and_time(kind, stages):
    key()
    files = {"empty": b"", "one": b"x", "zeros": bytes(2000000), "mixed": content(3000001)}
    for number, (name, data) in enumerate(files.items()):
        pathlib.Path(name).write_bytes(data)
        os.chmod(name, 0o640 + number)
        os.utime(name, ns=(1, 10**18 + 123456789 * number))
    receive = receiver(kind, *stages)
    run("send", receive.address(), *stages, *files)
    receive.wait()
    for name, data in files.items():
        arrived = pathlib.Path("in", name)
        assert arrived.read_bytes() == data, name
        here, there = os.stat(name), os.stat(arrived)
        assert here.st_mode == there.st_mode and here.st_mtime_ns == there.st_mtime_ns
    assert sorted(os.listdir("in")) == sorted(files)


@each(*((name, STAGES[name]) for name in ("plain", "compress-encrypt-256")))
def three_gib_in_constant_memory(stages):
    if shutil.disk_usage(".").free < 2**30:
        raise Skip("too little space")
    key()
    # The sanitizers are slow, and of the size itself they see enough beyond 2 GiB.
    size = 3 * 2**30 if not SANITIZED else 2**31 + 2**20
    with open("sparse", "wb") as file:
        file.truncate(size)
        for at in (0, 2**31 - 5, 2**31 + 7, size - 10):
            file.seek(at)
            file.write(b"0123456789")
    receive = receiver("tcp", *stages)
    send = Process("send", receive.address(), *stages, "sparse").wait(beside=receive)
    receive.wait()
    send.used_at_most(MEMORY)
    receive.used_at_most(MEMORY)
    assert os.stat("in/sparse").st_size == size
    # It is still sparse.
    assert os.stat("in/sparse").st_blocks * 512 < 2**26
    with open("in/sparse", "rb") as file:
        for at in (0, 2**31 - 5, 2**31 + 7, size - 10):
            file.seek(at)
            assert file.read(10) == b"0123456789"
        file.seek(2**30)
        assert file.read(2**20) == bytes(2**20)


@case
def odd_names():
    names = ["with blank", "new\nline\u2028", "\x1b[31m", "-dash", "üñí", "*", "a" * 255, ".hidden"]
    names.append("'\"")
    paths = [os.fsencode(name) for name in names] + [b"\xff\xfe no utf-8"]
    os.mkdir("out")
    for number, path in enumerate(paths):
        with open(b"out/" + path, "wb") as file:
            file.write(b"%d" % number)
    receive = receiver()
    send = run("send", receive.address(), "--", *(os.fsdecode(b"out/" + path) for path in paths))
    receive.wait()
    for number, path in enumerate(paths):
        with open(b"in/" + path, "rb") as file:
            assert file.read() == b"%d" % number
    for process in (send, receive):
        assert len(process.output.decode().splitlines()) == len(paths)
        assert b"\x1b" not in process.output and b"new\\x0aline" in process.output


@case
def names_that_would_leave_the_directory_are_refused():
    receive = receiver()
    peer = Peer(receive.address())
    names = [b"../evil", b"/tmp/evil", b"..", b".", b"", b"a/b", b"a\0b", b".x.zelgvc-part", b"n" * 256]
    for name in names:
        peer.send(name=name, size=1, mode=0o600)
        assert b"refused" in peer.receive(), name
    peer.send(name=b"good", size=2, mode=0o6755)
    assert b"have" in peer.receive()
    peer.send(offset=0)
    peer.socket.sendall(frame(b"ok"))
    peer.send(sha256=hashlib.sha256(b"ok").digest())
    assert b"stored" in peer.receive()
    peer.send(end=1)
    peer.receive()
    receive.wait(1)
    assert len(receive.complaints) == len(names), receive.errors
    assert os.listdir("in") == ["good"] and "evil" not in os.listdir(".")
    # Neither set-user-id nor set-group-id is for a peer to give.
    assert stat.S_IMODE(os.stat("in/good").st_mode) == 0o755


@case
def a_file_with_two_names_is_not_written():
    pathlib.Path("precious").write_text("precious")
    pathlib.Path("file").write_text("data")
    receive = receiver("unix", "--resume")
    os.link("precious", "in/.file.zelgvc-part")
    run("send", receive.address(), "file", codes=(1,)).complained("has another name, too")
    receive.wait(1)
    assert pathlib.Path("precious").read_text() == "precious" and not os.path.exists("in/file")


@case
def any_date_is_kept():
    # 2300 and 1906, as far as the file system knows them.
    for number, seconds in enumerate((10413792000, -2000000000)):
        pathlib.Path(f"file{number}").write_text("x")
        os.utime(f"file{number}", ns=(0, seconds * 10**9 + 987654321))
        if os.stat(f"file{number}").st_mtime_ns != seconds * 10**9 + 987654321:
            raise Skip("no such dates here")
    receive = receiver()
    run("send", receive.address(), "file0", "file1")
    receive.wait()
    for number in range(2):
        here, there = os.stat(f"file{number}"), os.stat(f"in/file{number}")
        assert here.st_mtime_ns == there.st_mtime_ns, there


@case
def a_date_that_cannot_be_is_no_reason_to_fail():
    receive = receiver()
    peer = Peer(receive.address())
    for number, nanoseconds in enumerate((10**9, 0x3FFFFFFF, 2**64 - 1)):
        for seconds in (-(2**63), 2**63 - 1):
            values = {"mtime": seconds, "mtime-nsec": nanoseconds}
            peer.send(name=b"file%d%d" % (number, seconds > 0), size=0, mode=0o600, **values)
            assert b"have" in peer.receive()
            peer.send(offset=0)
            peer.send(sha256=hashlib.sha256().digest())
            assert b"stored" in peer.receive()
    peer.send(end=1)
    peer.receive()
    receive.wait()


@case
def a_file_that_does_not_tell_its_size_is_refused():
    pathlib.Path("next").write_text("x")
    receive = receiver()
    send = run("send", receive.address(), "/proc/cpuinfo", "/proc/self/mem", "next", codes=(6,))
    assert "/proc/cpuinfo does not tell its size" in send.errors
    send.complained("cannot read /proc/self/mem: Input/output error", lines=2)
    receive.wait()
    assert os.listdir("in") == ["next"]


@case
def a_report_that_cannot_be_written_keeps_no_file_back():
    for name in ("a", "b"):
        pathlib.Path(name).write_text(name)
    with open("/dev/full", "wb") as full:
        receive = receiver("unix", stdout=full)
        send = Process("send", receive.address(), "a", "b", stdout=full).wait(6)
        receive.wait(6)
    assert sorted(os.listdir("in")) == ["a", "b"]
    for process, verb in ((send, "sent"), (receive, "received")):
        process.complained(f"{verb} b, but cannot write to standard output: No space left", lines=2)
        assert "kept" not in process.errors


@case
def a_limit_on_the_size_of_files_is_told_to_both_sides():
    pathlib.Path("small").write_text("x")
    pathlib.Path("big").write_bytes(content(300000))
    limit = lambda: resource.setrlimit(resource.RLIMIT_FSIZE, (100000, 100000))
    receive = receiver("unix", "--keep", before=limit)
    send = run("send", receive.address(), "big", codes=(1,))
    send.complained("gave up on big: cannot write .big.zelgvc-part: File too large")
    run("send", receive.address(), "small")
    receive.kill(signal.SIGINT)
    receive.wait(0).complained("File too large")
    assert sorted(os.listdir("in")) == [".big.zelgvc-part", "small"]


def drip(peer, data, seconds=0.2):
    """Sends a byte at a time until the other side has had enough. Whether it had."""
    for byte in data:
        try:
            peer.sendall(bytes([byte]))
        except OSError:
            return True
        time.sleep(seconds)
    return False


@case
def a_peer_that_drips_is_given_up():
    receive = receiver("unix", "--timeout", "1", "--keep")
    receive.address()
    with socket.socket(socket.AF_UNIX) as peer:
        peer.connect("socket")
        assert drip(peer, frame(Peer.hello(b"files")))
    receive.until(lambda: receive.complaints, "complaint")
    receive.complained("has not said hello within 1 seconds")
    peer = Peer("socket")
    announcement = frame(Peer.dictionary(name=b"n" * 100, size=1, mode=0o600))
    assert drip(peer.socket, announcement)
    receive.until(lambda: len(receive.complaints) > 1, "complaint")
    receive.complained("took too long to send a message", lines=2)
    # The next one is served.
    pathlib.Path("file").write_text("x")
    run("send", "unix:socket", "file")
    receive.kill(signal.SIGINT)
    receive.wait(0)


@case
def a_stuck_reader_of_reports_does_not_keep_an_interrupt_waiting():
    reader, writer = os.pipe()
    fcntl.fcntl(writer, fcntl.F_SETPIPE_SZ, 4096)
    os.write(writer, bytes(4096))
    pathlib.Path("file").write_text("x")
    receive = receiver("unix", "--keep", stdout=writer)
    run("send", receive.address(), "file", codes=(0, 4))
    receive.until(lambda: os.path.exists("in/file"), "file")
    receive.kill(signal.SIGINT)
    # A sanitizer looks for leaks at the end, which may take longer than an interrupt waits.
    receive.wait(0, *([130] if SANITIZED else []))
    os.close(reader)
    os.close(writer)


@case
def a_wrong_checksum_leaves_nothing():
    receive = receiver()
    peer = Peer(receive.address())
    peer.send(name=b"file", size=2, mode=0o600)
    peer.receive()
    peer.send(offset=0)
    peer.socket.sendall(frame(b"ok"))
    peer.send(sha256=hashlib.sha256(b"no").digest())
    assert b"failed" in peer.receive()
    peer.socket.close()
    receive.wait(5).complained("the checksum of what arrived is not the sender's")
    assert "kept" not in receive.errors
    assert os.listdir("in") == []


@case
def more_than_announced_is_refused():
    receive = receiver()
    peer = Peer(receive.address())
    peer.send(name=b"file", size=2, mode=0o600)
    peer.receive()
    peer.send(offset=0)
    peer.socket.sendall(frame(b"long"))
    assert b"failed" in peer.receive()
    peer.socket.close()
    receive.wait(5).complained("sends more than it announced")
    assert not os.path.exists("in/file")


@case
def another_version_or_service_is_named():
    receive = receiver()
    receive.address()
    sock = socket.socket(socket.AF_UNIX)
    sock.connect("socket")
    sock.sendall(frame(Peer.hello(b"files", version=2)))
    receive.wait(5).complained("speaks version 2 of the protocol, this program version 1")
    receive = receiver()
    run("ping", receive.address(), codes=(5,)).complained('refuses: "ping" is not what runs here')
    receive.wait(5).complained('wants "ping"')


@case
def an_existing_file_is_not_overwritten_without_force():
    pathlib.Path("a").write_text("new")
    pathlib.Path("b").write_text("other")
    receive = receiver()
    pathlib.Path("in/a").write_text("old")
    run("send", receive.address(), "a", "b", codes=(1,)).complained("a: it exists already")
    receive.wait(1).complained("refused a: it exists already")
    assert pathlib.Path("in/a").read_text() == "old" and pathlib.Path("in/b").read_text() == "other"
    receive = receiver("unix", "--force")
    run("send", receive.address(), "a")
    receive.wait()
    assert pathlib.Path("in/a").read_text() == "new" and parts() == []
    os.mkdir("in/dir")
    pathlib.Path("dir").write_text("x")
    receive = receiver("unix", "--force")
    run("send", receive.address(), "dir", codes=(1,)).complained("there is a directory")
    receive.wait(1)


@case
def a_file_that_cannot_be_read_does_not_keep_the_others_back():
    pathlib.Path("good").write_text("x")
    os.mkdir("directory")
    os.mkfifo("pipe")
    receive = receiver()
    send = run("send", receive.address(), "none", "directory", "pipe", "good", codes=(6,))
    receive.wait()
    assert "cannot read none: No such file" in send.complaints[0]
    assert "directory is a directory" in send.complaints[1]
    assert "pipe is no regular file" in send.complaints[2] and len(send.complaints) == 3
    assert os.listdir("in") == ["good"]


def as_nobody():
    os.setgroups([])
    os.setgid(65534)
    os.setuid(65534)


@case
def a_missing_permission_is_named():
    pathlib.Path("file").write_text("x")
    os.mkdir("in", 0o755)
    os.chmod(".", 0o777)
    os.chmod("file", 0o600)
    before = as_nobody if os.geteuid() == 0 else None
    if not before:
        os.chmod("in", 0o555)
        os.chmod("file", 0)
    program = [os.environ["ZELGVC"], "--version"]
    assert os.access(program[0], os.X_OK)
    try:
        subprocess.run(program, preexec_fn=before, capture_output=True, check=True)
    except (PermissionError, subprocess.CalledProcessError):
        # Below /root, say, where only root gets to the program.
        raise Skip("another user cannot run the program here") from None
    run("receive", "unix:socket", "in", codes=(6,), before=before).complained(
        "cannot store files in in: Permission denied"
    )
    run("receive", "unix:socket", "none", codes=(6,)).complained("No such file")
    os.mkdir("other")
    receive = Process("receive", "unix:socket", "other")
    address = receive.address()
    os.chmod("socket", 0o777)
    run("send", address, "file", codes=(6,), before=before).complained(
        "cannot read file: Permission denied"
    )
    receive.wait()


@case
def a_full_disk_is_told_to_both_sides():
    os.mkdir("in")
    mount = ["mount", "-t", "tmpfs", "-o", "size=1m", "tmpfs", "in"]
    if subprocess.run(mount, capture_output=True).returncode:
        raise Skip("no right to mount a small tmpfs")
    try:
        pathlib.Path("small").write_bytes(content(100000, 5))
        pathlib.Path("file").write_bytes(content(8000000))
        receive = receiver("tcp")
        send = run("send", receive.address(), "small", "file", codes=(1,))
        send.complained("gave up on file: cannot write .file.zelgvc-part: No space left on device")
        receive.wait(6).complained("cannot write .file.zelgvc-part: No space left on device")
        # Complete files are there.
        assert pathlib.Path("in/small").read_bytes() == content(100000, 5)
        assert not os.path.exists("in/file")
    finally:
        subprocess.run(["umount", "in"], check=True)


class Slow:
    """A relay that stops after so many bytes in the direction of the receiver, so that a test can
    act in the middle of a transfer, whatever the speed of the machine."""

    def __init__(self, target, stop):
        self.server = socket.socket(socket.AF_UNIX)
        self.server.bind("relay")
        self.server.listen(1)
        self.pid = os.fork()
        if self.pid == 0:
            try:
                self.relay(target, stop)
            finally:
                os._exit(0)
        self.server.close()
        self.address = "unix:relay"

    def relay(self, target, stop):
        import select

        near, _ = self.server.accept()
        far = socket.socket(socket.AF_UNIX)
        far.connect(target.removeprefix("unix:"))
        passed = 0
        # The two ends live as long as the processes there: when one goes, so does the other.
        while True:
            waiting = [far] + ([near] if passed < stop else [])
            for ready in select.select(waiting, [], [])[0]:
                other = far if ready is near else near
                try:
                    data = ready.recv(min(65536, stop - passed) if ready is near else 65536)
                    if not data:
                        return
                    other.sendall(data)
                except OSError:
                    return
                passed += len(data) if ready is near else 0

    def end(self):
        try:
            os.kill(self.pid, signal.SIGKILL)
        except ProcessLookupError:
            pass
        os.waitpid(self.pid, 0)
        os.unlink("relay")


RESUMED = [
    (f"{who}/{name}", who, STAGES[name])
    for who in ("sender", "receiver")
    for name in ("plain", "compress", "encrypt-256", "compress-encrypt-256")
]


@each(*RESUMED)
def kill_9_in_the_middle_and_resume(who, stages):
    key()
    data = content(20000000, 3)
    pathlib.Path("file").write_bytes(data)
    receive = receiver("unix", *stages)
    relay = Slow(receive.address(), 5000000)
    send = Process("send", relay.address, *stages, "file")
    part = "in/.file.zelgvc-part"
    receive.until(
        lambda: os.path.exists(part) and os.stat(part).st_size > 3000000, "part of the file"
    )
    if who == "sender":
        send.kill()
        send.wait(-9)
        relay.end()
        receive.wait(4).complained("the peer went away in the middle")
        assert "--resume goes on there" in receive.errors
    else:
        receive.kill()
        receive.wait(-9)
        send.wait(4).complained("the peer went away in the middle")
        relay.end()
    assert os.listdir("in") == [".file.zelgvc-part"]
    have = os.stat(part).st_size

    receive = receiver("unix", "--resume", "--json", *stages)
    run("send", receive.address(), *stages, "file")
    receive.wait()
    report = json.loads(receive.output)
    assert report["resumed-at"] == have and report["sha256"] == hashlib.sha256(data).hexdigest()
    assert pathlib.Path("in/file").read_bytes() == data and parts() == []


@case
def resume_sends_all_where_the_beginning_differs():
    data = content(3000000, 3)
    for there in (b"other" * 1000, data + b"too long"):
        pathlib.Path("file").write_bytes(data)
        receive = receiver("unix", "--force", "--json")
        pathlib.Path("in/.file.zelgvc-part").write_bytes(there)
        # It is enough that the sender asks for it.
        run("send", receive.address(), "--resume", "file")
        receive.wait()
        assert json.loads(receive.output)["resumed-at"] == 0
        assert pathlib.Path("in/file").read_bytes() == data and parts() == []
    receive = receiver("unix", "--force", "--json")
    pathlib.Path("in/.file.zelgvc-part").write_bytes(data[:1000])
    run("send", receive.address(), "file")
    receive.wait()
    assert json.loads(receive.output)["resumed-at"] == 0


def interrupted(who, number, code):
    pathlib.Path("file").write_bytes(content(8000000))
    receive = receiver()
    relay = Slow(receive.address(), 2000000) if who == "receiver" else None
    if relay:
        send = Process("send", relay.address, "file")
        receive.until(lambda: parts() and os.stat("in/" + parts()[0]).st_size > 1000000, "part")
        receive.kill(number)
        receive.wait(code).complained("interrupted")
        send.wait(1).complained("gave up on file: the receiver was interrupted")
        relay.end()
    else:
        # The receiver stops for a moment, so that the sender is caught in the middle.
        address = receive.address()
        receive.kill(signal.SIGSTOP)
        send = Process("send", address, "--json", "file")
        time.sleep(0.2)
        send.kill(number)
        time.sleep(0.1)
        receive.kill(signal.SIGCONT)
        send.wait(code)
        receive.wait(1, 4, 5)
    assert "file" not in os.listdir("in")


@case
def an_interrupted_receiver_tells_the_sender():
    interrupted("receiver", signal.SIGINT, 130)
    shutil.rmtree("in")
    interrupted("receiver", signal.SIGTERM, 143)


@case
def an_interrupted_sender_leaves_no_file():
    interrupted("sender", signal.SIGINT, 130)


@case
def an_interrupted_sender_tells_the_receiver():
    with open("file", "wb") as file:
        file.truncate(200 * 2**30)
    receive = receiver()
    send = Process("send", receive.address(), "file")
    receive.until(growing, "part of the file")
    send.kill(signal.SIGINT)
    send.wait(130).complained("interrupted while sending file")
    receive.wait(1, 4)
    assert "the sender gave up: the sender was interrupted" in receive.errors
    assert os.listdir("in") == [".file.zelgvc-part"]


@case
def a_file_that_shrinks_is_told_to_the_receiver_and_the_next_one_follows():
    with open("file", "wb") as file:
        file.truncate(200 * 2**30)
    pathlib.Path("next").write_text("x")
    receive = receiver()
    send = Process("send", receive.address(), "file", "next")
    receive.until(growing, "part of the file")
    os.truncate("file", 0)
    send.wait(6).complained("file became shorter while it was sent")
    receive.wait(1).complained("the sender gave up: file became shorter while it was sent")
    assert pathlib.Path("in/next").read_text() == "x" and not os.path.exists("in/file")


@case
def a_file_that_changes_while_it_is_sent_is_not_stored():
    for offset in (0, 3000000):
        pathlib.Path("file").write_bytes(content(3000000))
        with socket.socket(socket.AF_UNIX) as server:
            server.bind(f"socket{offset}")
            server.listen()
            send = Process("send", f"unix:socket{offset}", "file")
            peer = Peer.by(server)
        peer.receive()
        peer.send(have=0)
        assert b"offset" in peer.receive() and len(peer.receive()) == 2**18
        with open("file", "r+b") as file:
            file.seek(offset)
            file.write(b"new")
        while data := peer.receive():
            assert b"sha256" not in data
        assert b"file changed while it was sent" in peer.receive()
        assert b"end" in peer.receive()
        peer.send(end=1)
        send.wait(6).complained("file changed while it was sent")


@case
def two_transfers_of_one_file_do_not_mix():
    data = content(3000000)
    pathlib.Path("file").write_bytes(data)
    slow = receiver("unix")
    relay = Slow(slow.address(), 1000000)
    held = Process("send", relay.address, "file")
    slow.until(growing, "part of the file")
    second = receiver("tcp")
    run("send", second.address(), "file", codes=(1,)).complained("another transfer of it is going on")
    second.wait(1)
    held.kill()
    relay.end()
    slow.wait(4)


@case
def keep_serves_one_sender_after_another():
    receive = receiver("tcp", "--keep", "--json")
    for name in ("a", "b"):
        pathlib.Path(name).write_text(name)
        run("send", receive.address(), name)
    run("ping", receive.address(), codes=(5,))
    pathlib.Path("c").write_text("c")
    run("send", receive.address(), "c")
    receive.kill(signal.SIGINT)
    receive.wait()
    assert [json.loads(line)["name"] for line in receive.output.splitlines()] == ["a", "b", "c"]


@case
def a_wrong_key_is_noticed_by_both_sides():
    key("key", 1)
    key("other", 2)
    pathlib.Path("file").write_text("x")
    for one, other in (
        (["--encrypt", "key"], ["--encrypt", "other"]),
        (["--compress", "--encrypt", "key"], ["--compress", "--encrypt", "other"]),
        (["--encrypt", "key"], ["--encrypt", "key", "--key-length", "128"]),
        (["--encrypt", "key"], []),
        ([], ["--encrypt", "key"]),
        ([], ["--compress"]),
        (["--compress"], []),
        (["--compress"], ["--encrypt", "key"]),
    ):
        receive = receiver("tcp", *one)
        send = run("send", receive.address(), *other, "file", codes=(5,))
        send.complained("another key or other stages")
        receive.wait(5).complained("another key or other stages")
        assert os.listdir("in") == []


@case
def a_peer_that_speaks_something_else_is_named():
    pathlib.Path("file").write_text("x")
    for banner in (b"SSH-2.0-OpenSSH_9.2\r\n", b"HTTP/1.1 400 Bad Request\r\n\r\n", bytes(100), b""):
        server = socket.create_server(("127.0.0.1", 0))
        send = Process("send", f"127.0.0.1:{server.getsockname()[1]}", "file")
        peer = server.accept()[0]
        peer.sendall(banner)
        if not banner:
            peer.close()
        send.wait(5).complained("may speak something else")
        peer.close()
        server.close()


@case
def a_peer_that_keeps_silent_is_given_up():
    pathlib.Path("file").write_text("x")
    server = socket.create_server(("127.0.0.1", 0))
    address = f"127.0.0.1:{server.getsockname()[1]}"
    send = run("send", address, "file", "--timeout", "1", codes=(5,))
    send.complained("has not said hello within 1 seconds")
    receive = receiver("unix", "--timeout", "1")
    peer = Peer(receive.address())
    peer.send(name=b"file", size=2, mode=0o600)
    receive.wait(4).complained("has sent nothing for 1 seconds")
    server.close()


def say_busy(sock):
    """For as long as the other side listens, at most 20 seconds."""
    with contextlib.suppress(OSError):
        for _ in range(100):
            sock.sendall(frame(Peer.dictionary(busy=1)))
            time.sleep(0.2)


@case
def a_sender_that_is_busy_for_ever_keeps_no_other_waiting():
    pathlib.Path("next").write_text("next")
    receive = receiver("unix", "--keep", "--timeout", "1")
    peer = Peer(receive.address())
    peer.send(name=b"file", size=2, mode=0o600)
    say_busy(peer.socket)
    receive.complained("has been busy for too long")
    run("send", receive.address(), "next")
    receive.kill(signal.SIGTERM)
    receive.wait(0)


@case
def a_receiver_that_is_busy_for_ever_is_given_up():
    pathlib.Path("file").write_text("x")
    with socket.create_server(("127.0.0.1", 0)) as server:
        address = f"127.0.0.1:{server.getsockname()[1]}"
        send = Process("send", address, "file", "--timeout", "1")
        with server.accept()[0] as peer:
            hello = peer.recv(struct.unpack("<i", peer.recv(4))[0])
            peer.sendall(frame(hello))
            say_busy(peer)
        send.wait(4).complained("has been busy for too long")


main()
