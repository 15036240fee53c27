#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""Messages there and back, over a channel that compresses and encrypts.

    echo.py serve [--async]       sends every message back; prints the port it listens on
    echo.py call PORT [--async]   sends three messages and checks that they come back
"""

import sys

import gi

gi.require_version("ZelGvc", "1.0")
from gi.repository import Gio, GLib, ZelGvc  # noqa: E402

# A demonstration key. Real peers agree on 32 random bytes by a way of their own.
KEY = GLib.Bytes.new(bytes(range(32)))


class EchoChannel:
    """A channel with both stages, its reader and its writer."""

    def __init__(self, socket):
        self.connection = ZelGvc.Connection.new(socket)
        # The stage added last is nearest to the caller: messages are compressed and then
        # encrypted. Both peers add their stages in this order.
        self.connection.add_converters(ZelGvc.Decryptor.new(KEY), ZelGvc.Encryptor.new(KEY))
        self.connection.add_converters(ZelGvc.Decompressor.new(), ZelGvc.Compressor.new())
        self.reader = ZelGvc.BytesInputStream.new(self.connection.get_input_stream())
        self.writer = ZelGvc.BytesOutputStream.new(self.connection.get_output_stream())

    def close(self):
        # Closing the channel would also send what its stages still hold, and wait for a peer that
        # does not read.
        self.connection.get_connection().close(None)


def is_end(error):
    """The peer has closed its side. On a bare channel that reads as "Disconnected"; a stage
    reports that it could not get another block."""
    return error.matches(ZelGvc.error_quark(), ZelGvc.Error.DISCONNECTED) or error.matches(
        Gio.io_error_quark(), Gio.IOErrorEnum.PARTIAL_INPUT
    )


def report(error):
    if not is_end(error):
        print("echo:", error.message, file=sys.stderr)


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
            return self.end(error)
        self.channel.writer.put_bytes_async(message, GLib.PRIORITY_DEFAULT, None, self.on_sent)

    def on_sent(self, writer, result):
        try:
            writer.put_bytes_finish(result)
        except GLib.Error as error:
            return self.end(error)
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


def run_server(use_async):
    listener = Gio.SocketListener.new()
    wanted = Gio.InetSocketAddress.new_from_string("127.0.0.1", 0)
    _, actual = listener.add_address(
        wanted, Gio.SocketType.STREAM, Gio.SocketProtocol.TCP, None
    )
    print(actual.get_port(), flush=True)

    if use_async:
        accept_next(listener)
        GLib.MainLoop().run()
    while True:
        socket, _source = listener.accept(None)
        serve(socket)


MESSAGES = [
    GLib.Bytes.new(b"hello"),
    GLib.Bytes.new(bytes(i * i // 251 % 256 for i in range(1_000_000))),
    GLib.Variant("(su)", ("answer", 42)).get_data_as_bytes(),
]


def check(echo, message):
    if not echo.equal(message):
        sys.exit("echo: The echo differs")


def run_blocking(channel):
    for message in MESSAGES:
        channel.writer.put_bytes(message, None)
        check(channel.reader.read_bytes(None), message)


class AsyncClient:
    def __init__(self, channel):
        self.channel = channel
        self.messages = iter(MESSAGES)
        self.error = None
        self.loop = GLib.MainLoop()

    def run(self):
        self.send_next()
        self.loop.run()
        if self.error:
            raise self.error

    def send_next(self):
        self.message = next(self.messages, None)
        if self.message is None:
            self.loop.quit()
            return
        # The answer is awaited while the message is still on its way: one message in each
        # direction may be in progress.
        self.channel.writer.put_bytes_async(
            self.message, GLib.PRIORITY_DEFAULT, None, self.on_sent
        )
        self.channel.reader.read_bytes_async(GLib.PRIORITY_DEFAULT, None, self.on_echo)

    def on_sent(self, writer, result):
        try:
            writer.put_bytes_finish(result)
        except GLib.Error as error:
            self.fail(error)

    def on_echo(self, reader, result):
        try:
            echo = reader.read_bytes_finish(result)
        except GLib.Error as error:
            return self.fail(error)
        check(echo, self.message)
        self.send_next()

    def fail(self, error):
        self.error = error
        self.loop.quit()


def run_client(port, use_async):
    channel = EchoChannel(Gio.SocketClient.new().connect_to_host("127.0.0.1", port, None))
    if use_async:
        AsyncClient(channel).run()
    else:
        run_blocking(channel)
    peer = ZelGvc.io_stream_get_remote_address_string(channel.connection)
    channel.close()
    print(len(MESSAGES), "messages echoed by", peer)


ZelGvc.init()
try:
    if sys.argv[1] == "serve":
        run_server("--async" in sys.argv)
    else:
        run_client(int(sys.argv[2]), "--async" in sys.argv)
except GLib.Error as error:
    sys.exit(f"echo: {error.message}")
