#!/usr/bin/python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""Runs zelgvc-bench, prints the rows and the goals, and writes the pages on performance."""

import argparse
import datetime
import json
import os
import pathlib
import platform
import re
import resource
import subprocess

import goals
import pages
from results import Results, Row

PROGRAM_GROUPS = ["blocking", "async", "strings", "channels", "stages", "ciphers", "converters",
                  "codec"]
# Many channels: transport, stages, how many are busy, how many there are.
CROWDS = [(transport, stages, busy, channels)
          for transport in ("unix", "tcp")
          for stages, busy, channels in (
              ("plain", "10", 5000), ("plain", "all", 5000), ("plain", "10", 20000),
              ("both", "10", 5000), ("both", "10", 20000), ("by hand", "10", 5000))]
# Small messages.
WORKS = [(what, stages) for what in ("blocking burst", "async burst", "async round trip")
         for stages in ("plain", "both")]
# The system calls of sockets. A main context wakes itself with read and write.
CALLS = {"sends": "send|writev", "receives": "recv|readv"}


def raise_descriptor_limit(wanted):
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    try:
        resource.setrlimit(resource.RLIMIT_NOFILE, (wanted, max(wanted, hard)))
    except (PermissionError, ValueError):
        resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))
    return resource.getrlimit(resource.RLIMIT_NOFILE)[0]


class Runner:
    def __init__(self, options):
        self.options = options
        self.rows = []
        self.machine = describe_machine(options.quick)

    def take(self, line):
        data = json.loads(line)
        if data["group"] == "build":
            self.machine.update(compiler=data["compiler"], tls=data["tls"])
        else:
            self.add(data)

    def add(self, data):
        self.rows.append(data)
        print(Row(data).text(), flush=True)

    def wants(self, *values):
        return all(wanted in map(str, values) for wanted in self.options.only)

    def program(self, *arguments):
        """The command line of the benchmark program."""
        quick = ["--quick"] if self.options.quick else []
        return [self.options.program, *quick, *map(str, arguments)]

    def stream(self, *arguments, env=None):
        """Takes each row as soon as it is measured."""
        with subprocess.Popen(self.program(*arguments), stdout=subprocess.PIPE, text=True,
                              env={**os.environ, **(env or {})}) as process:
            for line in process.stdout:
                self.take(line)
        if process.returncode:
            raise SystemExit(f"zelgvc-bench {arguments[0]} failed")

    def run(self, group):
        if group in PROGRAM_GROUPS:
            self.stream(group, *self.options.only)
        else:
            getattr(self, group)()

    def crowd(self):
        """A channel needs a descriptor. Without enough of them, a crowd is smaller or left out."""
        most = raise_descriptor_limit(21000) - 300
        for transport, stages, busy, wanted in CROWDS:
            channels = min(wanted, most // 2 * 2)
            shown = wanted == 5000 or not self.options.quick
            if shown and channels >= wanted / 2 and self.wants(transport, stages, busy, channels):
                self.stream("crowd", transport, stages, busy, channels)

    def memory(self):
        for stages in ("plain", "both", "by hand"):
            if self.wants(stages):
                # Slices would hide memory from the heap.
                self.stream("memory", stages, env={"G_SLICE": "always-malloc"})

    def works(self):
        return [work for work in WORKS if self.wants(*work)]

    def count_calls(self, *work):
        """System calls of a whole process for its sockets."""
        command = ["strace", "-f", "-qq", "-c", "-U", "calls,name", *self.program("work", *work)]
        done = subprocess.run(command, capture_output=True, text=True, check=True)
        counts = re.findall(r"^\s*(\d+)\s+(\w+)", done.stderr, re.MULTILINE)
        return {kind: sum(int(count) for count, name in counts if re.match(pattern, name))
                for kind, pattern in CALLS.items()}

    def calls(self):
        """Two runs of different length differ by the calls of the messages alone."""
        few, many = 160, 1120
        for what, stages in self.works():
            try:
                less = self.count_calls(what, stages, few)
                more = self.count_calls(what, stages, many)
            except (OSError, subprocess.CalledProcessError) as error:
                print(f"system calls are not counted: {error}")
                return
            figures = {kind: round((more[kind] - less[kind]) / (many - few), 2) for kind in more}
            self.add({"group": "calls", "what": what, "stages": stages, "figures": figures})

    def builds(self):
        """This build of the library and another one take turns, in a fresh process each time."""
        if not self.options.other:
            return
        name, folder = self.options.other.split("=", 1)
        environments = {"zelgvc": os.environ, name: {**os.environ, "LD_LIBRARY_PATH": folder}}
        for what, stages in self.works():
            seconds = {build: [] for build in environments}
            for turn in range(9 if self.options.quick else 31):
                order = list(environments)[::-1 if turn % 2 else 1]
                for build in order:
                    done = subprocess.run(self.program("work", what, stages), check=True, text=True,
                                          env=environments[build], stdout=subprocess.PIPE)
                    seconds[build].append(Row(json.loads(done.stdout)).time("seconds"))
            self.add({"group": "builds", "what": what, "stages": stages, "seconds": seconds})


def first_match(path, pattern):
    found = re.search(pattern, pathlib.Path(path).read_text(), re.MULTILINE)
    return found.group(1) if found else "unknown"


def version_of(package):
    return subprocess.run(["pkg-config", "--modversion", package], stdout=subprocess.PIPE, text=True,
                          check=True).stdout.strip()


def describe_machine(quick):
    return {"run": "quick" if quick else "full",
            "date": datetime.date.today().isoformat(),
            "processor": first_match("/proc/cpuinfo", r"^model name\s*: (.*)$"),
            "processors": str(os.cpu_count()),
            "memory": first_match("/proc/meminfo", r"^MemTotal:\s*(.*)$"),
            "kernel": f"{platform.system()} {platform.release()}",
            "load before": f"{os.getloadavg()[0]:.2f}",
            **{package: version_of(package)
               for package in ("glib-2.0", "libgcrypt", "lzo2", "liblz4")}}


def main():
    every = PROGRAM_GROUPS + ["crowd", "memory", "calls", "builds"]
    parser = argparse.ArgumentParser(description=__doc__)
    parser.add_argument("program", type=os.path.abspath)
    parser.add_argument("groups", nargs="*", metavar="GROUP", help=", ".join(every))
    parser.add_argument("--quick", action="store_true")
    parser.add_argument("--only", action="append", default=[], metavar="VALUE")
    parser.add_argument("--other", metavar="NAME=FOLDER")
    parser.add_argument("--json", type=pathlib.Path, metavar="FILE")
    parser.add_argument("--docs", type=pathlib.Path, metavar="SOURCE_TREE")
    options = parser.parse_args()
    if unknown := set(options.groups) - set(every):
        parser.error(f"no group is named {', '.join(unknown)}")
    if options.docs and (options.groups or options.only):
        parser.error("the pages need all groups")

    runner = Runner(options)
    for group in options.groups or every:
        runner.run(group)
    results = Results(runner.rows, runner.machine)
    if options.json:
        saved = {"machine": results.machine, "rows": runner.rows}
        options.json.write_text(json.dumps(saved, indent=1))
    print(goals.text(results))
    if options.docs:
        pages.write(results, options.docs)


main()
