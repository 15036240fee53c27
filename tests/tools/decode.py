#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""decode, against streams that are built here by hand: AES by OpenSSL, LZO1X as literals."""

import ctypes
import ctypes.util
import json
import os
import pathlib
import signal
import socket
import struct
import subprocess

from support import STAGES, Process, case, each, key, main, run

KEY = bytes(range(32))
IV = bytes(range(100, 116))

crypto = ctypes.CDLL(ctypes.util.find_library("crypto") or "libcrypto.so.3")
for name in ("EVP_CIPHER_CTX_new", "EVP_aes_128_cbc", "EVP_aes_256_cbc"):
    getattr(crypto, name).restype = ctypes.c_void_p


def aes_cbc(plain, iv, bits):
    context = ctypes.c_void_p(crypto.EVP_CIPHER_CTX_new())
    cipher = ctypes.c_void_p(getattr(crypto, f"EVP_aes_{bits}_cbc")())
    out = ctypes.create_string_buffer(len(plain) + 32)
    length = ctypes.c_int()
    assert crypto.EVP_EncryptInit_ex(context, cipher, None, KEY, iv)
    crypto.EVP_CIPHER_CTX_set_padding(context, 0)
    assert crypto.EVP_EncryptUpdate(context, out, ctypes.byref(length), plain, len(plain))
    crypto.EVP_CIPHER_CTX_free(context)
    assert length.value == len(plain)
    return out.raw[: length.value]


def records(pieces, bits=256):
    """An IV record and a record for each piece."""
    stream, iv = [bytes(8) + IV], IV
    for piece in pieces:
        padding = 16 - len(piece) % 16
        cipher = aes_cbc(piece + bytes([padding]) * padding, iv, bits)
        stream.append(struct.pack("<Q", len(cipher)) + cipher)
        iv = cipher[-16:]
    return stream


def blocks(pieces):
    stream = []
    for piece in pieces:
        assert len(piece) <= 238
        payload = bytes([17 + len(piece)]) + piece + b"\x11\0\0" if piece else b""
        stream.append(struct.pack("<II", len(payload), len(piece)) + payload)
    return stream


def pieces(messages):
    """A length and its message are two writes."""
    return [piece for message in messages for piece in (struct.pack("<i", len(message)), message)]


MESSAGES = [b"hello", b"\x00\xff\x01", b"", b"gr\xc3\xbc\xc3\x9fe", b"x" * 200]


def build(stages, messages=MESSAGES):
    stream = pieces(messages)
    bits = 128 if "128" in stages else 256
    for stage in stages:
        if stage == "--compress":
            stream = blocks([piece for piece in stream if piece])
        elif stage == "--encrypt":
            stream = records([piece for piece in stream if piece], bits)
    return stream


def decode(stream, *options, codes=(0,)):
    pathlib.Path("stream").write_bytes(b"".join(stream))
    found = run("decode", "stream", "--json", *options, codes=codes)
    return [json.loads(line) for line in found.output.splitlines()]


def of(found, layer):
    return [item for item in found if item["layer"] == layer and "index" in item]


def damage(found):
    return [item for item in found if "damage" in item]


@each(*STAGES.items())
def every_stack_comes_apart(stages):
    pathlib.Path("key").write_bytes(KEY)
    stream = build(stages)
    found = decode(stream, *stages)
    frames = of(found, "frame")
    contents = [bytes.fromhex(f["hex"]) if "hex" in f else f["text"].encode() for f in frames]
    assert contents == MESSAGES and not damage(found)
    offset = 0
    for frame, message in zip(frames, MESSAGES):
        assert (frame["offset"], frame["length"], frame["size"]) == (
            offset, len(message), len(message) + 4,
        )
        offset += frame["size"]
    lowest = {"--compress": "block", "--encrypt": "record"}
    used = [stage for stage in stages if stage in lowest]
    if used:
        units = of(found, lowest[used[-1]])
        assert [unit["size"] for unit in units] == [len(piece) for piece in stream]
        offsets = [sum(map(len, stream[:i])) for i in range(len(stream))]
        assert [unit["offset"] for unit in units] == offsets
        assert frames[0]["inside"] == lowest[used[0]]


@each(*STAGES.items())
def what_the_program_sends_comes_apart(stages):
    pathlib.Path("key").write_bytes(KEY)
    server = socket.create_server(("127.0.0.1", 0))
    with open("lines", "wb") as file:
        file.write(b"one\n" + b"y" * 100000 + b"\n\n")
    with open("lines", "rb") as file:
        connect = Process(
            "connect", f"127.0.0.1:{server.getsockname()[1]}", *stages, stdin=file
        )
    peer = server.accept()[0]
    stream = b""
    while data := peer.recv(65536):
        stream += data
    peer.close()
    connect.wait()
    found = decode([stream], *stages, "--limit", "0")
    assert [f["text"] for f in of(found, "frame")] == ["one", "y" * 100000, ""] and not damage(found)


