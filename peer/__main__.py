# SPDX-License-Identifier: LGPL-2.1-or-later
"""python3 -m peer check ADDRESS, and python3 -m peer echo ADDRESS."""

import argparse
import socket
import sys

from . import check, lzo, wire


def key(path):
    with open(path, "rb") as file:
        content = file.read()
    if len(content) != 32:
        raise argparse.ArgumentTypeError(f"{path}: a key has 32 bytes")
    return content


def echo(address, stages):
    """Serves one peer after another."""
    host, _, port = address.rpartition(":")
    if host == "unix":
        server = socket.socket(socket.AF_UNIX)
        server.bind(port)
        server.listen()
    else:
        server = socket.create_server((host, int(port)))
        port = server.getsockname()[1]
    print(f"listening on {port}", file=sys.stderr, flush=True)
    while True:
        with server.accept()[0] as sock:
            channel = wire.Channel(sock, stages)
            try:
                while (message := channel.receive()) is not None:
                    channel.send(message)
            except (lzo.Broken, OSError) as error:
                print(f"a channel ended: {error}", file=sys.stderr, flush=True)


def main():
    parser = argparse.ArgumentParser(prog="peer", description="A second implementation of the wire formats.")
    parser.add_argument("command", choices=("check", "echo"))
    parser.add_argument("address", help="HOST:PORT or unix:PATH")
    parser.add_argument("--compress", dest="stages", action="append_const", const=None)
    parser.add_argument("--encrypt", metavar="KEYFILE", dest="stages", action="append", type=key)
    parser.add_argument("--key-length", type=int, choices=(128, 256), default=256)
    parser.add_argument("--timeout", type=float, default=10, metavar="SECONDS")
    options = parser.parse_args()
    stages = [stage and stage[: options.key_length // 8] for stage in options.stages or []]
    if options.command == "echo":
        echo(options.address, stages)
    try:
        wrong = check.Checker(options.address, stages, options.timeout).run()
    except OSError as error:
        print(f"{options.address}: {error}", file=sys.stderr)
        return 3
    print(f"{wrong} wrong" if wrong else "all right")
    return 1 if wrong else 0


if __name__ == "__main__":
    sys.exit(main())
