# SPDX-License-Identifier: LGPL-2.1-or-later
"""Reads the lists of reasons in tests/data: for code that no test reaches, and for mutations that no
test notices."""

import pathlib
import sys

ROOT = pathlib.Path(__file__).resolve().parent.parent


def read(name, *fields):
    """Returns the entries of a list as tuples with these fields."""
    found = []
    for number, line in enumerate((ROOT / "tests/data" / name).read_text().splitlines(), 1):
        if line and not line.startswith("#"):
            found.append(tuple(field.strip() for field in line.split(" | ")))
            if len(found[-1]) != len(fields):
                sys.exit(f"tests/data/{name}:{number}: not {' | '.join(fields)}")
    return found