@case
def text_for_people():
    pathlib.Path("key").write_bytes(KEY)
    pathlib.Path("stream").write_bytes(b"".join(build(["--encrypt", "key"], [b"hello", b"\x01\xff"])))
    lines = run("decode", "stream", "--encrypt", "key").output.decode().splitlines()
    assert lines == [
        "record 0: offset 0, 24 bytes, IV " + IV.hex(),
        "record 1: offset 24, 24 bytes, holds 4 bytes",
        "record 2: offset 48, 24 bytes, holds 5 bytes",
        '  frame 0: offset 0 (record 1), 9 bytes, message of 5 bytes: "hello"',
        "record 3: offset 72, 24 bytes, holds 4 bytes",
        "record 4: offset 96, 24 bytes, holds 2 bytes",
        "  frame 1: offset 9 (record 3), 6 bytes, message of 2 bytes: 01ff",
        "5 records, 2 frames, no damage",
    ], lines


@case
def contents_as_asked_for():
    data = b"".join(pieces([b"abc", b"x" * 300]))
    show = lambda *options: run("decode", *options, data=data).output.decode().splitlines()[0]
    assert show().endswith(': "abc"')
    assert show("--hex").endswith(": 616263")
    assert show("--limit", "2").endswith(': "ab"...')
    assert run("decode", "--limit", "0", data=data).output.count(b"x") == 300
    value = struct.pack("<I", 7) + b"hi\0"
    data = b"".join(pieces([value, b"hi"]))
    found = run("decode", "-", "--variant", "(us)", "--json", data=data, codes=(1,))
    good, bad = [json.loads(line) for line in found.output.splitlines()]
    assert good["variant"] == "(7, 'hi')" and bad["expected"] == "a value of type (us)"


@case
def without_the_key_the_records_are_there():
    found = decode(build(["--compress", "--encrypt", "key"]), "--encrypted")
    stream = build(["--compress", "--encrypt", "key"])
    assert [item["size"] for item in found] == [len(piece) for piece in stream]
    assert found[0]["iv"] == IV.hex() and "content-size" not in found[1]


@case
def another_key_is_suspected():
    key("other", 9)
    found = decode(build(["--encrypt", "key"]), "--encrypt", "other", codes=(1,))
    assert any("is it another key" in item["found"] for item in damage(found))
    assert not any(item.get("text") == "hello" for item in found)


@case
def every_cut_is_reported_where_it_is():
    pathlib.Path("key").write_bytes(KEY)
    for stages in ([], ["--compress"], ["--encrypt", "key"]):
        stream = build(stages, [b"hello", b"you"])
        whole = b"".join(stream)
        ends = {sum(map(len, stream[:i])) for i in range(len(stream) + 1)}
        if not stages:
            ends = {0, 9, 16}
        for cut in range(len(whole)):
            inside = cut not in ends
            # Between two pieces there may still be half a message.
            found = damage(decode([whole[:cut]], *stages, codes=(0, 1)))
            layers = [item["layer"] for item in found]
            if inside:
                lowest = {"--compress": "block", "--encrypt": "record"}.get("".join(stages[:1]), "frame")
                start = max(end for end in ends if end < cut)
                assert found[0]["layer"] == lowest and found[0]["offset"] == start, (cut, found)
            assert layers.count("frame") <= 1


@case
def a_broken_block_does_not_hide_the_others():
    stream = build(["--compress"], [b"one", b"two", b"three"])
    broken = bytearray(stream[3])
    broken[8:] = b"\xff" * len(broken[8:])
    found = decode(stream[:3] + [bytes(broken)] + stream[4:], "--compress", codes=(1,))
    assert [f["text"] for f in of(found, "frame")] == ["one", "three"]
    first = damage(found)[0]
    assert first["layer"] == "block" and first["offset"] == sum(map(len, stream[:3]))
    assert first["expected"] == "an LZO1X stream that gives 3 bytes"
    assert damage(found)[1]["layer"] == "frame" and damage(found)[1]["expected"] == "a message of 3 bytes"


@case
def a_broken_record_does_not_hide_the_others():
    pathlib.Path("key").write_bytes(KEY)
    stream = build(["--encrypt", "key"], [b"one", b"two" * 10, b"three", b"four"])
    plain = b"two" * 10 + b"\xc8\xc8"
    iv = stream[3][-16:]
    bad = struct.pack("<Q", 32) + aes_cbc(plain, iv, 256)
    # What follows is chained to the cipher text as it was sent.
    chained = aes_cbc(struct.pack("<i", 5) + b"\x0c" * 12, bad[-16:], 256)
    rest = [struct.pack("<Q", 16) + chained]
    for piece in (b"three",):
        cipher = aes_cbc(piece + b"\x0b" * 11, rest[-1][-16:], 256)
        rest.append(struct.pack("<Q", 16) + cipher)
    found = decode(stream[:4] + [bad] + rest, "--encrypt", "key", codes=(1,))
    assert [f["text"] for f in of(found, "frame")] == ["one", "three"], found
    assert damage(found)[0]["offset"] == sum(map(len, stream[:4]))


