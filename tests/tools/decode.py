#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""decode, against streams that are built here by hand: AES by OpenSSL, LZO1X as literals."""

import ctypes
import ctypes.util
import json
import os
import pathlib
import random
import resource
import shutil
import signal
import socket
import struct
import subprocess

from support import SANITIZED, STAGES, Process, Skip, case, each, key, main, run

try:
    import jsonschema
except ImportError:
    jsonschema = None

KEY = bytes(range(32))
IV = bytes(range(100, 116))
SCHEMA = json.loads((pathlib.Path(os.environ["TOOLS_SOURCE"]) / "decode.schema.json").read_text())
VALIDATOR = jsonschema and jsonschema.Draft202012Validator(SCHEMA)

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


def literals(data):
    """An LZO1X stream that is one run of literals."""
    if len(data) <= 238:
        return bytes([17 + len(data)]) + data + b"\x11\0\0"
    more, last = divmod(len(data) - 19, 255)
    return bytes(1 + more) + bytes([last + 1]) + data + b"\x11\0\0"


def block(payload, announced):
    return struct.pack("<II", len(payload), announced) + payload


def blocks(pieces):
    return [block(literals(piece) if piece else b"", len(piece)) for piece in pieces]


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
    return items(run("decode", "stream", "--json", *options, codes=codes))


def items(process):
    found = [json.loads(line) for line in process.output.splitlines()]
    for item in found:
        if jsonschema:
            VALIDATOR.validate(item)
    return found


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
    assert first["expected"] == "an LZO1X stream that gives at most 3 bytes"
    assert damage(found)[1]["layer"] == "frame" and damage(found)[1]["expected"] == "a message of 3 bytes"


@case
def a_broken_record_does_not_hide_the_others():
    pathlib.Path("key").write_bytes(KEY)
    stream = build(["--encrypt", "key"], [b"one", b"two" * 10, b"three", b"four"])
    plain = b"two" * 10 + b"\xc8\xc8"
    iv = stream[3][-16:]
    bad = struct.pack("<Q", 32) + aes_cbc(plain, iv, 256)
    # The next record is chained to the cipher text as it was sent.
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

    for sizes in ((1031, 5), (2**31, 1), (1, 2**20 + 1), (1, 2**31), (2**14, 2**22 + 1)):
        found = decode([struct.pack("<II", *sizes), bytes(9)], "--compress", codes=(1,))
        assert damage(found)[0]["offset"] == 0
        assert damage(found)[0]["found"] == f"{sizes[0]} and {sizes[1]}"


@case
def the_schema_refuses_what_decode_does_not_print():
    if not jsonschema:
        raise Skip("no python3-jsonschema here")
    jsonschema.Draft202012Validator.check_schema(SCHEMA)
    frame = decode(pieces([b"hello"]))[0]
    for change in ({"depth": 1}, {"iv": "00"}, {"text": 5}, {"hex": "00"}, {"new": 1}, {"layer": "x"}):
        try:
            VALIDATOR.validate({**frame, **change})
        except jsonschema.ValidationError:
            continue
        raise AssertionError(change)


