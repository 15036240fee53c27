#!/usr/bin/env python3
# SPDX-License-Identifier: LGPL-2.1-or-later
"""Writes docs/performance.md and its plots from the results of a run of zelgvc-bench.

usage: bench/report.py RESULTS.json DOCS_FOLDER

Every figure in the page comes from the results; the text around them holds none of its own.
"""

import json
import pathlib
import statistics
import sys

from svgplot import line_plot

# ---- Reading results ----


def size_text(size):
    for unit, name in ((1 << 20, "MiB"), (1 << 10, "KiB")):
        if size >= unit and size % unit == 0:
            return f"{size // unit} {name}"
    return f"{size} B"


def seconds_text(seconds):
    for unit, name in ((1e-9, "ns"), (1e-6, "µs"), (1e-3, "ms")):
        if seconds < 999.5 * unit:
            return f"{seconds / unit:.3g} {name}"
    return f"{seconds:.2f} s"


def rate_text(rate):
    return f"{rate / 1e9:.2f} GB/s" if rate >= 1e9 else f"{rate / 1e6:.3g} MB/s"


def ratio_text(spread):
    digits = 4 if spread["median"] < 0.1 else 2 if spread["median"] < 10 else 0
    return f"{spread['median']:.{digits}f} ({spread['low']:.{digits}f}–{spread['high']:.{digits}f})"


class Row:
    def __init__(self, row):
        self.parameters = row["parameters"]
        self.bytes = row["bytes"]
        self.timings = {timing["name"]: timing["seconds"] for timing in row["timings"]}
        self.ratios = {(r["subject"], r["yardstick"]): r["ratio"] for r in row["ratios"]}
        self.figures = {figure["name"]: figure["value"] for figure in row["figures"]}

    def __getitem__(self, name):
        return self.parameters.get(name)

    def matches(self, wanted):
        return all(self[name] == value for name, value in wanted.items())

    def rate(self, name):
        return self.bytes / self.timings[name]["median"]

    def label(self):
        return ", ".join(parameter_text(*item) for item in self.parameters.items())


def parameter_text(name, value):
    return size_text(value) if name == "size" else str(value)


class Results:
    def __init__(self, path):
        self.data = json.loads(path.read_text())
        self.groups = {group["name"]: group for group in self.data["groups"]}
        self.rows_of = {
            name: [Row(row) for row in group["rows"]] for name, group in self.groups.items()
        }

    def rows(self, group, **wanted):
        return [row for row in self.rows_of.get(group, []) if row.matches(wanted)]


# ---- Writing Markdown ----


def table(head, rows):
    lines = ["| " + " | ".join(head) + " |", "|" + "---|" * len(head)]
    return "\n".join(lines + ["| " + " | ".join(row) + " |" for row in rows])


def time_cell(row, name, rates):
    cell = seconds_text(row.timings[name]["median"])
    return f"{cell}, {rate_text(row.rate(name))}" if rates and row.bytes else cell


def full_table(rows, rates=True):
    """Every parameter, every contender's median and every ratio with its quartiles."""
    first = rows[0]
    head = list(first.parameters) + list(first.timings)
    head += [f"{subject} ÷ {yardstick}" for subject, yardstick in first.ratios]
    head += list(first.figures)
    lines = []
    for row in rows:
        line = [parameter_text(*item) for item in row.parameters.items()]
        line += [time_cell(row, name, rates) for name in row.timings]
        line += [ratio_text(ratio) for ratio in row.ratios.values()]
        line += [f"{value['median']:,.4g}" for value in row.figures.values()]
        lines.append(line)
    return table(head, lines)


def grid(rows, cell):
    """Corpora down, sizes across."""
    corpora = list(dict.fromkeys(row["corpus"] for row in rows))
    sizes = sorted({row["size"] for row in rows})
    at = {(row["size"], row["corpus"]): row for row in rows}
    lines = [[corpus] + [cell(at[size, corpus]) for size in sizes] for corpus in corpora]
    return table(["corpus"] + [size_text(size) for size in sizes], lines)


