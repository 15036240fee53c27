# SPDX-License-Identifier: LGPL-2.1-or-later
"""LZO1X streams and the chunk layout."""

import contextlib
import io
import struct

END = b"\x11\x00\x00"


class Broken(Exception):
    """Data that a reader refuses. The text is the message in docs/errors.md."""


class Stream:
    """Writes instructions. A match takes the shortest form for its length and distance."""

    def __init__(self):
        self.out, self.state, self.started = bytearray(), 0, False

    def _length(self, value):
        self.out += bytes((value - 1) // 255)
        self.out.append((value - 1) % 255 + 1)

    def literals(self, run):
        """Literals after a match, possibly none, or at the beginning."""
        count = len(run)
        if self.started and count < 4:
            self.out[-2] |= count  # in both kinds of match, the last byte but one has the number
        elif not self.started and count <= 238 and count != 0x55 - 17:
            self.out.append(17 + count)  # never 0x55, with which chunks begin
        elif count < 19:
            self.out.append(count - 3)
        else:
            self.out.append(0)
            self._length(count - 18)
        self.out += run
        self.state, self.started = min(count, 4), True

    def match(self, count, distance):
        if count == 2 and self.state in (1, 2, 3) and distance <= 1024:
            self.out += bytes([(distance - 1 & 3) << 2, distance - 1 >> 2])
        elif count == 3 and self.state == 4 and 2049 <= distance <= 3072:
            self.out += bytes([(distance - 2049 & 3) << 2, distance - 2049 >> 2])
        elif 3 <= count <= 8 and distance <= 2048:
            self.out += bytes([count - 1 << 5 | (distance - 1 & 7) << 2, distance - 1 >> 3])
        else:
            near = distance <= 16384
            base, longest, rest = (32, 33, distance - 1) if near else (16, 9, distance - 16384)
            if not near:
                base |= rest >> 14 << 3
            self.out.append(base | (count - 2 if count <= longest else 0))
            if count > longest:
                self._length(count - longest)
            self.out += struct.pack("<H", (rest & 0x3FFF) << 2)
        self.state = 0


def encode(data):
    """Encodes data, which must not be empty, as one stream."""
    stream, seen, start, at = Stream(), {}, 0, 0
    while at < len(data) - 3:
        word, end = data[at : at + 4], at + 4
        earlier = seen.get(word, -49152)
        seen[word] = at
        if at - earlier > 49151:
            at += 1 + (at - start) // 32  # goes faster through data that does not compress
            continue
        while end < len(data) and data[end : end + 999] == data[end - at + earlier : end - at + earlier + 999]:
            end += 999
        while end < len(data) and data[end] == data[end - at + earlier]:
            end += 1
        stream.literals(data[start:at])
        stream.match(end - at, at - earlier)
        start = at = end
    stream.literals(data[start:])
    return bytes(stream.out + END)


def decode(data, room):
    """Decodes one stream, which must end with its marker and give at most room bytes."""
    source, out, state = io.BytesIO(data), bytearray(), 0

    def need(holds):
        if not holds:
            raise Broken("Failed to decode LZO")

    def take(count):
        piece = source.read(count)
        need(len(piece) == count)
        return piece

    def length():
        """The value of length bytes: any number of zeros, then another byte."""
        zeros = 0
        while not (last := take(1)[0]):
            zeros += 1
        return 255 * zeros + last

    if data and data[0] > 17:
        out += take(take(1)[0] - 17)
        state = min(len(out), 4)
    while True:
        need(len(out) <= room)
        code = take(1)[0]
        if code < 16 and state == 0:
            out += take(code + 3 if code else length() + 18)
            state = 4
            continue
        if code < 16:
            count, first = (3, 2049) if state == 4 else (2, 1)
            distance = (take(1)[0] << 2) + (code >> 2) + first
        elif code < 64:
            mask = 31 if code >= 32 else 7
            count = (code & mask or length() + mask) + 2
            word = int.from_bytes(take(2), "little")
            distance = (word >> 2) + 1 if code >= 32 else (word >> 2) + 16384 + ((code & 8) << 11)
            if distance == 16384 and code < 32:
                need(code == 17 and not word and not source.read())
                return bytes(out)
            code = word
        else:
            count = (code >> 5) + 1
            distance = (take(1)[0] << 3) + (code >> 2 & 7) + 1
        need(distance <= len(out) and len(out) + count <= room)
        pattern = out[len(out) - distance : len(out) - distance + count]
        out += (pattern * (count // len(pattern) + 1))[:count]
        state = code & 3
        out += take(state)


def write_chunks(data, number):
    """Encodes data, of at least number bytes, in the chunk layout."""
    cuts = [len(data) // number * i for i in range(number)] + [len(data)]
    chunks = [encode(data[start:end]) for start, end in zip(cuts, cuts[1:])]
    sizes = b"".join(struct.pack("<I", len(chunk)) for chunk in chunks[:-1])
    return bytes([0x55, number, number ^ 0x55]) + struct.pack("<I", len(data)) + sizes + b"".join(chunks)


def chunks(payload):
    """The number of chunks if the payload looks like chunks, 0 for a plain stream."""
    number = payload[1] if len(payload) >= 7 else 0
    if not 1 <= number <= 32 or payload[0] != 0x55 or payload[2] != number ^ 0x55:
        return 0
    first = 7 + 4 * (number - 1)
    end = first + struct.unpack_from("<I", payload, 7)[0] if number > 1 else len(payload)
    return number if first + 3 <= end <= len(payload) and payload[end - 3 : end] == END else 0


def _join(payload, number, room):
    total, *sizes = struct.unpack_from(f"<{number}I", payload, 3)
    out, at = b"", 7 + 4 * (number - 1)
    for i in range(number):
        last = i == number - 1
        end = len(payload) if last else at + sizes[i]
        share = total - len(out) if last else total // number
        part = decode(payload[at:end], share)
        if total > room or end > len(payload) or len(part) != share:
            raise Broken("Failed to decode LZO")
        out += part
        at = end
    return out


def read(payload, room):
    """Decodes the payload of a block; room is the decoded size in its header."""
    number = chunks(payload)
    if number != 1:
        return _join(payload, number, room) if number else decode(payload, room)
    plain = None
    with contextlib.suppress(Broken):
        plain = decode(payload, room)
        if len(plain) != room:
            plain = _join(payload, 1, room)
    return _join(payload, 1, room) if plain is None else plain
