#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""keygen, listen and connect, each as a real process against another."""

import contextlib
import fcntl
import json
import os
import pathlib
import pty
import shutil
import signal
import socket
import stat
import struct
import subprocess
import termios
import time

from support import (
    PAIRS, SANITIZED, Process, Skip, case, each, frame, key, limit_memory, listening_address, main, run,
)


@case
def keygen_makes_a_key_that_only_the_owner_reads():
    run("keygen", "a")
    run("keygen", "b")
    first, second = pathlib.Path("a").read_bytes(), pathlib.Path("b").read_bytes()
    assert len(first) == len(second) == 32 and first != second
    assert stat.S_IMODE(os.stat("a").st_mode) == 0o600


@case
def keygen_overwrites_nothing():
    pathlib.Path("a").write_text("precious")
    run("keygen", "a", codes=(6,)).complained("a exists and is not overwritten")
    assert pathlib.Path("a").read_text() == "precious"
    run("keygen", "none/a", codes=(6,)).complained("cannot create none/a: No such file")


@case
def help_version_and_usage():
    assert run("--version").output.startswith(b"zelgvc ")
    overall = run("--help").output.decode()
    commands = "keygen listen connect send receive serve ping perf decode".split()
    for command in commands:
        assert f"  {command} " in overall
        assert f"zelgvc {command} [OPTION" in run(command, "--help").output.decode()
    run(codes=(2,)).complained("no command")
    run("dance", codes=(2,)).complained('no command "dance"')
    run("ping", codes=(2,)).complained("an argument is missing")
    run("ping", "a:1", "b", codes=(2,)).complained("too many arguments")
    # The shell expands a pattern to any name of a file.
    run("send", "a:1", "-\x1b[2J\n\u009b", codes=(2,)).complained("option -\\x1b[2J\\x0a\\xc2\\x9b;")
    run("ping", "a:1", "--key-length", "192", codes=(2,)).complained("128 or 256")
    for address in ("nowhere", "host:99999", "host:http", "::1:5000", "unix:"):
        run("ping", address, codes=(2,)).complained("an address is HOST:PORT")


@case
def a_bad_key_file_is_named():
    pathlib.Path("short").write_bytes(b"x" * 31)
    pathlib.Path("long").write_bytes(b"x" * 33)
    run("connect", "127.0.0.1:1", "--encrypt", "short", codes=(6,)).complained("less than 32 bytes")
    run("connect", "127.0.0.1:1", "--encrypt", "long", codes=(6,)).complained("more than 32 bytes")
    run("connect", "127.0.0.1:1", "--encrypt", "none", codes=(6,)).complained("none: No such file")


@case
def nobody_there():
    run("connect", "unix:none", codes=(3,)).complained("cannot connect to unix:none")
    with socket.socket() as unused:
        unused.bind(("127.0.0.1", 0))
        address = f"127.0.0.1:{unused.getsockname()[1]}"
        run("connect", address, codes=(3,)).complained(f"cannot connect to {address}")
        run("listen", address, codes=(3,)).complained(f"cannot listen on {address}")


@each(*PAIRS)
def lines_become_messages_and_messages_lines(kind, stages):
    key()
    there = "".join(f"line {i}\n" for i in range(500)).encode() + b"\n" + b"x" * 300000 + b"\n"
    back = b"first\n\nthird, and no end of line"
    with open("back", "wb") as file:
        file.write(back)
    with open("back", "rb") as file:
        listen = Process("listen", listening_address(kind), *stages, stdin=file)
    connect = run("connect", listen.address(), *stages, data=there)
    listen.wait()
    assert listen.output == there
    assert connect.output == back + b"\n"
    assert not listen.complaints and not connect.complaints


@case
def ipv6():
    listen = Process("listen", "[::1]:0")
    try:
        address = listen.address()
    except AssertionError:
        raise Skip("no IPv6 here") from None
    run("connect", address, data=b"six\n")
    assert listen.wait().output == b"six\n"