def pivot_table(rows, subject, yardsticks):
    """In a cell the subject's rate and its ratios."""
    def cell(row):
        ratios = [f"{row.ratios[subject, yardstick]['median']:.2f}" for yardstick in yardsticks]
        return " · ".join([rate_text(row.rate(subject))] + ratios)

    return grid(rows, cell)


def verdict(rows, subject, yardstick, name=None):
    """One sentence on how a subject stands beside a yardstick over many rows."""
    found = [(row.ratios[subject, yardstick]["median"], row) for row in rows
             if (subject, yardstick) in row.ratios and subject != yardstick]
    if not found:
        return ""
    values = [value for value, _ in found]
    low, low_row = min(found, key=lambda item: item[0])
    high, high_row = max(found, key=lambda item: item[0])
    behind = sum(value < 0.98 for value in values)
    if len(found) == 1:
        return f"{subject} does {low:.2f} times what {name or yardstick} does ({low_row.label()})."
    sentence = (
        f"Beside {name or yardstick}, {subject} stands at {statistics.median(values):.2f} in the "
        f"middle, from {low:.2f} ({low_row.label()}) to {high:.2f} ({high_row.label()})."
    )
    if behind == 0:
        return sentence
    return sentence + f" The peer is ahead by more than 2 % in {behind} of {len(values)} rows."


# ---- Plots ----


class Page:
    def __init__(self, docs):
        self.docs = docs
        docs.mkdir(parents=True, exist_ok=True)
        for old in docs.glob("performance-*.svg"):
            old.unlink()
        self.parts = []

    def add(self, *parts):
        self.parts += [part for part in parts if part]

    def plot(self, name, title, rows, names, x="size", value="rate", x_name="bytes of message"):
        """A curve for each of `names` over the rows; nothing where there is one x only."""
        if len({row[x] for row in rows}) < 2:
            return

        def point(row, contender):
            seconds = row.timings[contender]
            if value == "rate":
                of = [row.bytes / seconds[key] / 1e6 for key in ("median", "high", "low")]
            elif value == "per second":
                of = [1 / seconds[key] for key in ("median", "high", "low")]
            else:
                of = [seconds[key] * 1e6 for key in ("median", "low", "high")]
            return (row[x], *of)

        series = [(n, sorted(point(row, n) for row in rows)) for n in names]
        y_name = {"rate": "MB/s", "per second": "messages a second", "time": "µs"}[value]
        label = size_text if x == "size" else str
        svg = line_plot(title, x_name, y_name, series, label)
        (self.docs / f"performance-{name}.svg").write_text(svg)
        self.add(f"![{title}](performance-{name}.svg)")

    def write(self):
        (self.docs / "performance.md").write_text("\n\n".join(self.parts) + "\n")


# ---- Sections ----


def goals_section(page, results):
    lines = []
    for goal in results.data["goals"]:
        unit = goal["unit"]
        wanted = f"{goal['sense']} {goal['limit']:g}{unit}"
        stretch = "" if goal["stretch"] is None else f"{goal['stretch']:g}{unit}"
        line = [goal["text"], wanted, stretch]
        if goal["worst"] is None:
            line += ["", "", "not measured"]
        else:
            verdict = "**missed**" if goal["verdict"] == "MISSED" else goal["verdict"]
            worst = f"{goal['worst']:.3g}{unit} ({goal['where']})"
            line += [f"{goal['middle']:.3g}{unit}", worst, verdict]
        lines.append(line)
    page.add(
        "## Goals",
        "A goal counts as reached only if its worst row reaches it; the middle row says how typical "
        "that one is. \"stretch\" is what we would like beyond the goal. Ratios are of speeds: above "
        "1 the library is faster.",
        table(["goal", "wanted", "stretch", "middle row", "worst row", ""], lines),
    )


