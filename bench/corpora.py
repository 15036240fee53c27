#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""Writes the corpora beside the index whose path is given: 1 MiB of each kind, made here or found
on the machine. We tune the codec on one half of the kinds, and judge it on the other half. Each line
of the index has half, file and name. The script leaves out a kind that the machine does not have."""

import glob
import math
import os
import pathlib
import random
import sqlite3
import struct
import sys
import zlib

from gi.repository import GLib

SIZE = 1 << 20


# Text

VERBS = ["started", "closed", "opened", "refused", "restored", "moved", "printed", "joined"]
NOUNS = ["channel", "display", "window", "session", "clipboard", "printer", "monitor", "cursor"]
NAMES = ["width", "height", "origin", "colour", "owner", "state", "label"]
WORDS = NOUNS + VERBS + ["primary", "audio", "left", "right", "the", "of", "a", "to"]


def until_full(make):
    """1 MiB of the results of `make`."""
    whole = bytearray()
    while len(whole) < SIZE:
        part = make()
        whole += part.encode() if isinstance(part, str) else part
    return bytes(whole[:SIZE])


def words(rng, most):
    return " ".join(rng.choice(WORDS) for _ in range(rng.randint(1, most)))


def xml_records(rng):
    def item():
        fields = []
        for _ in range(rng.randint(2, 5)):
            name = rng.choice(NAMES)
            value = str(rng.randrange(4096)) if rng.random() < 0.5 else words(rng, 9)
            fields.append(f"    <{name}>{value}</{name}>\n")
        return (f'  <item id="{rng.randrange(100000)}" type="{rng.choice(NOUNS)}">\n'
                + "".join(fields) + "  </item>\n")
    return until_full(item)


def xml_nested(rng):
    def element(depth):
        pad = " " * depth
        tag = rng.choice(["g:group", "g:path", "t:span", "t:para", "style:cell", "frame"])
        attributes = "".join(f' {rng.choice(["x", "y", "style:name", "fo:margin-left", "id"])}="'
                             f'{rng.uniform(0, 900):.{rng.randint(0, 3)}f}"'
                             for _ in range(rng.randint(0, 4)))
        if depth > 7 or rng.random() < 0.3:
            return f"{pad}<{tag}{attributes}/>\n"
        inner = "".join(element(depth + 1) for _ in range(rng.randint(1, 4)))
        if rng.random() < 0.3:
            inner += f"{pad} {prose(rng, 12)}\n"
        return f"{pad}<{tag}{attributes}>\n{inner}{pad}</{tag}>\n"
    return until_full(lambda: element(0))


def json_lines(rng):
    clock = [1.7e9]

    def event():
        clock[0] += rng.expovariate(3)
        return (f'{{"time":{clock[0]:.3f},"level":"{rng.choice(["info", "debug", "warning"])}",'
                f'"event":"{rng.choice(NOUNS)}.{rng.choice(VERBS)}","id":"{rng.getrandbits(64):x}",'
                f'"size":[{rng.randrange(3000)},{rng.randrange(2000)}],'
                f'"text":"{words(rng, 7)}"}}\n')
    return until_full(event)


def json_indented(rng):
    def value(depth):
        pad = "  " * (depth + 1)
        kind = rng.random()
        if depth < 5 and kind < 0.35:
            keys = [f'{pad}"{rng.choice(VOCABULARY)}": {value(depth + 1)}'
                    for _ in range(rng.randint(1, 6))]
            return "{\n" + ",\n".join(keys) + "\n" + pad[2:] + "}"
        if depth < 5 and kind < 0.5:
            items = [pad + value(depth + 1) for _ in range(rng.randint(1, 8))]
            return "[\n" + ",\n".join(items) + "\n" + pad[2:] + "]"
        return rng.choice(["true", "null", str(rng.randrange(1000)), f"{rng.gauss(0, 50):.6f}",
                           f'"{prose(rng, 5)}"'])
    return until_full(lambda: value(0) + "\n")


def vocabulary(rng, letters, count):
    return ["".join(rng.choice(letters) for _ in range(max(1, round(rng.gauss(6, 2.5)))))
            for _ in range(count)]


VOCABULARY = vocabulary(random.Random("words"), "eeeaaiioutnsrhldcmfpgwyb", 4000)


def prose(rng, most, vocabulary=None):
    """Words with natural frequencies: the n-th word in proportion to 1 / n."""
    vocabulary = vocabulary or VOCABULARY
    return " ".join(vocabulary[int(len(vocabulary) ** rng.random()) - 1]
                    for _ in range(rng.randint(1, most)))


def log_lines(rng):
    clock = [0.0]
    hosts = vocabulary(rng, "abcdehlmnost", 5)
    templates = [("sshd", "Accepted publickey for {n} from 10.{a}.{b}.{c} port {p} ssh2"),
                 ("kernel", "[{p}.{a:06d}] eth0: link up, {b} Mbps, address {x:016x}"),
                 ("systemd", "Started {n}.service - {t}."),
                 ("dhcpd", "DHCPACK on 10.{a}.{b}.{c} to {x:012x} via eth{c}"),
                 ("app", "request {x:x} took {p} ms: {t}")]

    def line():
        clock[0] += rng.expovariate(0.2)
        t = int(clock[0])
        name, text = rng.choice(templates)
        text = text.format(n=rng.choice(NOUNS), a=rng.randrange(256), b=rng.randrange(256),
                           c=rng.randrange(9), p=rng.randrange(65536), x=rng.getrandbits(44),
                           t=prose(rng, 8))
        return (f"Mar {1 + t // 86400:2} {t // 3600 % 24:02}:{t // 60 % 60:02}:{t % 60:02} "
                f"{rng.choice(hosts)} {name}[{rng.randrange(300, 340)}]: {text}\n")
    return until_full(line)


def utf16(rng):
    cyrillic = vocabulary(rng, "оооееааиинтсрвлкмдпуяы", 3000)
    return until_full(lambda: (prose(rng, 60, cyrillic if rng.random() < 0.5 else None)
                               + ".\r\n").encode("utf-16-le"))


# Records

def variants(rng):
    """Messages as g_variant_get_data() returns them, each aligned to 8 bytes."""
    kind = GLib.VariantType("(tsa{sv}a(iid))")

    def message():
        values = [f"<{rng.randrange(1 << 20)}>", f"<'{words(rng, 4)}'>", "<true>",
                  f"<uint64 {rng.getrandbits(40)}>", f"<{rng.random():.4f}>"]
        fields = ", ".join(f"'{name}': {rng.choice(values)}"
                           for name in rng.sample(NAMES, rng.randint(1, 5)))
        points = ", ".join(f"({rng.randrange(1920)}, {rng.randrange(1080)}, {rng.random():.3f})"
                           for _ in range(rng.randint(1, 6)))
        text = (f"({rng.getrandbits(32)}, '{rng.choice(NOUNS)}-{rng.choice(VERBS)}', {{{fields}}}, "
                f"[{points}])")
        data = GLib.Variant.parse(kind, text, None, None).get_data_as_bytes().get_data()
        return data + bytes(-len(data) % 8)
    return until_full(message)


def database(rng):
    connection = sqlite3.connect(":memory:")
    connection.execute("create table orders (id integer primary key, customer text, amount real, "
                       "placed integer, note text)")
    connection.execute("create index by_customer on orders (customer)")
    connection.executemany(
        "insert into orders values (?, ?, ?, ?, ?)",
        ((i, rng.choice(VOCABULARY), round(rng.lognormvariate(3, 1), 2),
          1700000000 + i * 60 + rng.randrange(60), prose(rng, 15)) for i in range(14000)))
    connection.commit()
    return connection.serialize()[:SIZE]


# Screens: 32 bits a pixel, blue first

WIDTH = 640
HEIGHT = SIZE // 4 // WIDTH + 1


def grey(level):
    return level * 0x010101


def pixels_of(rows):
    return b"".join(struct.pack(f"<{WIDTH}I", *row) for row in rows)[:SIZE]


def screen_flat(rng):
    """Windows with borders, a gradient, and text without anti-aliasing."""
    rows = [[0x003A6EA5] * WIDTH for _ in range(HEIGHT)]

    def fill(x, y, width, height, colour):
        for row in rows[max(0, y):max(0, min(y + height, HEIGHT))]:
            end = min(x + width, WIDTH)
            row[x:end] = [colour] * (end - x)

    font = [[rng.getrandbits(8) & rng.getrandbits(8) & 0x7E for _ in range(12)] for _ in range(64)]
    for _ in range(14):
        x, y = rng.randrange(WIDTH - 120), rng.randrange(HEIGHT - 60)
        width, height = min(rng.randint(120, 420), WIDTH - x), rng.randint(60, 260)
        fill(x, y, width, height, 0x00404040)
        fill(x + 1, y + 1, width - 2, height - 2, rng.choice([0x00F0F0F0, 0x00FFFFFF, 0x00E8E8D8]))
        for column in range(x + 1, x + width - 1):
            fill(column, y + 1, 1, 18, 0x00204080 + grey((column - x) // 8 & 63))
        for top in range(y + 24, min(y + height - 14, HEIGHT - 12), 14):
            for left in range(x + 6, x + rng.randint(60, width) - 14, 8):
                glyph = font[0 if rng.random() < 0.2 else rng.randrange(64)]
                for line, bits in enumerate(glyph):
                    for bit in range(8):
                        if bits >> bit & 1:
                            rows[top + line][left + bit] = 0x00101010
    return pixels_of(rows)


def screen_text(rng):
    """Anti-aliased text, dark on white, each glyph at four subpixel positions."""
    def glyph(strokes, phase):
        picture = []
        for y in range(14):
            for x in range(10):
                distance = min(math.dist((x - phase / 4, y), (ax + (bx - ax) * t / 8,
                                                              ay + (by - ay) * t / 8))
                               for ax, ay, bx, by in strokes for t in range(9))
                coverage = max(0.0, min(1.0, 1.4 - distance))
                picture.append(grey(round(255 - 225 * coverage)) | 0xFF000000)
        return picture

    letters = [[tuple(rng.choice([1, 3, 6]) if i % 2 == 0 else rng.choice([2, 5, 8, 11])
                      for i in range(4)) for _ in range(3)] for _ in range(40)]
    font = [[glyph(strokes, phase) for phase in range(4)] for strokes in letters]
    rows = [[0xFFFFFFFF] * WIDTH for _ in range(HEIGHT)]
    for top in range(6, HEIGHT - 14, 17):
        x = 8.0
        end = WIDTH - 20 if rng.random() < 0.8 else rng.randint(40, WIDTH - 20)
        while x < end:
            if rng.random() < 0.16:
                x += 4.25
                continue
            picture = font[int(40 ** rng.random()) - 1][int(x * 4) % 4]
            left = int(x)
            for y in range(14):
                rows[top + y][left:left + 10] = picture[y * 10:y * 10 + 10]
            x += rng.choice([7.25, 8.5, 9.75])
    return pixels_of(rows)


def screen_photograph(rng):
    """Gradients with noise, as in a photograph."""
    def channel(x, y, slope, phase):
        level = 128 + 90 * math.sin(x * slope + phase) * math.cos(y * slope * 0.7 + phase)
        return max(0, min(255, round(level + rng.gauss(0, 2))))
    return pixels_of([[channel(x, y, 0.004, 0.2) | channel(x, y, 0.005, 1.1) << 8
                       | channel(x, y, 0.003, 2.3) << 16 | 0xFF000000 for x in range(WIDTH)]
                      for y in range(HEIGHT)])


# Other bytes

def sound(rng):
    """Stereo, 16 bits: fading notes with a little noise."""
    samples = []
    notes = []
    for frame in range(SIZE // 4):
        if frame % 11025 == 0:
            notes = [(110 * 2 ** (rng.randrange(36) / 12) * 2 * math.pi / 44100,
                      rng.uniform(1000, 5000), rng.random()) for _ in range(3)]
        fade = math.exp(-(frame % 11025) / 6000)
        levels = [amplitude * fade * math.sin(step * frame) for step, amplitude, _ in notes]
        for side in (0, 1):
            level = sum(one * (place if side else 1 - place)
                        for one, (_, _, place) in zip(levels, notes))
            samples.append(max(-32768, min(32767, round(level + rng.gauss(0, 12)))))
    return struct.pack(f"<{len(samples)}h", *samples)


def deflated(rng):
    return until_full(lambda: zlib.compress(log_lines(rng)))


# Found

def found(pattern):
    whole = b""
    for path in sorted(glob.glob(pattern, recursive=True)):
        if len(whole) < SIZE and os.path.isfile(path):
            whole += pathlib.Path(path).read_bytes()
    return whole[:SIZE]


CORPORA = [
    ("tuning", "text", "XML records, made", xml_records),
    ("tuning", "source", "the system's C headers", lambda _: found("/usr/include/*.h")),
    ("tuning", "python", "Python's own library", lambda _: found("/usr/lib/python3.[0-9]*/*.py")),
    ("tuning", "json", "events, one JSON object a line, made", json_lines),
    ("tuning", "binary", "GLib, a shared library for this machine",
     lambda _: found("/usr/lib/*/libglib-2.0.so.0")),
    ("tuning", "variants", "serialised variants, made by GLib", variants),
    ("tuning", "pixels", "windows with flat areas and hard-edged text, drawn", screen_flat),
    ("tuning", "photograph", "noise on gradients, drawn", screen_photograph),
    ("tuning", "sound", "16-bit stereo sound, made", sound),
    ("tuning", "random", "random bytes", lambda rng: rng.randbytes(SIZE)),
    ("judging", "perl", "Perl's own library", lambda _: found("/usr/lib/*/perl-base/**/*.pm")),
    ("judging", "nested xml", "XML of nested elements with attributes, made", xml_nested),
    ("judging", "indented json", "JSON of nested values, indented, made", json_indented),
    ("judging", "log", "a system's log, made", log_lines),
    ("judging", "foreign", "the C library for AArch64, cross-compiled",
     lambda _: found("/usr/aarch64-linux-gnu/lib/libc.so.6")),
    ("judging", "font", "a TrueType font", lambda _: found(
        "/usr/share/fonts/truetype/dejavu/DejaVuSans.ttf")),
    ("judging", "database", "a database, made by SQLite", database),
    ("judging", "utf-16", "UTF-16 text in two scripts, made", utf16),
    ("judging", "smooth text", "a screen of anti-aliased text, drawn", screen_text),
    ("judging", "deflated", "compressed data, made by zlib", deflated),
    ("judging", "zeros", "zeros", lambda _: bytes(SIZE)),
]


def main():
    if len(sys.argv) != 2:
        sys.exit(__doc__)
    index = pathlib.Path(sys.argv[1])
    lines = []
    for half, name, description, make in CORPORA:
        content = make(random.Random(name))
        if len(content) < SIZE // 4:
            print(f"{name}: this machine does not have {description}", file=sys.stderr)
            continue
        file = index.with_name(f"{index.stem}-{name.replace(' ', '-')}.bin")
        file.write_bytes(content)
        lines.append(f"{half} {file.absolute()} {name}\n")
    index.write_text("".join(lines), encoding="utf-8")


if __name__ == "__main__":
    main()