@case
def frames_on_the_wire_are_length_and_bytes():
    listen = Process("listen", "unix:socket")
    listen.address()
    peer = socket.socket(socket.AF_UNIX)
    peer.connect("socket")
    peer.sendall(b"\x05\0\0\0hello\0\0\0\0\x01\0\0\0x")
    peer.shutdown(socket.SHUT_WR)
    assert peer.recv(100) == b""
    listen.wait()
    assert listen.output == b"hello\n\nx\n"
    assert not os.path.exists("socket")


@case
def hex_lines():
    listen = Process("listen", "unix:socket", "--hex")
    run("connect", listen.address(), "--hex", data=b"00ff 0A\n\n7f\n")
    assert listen.wait().output == b"00ff0a\n\n7f\n"
    listen = Process("listen", "unix:socket", "--hex")
    bad = run("connect", listen.address(), "--hex", data=b"0g\n012\naa\n", codes=(1,))
    bad.complained("line 2 is not sent: an odd number", lines=2)
    assert listen.wait().output == b"aa\n"


@case
def variant_lines():
    options = ["--variant", "(sua{sv})"]
    value = b"('x y', uint32 7, {'k': <[1, 2]>})\n"
    listen = Process("listen", "unix:socket", *options)
    bad = run("connect", listen.address(), *options, data=value + b"(1, 2)\n" + value, codes=(1,))
    bad.complained("line 2 is not sent: no value of type (sua{sv})")
    assert listen.wait().output.replace(b"uint32 ", b"") == 2 * value.replace(b"uint32 ", b"")
    run("connect", "unix:socket", "--variant", "(s*", codes=(2,)).complained("no definite type")
    run("connect", "unix:socket", "--variant", "a*", codes=(2,)).complained("no definite type")


@case
def what_is_no_variant_is_reported_and_the_rest_goes_on():
    listen = Process("listen", "unix:socket", "--variant", "s")
    run("connect", listen.address(), "--hex", data=b"ff\n686900\n")
    listen.wait(1).complained("a message of 1 bytes is no value of type s")
    assert listen.output == b"'hi'\n"


@case
def strings_with_a_terminator():
    for terminator, byte in ((";", b";"), ("\\0", b"\0"), ("\\xfe", b"\xfe")):
        listen = Process("listen", "unix:socket", "--strings", terminator)
        listen.address()
        peer = socket.socket(socket.AF_UNIX)
        peer.connect("socket")
        peer.sendall(b"one" + byte + byte + b"x" * 5000 + byte)
        peer.shutdown(socket.SHUT_WR)
        assert listen.wait().output == b"one\n\n" + b"x" * 5000 + b"\n"
        peer.close()
    listen = Process("listen", "unix:socket", "--strings", ";")
    bad = run("connect", listen.address(), "--strings", ";", data=b"a;b\nc\n", codes=(1,))
    bad.complained("line 1 is not sent: the terminator cannot be part of a string")
    assert listen.wait().output == b"c\n"


@each(*PAIRS)
def strings_through_stages(kind, stages):
    key()
    listen = Process("listen", listening_address(kind), *stages, "--strings", "\\0")
    run("connect", listen.address(), *stages, "--strings", "\\0", data=b"one\ntwo\n" * 20)
    assert listen.wait().output == b"one\ntwo\n" * 20


@case
def json_objects():
    listen = Process("listen", "unix:socket", "--json")
    run("connect", listen.address(), "--hex", data=b"6869\nff22\n\n")
    found = [json.loads(line) for line in listen.wait().output.splitlines()]
    assert found == [
        {"size": 2, "text": "hi"},
        {"size": 2, "hex": "ff22"},
        {"size": 0, "text": ""},
    ], found