def begin(page, results, group):
    """The head of a group's section; FALSE where it was not measured."""
    if not results.rows(group):
        return False
    page.add(f"## {results.groups[group]['title']}", results.groups[group]["method"])
    return True


def blocking_section(page, results):
    if not begin(page, results, "blocking"):
        return
    rows = results.rows("blocking")
    page.add(verdict(rows, "zelgvc", "gathering", "one gathering write"),
             verdict(rows, "zelgvc", "two writes"),
             "A small frame is bound by its system calls, a large one by the copies into the socket "
             "and out of it, or by the conversions.",
             full_table(rows, rates=False))


def async_section(page, results):
    if not begin(page, results, "async"):
        return
    rows = results.rows("async")
    page.plot("async", "Asynchronous frames one way, tcp: time of a message",
              results.rows("async", transport="tcp", mode="one way"),
              ["zelgvc", "both", "gio"], value="time")
    page.add(
        verdict(rows, "zelgvc", "gio", "frames by hand"),
        "An asynchronous frame is bound by turns of the main loop, and by the sources and tasks "
        "that each takes. By hand, each of its four operations is completed from the loop. A "
        "message stream takes one task and one turn for each end of a frame.",
        full_table(rows, rates=False),
    )


def strings_section(page, results):
    if not begin(page, results, "strings"):
        return
    rows = results.rows("strings")
    page.add(
        verdict(rows, "zelgvc", "GDataInputStream"),
        "`GDataInputStream` reads ahead into a buffer of its own. If a program reads nothing but "
        "lines from a stream, it is the better choice.",
        full_table(rows, rates=False),
    )


def ciphers_section(page, results):
    if not begin(page, results, "ciphers"):
        return
    for direction in ("encrypt", "decrypt"):
        page.plot(f"ciphers-{direction}", f"AES-256-CBC records, {direction}",
                  results.rows("ciphers", direction=direction, bits=256),
                  ["zelgvc", "libgcrypt", "openssl"], x_name="bytes of record")
    for direction in ("encrypt", "decrypt"):
        rows = results.rows("ciphers", direction=direction)
        page.add(f"{direction.capitalize()}ing: "
                 + verdict(rows, "zelgvc", "libgcrypt", "bare libgcrypt") + " "
                 + verdict(rows, "zelgvc", "openssl", "OpenSSL"))
    largest = max(row["size"] for row in results.rows("ciphers"))
    pair = {row["direction"]: row for row in results.rows("ciphers", bits=256, size=largest)}
    page.add(
        "CBC encrypts serially, each block needing the one before: bare libgcrypt encrypts "
        f"{rate_text(pair['encrypt'].rate('libgcrypt'))} at {size_text(largest)} with 256 bits, "
        "bound by the latency of the AES instruction, and decrypts "
        f"{rate_text(pair['decrypt'].rate('libgcrypt'))}, where blocks run side by side. Nothing "
        "gets past the first figure with one stream. Of small records the calls are the larger "
        "part: what stands under `thin` is libgcrypt's call inside a converter that does nothing "
        "else, so that `g_converter_convert` alone is the distance from there to bare libgcrypt, "
        "and what our records cost is the distance from there to us. A record takes two calls to "
        "encrypt, as its last block is padded beside the input.",
        full_table(results.rows("ciphers")),
    )


