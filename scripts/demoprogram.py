# SPDX-License-Identifier: LGPL-2.1-or-later
"""The part of the demonstration that shows the program zelgvc: each command as a user would type it,
against a second zelgvc process on the loopback interface."""

import filecmp
import os
import pty
import re
import select
import shlex
import socket
import subprocess
import sys

STAGES = ([], ["--compress"], ["--encrypt", "key"], ["--compress", "--encrypt", "key"])
PATIENCE = 120


class Failure(Exception):
    pass


class Demonstration:
    def __init__(self, zelgvc, directory):
        self.zelgvc = zelgvc
        self.directory = directory
        self.running = []

    def type(self, arguments, before="", after=""):
        print(f"$ {before}zelgvc {shlex.join(arguments)}{after}", flush=True)

    def start(self, *arguments, **streams):
        process = subprocess.Popen([self.zelgvc, *arguments], cwd=self.directory, **streams)
        self.running.append(process)
        return process

    def listen(self, command, *arguments):
        """Starts a listening command; returns its process and its address."""
        self.type([command, "127.0.0.1:0", *arguments], after=" &")
        process = self.start(command, "127.0.0.1:0", *arguments, stdin=subprocess.DEVNULL,
                             stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True)
        line = process.stderr.readline()
        print(line, end="", flush=True)
        if not line.startswith("listening on "):
            raise Failure(f"zelgvc {command} does not listen")
        return process, line.split()[-1]

    def run(self, *arguments, text=None, show=True):
        before = "" if text is None else f"printf {shlex.quote(text)} | ".replace("\n", "\\n")
        if show:
            self.type(arguments, before)
        done = subprocess.run([self.zelgvc, *arguments], cwd=self.directory, input=text or "",
                              stdout=subprocess.PIPE, text=True, timeout=PATIENCE)
        print(done.stdout, end="", flush=True)
        if done.returncode:
            raise Failure(f"zelgvc {arguments[0]} ended with status {done.returncode}")
        return done.stdout

    def end(self, process):
        output = process.communicate(timeout=PATIENCE)[0]
        if process.returncode:
            raise Failure(f"zelgvc {process.args[1]} ended with status {process.returncode}")
        return output

    def stop(self):
        for process in self.running:
            if process.poll() is None:
                process.kill()
                process.wait()


def conversation(demo):
    listen, address = demo.listen("listen", "--compress", "--encrypt", "key")
    said = "hello\nis this channel compressed and encrypted?\n"
    demo.run("connect", address, "--compress", "--encrypt", "key", text=said)
    heard = demo.end(listen)
    print(heard, end="")
    if heard != said:
        raise Failure("the received text is not the text that was sent")


def watch(process, master):
    """Copies the terminal output of a process to ours; returns the last progress bar in it."""
    seen = b""
    while process.poll() is None or select.select([master], [], [], 0)[0]:
        if select.select([master], [], [], 0.05)[0]:
            data = os.read(master, 65536)
            seen += data
            if sys.stderr.isatty():
                os.write(sys.stderr.fileno(), data)
    bars = re.findall(r"[^\r\n\x1b]*\[#+\.*\][^\r\n\x1b]*", seen.decode(errors="replace"))
    return bars[-1] if bars else ""


def transfer(demo, sample, stages):
    receive, address = demo.listen("receive", "incoming", "--force", *stages)
    master, slave = pty.openpty()
    arguments = ["send", address, sample, *stages]
    demo.type(["send", address, os.path.basename(sample), *stages])
    send = demo.start(*arguments, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=slave,
                      text=True)
    bar = watch(send, master)
    os.close(slave)
    os.close(master)
    report = demo.end(send)
    demo.end(receive)
    print(bar)
    print(report.replace(os.path.dirname(sample) + "/", ""), end="")
    arrived = os.path.join(demo.directory, "incoming", os.path.basename(sample))
    if not bar or not filecmp.cmp(sample, arrived, shallow=False):
        raise Failure("the received file is not the file that was sent")


def measure(demo):
    serve, address = demo.listen("serve", "--encrypt", "key")
    demo.run("ping", address, "--encrypt", "key", "-c", "2000", "-i", "0")
    serve.terminate()
    demo.end(serve)


def dissect(demo):
    """Records a stream and decodes it."""
    with socket.create_server(("127.0.0.1", 0)) as server:
        address = f"127.0.0.1:{server.getsockname()[1]}"
        connect = demo.start("connect", address, "--compress", "--encrypt", "key",
                             stdin=subprocess.PIPE)
        connect.stdin.write(b"hello\n" + b"the same again and " * 9 + b"again\n")
        connect.stdin.close()
        with server.accept()[0] as peer:
            with open(os.path.join(demo.directory, "recorded"), "wb") as recorded:
                while data := peer.recv(65536):
                    recorded.write(data)
        if connect.wait(PATIENCE):
            raise Failure("the recorded connection failed")
    shown = demo.run("decode", "recorded", "--compress", "--encrypt", "key")
    if '"hello"' not in shown or "no damage" not in shown:
        raise Failure("the recorded messages do not decode")


def run(zelgvc, sample, directory):
    os.makedirs(os.path.join(directory, "incoming"))
    demo = Demonstration(zelgvc, directory)
    try:
        print("\n== the program: a key and a conversation")
        demo.run("keygen", "key")
        conversation(demo)
        print("\n== a file over every combination of stages")
        for stages in STAGES:
            transfer(demo, sample, stages)
        print("\n== round trips")
        measure(demo)
        print("\n== decoding a recorded stream")
        dissect(demo)
    finally:
        demo.stop()