@case
def json_holds_nothing_that_controls_a_terminal_or_ends_a_line():
    text = "\x1b[2J\x7f\x9b2J\x9d0;title\x07\u2028\u2029\u202e\u2066\U000e0001 \u00e9\U0001f600"
    for end, options, name in (("", [], "text"), ("\0", ["--variant", "s"], "variant")):
        listen = Process("listen", "unix:socket", "--json", *options)
        line = (text + end).encode().hex() + "\n"
        run("connect", listen.address(), "--hex", data=line.encode())
        shown = listen.wait().output.decode().removesuffix("\n")
        assert shown.isprintable() and "\u00e9\U0001f600" in shown, shown.encode()
        assert name == "variant" or json.loads(shown)[name] == text


def gone(pid):
    """Whether a process has ended, as far as a process that is not its parent can tell."""
    try:
        return pathlib.Path(f"/proc/{pid}/stat").read_text().rpartition(")")[2].split()[0] == "Z"
    except FileNotFoundError:
        return True


@case
def an_interrupt_ends_the_command_and_its_children():
    command = "sleep 1000 & echo $$ $! > pids; wait"
    for number, code in ((signal.SIGTERM, 143), (signal.SIGKILL, -9)):
        listen = Process("listen", "unix:socket", "--exec", command)
        peer = call(listen)
        peer.sendall(b"\x01\0\0\0a")
        listen.until(lambda: os.path.exists("pids") and os.path.getsize("pids"), "command")
        shell, child = pathlib.Path("pids").read_text().split()
        listen.kill(number)
        listen.wait(code)
        listen.until(lambda: gone(shell), "end of the command")
        if number == signal.SIGTERM:
            listen.until(lambda: gone(child), "end of its child")
        else:
            # Nobody is left to tell the child of a command that a signal has ended.
            os.kill(int(child), signal.SIGKILL)
        os.unlink("pids")
        pathlib.Path("socket").unlink(missing_ok=True)


@each(*PAIRS)
def exec_answers_each_message(kind, stages):
    key()
    listen = Process("listen", listening_address(kind), *stages, "--exec", "tr a-z A-Z; echo done")
    connect = Process("connect", listen.address(), *stages, stdin=subprocess.PIPE)
    connect.popen.stdin.write(b"one\n")
    connect.popen.stdin.flush()
    connect.until(lambda: connect.output == b"ONE\ndone\n", "answer")
    connect.popen.stdin.write(b"two\n")
    connect.popen.stdin.close()
    connect.wait()
    listen.wait()
    assert connect.output == b"ONE\ndone\nTWO\ndone\n"


@case
def exec_answers_whatever_a_command_leaves_unread():
    listen = Process("listen", "unix:socket", "--keep", "--exec", "echo hi")
    assert run("connect", listen.address(), data=b"x\n" * 300).output == b"hi\n" * 300
    listen.kill(signal.SIGTERM)


@case
def a_command_that_reads_nothing_may_finish():
    command = "exec <&-; sleep 1; touch finished"
    listen = Process("listen", "unix:socket", "--keep", "--exec", command)
    run("connect", listen.address(), data=b"x" * 300000 + b"\n")
    listen.until(lambda: os.path.exists("finished"), "end of the command")
    listen.kill(signal.SIGTERM)
    listen.wait(0)


@case
def exec_sends_no_more_than_the_limit():
    listen = Process("listen", "unix:socket", "--limit", "5", "--exec", "read a; echo $a$a", "--keep")
    assert run("connect", listen.address(), data=b"ab\nabc\n").output == b"abab\n"
    listen.until(lambda: listen.complaints, "complaint")
    listen.complained("it has more than 5 bytes")
    listen.kill(signal.SIGINT)
    listen.wait(0)


@case
def a_command_that_prints_without_end_is_stopped_at_the_limit():
    command = "read a; if [ $a = endless ]; then echo $$ > pid; exec yes; fi; echo $a"
    listen = Process("listen", "unix:socket", "--limit", "1000", "--exec", command, "--keep")
    assert run("connect", listen.address(), data=b"endless\nnext\n").output == b"next\n"
    listen.complained("the command's output cannot be sent: it has more than 1000 bytes")
    listen.until(lambda: gone(int(pathlib.Path("pid").read_text())), "end of the command")
    listen.look_at_memory()
    listen.used_at_most(32 * 1024)
    listen.kill(signal.SIGINT)
    listen.wait(0)


