#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""Sends three messages and checks that they come back. Usage: echo-client.py PORT [--async]"""

import sys

from echo_channel import EchoChannel, Gio, GLib, ZelGvc

MESSAGES = [
    GLib.Bytes.new(b"hello"),
    GLib.Bytes.new(bytes(i * i // 251 % 256 for i in range(1_000_000))),
    GLib.Variant("(su)", ("answer", 42)).get_data_as_bytes(),
]


def check(echo, message):
    if not echo.equal(message):
        sys.exit("echo-client: The echo differs")


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
            self.fail(error)
            return
        check(echo, self.message)
        self.send_next()

    def fail(self, error):
        self.error = error
        self.loop.quit()


def main():
    ZelGvc.init()
    socket = Gio.SocketClient.new().connect_to_host("127.0.0.1", int(sys.argv[1]), None)
    channel = EchoChannel(socket)
    if "--async" in sys.argv:
        AsyncClient(channel).run()
    else:
        run_blocking(channel)
    peer = ZelGvc.io_stream_get_remote_address_string(channel.connection)
    channel.close()
    print(len(MESSAGES), "messages echoed by", peer)


try:
    main()
except GLib.Error as error:
    sys.exit(f"echo-client: {error.message}")
