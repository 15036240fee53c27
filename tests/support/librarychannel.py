# SPDX-License-Identifier: LGPL-2.1-or-later
"""The library as the tests of the wire formats see it, through its bindings."""

import gi

gi.require_version("ZelGvc", "1.0")
from gi.repository import Gio, GLib, ZelGvc

ZelGvc.init()


class LibraryChannel:
    """A channel on a connected socket, which it takes over. A stage is None for compression or the
    bytes of the AES key; the first one is nearest to the messages."""

    def __init__(self, end, stages):
        end.settimeout(None)
        # Its own, so that each thread of a test can have channels.
        self.context = GLib.MainContext.get_thread_default() or GLib.MainContext.default()
        self.socket = Gio.Socket.new_from_fd(end.detach())
        self.connection = self.socket.connection_factory_create_connection()
        self.channel = ZelGvc.Connection.new(self.connection)
        for stage in reversed(stages):
            pair = ZelGvc.Decompressor.new(), ZelGvc.Compressor.new()
            if stage:
                key = GLib.Bytes.new(stage.ljust(32, b"-"))
                pair = ZelGvc.Decryptor.new(key), ZelGvc.Encryptor.new(key)
                for converter in pair:
                    converter.set_key_length(8 * len(stage))
            self.channel.add_converters(*pair)
        self.reader = ZelGvc.BytesInputStream.new(self.channel.get_input_stream())
        self.writer = ZelGvc.BytesOutputStream.new(self.channel.get_output_stream())

    def read_blocking(self):
        return self.reader.read_bytes(None).get_data() or b""

    def read_async(self):
        results = []
        self.reader.read_bytes_async(
            GLib.PRIORITY_DEFAULT, None, lambda _, result: results.append(result)
        )
        while not results:
            self.context.iteration(True)
        return self.reader.read_bytes_finish(results[0]).get_data() or b""

    def read_all(self, read):
        """The messages up to the first error, and that error."""
        messages = []
        try:
            while True:
                messages.append(read())
        except GLib.Error as error:
            return messages, error

    def write(self, message):
        self.writer.put_bytes(GLib.Bytes.new(message), None)

    def close(self):
        self.channel.close(None)
        self.connection.close(None)
