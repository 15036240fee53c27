# SPDX-License-Identifier: LGPL-2.1-or-later
"""A second implementation of the wire formats, written from docs/ alone: python3 -m peer check ADDRESS"""

import argparse
import sys

from . import check


def key(path):
    with open(path, "rb") as file:
        content = file.read(33)
    if len(content) != 32:
        raise argparse.ArgumentTypeError(f"{path}: a key has 32 bytes")
    return content


def main():
    parser = argparse.ArgumentParser(prog="peer", description="Checks a server that echoes messages.")
    parser.add_argument("command", choices=["check"])
    parser.add_argument("address", help="HOST:PORT or unix:PATH")
    parser.add_argument("--compress", dest="stages", action="append_const", const=None)
    parser.add_argument("--encrypt", metavar="KEYFILE", dest="stages", action="append", type=key)
    parser.add_argument("--key-length", type=int, choices=(128, 256), default=256)
    parser.add_argument("--timeout", type=float, default=10, metavar="SECONDS", help="for each case")
    options = parser.parse_args()
    stages = [stage and stage[: options.key_length // 8] for stage in options.stages or []]
    try:
        wrong = check.Checker(options.address, stages, options.timeout).run()
    except OSError as error:
        print(f"{options.address}: {error}", file=sys.stderr)
        return 3
    print(f"{wrong} wrong" if wrong else "all right")
    return 1 if wrong else 0


sys.exit(main())
