#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""Compiles or runs every code sample of the pages.

A block marked c is compiled with warnings fatal, and run where it has a main function. Blocks marked
python and js are run. A text block right behind one is what it must print. Shell blocks are parsed.

Usage: samples.py CC CFLAGS LIBS GJS PAGE...   (GJS may be empty)
"""

import pathlib
import re
import shlex
import subprocess
import sys
import tempfile
import unittest

import unittap

CC, CFLAGS, LIBS, GJS, *PAGES = sys.argv[1:]
WATCHDOG = 120  # seconds, against a hang only
FENCE = re.compile(r"^```(\w*)\n(.*?)^```$", re.MULTILINE | re.DOTALL)
WARNINGS = ["-std=gnu99", "-Wall", "-Wextra", "-Werror", "-Wno-unused-function"]


def blocks_of(page):
    """Pairs of a block and what it must print, or None where that is not said."""
    found = [(kind, code) for kind, code in FENCE.findall(page.read_text())]
    for (kind, code), following in zip(found, found[1:] + [("", "")]):
        if kind and kind != "text":
            yield kind, code, following[1] if following[0] == "text" else None


def run(command, **kwargs):
    done = subprocess.run(command, capture_output=True, text=True, timeout=WATCHDOG, **kwargs)
    if done.returncode != 0:
        raise AssertionError(f"{command}: {done.returncode}\n{done.stdout}\n{done.stderr}")
    return done.stdout


def check_c(directory, code):
    source = directory / "sample.c"
    source.write_text(code)
    command = shlex.split(CC) + WARNINGS + shlex.split(CFLAGS) + ["sample.c"]
    if "\nmain(" not in code:
        run(command + ["-c", "-o", "sample.o"], cwd=directory)
        return None
    run(command + ["-o", "sample"] + shlex.split(LIBS), cwd=directory)
    return run([directory / "sample"])


def check_python(directory, code):
    (directory / "sample.py").write_text(code)
    return run([sys.executable, directory / "sample.py"])


def check_js(directory, code):
    if not GJS:
        raise unittest.SkipTest("no gjs")
    (directory / "sample.js").write_text(code)
    return run([GJS, "-m", directory / "sample.js"])


def check_sh(directory, code):
    (directory / "sample.sh").write_text(code)
    run(["sh", "-n", directory / "sample.sh"])


CHECKS = {"c": check_c, "python": check_python, "js": check_js, "sh": check_sh}


class Samples(unittest.TestCase):
    pass


def add_case(page, number, kind, code, expected):
    def case(self):
        self.assertIn(kind, CHECKS, "a kind of sample that nothing checks")
        with tempfile.TemporaryDirectory() as directory:
            printed = CHECKS[kind](pathlib.Path(directory), code)
        if expected is not None:
            self.assertEqual(printed, expected)

    case.__doc__ = f"/samples/{page.stem}/{number}-{kind}"
    setattr(Samples, f"test_{page.stem}_{number:02}", case)


for name in PAGES:
    for number, block in enumerate(blocks_of(pathlib.Path(name)), start=1):
        add_case(pathlib.Path(name), number, *block)

unittap.main()