@case
def keep_serves_one_peer_after_another():
    listen = Process("listen", "unix:socket", "--keep")
    for text in (b"one\n", b"two\n", b"three\n"):
        run("connect", listen.address(), data=text)
    # A peer that speaks something else does not end it.
    peer = socket.socket(socket.AF_UNIX)
    peer.connect("socket")
    peer.sendall(b"GET / HTTP/1.0\r\n\r\n")
    peer.close()
    listen.until(lambda: listen.complaints, "complaint")
    run("connect", listen.address(), data=b"four\n")
    listen.until(lambda: listen.output == b"one\ntwo\nthree\nfour\n", "last line")
    listen.kill(signal.SIGINT)
    listen.wait(0)


def block(size, payload):
    return struct.pack("<II", len(payload), size) + payload


LARGE = 40 << 20
BEYOND_MEMORY = (
    # The stack of a thread takes 8 MiB.
    ("thread", [], 1, frame(b"")),
    ("message", [], 16, frame(bytes(LARGE))),
    ("string", ["--strings", "\\n"], 16, bytes(LARGE)),
    # The text of a variant or in JSON is longer than the message.
    ("variant", ["--variant", "s"], 20, frame(b"\1" * (4 << 20) + b"\0")),
    ("json", ["--json"], 28, frame(b"\1" * (4 << 20))),
    # 40 MiB of literals, and a literal that is repeated as often.
    ("block", ["--compress"], 16,
     block(LARGE, bytes((LARGE - 19) // 255 + 1) + bytes([(LARGE - 19) % 255 + 1]) + bytes(LARGE))),
    ("content-of-a-block", ["--compress"], 16,
     block(LARGE, b"\x12A\x20" + bytes(LARGE // 255 - 1) + b"\x01\0\0\x11\0\0")),
)


@each(*BEYOND_MEMORY)
def a_peer_that_needs_too_much_memory_does_not_end_the_service(options, more, data):
    if SANITIZED:
        raise Skip("a sanitizer needs more address space")
    listen = Process("listen", "unix:socket", "--keep", *options)
    listen.address()
    limit_memory(listen, more)
    with call(listen) as peer:
        with contextlib.suppress(OSError):
            peer.sendall(data)
        listen.until(lambda: listen.complaints, "complaint")
        listen.complained("the system refuses memory or a thread for a peer")
    limit_memory(listen, None)
    run("connect", listen.address(), *options, data=b"'next'\n")
    listen.until(lambda: b"'next'" in listen.output, "next peer")
    listen.kill(signal.SIGTERM)
    listen.wait(0)


@case
def a_command_that_prints_too_much_for_the_memory_is_stopped():
    if SANITIZED:
        raise Skip("a sanitizer needs more address space")
    command = "sleep 1000 & echo $! > pid; head -c 60000000 /dev/zero; wait"
    listen = Process("listen", "unix:socket", "--keep", "--exec", command)
    listen.address()
    limit_memory(listen, 12)
    with call(listen) as peer:
        peer.sendall(frame(b"x"))
        listen.until(lambda: listen.complaints, "complaint")
    listen.complained("the system refuses memory or a thread for a peer")
    listen.until(lambda: gone(int(pathlib.Path("pid").read_text())), "end of the command")


@case
def the_first_command_needs_no_more_threads_than_the_others():
    if SANITIZED:
        raise Skip("a sanitizer needs more address space")
    listen = Process("listen", "unix:socket", "--exec", "cat")
    listen.address()
    limit_memory(listen, 12)
    assert run("connect", "unix:socket", data=b"x\n").output == b"x\n"
    listen.wait(0)


@case
def both_directions_at_once_do_not_block_each_other():
    big = b"y" * 3000000 + b"\n"
    with open("big", "wb") as file:
        file.write(big * 8)
    with open("big", "rb") as one, open("big", "rb") as other:
        listen = Process("listen", "127.0.0.1:0", "--compress", stdin=one)
        connect = Process("connect", listen.address(), "--compress", stdin=other)
    listen.wait()
    connect.wait()
    assert listen.output == connect.output == big * 8


@case
def output_closed_early_is_no_error():
    reader, writer = os.pipe()
    listen = Process("listen", "unix:socket", stdout=writer)
    os.close(writer)
    listen.address()
    peer = socket.socket(socket.AF_UNIX)
    peer.connect("socket")
    peer.sendall(b"\x01\0\0\0a")
    assert os.read(reader, 10) == b"a\n"
    os.close(reader)
    peer.sendall(b"\x01\0\0\0b")
    listen.wait(0)
    assert not listen.complaints


@case
def a_full_disk_under_standard_output_is_named():
    with open("/dev/full", "wb") as full:
        listen = Process("listen", "unix:socket", stdout=full)
        run("connect", listen.address(), data=b"x\n", codes=(0, 4))
        listen.wait(6).complained("cannot write to standard output: ")
        assert "No space left" in listen.errors
        for help_ in (["--help"], ["--version"], ["ping", "--help"]):
            Process(*help_, stdout=full).wait(6).complained("No space left")


@case
def a_command_may_have_any_bytes():
    for locale in ("C", "C.UTF-8"):
        command = os.fsdecode(b"read a; printf '%s' '\xc3\xa9 \xff'")
        listen = Process("listen", "unix:socket", "--exec", command, environment={"LC_ALL": locale})
        assert run("connect", listen.address(), data=b"x\n").output == b"\xc3\xa9 \xff\n"
        listen.wait()


@case
def the_wrong_end_of_a_pipe_is_not_waited_for():
    reader, writer = os.pipe()
    Process("--version", stdout=reader).wait(6).complained("standard output: Bad file descriptor")
    Process("decode", stdin=writer).wait(6).complained("standard input: Bad file descriptor")


def call(listen):
    """A peer of our own."""
    listen.address()
    peer = socket.socket(socket.AF_UNIX)
    peer.connect("socket")
    return peer


def cut_off(data, *options):
    listen = Process("listen", "unix:socket", *options)
    peer = call(listen)
    peer.sendall(data)
    peer.close()
    return listen


def stuck(*options, **more):
    """Listens, and is in the middle of a message that its peer does not take. Only the peer that is
    returned is left to end that."""
    pathlib.Path("long").write_bytes(b"x" * 5000000)
    with open("long", "rb") as file:
        listen = Process("listen", "unix:socket", *options, stdin=file, **more)
    peer = call(listen)
    assert peer.recv(4) == struct.pack("<i", 5000000)
    return listen, peer


LIE = struct.pack("<i", -1)  # announces a message that is too long


@case
def a_peer_that_breaks_the_protocol_is_not_waited_for():
    listen, peer = stuck()
    peer.sendall(LIE)
    listen.wait(5).complained("cannot be understood")


def serves_the_next(listen):
    run("connect", listen.address(), data=b"next\n")
    listen.until(lambda: listen.output == b"next\n", "next peer")
    listen.kill(signal.SIGTERM)
    listen.wait(0)


@case
def a_peer_that_breaks_the_protocol_does_not_keep_others_waiting():
    listen, peer = stuck("--keep")
    peer.sendall(LIE)
    listen.until(lambda: listen.complaints, "complaint")
    serves_the_next(listen)


@case
def a_reader_that_has_gone_does_not_wait_for_the_peer():
    reader, writer = os.pipe()
    listen, peer = stuck(stdout=writer)
    os.close(writer)
    os.close(reader)
    peer.sendall(b"\x01\0\0\0a")
    listen.wait(0)
    assert not listen.complaints


@case
def a_stuck_reader_does_not_stop_what_is_sent():
    reader, writer = os.pipe()
    listen = Process("listen", "unix:socket", stdin=subprocess.PIPE, stdout=writer)
    os.close(writer)
    peer = call(listen)
    peer.sendall(struct.pack("<i", 1000000) + b"y" * 1000000)
    listen.until(lambda: fionread(reader) > 0, "beginning of the message")
    listen.popen.stdin.write(b"the other direction\n")
    listen.popen.stdin.close()
    listen.until(lambda: fionread(peer) == 4 + 19, "the other direction")
    peer.shutdown(socket.SHUT_WR)
    with open(reader, "rb") as file:
        assert file.read() == b"y" * 1000000 + b"\n"
    listen.wait(0)


def fionread(fd):
    return struct.unpack("i", fcntl.ioctl(fd, termios.FIONREAD, bytes(4)))[0]


@case
def a_silent_peer_is_given_up_after_the_timeout():
    listen = Process("listen", "unix:socket", "--keep", "--limit", "1000", "--timeout", "1")
    with call(listen):
        listen.until(lambda: listen.complaints, "complaint")
        listen.complained("has sent nothing for 1 seconds")
    with call(listen) as peer, contextlib.suppress(OSError):
        peer.sendall(struct.pack("<i", 1000))
        for _ in range(100):
            peer.sendall(b".")
            time.sleep(0.2)
    listen.complained("took too long to send a message", lines=2)
    serves_the_next(listen)


@case
def a_timeout_of_the_system_is_told_as_the_system_tells_it():
    if not shutil.which("strace"):
        raise Skip("no strace")
    if SANITIZED:
        raise Skip("strace and a sanitizer's leak check do not go together")
    for call_name, data in (("recvfrom", b""), ("sendto,sendmsg", b"line\n")):
        with open("line", "wb") as file:
            file.write(data)
        fault = ["-e", f"trace={call_name}", "-e", f"inject={call_name}:error=ETIMEDOUT"]
        with open("line", "rb") as file:
            listen = Process("listen", "unix:socket", stdin=file,
                             under=["strace", "-f", "-o", "/dev/null", *fault])
        with call(listen):
            listen.wait(4).complained("went away")
        assert "seconds" not in listen.errors


@case
def a_silent_server_is_given_up_after_the_timeout():
    with socket.create_server(("127.0.0.1", 0)) as server:
        address = f"127.0.0.1:{server.getsockname()[1]}"
        run("connect", address, "--timeout", "1", codes=(4,)).complained("has sent nothing for 1")


@case
def a_peer_that_takes_nothing_is_given_up_after_the_timeout():
    listen, peer = stuck("--timeout", "1")
    listen.wait(4).complained("has taken nothing for 1 seconds")
    peer.close()


@case
def a_peer_that_takes_a_message_may_be_silent_longer_than_the_timeout():
    listen, peer = stuck("--timeout", "2")
    for _ in range(50):
        assert len(peer.recv(100000, socket.MSG_WAITALL)) == 100000, listen.errors
        time.sleep(0.1)
    peer.shutdown(socket.SHUT_WR)
    listen.wait(0)
    assert not listen.complaints


@case
def a_peer_that_takes_what_the_system_keeps_may_be_silent_longer_than_the_timeout():
    size = 150000
    pathlib.Path("line").write_bytes(b"x" * size)
    with open("line", "rb") as file:
        listen = Process("listen", "unix:socket", "--timeout", "2", stdin=file)
    with call(listen) as peer:
        for _ in range(20):
            assert len(peer.recv(size // 20, socket.MSG_WAITALL)) == size // 20
            time.sleep(0.2)
        peer.shutdown(socket.SHUT_WR)
        listen.wait(0)


@case
def a_peer_gone_in_the_middle_is_named_and_what_was_complete_is_printed():
    for cut in (b"\x05\0", b"\x05\0\0\0", b"\x05\0\0\0hel"):
        listen = cut_off(b"\x02\0\0\0ok" + cut)
        listen.wait(4).complained("went away in the middle of a message")
        assert listen.output == b"ok\n"
    listen = cut_off(b"ok;hel", "--strings", ";")
    listen.wait(4).complained("went away in the middle of a string")
    assert listen.output == b"ok\n"


@case
def a_stage_cut_off_in_the_middle_is_named():
    key()
    for cut in (1, 8, 23, 25, 32, 40):
        listen = cut_off((bytes(24) + struct.pack("<Q", 32) + bytes(32))[:cut], "--encrypt", "key")
        listen.wait(4).complained("went away in the middle of a message")
    block = struct.pack("<II", 8, 4) + b"\x15\x02\0\0\0\x11\0\0"
    for cut in (1, 7, 8, 15):
        listen = cut_off(block[:cut], "--compress")
        listen.wait(4).complained("went away in the middle of a message")
    listen = cut_off(block, "--compress")
    listen.wait(4).complained("went away in the middle of a message")


@case
def a_wrong_key_or_something_else_is_named():
    key("key", 1)
    key("other", 2)
    for one, other in (
        (["--encrypt", "key"], ["--encrypt", "other"]),
        (["--encrypt", "key"], ["--encrypt", "key", "--key-length", "128"]),
        (["--encrypt", "key"], []),
        (["--compress"], ["--encrypt", "key"]),
        (["--compress"], []),
        (["--compress", "--encrypt", "key"], ["--encrypt", "key", "--compress"]),
    ):
        listen = Process("listen", "unix:socket", *one)
        run("connect", listen.address(), *other, data=b"hello, hello\n" * 20, codes=(0, 4))
        listen.wait(5).complained("another key or other stages")
        assert listen.output == b""
    listen = cut_off(b"SSH-2.0-OpenSSH_9.2\r\n")
    listen.wait(5).complained("cannot be understood (a message of ")


@case
def a_message_over_the_limit_takes_no_memory():
    data = struct.pack("<i", 100 * 2**20) + bytes(50 * 2**20)
    free = Process("listen", "unix:socket", "--limit", str(2**30))
    free.address()
    peer = socket.socket(socket.AF_UNIX)
    peer.connect("socket")
    peer.sendall(data)
    free.until(lambda: free.look_at_memory() or free.peak > 40 * 1024, "memory in use")
    free.kill()
    peer.close()

    listen = Process("listen", "unix:socket", "--limit", "1000")
    listen.address()
    peer = socket.socket(socket.AF_UNIX)
    peer.connect("socket")
    try:
        peer.sendall(data)
    except OSError:
        pass
    listen.wait(5).complained("where at most 1000 are expected")
    listen.used_at_most(32 * 1024)


@case
def a_string_over_the_limit_ends_the_talk():
    listen = Process("listen", "unix:socket", "--strings", "\\n", "--limit", "1000")
    listen.address()
    with socket.socket(socket.AF_UNIX) as peer:
        peer.connect("socket")
        peer.sendall(b"x" * 1000 + b"\n" + b"y" * 1001)
        listen.wait(5).complained("a string has more than 1000 bytes before its terminator")
    assert listen.output == b"x" * 1000 + b"\n"


@case
def an_interrupt_ends_both_sides_cleanly():
    listen = Process("listen", "unix:socket")
    listen.address()
    listen.kill(signal.SIGINT)
    listen.wait(130)
    assert not os.path.exists("socket")
    listen = Process("listen", "unix:socket", stdin=subprocess.PIPE)
    connect = Process("connect", listen.address(), stdin=subprocess.PIPE)
    connect.popen.stdin.write(b"complete\n")
    connect.popen.stdin.flush()
    listen.until(lambda: listen.output == b"complete\n", "line")
    connect.kill(signal.SIGTERM)
    connect.wait(143)
    listen.popen.stdin.close()
    listen.wait()
    assert listen.output == b"complete\n"


@case
def an_interrupt_that_is_ignored_from_the_start_stays_so():
    listen = Process(
        "listen", "unix:socket", before=lambda: signal.signal(signal.SIGINT, signal.SIG_IGN)
    )
    listen.address()
    listen.kill(signal.SIGINT)
    run("connect", "unix:socket", data=b"still here\n")
    assert listen.wait().output == b"still here\n"


@case
def an_interrupt_ends_the_wait_for_a_key():
    os.mkfifo("pipe")
    connect = Process("connect", "unix:none", "--encrypt", "pipe")
    connect.until(lambda: sleeping(connect), "wait")
    connect.kill(signal.SIGINT)
    connect.wait(130).complained("interrupted")
    # A pipe holds a key as a file does.
    writer = subprocess.Popen(["sh", "-c", "printf %032d 0 > pipe"])
    run("connect", "unix:none", "--encrypt", "pipe", codes=(3,)).complained("cannot connect")
    writer.wait()


def sleeping(process):
    """Whether the program waits, all its threads."""
    tasks = pathlib.Path(f"/proc/{process.popen.pid}/task").glob("*/stat")
    states = [task.read_text().rpartition(")")[2].split()[0] for task in tasks]
    return len(states) > 1 and set(states) == {"S"}


@case
def a_line_over_the_limit_is_not_sent_and_takes_no_memory():
    listen = Process("listen", "unix:socket")
    lines = b"x" * 1000 + b"\n" + b"y" * 30000000 + b"\nz\n" + b"y" * 1001
    connect = run("connect", listen.address(), "--limit", "1000", data=lines, codes=(1,))
    connect.complained("line 4 is not sent: it has more than 1000 bytes", lines=2)
    connect.used_at_most(32 * 1024)
    assert listen.wait().output == b"x" * 1000 + b"\nz\n"
    # A digit counts less than its value.
    listen = Process("listen", "unix:socket", "--hex")
    run("connect", listen.address(), "--hex", "--limit", "1000", data=b"7a" * 1000 + b"\n")
    assert listen.wait().output == b"7a" * 1000 + b"\n"
    with open("/dev/zero", "rb") as zero:
        listen = Process("listen", "unix:socket")
        connect = Process("connect", listen.address(), "--limit", "1000000", stdin=zero)
    connect.until(lambda: connect.complaints, "complaint")
    connect.look_at_memory()
    connect.kill(signal.SIGINT)
    connect.wait(130)
    connect.used_at_most(32 * 1024)


@case
def a_socket_left_behind_is_replaced_and_a_file_is_not():
    dead = socket.socket(socket.AF_UNIX)
    dead.bind("socket")
    dead.close()
    listen = Process("listen", "unix:socket")
    run("connect", listen.address(), data=b"x\n")
    listen.wait()
    # A socket that is in use stays in use.
    first = Process("listen", "unix:socket")
    run("listen", first.address(), codes=(3,)).complained("cannot listen on unix:socket")
    run("connect", "unix:socket", data=b"y\n")
    first.wait()
    assert first.output == b"y\n"
    pathlib.Path("file").write_text("precious")
    run("listen", "unix:file", codes=(3,)).complained("cannot listen on unix:file")
    assert pathlib.Path("file").read_text() == "precious"


@case
def a_file_in_the_place_of_the_socket_stays():
    for number, code in ((signal.SIGTERM, 143), (None, 0)):
        listen = Process("listen", "unix:socket")
        listen.address()
        os.rename("socket", "moved")
        pathlib.Path("socket").write_text("precious")
        if number:
            listen.kill(number)
        else:
            run("connect", "unix:moved", data=b"x\n")
        listen.wait(code)
        assert pathlib.Path("socket").read_text() == "precious"
        os.unlink("socket")


@case
def a_terminal_is_not_controlled_by_the_peer():
    master, slave = pty.openpty()
    listen = Process("listen", "unix:socket", stdout=slave)
    os.close(slave)
    run("connect", listen.address(), data=b"\x1b[2Jred\n")
    listen.wait()
    assert os.read(master, 100) == b"\\x1b[2Jred\r\n"
    os.close(master)


main()