def converters_section(page, results):
    if not begin(page, results, "converters"):
        return
    yardsticks = ["codec", "thin", "lzo", "lz4"]
    page.add("What `g_converter_convert` costs by itself, tens of nanoseconds, shows in blocks that "
             "the codec does in less than a microsecond: small ones, and such as it only copies.")
    for direction in ("compress", "decompress"):
        rows = results.rows("converters", direction=direction)
        page.add(f"### {direction.capitalize()}")
        page.plot(f"converters-{direction}", f"{direction.capitalize()}, C source",
                  results.rows("converters", direction=direction, corpus="source"),
                  ["zelgvc"] + yardsticks, x_name="bytes of block")
        names = ["the bare codec", "the bare codec in a thin converter", "liblzo2", "LZ4"]
        page.add(*[verdict(rows, "zelgvc", y, n) for y, n in zip(yardsticks, names)])
        page.add("In a cell: what the converter does, and that divided by the bare codec, by the "
                 "same in a thin converter, by liblzo2 and by LZ4.",
                 pivot_table(rows, "zelgvc", yardsticks))


def codec_section(page, results):
    if not begin(page, results, "codec"):
        return
    bounds = {
        "encode": "Where data repeat, all three walk one chain from match to match: the bytes behind "
                  "a match, their hash, the table, the place, the length of the next match. No other "
                  "work shortens it; what remains is mostly mispredicted branches. Ours takes the "
                  "bytes behind a match from a register instead of the memory. Large random blocks "
                  "are bound by copying.",
        "decode": "The next instruction waits for the length of this one, which LZ4 knows sooner: "
                  "LZO's instructions have two or three bytes and say in one of two places how many "
                  "literals follow. If runs and matches alternate at random, as in program code, "
                  "most of the time goes into mispredicted branches. Data that does not shrink is bound "
                  "by copying, for all three alike.",
    }
    halves = {"tuning": "On the corpora that the codec is tuned on:",
              "judging": "On the corpora that it is judged on:"}

    def add(direction, subject, yardsticks):
        for half, title in halves.items():
            rows = results.rows("codec", direction=direction, half=half)
            page.add(title, *[verdict(rows, subject, y, name) for y, name in yardsticks.items()],
                     pivot_table(rows, subject, list(yardsticks)))

    for direction, bound in bounds.items():
        page.add(f"### {direction.capitalize()}", bound,
                 "In a cell: the codec, and that divided by liblzo2 and by LZ4.")
        add(direction, "codec", {"lzo": "liblzo2", "lz4": "LZ4"})
    page.add("### Decode what lzo1x_1 wrote", "In a cell: the codec, and that divided by liblzo2.")
    add("decode", "codec on lzo's", {"lzo on lzo's": "liblzo2"})

    def sizes(row):
        return " · ".join(f"{row.figures[f'{who} size %']['median']:.1f}"
                          for who in ("codec", "lzo", "lz4"))

    page.add("### Size", "What is left of the corpus in percent: ours, liblzo2, LZ4.",
             grid(results.rows("codec", direction="encode"), sizes))


def channels_section(page, results):
    if not begin(page, results, "channels"):
        return
    names = ["plain", "compressed", "encrypted", "both", "tls", "tls+zlib"]
    page.plot("channels", "Whole channels one way",
              results.rows("channels", mode="one way"), names)
    page.plot("channels-round-trip", "Whole channels: time of a round trip",
              results.rows("channels", mode="round trip"), names, value="time")
    rows = results.rows("channels")
    page.add(
        verdict(rows, "encrypted", "tls", "TLS"),
        verdict(rows, "both", "tls+zlib", "TLS with zlib"),
        verdict(rows, "both", "tls", "TLS without compression"),
        f"TLS here is {results.data['machine']['tls']}: it authenticates what it carries, which "
        "the channel's AES-CBC records do not, and its counter mode encrypts blocks side by side, "
        "where CBC waits for each block. Where TLS is ahead of the encrypted channel with large "
        "messages, that is why. A channel that compresses is bound by the compressor: over a "
        "loopback that is faster than it, compression only costs; it pays on links slower than "
        "the rates of the compressed channel.",
        full_table(rows),
    )


def stages_section(page, results):
    if begin(page, results, "stages"):
        page.add("What the channel lacks of 1 is system calls, framing and copies.",
                 full_table(results.rows("stages"), rates=False))