@case
def lengths_that_cannot_be_are_reported():
    found = decode([b"\x01\0\0\0a", b"\xff\xff\xff\xff", b"rest"], codes=(1,))
    assert [f["text"] for f in of(found, "frame")] == ["a"]
    (item,) = damage(found)
    assert item["offset"] == 5 and item["found"] == "-1" and "not negative" in item["expected"]
    assert [i["skipped"] for i in found if "skipped" in i] == [8]

    found = decode([bytes(24), struct.pack("<Q", 20), bytes(20)], "--encrypted", codes=(1,))
    assert damage(found)[0]["offset"] == 24 and damage(found)[0]["found"] == "20"

    for sizes in ((0, 5), (5, 0), (2**31, 1), (1, 2**31)):
        found = decode([struct.pack("<II", *sizes), bytes(9)], "--compress", codes=(1,))
        assert damage(found)[0]["offset"] == 0
        assert damage(found)[0]["found"] == f"{sizes[0]} and {sizes[1]}"


def listened(stream, *options):
    """What the reader of the library makes of it."""
    listen = Process("listen", "127.0.0.1:0", "--json", *options)
    host, port = listen.address().rsplit(":", 1)
    with socket.create_connection((host, int(port))) as peer:
        peer.sendall(b"".join(stream))
        peer.shutdown(socket.SHUT_WR)
        while peer.recv(65536):
            pass
    listen.wait(0, 1, 4, 5)
    return [json.loads(line) for line in listen.output.splitlines()]


@case
def nothing_reaches_a_terminal_through_json():
    evil = "\x1b[2J\x7f\u009b\u009d\u202e\U000e0001\u00fc"
    found = decode(pieces([evil.encode()]))
    assert found[0]["text"] == evil
    line = run("decode", "stream", "--json").output.decode()
    assert all(c.isprintable() for c in line[:-1]) and "\u00fc" in line, line
    listen = listened(pieces([evil.encode()]))
    assert listen[0]["text"] == evil


@case
def listen_names_a_negative_length_as_it_is():
    listen = Process("listen", "127.0.0.1:0")
    with socket.create_connection(("127.0.0.1", int(listen.address().rsplit(":", 1)[1]))) as peer:
        peer.sendall(b"\xff\xff\xff\xff")
        listen.wait(5)
    assert "a message of -1 bytes is announced" in listen.errors, listen.errors


@case
def a_long_stream_takes_little_memory():
    header = struct.pack("<i", 2**31 - 1)
    decode_ = Process("decode", stdin=subprocess.PIPE)
    decode_.popen.stdin.write(header)
    chunk = bytes(2**20)
    for _ in range(300):
        decode_.popen.stdin.write(chunk)
    decode_.look_at_memory()
    decode_.popen.stdin.close()
    decode_.wait(1)
    decode_.used_at_most(32 * 1024)


@case
def garbage_never_ends_badly():
    import random

    pathlib.Path("key").write_bytes(KEY)
    generator = random.Random(7)
    for number in range(60):
        stages = list(STAGES.values())[number % len(STAGES)]
        whole = bytearray(b"".join(build(stages)))
        for _ in range(generator.randrange(1, 6)):
            whole[generator.randrange(len(whole))] = generator.randrange(256)
        decode([bytes(whole)], *stages, codes=(0, 1))
        decode([generator.randbytes(500)], *stages, codes=(0, 1))


@case
def a_reader_that_leaves_is_no_error():
    pathlib.Path("stream").write_bytes(b"\x01\0\0\0a" * 100000)
    reader, writer = os.pipe()
    process = Process("decode", "stream", stdout=writer)
    os.close(writer)
    os.read(reader, 100)
    os.close(reader)
    process.wait(0)
    assert process.errors == ""
    with open("/dev/full", "wb") as full:
        Process("decode", "stream", stdout=full).wait(6).complained("No space left")


@case
def what_cannot_be_read_is_named():
    run("decode", "none", codes=(6,)).complained("cannot read none: No such file")
    run("decode", ".", codes=(6,)).complained("cannot read .: Is a directory")
    run("decode", "--encrypted", "--compress", codes=(2,)).complained("takes no stages")


@case
def an_interrupt_while_waiting_for_input():
    process = Process("decode", stdin=subprocess.PIPE)
    process.popen.stdin.write(b"\x01\0\0\0a")
    process.popen.stdin.flush()
    process.until(lambda: b"frame 0" in process.output, "frame")
    process.kill(signal.SIGINT)
    process.wait(130)


main()