@case
def a_unit_over_several_units_names_the_first():
    pathlib.Path("key").write_bytes(KEY)
    whole = b"".join(pieces([b"first", b"x" * 50, b"last"]))
    cuts = [whole[:5], whole[5:13], *(whole[i : i + 7] for i in range(13, len(whole), 7))]
    for build_, stages, name in (
        (blocks, ["--compress"], "block"), (records, ["--encrypt", "key"], "record"),
    ):
        stream = build_(cuts)
        start = 1 if name == "record" else 0
        frames = of(decode(stream, *stages), "frame")
        assert [f["inside-index"] for f in frames] == [start, start + 1, start + 9], frames
        assert [f["inside"] for f in frames] == [name] * 3
        (cut,) = damage(decode(stream[:-4], *stages, codes=(1,)))
        assert (cut["layer"], cut["offset"], cut["inside-index"]) == ("frame", 9, start + 1)
    whole = b"".join(records(cuts))
    for size in (7, 39, 41, 100):
        stream = blocks([whole[i : i + size] for i in range(0, len(whole), size)])
        units = of(decode(stream, "--encrypt", "key", "--compress"), "record")
        assert [u["inside-index"] for u in units] == [u["offset"] // size for u in units]


@case
def two_stages_of_one_kind_are_told_apart():
    stages = ["--compress", "--compress"]
    stream = blocks(blocks(pieces([b"hello"])))
    found = decode(stream, *stages)
    assert [(i["layer"], i["depth"], i["index"]) for i in found] == [
        ("block", 0, 0), ("block", 1, 0), ("block", 0, 1), ("block", 1, 1), ("frame", 2, 0),
    ]
    assert (found[3]["inside"], found[3]["inside-index"]) == ("block", 1)
    lines = run("decode", "stream", *stages).output.decode().splitlines()
    assert lines[3:] == [
        "  block 1: offset 16 (block 1), 17 bytes, holds 5 bytes",
        '    frame 0: offset 0 (block 0), 9 bytes, message of 5 bytes: "hello"',
        "2 blocks, 2 blocks, 1 frame, no damage",
    ], lines


def expanded(data):
    """As long as LZO1X can get: 4 literals, and a match of 3 bytes, 4 back."""
    assert all(data[i + 4 : i + 7] == data[i : i + 3] for i in range(0, len(data), 7))
    runs = [b"\x01" + data[i : i + 4] + b"\x21\x0c\0" for i in range(0, len(data), 7)]
    return b"".join(runs) + b"\x11\0\0"


def listened(stream, *options):
    """How the reader of the library decodes it."""
    listen = Process("listen", "127.0.0.1:0", "--json", *options)
    host, port = listen.address().rsplit(":", 1)
    with socket.create_connection((host, int(port))) as peer:
        peer.sendall(b"".join(stream))
        peer.shutdown(socket.SHUT_WR)
        while peer.recv(65536):
            pass
    listen.wait(0, 1, 4, 5)
    return [json.loads(line) for line in listen.output.splitlines()]


def shown(found):
    return [{name: item[name] for name in ("text", "hex") if name in item} for item in found]


@case
def what_the_reader_takes_is_taken():
    pathlib.Path("key").write_bytes(KEY)
    large = b"abcdabc" * 100000
    frame = struct.pack("<i", len(large)) + large
    assert len(frame) % 7 == 4
    tail = expanded(frame[4:])
    for name, stream in (
        ("less than announced", [block(literals(b"\x02\0\0\0hi"), 9)]),
        ("nothing of what is announced", [block(b"", 5), *blocks([b"\x02\0\0\0hi"])]),
        ("a payload for nothing", [block(b"\x11\0\0", 0), *blocks([b"\x02\0\0\0hi"])]),
        ("much is announced", [block(literals(b"\x02\0\0\0hi"), 2**20)]),
        ("more than it could hold is announced",
         [block(literals(struct.pack("<i", 16000) + b"z" * 16000), 2**22)]),
        ("1.14 times the size", [*blocks([frame[:4]]), block(tail, len(large))]),
    ):
        found = decode(stream, "--compress", "--limit", "0")
        taken = listened(stream, "--compress")
        assert len(taken) == 1 and shown(of(found, "frame")) == shown(taken), name
        assert not damage(found), name
        strict = decode(stream, "--compress", "--strict", codes=(0, 1))
        assert any("note" in item for item in strict) == (name[0] != "1"), name
    for padding in (0, 17, 26):
        plain = b"\x02\0\0\0hi" + bytes(25) + bytes([padding])
        stream = [bytes(8) + IV, struct.pack("<Q", 32) + aes_cbc(plain, IV, 256)]
        found = decode(stream, "--encrypt", "key", codes=(0, 1))
        assert of(found, "record")[1]["content-size"] == 32 - padding
        taken = listened(stream, "--encrypt", "key")
        assert taken and shown(of(found, "frame"))[:1] == shown(taken)[:1] == [{"text": "hi"}]
        assert not [item for item in damage(found) if item["layer"] == "record"]


@case
def a_stream_without_its_beginning_says_so():
    pathlib.Path("key").write_bytes(KEY)
    stream = build(["--encrypt", "key"], [b"one", b"two", b"three"])
    found = decode(stream[1:], "--encrypt", "key", codes=(1,))
    assert damage(found)[0]["found"] == "no IV record before" and damage(found)[0]["offset"] == 0
    # The first record cannot be decrypted, and all others can.
    assert [f["text"] for f in of(found, "frame")] == ["two", "three"], found
    found = decode(stream[1:], "--encrypted", codes=(1,))
    assert len(of(found, "record")) == 6 and len(damage(found)) == 1
    assert damage(found)[0]["found"] == "no IV record before"


@case
def nothing_reaches_a_terminal_through_json():
    evil = "".join(map(chr, range(1, 32))) + "\x1b[2J\x7f\u009b\u009d\u202e\U000e0001\u00fc"
    found = decode(pieces([evil.encode()]))
    assert found[0]["text"] == evil
    line = run("decode", "stream", "--json").output.decode()
    assert all(c.isprintable() for c in line[:-1]) and "\u00fc" in line, line
    listen = listened(pieces([evil.encode()]))
    assert listen[0]["text"] == evil


@case
def strings_instead_of_frames():
    data = b"one\0" + b"y" * 300 + b"\0\0gr\xc3\xbc\xc3\x9fe"
    found = decode([data], "--strings", "\\0", "--limit", "10", codes=(1,))
    assert [(s["layer"], s["text"], s["length"], s["size"]) for s in of(found, "string")] == [
        ("string", "one", 3, 4), ("string", "y" * 10, 300, 301), ("string", "", 0, 1),
    ]
    (cut,) = damage(found)
    assert cut["offset"] == 306 and cut["expected"] == "a string with its terminator"
    pathlib.Path("key").write_bytes(KEY)
    stream = records(blocks([b"o", b"n", b"e\n", b"two\nthree\n"]))
    found = decode(stream, "--strings", "\\n", "--compress", "--encrypt", "key")
    strings = of(found, "string")
    assert [s["text"] for s in strings] == ["one", "two", "three"]
    assert [s["inside-index"] for s in strings] == [0, 3, 3]
    # The string with a hole and the one that goes on behind it are lost.
    stream = blocks([b"one\n", b"two", b"three\n", b"four\n"])
    broken = stream[1][:8] + b"\xff" * len(stream[1][8:])
    found = decode([stream[0], broken, *stream[2:]], "--strings", "\\n", "--compress", codes=(1,))
    assert [s["text"] for s in of(found, "string")] == ["one", "three", "four"]
    run("decode", "stream", "--strings", "ab", codes=(2,)).complained("--strings takes one byte")


def notes(found):
    return [item["note"] for item in found if "note" in item]


@case
def strict_notes_what_a_careful_writer_does_not_send():
    pathlib.Path("key").write_bytes(KEY)
    for stages in STAGES.values():
        stream = build(stages, [message for message in MESSAGES if message])
        assert not notes(decode(stream, *stages, "--strict"))
    (empty,) = notes(decode(pieces([b""]), "--strict", codes=(1,)))
    assert "empty message" in empty
    assert not notes(decode(pieces([b""])))
    plain = b"\x01\0\0\0a" + b"\0" * 8 + b"\x01\x02\x03"
    stream = [bytes(8) + IV, struct.pack("<Q", 16) + aes_cbc(plain, IV, 256)] * 2
    found = decode([*stream, *records([])], "--encrypt", "key", "--strict", codes=(1,))
    assert [n for n in notes(found) if "padding" in n] == [
        "padding that is not 3 bytes of the value 3"] * 2, found
    assert sum("vector" in n for n in notes(found)) == 2
    found = decode([*blocks([b"\x01\0\0\0a", b"", b"\x01\0\0\0b"])], "--compress", "--strict",
                   codes=(1,))
    assert notes(found) == ["a block after an empty one, which ends a stream"]
    assert run("decode", "stream", "--compress", "--strict", codes=(1,)).output.endswith(
        b"3 blocks, 2 frames, 1 note, no damage\n")


def chunked(total, *chunks):
    sizes = b"".join(struct.pack("<I", len(chunk)) for chunk in chunks[:-1])
    return (bytes([0x55, len(chunks), len(chunks) ^ 0x55]) + struct.pack("<I", total) + sizes
            + b"".join(chunks))


@case
def strict_tells_plain_from_chunked():
    content = b"\x04\0\0\0abcd"
    for count in (1, 2, 4):
        share = len(content) // count
        parts = [literals(content[i : i + share]) for i in range(0, len(content), share)]
        found = decode([block(chunked(8, *parts), 8)], "--compress", "--strict", codes=(0, 1))
        assert (found[0]["layout"], found[0]["chunks"]) == ("chunked", count)
        assert [f["text"] for f in of(found, "frame")] == ["abcd"]
        assert any("single chunk" in note for note in notes(found)) == (count == 1)
    found = decode(blocks([content]), "--compress", "--strict")
    assert found[0]["layout"] == "plain" and "chunks" not in found[0]
    # 68 literals that look like chunks; the second one is no chunk, for nothing ends it.
    for content in (
        bytes.fromhex("015444000000") + b"J" + bytes(range(0x41, 0x7a)) + b"\x28\x0d\0\x21",
        b"\x02\x57" + b"z" * 65 + b"\n",
    ):
        stream = [block(b"\x55" + content + b"\x11\0\0", 68)]
        options = ["--compress", "--strings", "y" if b"y" in content else "\n"]
        found = decode(stream, *options, "--strict", codes=(1,))
        string = of(found, "string")[0]
        assert shown([string]) == shown(listened(stream, *options)[:1])
        plain = bytes.fromhex(string["hex"]) if "hex" in string else string["text"].encode()
        assert found[0]["layout"] == ("plain" if content.startswith(plain) else "chunked")
        assert content[1] == 0x54 or found[0]["layout"] == "plain"
        assert any("another reader" in note for note in notes(found))


@case
def listen_names_a_negative_length_as_it_is():
    listen = Process("listen", "127.0.0.1:0")
    with socket.create_connection(("127.0.0.1", int(listen.address().rsplit(":", 1)[1]))) as peer:
        peer.sendall(b"\xff\xff\xff\xff")
        listen.wait(5)
    assert "a message of -1 bytes is announced" in listen.errors, listen.errors


def within(kibibytes):
    return lambda: resource.setrlimit(resource.RLIMIT_AS, (kibibytes * 1024,) * 2)


@case
def a_block_that_lies_takes_no_memory():
    size = 8 * 2**20
    lie = block(literals(b"\xff" * 100) + bytes(size - 104), size * 255)
    decode_ = Process("decode", "--compress", stdin=subprocess.PIPE)
    decode_.popen.stdin.write(lie + blocks([b"\x01\0\0\0a"])[0])
    decode_.popen.stdin.flush()
    decode_.until(lambda: b"frame 0" in decode_.output, "frame")
    decode_.look_at_memory()
    decode_.popen.stdin.close()
    decode_.wait(1)
    assert b"DAMAGE at offset 0 of the blocks" in decode_.output
    decode_.used_at_most(64 * 1024)


@case
def too_little_memory_is_an_error():
    if SANITIZED:
        raise Skip("a sanitizer needs all addresses")
    size = 8 * 2**20
    pathlib.Path("lie").write_bytes(block(b"\xff" * size, size * 255))
    pathlib.Path("record").write_bytes(bytes(24) + struct.pack("<Q", 2**30) + bytes(300 * 2**20))
    pathlib.Path("frame").write_bytes(struct.pack("<i", 40 * 2**20) + b"\x01" * 40 * 2**20)
    for options, what in (
        (["--compress", "lie"], "for a block that announces 2139095040 bytes"),
        (["--encrypted", "record"], "not enough memory"),
        (["--limit", "0", "--json", "--text", "frame"], "not enough memory"),
        (["--limit", "0", "--variant", "ay", "frame"], "not enough memory"),
    ):
        run("decode", *options, codes=(6,), before=within(512 * 1024)).complained(what)


@case
def units_of_many_pieces_and_pieces_of_many_units_take_linear_time():
    count = 600000
    # A block in pieces of one byte; the last one holds the rest of it and many more blocks.
    stream = blocks([block(bytes(count), count)[:8]] + [b"\0"] * (count - 1))
    stream += blocks([bytes(1 + 8 * count)])
    pathlib.Path("stream").write_bytes(b"".join(stream))
    with open("/dev/null", "wb") as nowhere:
        Process("decode", "stream", "--compress", "--compress", stdout=nowhere).wait(1)


@case
def a_variant_of_many_elements_takes_linear_time():
    count = 3000000
    message = bytes(count) + b"".join(struct.pack("<I", i + 1) for i in range(count))
    pathlib.Path("stream").write_bytes(struct.pack("<i", len(message)) + message)
    process = run("decode", "stream", "--variant", "as")
    assert process.output.count(b"''") == count


CLIENT, SERVER = ("10.0.0.1", 40000), ("10.0.0.2", 5000)
FIN, SYN, ACK = 1, 2, 16


def packet(source, target, seq, flags, payload=b"", kept=None):
    """Ethernet, IPv4 and TCP, without checksums; `kept` bytes of the payload are in the capture."""
    tcp = struct.pack(">HHIIBBHHH", source[1], target[1], seq % 2**32, 0, 5 << 4, flags, 1000, 0, 0)
    ip = struct.pack(">BBHHHBBH4s4s", 0x45, 0, 40 + len(payload), 0, 0, 64, 6, 0,
                     socket.inet_aton(source[0]), socket.inet_aton(target[0]))
    whole = bytes(12) + b"\x08\0" + ip + tcp + payload
    return whole[: len(whole) - len(payload) + kept] if kept is not None else whole, len(whole)


def pcap(packets):
    head = struct.pack("<IHHiIII", 0xA1B2C3D4, 2, 4, 0, 0, 65535, 1)
    return head + b"".join(
        struct.pack("<IIII", i, 0, len(data), size) + data for i, (data, size) in enumerate(packets)
    )


def pcapng(packets):
    def part(kind, body):
        body += bytes(-len(body) % 4)
        size = struct.pack(">I", len(body) + 12)
        return struct.pack(">I", kind) + size + body + size

    stream = part(0x0A0D0D0A, struct.pack(">IHHq", 0x1A2B3C4D, 1, 0, -1))
    stream += part(1, struct.pack(">HHI", 1, 0, 65535))
    for data, size in packets:
        stream += part(6, struct.pack(">IIIII", 0, 0, 0, len(data), size) + data)
    return stream


def conversation(pieces_, client=CLIENT, server=SERVER, isn=2**32 - 20, answer=b""):
    """A packet for each piece that the client sends; its sequence numbers overflow soon."""
    packets = [packet(client, server, isn, SYN), packet(server, client, 70, SYN | ACK)]
    at = isn + 1
    for piece in pieces_:
        packets.append(packet(client, server, at, ACK, piece))
        at += len(piece)
    if answer:
        packets.append(packet(server, client, 71, ACK, answer))
    # The end counts as a byte, and is none.
    return packets + [packet(client, server, at, FIN | ACK), packet(client, server, at + 1, ACK)]


def decode_capture(packets, *options, codes=(0,), write=pcap):
    if not shutil.which("tshark"):
        raise Skip("no tshark here")
    pathlib.Path("capture").write_bytes(write(packets))
    process = run("decode", "capture", "--json", *options, codes=codes)
    return items(process), process


@case
def captures_are_read():
    pathlib.Path("key").write_bytes(KEY)
    for stages, write in ((STAGES["plain"], pcap), (STAGES["compress-encrypt-256"], pcapng)):
        stream = build(stages)
        packets = conversation(stream, answer=b"".join(build(stages, [b"yes"])))
        found, process = decode_capture(packets, *stages, write=write)
        assert len(of(found, "frame")) == len(MESSAGES) and not damage(found)
        assert "from the client 10.0.0.1:40000 to the server 10.0.0.2:5000" in process.errors
        assert found == decode(stream, *stages)
        (frame,) = of(decode_capture(packets, *stages, "--from", "server")[0], "frame")
        assert frame["text"] == "yes"
    run("decode", "capture", "--from", "nobody", codes=(2,)).complained("--from is client or server")


@case
def a_lost_packet_takes_no_memory():
    frame = struct.pack("<i", 59996) + bytes(59996)
    packets = conversation([frame] * 1100)
    del packets[3]
    if not shutil.which("tshark"):
        raise Skip("no tshark here")
    pathlib.Path("capture").write_bytes(pcap(packets))
    process = Process("decode", "capture", "--limit", "1").wait(1)
    assert b"1099 frames, 1 damaged" in process.output
    process.used_at_most(56 * 1024)


@case
def captured_segments_are_put_in_order():
    generator = random.Random(5)
    data = b"".join(pieces([bytes([65 + i]) * i for i in range(1, 40)]))
    for _ in range(2):
        cuts = sorted(generator.sample(range(len(data)), 30))
        parts = [data[a:b] for a, b in zip([0] + cuts, cuts + [len(data)])]
        syn, *packets = conversation(parts)
        # Segments come again, also cut differently, and in any order.
        for _ in range(20):
            a = generator.randrange(len(data))
            b = generator.randrange(a, len(data)) + 1
            packets.append(packet(CLIENT, SERVER, 2**32 - 19 + a, ACK, data[a:b]))
        generator.shuffle(packets)
        found, _ = decode_capture([syn] + packets)
        assert found == decode([data])
    # The longer one of two that wait is taken.
    first, *parts = (packet(CLIENT, SERVER, 10 + at, ACK, data[at:end])
                     for at, end in ((0, 9), (9, 12), (9, len(data)), (9, 11)))
    found, _ = decode_capture([packet(CLIENT, SERVER, 9, SYN), *parts, first])
    assert found == decode([data])


@case
def what_a_capture_lacks_is_damage_and_the_rest_is_found():
    pathlib.Path("key").write_bytes(KEY)
    stages = ["--compress", "--encrypt", "key"]
    messages = [b"one", b"two", b"three", b"four"]
    stream = build(stages, messages)
    whole = conversation(stream)
    # Of "two" the message is not there.
    found, _ = decode_capture(whole[:6] + whole[7:], *stages, codes=(1,))
    lack = damage(found)[0]
    assert lack["offset"] == sum(map(len, stream[:4])) and lack["layer"] == "record"
    assert (lack["expected"], lack["found"]) == (
        f"{len(stream[4])} bytes", "none of them in the capture")
    texts = [f["text"] for f in of(found, "frame")]
    assert texts == ["one", "four"], texts
    # A stream without its beginning, and one whose last packet is cut.
    found, _ = decode_capture(conversation(build([], messages))[3:])
    assert [f["text"] for f in of(found, "frame")] == ["two", "three", "four"]
    found, _ = decode_capture(conversation([b"no frame"])[2:], codes=(1,))
    assert [item["skipped"] for item in found] == [8]
    found, process = decode_capture(conversation(build([], messages))[1:])
    assert "from the client 10.0.0.1:40000" in process.errors and len(found) == 4
    cut = packet(CLIENT, SERVER, 2**32 - 19, ACK, b"\x05\0\0\0hello", kept=6)
    found, _ = decode_capture([*whole[:2], cut], codes=(1,))
    assert damage(found)[0]["expected"] == "3 bytes" and damage(found)[0]["offset"] == 6
    assert [item["skipped"] for item in found if "skipped" in item] == [3]


@case
def one_of_several_streams_is_chosen():
    other = ("10.0.0.3", 7)
    packets = conversation(pieces([b"first"])) + conversation(pieces([b"second"]), other, isn=9)
    _, process = decode_capture(packets, codes=(2,))
    process.complained("holds 2 TCP streams, choose one with --stream: 0: 10.0.0.1:40000 to "
                       "10.0.0.2:5000, 9 and 0 bytes; 1: 10.0.0.3:7 to ")
    for number, text in (("0", "first"), ("1", "second")):
        found, _ = decode_capture(packets, "--stream", number)
        assert [f["text"] for f in found] == [text]
    decode_capture(packets, "--stream", "2", codes=(2,))[1].complained("no bytes of TCP stream 2")
    decode_capture([], codes=(2,))[1].complained("holds no bytes of a TCP stream")
    run("decode", "--stream", "0", data=b"x", codes=(2,)).complained("and standard input is none")


@case
def a_capture_that_cannot_be_read_is_named():
    packets = conversation(pieces([b"hello"]))
    pathlib.Path("capture").write_bytes(pcap(packets))
    assert '"hello"' in run("decode", data=pcap(packets)).output.decode()
    reader, writer = os.pipe()
    os.write(writer, pcap(packets))
    os.close(writer)
    Process("decode", stdin=reader).wait(2).complained("from a file, not from a pipe")
    os.close(reader)
    found, process = decode_capture(packets, codes=(1,), write=lambda all_: pcap(all_ * 2)[:-3])
    process.complained("tshark cannot read all of capture: ")
    assert [f["text"] for f in of(found, "frame")] == ["hello"]
    environment = dict(os.environ, PATH="/nonexistent")
    missing = subprocess.run([os.environ["ZELGVC"], "decode", "capture"], env=environment,
                             capture_output=True, text=True)
    assert missing.returncode == 6 and "takes tshark to read: install it" in missing.stderr


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
    pathlib.Path("key").write_bytes(KEY)
    generator = random.Random(7)
    for number in range(60):
        stages = list(STAGES.values())[number % len(STAGES)]
        whole = bytearray(b"".join(build(stages)))
        for _ in range(generator.randrange(1, 6)):
            whole[generator.randrange(len(whole))] = generator.randrange(256)
        decode([bytes(whole)], *stages, "--strict", codes=(0, 1))
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


@case
def an_interrupt_while_waiting_for_the_writer_of_a_pipe():
    os.mkfifo("pipe")
    process = Process("decode", "pipe")
    files = pathlib.Path(f"/proc/{process.popen.pid}/fd")
    process.until(lambda: any(file.resolve().name == "pipe" for file in files.iterdir()), "pipe")
    process.kill(signal.SIGINT)
    process.wait(130)
    process = Process("decode", "pipe")
    pathlib.Path("pipe").write_bytes(b"\x01\0\0\0a")
    process.wait()
    assert b"1 frame, no damage" in process.output


main()
