#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""Sends every message back. Usage: echo-server.py [--async]; prints the port it listens on."""

import sys

from echo_channel import EchoChannel, Gio, GLib, ZelGvc, is_end


def report(error):
    if not is_end(error):
        print("echo-server:", error.message, file=sys.stderr)


def serve(socket):
    channel = EchoChannel(socket)
    try:
        while True:
            channel.writer.put_bytes(channel.reader.read_bytes(None), None)
    except GLib.Error as error:
        report(error)
    channel.close()


class Session:
    """Reads and sends in turn until the channel ends."""

    def __init__(self, socket):
        self.channel = EchoChannel(socket)

    def read(self):
        self.channel.reader.read_bytes_async(GLib.PRIORITY_DEFAULT, None, self.on_message)

    def on_message(self, reader, result):
        try:
            message = reader.read_bytes_finish(result)
        except GLib.Error as error:
            self.end(error)
            return
        self.channel.writer.put_bytes_async(message, GLib.PRIORITY_DEFAULT, None, self.on_sent)

    def on_sent(self, writer, result):
        try:
            writer.put_bytes_finish(result)
        except GLib.Error as error:
            self.end(error)
            return
        self.read()

    def end(self, error):
        report(error)
        self.channel.close()


def accept_next(listener):
    listener.accept_async(None, on_accepted)
    return GLib.SOURCE_REMOVE


def on_accepted(listener, result):
    try:
        socket, _source = listener.accept_finish(result)
    except GLib.Error as error:
        # Without descriptors every accept fails at once, so the next one waits. Gio.SocketService
        # does not.
        report(error)
        GLib.timeout_add_seconds(1, accept_next, listener)
        return
    Session(socket).read()
    accept_next(listener)


def main():
    ZelGvc.init()
    listener = Gio.SocketListener.new()
    wanted = Gio.InetSocketAddress.new_from_string("127.0.0.1", 0)
    _, actual = listener.add_address(
        wanted, Gio.SocketType.STREAM, Gio.SocketProtocol.TCP, None
    )
    print(actual.get_port(), flush=True)

    if "--async" in sys.argv:
        accept_next(listener)
        GLib.MainLoop().run()
    while True:
        socket, _source = listener.accept(None)
        serve(socket)


main()