def perbyte_section(page, results):
    if not begin(page, results, "perbyte"):
        return
    lines, series = [], []
    for stages in ("plain", "both", "gio"):
        points = []
        for row in results.rows("perbyte", stages=stages):
            seconds = row.timings[size_text(row["size"])]
            points.append((row["size"], *(seconds[k] * 1e9 for k in ("median", "low", "high"))))
            lines.append([stages, size_text(row["size"]), f"{seconds['median'] * 1e9:.3f}",
                          f"{seconds['low'] * 1e9:.3f}–{seconds['high'] * 1e9:.3f}"])
        series.append((stages, sorted(points)))
    svg = line_plot("Cost per byte", "bytes of message", "ns a byte", series, size_text)
    (page.docs / "performance-perbyte.svg").write_text(svg)
    page.add("![Cost per byte](performance-perbyte.svg)",
             "Small messages pay for their system calls and for each conversion's start. The "
             "largest, from 32 MiB on, pay for memory that is fresh from the system, in huge pages "
             "where it has them, since a message is one allocation, and for memory that no cache "
             "holds. In between the cost follows the socket's buffers and how sender and receiver "
             "fall into step; frames by hand show the same. Stages add buffers for a block and a "
             "record of up to 1 MiB.",
             table(["stages", "message", "ns a byte", "quartiles"], lines))


def crowd_section(page, results):
    if not begin(page, results, "crowd"):
        return
    lines = []
    for row in results.rows("crowd"):
        lines.append([parameter_text(*item) for item in row.parameters.items()]
                     + [f"{1 / seconds['median']:,.0f}" for seconds in row.timings.values()]
                     + [ratio_text(ratio) for ratio in row.ratios.values()])
    page.add("In round trips a second, all busy channels together.",
             table(["transport", "kind", "busy", "channels", "crowd", "10 channels",
                    "crowd ÷ 10 channels"], lines))


def table_section(group):
    def section(page, results):
        if begin(page, results, group):
            page.add(full_table(results.rows(group)))
    return section


def machine_section(page, results):
    machine = results.data["machine"]
    page.add(
        "## Method and machine",
        "The contenders of a comparison run in one process and take turns, round by round; who "
        "begins changes with the round. Each figure is the median over the rounds, each ratio the "
        "median of the ratios of the single rounds, and what stands in brackets are their "
        f"quartiles. There were {results.data['rounds']} rounds, fewer (at least 7) where one turn "
        f"takes longer than {results.data['slice'] * 1e3:g} ms. Within a round the contenders "
        "alternate in small batches of operations, and the round counts as the median of a "
        "contender's batches; contenders that start a second thread at each turn have fewer and "
        "longer turns. Nothing is pinned to a processor. Contenders with the same bytes on the wire "
        "share one connection. Before anything is measured, every contender has to show that what "
        "it carries arrives unchanged.",
        "`bench/corpora.py` makes the corpora or finds them on the machine.",
        table(["", ""], [[name, str(value)] for name, value in machine.items()]),
        "`scripts/bench --docs` measures again and writes this page.",
    )


def main():
    if len(sys.argv) != 3:
        sys.exit(__doc__)
    results = Results(pathlib.Path(sys.argv[1]))
    page = Page(pathlib.Path(sys.argv[2]))
    page.add("Title: Performance\nSlug: performance",
             "# Performance",
             "What the library costs beside what a program would use in its place. This page is "
             "generated from one run of `scripts/bench`; nothing in it is edited by hand.")
    if results.data["quick"]:
        page.add("**A quick run: short turns and few sizes, so take the figures as rough.**")
    goals_section(page, results)
    for section in (blocking_section, async_section, strings_section, channels_section,
                    stages_section, crowd_section, table_section("memory"), table_section("calls"),
                    table_section("instructions"), table_section("builds"), perbyte_section,
                    ciphers_section, converters_section, codec_section, machine_section):
        section(page, results)
    page.write()


main()
