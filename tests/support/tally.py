# SPDX-License-Identifier: LGPL-2.1-or-later
"""Checks that scripts/tally counts honestly, on logs as meson leaves them.

usage: tally.py SCRIPT
"""

import functools
import json
import pathlib
import subprocess
import sys
import tempfile

import tap

SCRIPT = sys.argv[1]


def run(output, result="OK", returncode=0, protocol="tap", errors=""):
    return {"name": "program", "protocol": protocol, "result": result, "returncode": returncode,
            "stdout": output, "stderr": errors}


def tally(runs, *selected, known=("program",)):
    with tempfile.TemporaryDirectory() as build:
        for folder in "meson-info", "meson-logs":
            pathlib.Path(build, folder).mkdir()
        protocol = runs[0]["protocol"] if runs else "tap"
        pathlib.Path(build, "meson-info/intro-tests.json").write_text(
            json.dumps([{"name": name, "protocol": protocol} for name in known]))
        pathlib.Path(build, "meson-logs/testlog.json").write_text(
            "".join(json.dumps(one) + "\n" for one in runs))
        return subprocess.run([SCRIPT, build, *selected], capture_output=True, text=True)


def counts(runs, total, *shown, **options):
    done = tally(runs, **options)
    assert done.stdout.splitlines()[-1] == total, done
    assert done.returncode == (0 if ", 0 failed" in total else 1), done
    for text in shown:
        assert text in done.stdout, done


GOOD = "1..2\nok 1 /a\nok 2 /b\n"
CASES = {
    "good": ([run(GOOD)], "2 passed, 0 failed"),
    "skipped": ([run("1..2\nok 1 /a\nok 2 /b # SKIP no such thing\n")],
                "1 passed, 0 failed, 1 skipped"),
    "failed": ([run("1..2\nnot ok 1 /a\nok 2 /b\n", "FAIL", 1, errors="because")],
               "1 passed, 1 failed", "program: /a", "because"),
    "incomplete-is-failed": ([run("1..1\nnot ok 1 /a # TODO later\n", "OK", 0)],
                             "0 passed, 1 failed"),
    "crashed-before-all-reported": ([run("1..3\nok 1 /a\n", "ERROR", -11)],
                                    "1 passed, 2 failed", "signal 11"),
    "stopped-for-its-time": ([run("1..2\nok 1 /a\n", "TIMEOUT", -15)],
                             "1 passed, 1 failed", "timeout"),
    "died-before-the-plan": ([run("", "ERROR", -6)], "0 passed, 1 failed"),
    "leak-found-at-exit": ([run(GOOD, "ERROR", 23, errors="leaked")],
                           "2 passed, 1 failed", "leaked"),
    "program-without-tap": ([run("", protocol="exitcode")], "1 passed, 0 failed"),
    "failed-program-without-tap": ([run("", "FAIL", 3, "exitcode")], "0 passed, 1 failed"),
}


def missing_program_fails():
    done = tally([run(GOOD)], known=("program", "other"))
    assert done.stdout.splitlines()[-1] == "2 passed, 1 failed" and done.returncode == 1, done


def only_the_selected_must_run():
    done = tally([run(GOOD)], "program", known=("program", "other"))
    assert done.stdout.splitlines()[-1] == "2 passed, 0 failed" and done.returncode == 0, done


def nothing_at_all_fails():
    done = tally([], known=())
    assert done.stdout.splitlines()[-1] == "0 passed, 0 failed" and done.returncode == 1, done


sys.exit(tap.run([
    *((f"/tally/{name}", functools.partial(counts, *case)) for name, case in CASES.items()),
    ("/tally/missing-program-fails", missing_program_fails),
    ("/tally/only-the-selected-must-run", only_the_selected_must_run),
    ("/tally/nothing-at-all-fails", nothing_at_all_fails),
]))
