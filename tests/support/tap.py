# SPDX-License-Identifier: LGPL-2.1-or-later
"""Runs test cases and reports them in TAP, for the tests that are written in Python."""

import traceback


class Skip(Exception):
    """Raised by a case that cannot be run here; says why."""


def run(cases):
    """Runs `cases`, pairs of a path and a function, and gives the exit status for the program."""
    cases = list(cases)
    print("TAP version 13")
    print(f"1..{len(cases)}")
    failed = 0
    for number, (path, case) in enumerate(cases, 1):
        try:
            case()
        except Skip as reason:
            print(f"ok {number} {path} # SKIP {reason}", flush=True)
        except Exception as error:
            failed += 1
            lines = traceback.format_exc().splitlines()
            if isinstance(error, AssertionError):
                lines = str(error).splitlines() or lines
            for line in lines:
                print(f"# {line}")
            print(f"not ok {number} {path}", flush=True)
        else:
            print(f"ok {number} {path}", flush=True)
    return 1 if failed else 0
