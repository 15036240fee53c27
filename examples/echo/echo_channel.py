# SPDX-License-Identifier: LGPL-2.1-or-later
"""What the Python server and the Python client share."""

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
