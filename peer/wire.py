# SPDX-License-Identifier: LGPL-2.1-or-later
"""Frames, encrypted records and compressed blocks, and a channel over a socket."""

import os
import socket
import struct

from cryptography.hazmat.primitives.ciphers import Cipher, algorithms, modes

from . import lzo
from .lzo import Broken


def frame(message):
    return struct.pack("<i", len(message)) + message


class Units:
    """Collects bytes until a unit is complete, and notes what a careful writer would not send."""

    def __init__(self):
        self.buffer, self.notes, self.borders, self.taken = bytearray(), [], [], 0

    def feed(self, pieces):
        for piece in pieces:
            self.buffer += piece
            while not self.missing():
                self.borders.append(self.taken)
                yield from self.unit()

    def take(self, count):
        piece = bytes(self.buffer[:count])
        del self.buffer[:count]
        self.taken += count
        return piece

    def number(self, form):
        return struct.unpack_from(form, self.buffer)[0]


class Frames(Units):
    def missing(self):
        """The error of a reader if the stream ended here; empty if a unit is complete."""
        size = self.number("<i") if len(self.buffer) >= 4 else 0
        if size < 0:
            raise Broken("Invalid frame length")
        return "" if len(self.buffer) >= 4 + size else "Disconnected"

    def unit(self):
        yield self.take(struct.unpack("<i", self.take(4))[0])


class Encryptor:
    """Makes a record of each unit of plain text."""

    def __init__(self, key):
        self.key, self.chain = key, None

    def vector(self, vector=None):
        """An IV record."""
        vector = vector or os.urandom(16)
        self.chain = Cipher(algorithms.AES(self.key), modes.CBC(vector)).encryptor()
        return bytes(8) + vector

    def blocks(self, text):
        """A record of padded text."""
        head = b"" if self.chain else self.vector()
        return head + struct.pack("<Q", len(text)) + self.chain.update(text)

    def put(self, data):
        missing = 16 - len(data) % 16
        return self.blocks(data + bytes([missing]) * missing)


class Decryptor(Units):
    def __init__(self, key):
        super().__init__()
        self.key, self.vectors = key, []
        self.vector(bytes(16))

    def vector(self, vector):
        self.chain = Cipher(algorithms.AES(self.key), modes.CBC(vector)).decryptor()

    def missing(self):
        if len(self.buffer) < 8:
            return "Partial header"
        size = self.number("<Q")
        if size % 16 or size >= 1 << 31 and len(self.buffer) >= 1 << 20:
            raise Broken("Not multiple of AES block" if size % 16 else "Decryption failed")
        if len(self.buffer) >= 8 + (size or 16):
            return ""
        return "Partial data" if size else "Partial IV"

    def unit(self):
        size = struct.unpack("<Q", self.take(8))[0]
        body = self.take(size or 16)
        if not size:
            self.vectors.append(body)
            self.vector(body)
            return
        text = self.chain.update(body)
        count = text[-1]
        if count > size:
            raise Broken("Decryption failed")
        if not self.vectors:
            self.notes.append("a data record before the first IV record")
        if not 1 <= count <= 16 or text[-count:] != bytes([count]) * count:
            self.notes.append("padding that is not 1 to 16 bytes of its own length")
        yield text[: size - count]


class Compressor:
    """Makes a block of each unit of data."""

    def block(self, payload, size):
        return struct.pack("<II", len(payload), size) + payload

    def put(self, data):
        return self.block(lzo.encode(data) if data else b"", len(data))


class Decompressor(Units):
    def missing(self):
        if len(self.buffer) < 8:
            return "Partial header"
        return "" if len(self.buffer) - 8 >= self.number("<I") else "Partial data"

    def unit(self):
        packed, size = struct.unpack("<II", self.take(8))
        payload = self.take(packed)
        if size > max(255 * packed, 1 << 20):
            raise Broken("Failed to decode LZO")
        out = lzo.read(payload, size) if payload else b""
        if len(out) != size:
            self.notes.append(f"a block of {len(out)} bytes that announces {size}")
        if lzo.chunks(payload):
            self.notes.append("a payload in the chunk layout, or one that can be taken for it")
        yield out


class Writer:
    """Turns messages into bytes for the wire. A stage is None for compression, or the key of
    encryption. The first stage is nearest to the frames."""

    def __init__(self, stages):
        self.layers = [Encryptor(key) if key else Compressor() for key in stages]

    def through(self, data, first=0, last=None):
        """Sends one unit through all layers, or through those from first to before last."""
        for layer in self.layers[first:last]:
            data = layer.put(data)
        return data

    def put(self, message):
        """A frame as two units, its length and its payload."""
        data = frame(message)
        return self.through(data[:4]) + self.through(data[4:])


class Reader:
    """Turns bytes from the wire into messages."""

    def __init__(self, stages):
        self.layers = [Decryptor(key) if key else Decompressor() for key in reversed(stages)] + [Frames()]

    def feed(self, data):
        pieces = [data]
        for layer in self.layers:
            pieces = layer.feed(pieces)
        return pieces


def connect(address, patience):
    host, _, port = address.rpartition(":")
    if host != "unix":
        return socket.create_connection((host.strip("[]") or "localhost", int(port)), patience)
    sock = socket.socket(socket.AF_UNIX)
    sock.settimeout(patience)
    sock.connect(port)
    return sock


class Channel:
    """A connected socket with stages."""

    def __init__(self, sock, stages):
        self.sock, self.writer, self.reader = sock, Writer(stages), Reader(stages)
        if sock.family != socket.AF_UNIX:
            sock.setsockopt(socket.IPPROTO_TCP, socket.TCP_NODELAY, 1)
        self.heard = iter(())

    def receive(self):
        """The next message; None at the end of the stream."""
        while True:
            for message in self.heard:
                return message
            data = self.sock.recv(1 << 16)
            if not data:
                return None
            self.heard = self.reader.feed(data)
