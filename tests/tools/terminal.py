#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""The program on a terminal: sessions on a pseudo-terminal."""

import fcntl
import os
import pathlib
import pty
import re
import select
import struct
import subprocess
import termios
import time

from support import WATCHDOG, Process, case, main, run


class Terminal:
    def __init__(self, columns=100):
        self.master, self.slave = pty.openpty()
        fcntl.ioctl(self.slave, termios.TIOCSWINSZ, struct.pack("HHHH", 24, columns, 0, 0))
        self.seen = b""

    def collect(self, until):
        """Reads what the terminal shows until that holds."""
        deadline = time.monotonic() + WATCHDOG
        while not until():
            assert time.monotonic() < deadline, self.seen
            if select.select([self.master], [], [], 0.05)[0]:
                self.seen += os.read(self.master, 65536)

    def drain(self):
        while select.select([self.master], [], [], 0)[0]:
            self.seen += os.read(self.master, 65536)

    def text(self):
        return self.seen.decode()

    def screen(self):
        """The lines that are left once everything has been drawn."""
        lines = []
        for line in self.text().split("\n"):
            shown = ""
            for part in line.rstrip("\r").split("\r"):
                shown = part.replace("\x1b[K", "") if "\x1b[K" in part else part + shown[len(part):]
            lines.append(shown)
        return lines


def sparse(name, size):
    with open(name, "wb") as file:
        file.truncate(size)


@case
def a_transfer_shows_its_progress():
    sparse("a file", 800 * 2**20)
    os.mkdir("in")
    receive = Process("receive", "unix:socket", "in", "--compress")
    terminal = Terminal()
    send = Process("send", receive.address(), "--compress", "a file", stderr=terminal.slave)
    terminal.collect(lambda: send.popen.poll() is not None)
    assert send.popen.returncode == 0
    receive.wait()
    terminal.drain()
    lines = re.findall(
        r"\ra file \[(#*)(\.*)\]\s+(\d+)% [^\r]* MB/s, (?:\d+:\d\d|-:--) left, wire (\d\.\d\d)",
        terminal.text(),
    )
    assert len(lines) >= 3, terminal.text()
    percents = [int(line[2]) for line in lines]
    assert percents[0] == 0 and percents[-1] == 100 and percents == sorted(percents)
    assert any(0 < percent < 100 for percent in percents)
    for full, empty, percent, _ in lines:
        assert len(full) + len(empty) == 20 and abs(len(full) - int(percent) / 5) <= 1
    # Zeros compress, and the bar is gone when all is done.
    assert float(lines[-1][3]) < 0.1
    assert not any(terminal.screen()), terminal.screen()
    assert send.output.startswith(b"sent a file: 800.0 MiB")


@case
def the_bar_fits_a_narrow_terminal():
    sparse("file", 400 * 2**20)
    os.mkdir("in")
    receive = Process("receive", "unix:socket", "in")
    terminal = Terminal(columns=40)
    send = Process("send", receive.address(), "file", stderr=terminal.slave)
    terminal.collect(lambda: send.popen.poll() is not None)
    receive.wait()
    terminal.drain()
    drawn = [part.replace("\x1b[K", "") for part in terminal.text().split("\r")]
    assert any("file [" in part for part in drawn) and max(map(len, drawn)) <= 39


@case
def a_complaint_does_not_mix_with_the_bar():
    sparse("file", 100 * 2**30)
    os.mkdir("in")
    receive = Process("receive", "unix:socket", "in")
    terminal = Terminal()
    send = Process("send", receive.address(), "file", stderr=terminal.slave)
    terminal.collect(lambda: b" 1% " in terminal.seen or b" 0% 1" in terminal.seen)
    send.kill(2)
    terminal.collect(lambda: send.popen.poll() is not None)
    assert send.popen.returncode == 130
    terminal.drain()
    assert [line for line in terminal.screen() if line] == ["zelgvc: interrupted while sending file"]
    receive.wait(1, 4)


@case
def without_a_terminal_there_is_no_bar():
    sparse("file", 2**20)
    os.mkdir("in")
    receive = Process("receive", "unix:socket", "in")
    send = run("send", receive.address(), "file")
    receive.wait()
    assert send.errors == "" and receive.errors == "listening on unix:socket\n"


@case
def perf_and_ping_show_a_live_line():
    serve = Process("serve", "unix:socket")
    terminal = Terminal()
    perf = Process(
        "perf", serve.address(), "-t", "0.5", "-s", "1000", "-d", "send", stderr=terminal.slave
    )
    terminal.collect(lambda: perf.popen.poll() is not None)
    terminal.drain()
    assert re.search(r"\rsend 1000: \d+\.\d MB/s, \d+ messages", terminal.text())
    assert not any(terminal.screen())
    terminal = Terminal()
    ping = Process("ping", serve.address(), "-c", "5", stderr=terminal.slave)
    terminal.collect(lambda: ping.popen.poll() is not None)
    terminal.drain()
    assert re.search(r"\rround trip \d: .*, mean ", terminal.text())


@case
def a_conversation_at_two_terminals():
    one, other = Terminal(), Terminal()
    listen = Process("listen", "unix:socket", stdin=one.slave, stdout=one.slave)
    connect = Process("connect", listen.address(), stdin=other.slave, stdout=other.slave)
    os.write(other.master, b"hello\n")
    one.collect(lambda: b"hello\r\n" in one.seen)
    os.write(one.master, b"good day\n")
    other.collect(lambda: b"good day\r\n" in other.seen)
    # The end of input at one terminal ends both.
    os.write(other.master, b"\x04")
    connect.wait()
    listen.wait()


main()
