#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""Runs every echo client against every echo server, each of them blocking and asynchronous.

Usage: echopairs.py NAME SERVER CLIENT [NAME SERVER CLIENT ...], where SERVER and CLIENT are command
lines. Writes TAP: one case a pair of languages.
"""

import itertools
import shlex
import subprocess
import sys

WATCHDOG = 120  # seconds, against a hang only
EXPECTED = "3 messages echoed by 127.0.0.1:{port}"
MODES = ([], ["--async"])


class Server:
    def __init__(self, command, mode):
        self.process = subprocess.Popen(
            shlex.split(command) + mode, stdout=subprocess.PIPE, stderr=subprocess.PIPE, text=True
        )
        self.port = self.process.stdout.readline().strip()

    def stop(self):
        """Its text on standard error."""
        self.process.terminate()
        return self.process.communicate(timeout=WATCHDOG)[1].strip()


def failures_of(server, client_command):
    for mode in MODES:
        client = subprocess.run(
            shlex.split(client_command) + [server.port] + mode,
            capture_output=True,
            text=True,
            timeout=WATCHDOG,
        )
        expected = EXPECTED.format(port=server.port)
        if client.returncode != 0 or client.stdout.strip() != expected or client.stderr:
            yield f"client {mode}: status {client.returncode}, {client.stdout!r} {client.stderr!r}"


def run_server(programs, server_name, server_command, failures):
    for mode in MODES:
        server = Server(server_command, mode)
        for client_name, _, client_command in programs:
            found = failures[server_name, client_name]
            try:
                found += [f"server {mode}: {f}" for f in failures_of(server, client_command)]
            except subprocess.TimeoutExpired:
                found.append(f"server {mode}: the client hangs")
            if server.process.poll() is not None:
                found.append(f"server {mode}: died, status {server.process.returncode}")
        complaints = server.stop()
        if complaints:
            failures[server_name, server_name].append(f"server {mode} says: {complaints}")


def main():
    words = sys.argv[1:]
    programs = [tuple(words[i : i + 3]) for i in range(0, len(words), 3)]
    names = [name for name, _, _ in programs]
    failures = {pair: [] for pair in itertools.product(names, names)}

    print(f"1..{len(failures)}", flush=True)
    for name, server, _ in programs:
        run_server(programs, name, server, failures)
    for number, ((server, client), found) in enumerate(failures.items(), start=1):
        print("not ok" if found else "ok", number, f"/echo/{client}-client-of-{server}-server")
        for failure in found:
            print("# " + failure.replace("\n", "\n# "))
    sys.exit(any(failures.values()))


main()
