# SPDX-License-Identifier: LGPL-2.1-or-later
"""Fills in the measured parts of docs/performance*.md and bench/README.md, and draws the plots. All
figures come from one run. A page marks each part with `<!-- name -->` and `<!-- end -->`; the text
around the parts is true whatever the figures are."""

import re
from operator import itemgetter
from statistics import geometric_mean

import corpora
import goals
import plots
from results import rate_text, size_text, time_text, value_text

NAMES = {"tls": "TLS", "both": "both stages", "lzo": "liblzo2", "lz4": "LZ4", "10": "10 busy",
         "all": "all busy", "unix": "Unix", "tcp": "TCP"}


def named(name):
    return NAMES.get(name, name)


def fill(page, parts):
    def filled(marks):
        return marks[1] + parts.pop(marks[2]) + marks[3]

    page.write_text(re.sub(r"(<!-- (?!end)([^>]+) -->).*?(<!-- end -->)", filled, page.read_text(),
                           flags=re.DOTALL))
    if parts:
        raise SystemExit(f"{page} has no place for: {', '.join(parts)}")


def table(columns, rows):
    """`columns`: heads, each with a function that makes a row's cell."""
    lines = ["", "| " + " | ".join(columns) + " |", "|---" * len(columns) + "|"]
    lines += ["| " + " | ".join(cell(row) for cell in columns.values()) + " |" for row in rows]
    return "\n".join([*lines, ""])


# Columns


def parameter(name):
    return lambda row: named(value_text(name, row[name]))


def times(*names):
    return {named(name): lambda row, name=name: time_text(row.time(name)) for name in names}


def rate(name):
    return lambda row: rate_text(row.rate(name))


def ratio_text(value):
    return f"{value:.3f}" if value < 0.1 else f"{value:.2f}" if value < 10 else f"{value:.0f}"


def ratio(subject, yardstick):
    return lambda row: ratio_text(row.ratio(subject, yardstick))


def ratios(*pairs):
    return {" ÷ ".join(map(named, pair)): ratio(*pair) for pair in pairs}


def mean(rows, subject, yardstick):
    return ratio_text(geometric_mean(row.ratio(subject, yardstick) for row in rows))


# Pages


def overview(results, docs):
    rows = results.rows("channels", mode="one way")
    at = {row["size"]: row for row in rows}
    large = at[65536]
    shrunk = results.row("codec", direction="encode", corpus="source", size=65536).figures["codec"]

    def added(name):
        return f"{(large.time(name) - large.time('plain')) / large['size'] * 1e9:.2g} ns"

    plots.lines(docs / "performance.svg",
                {named(name): [(row["size"], row.time(name) * 1e6) for row in rows]
                 for name in ("by hand", "plain", "encrypted", "both", "tls")},
                "message", "time of a message, µs", size_text)
    fill(docs / "performance.md", {
        "rate of both stages": rate_text(large.rate("both")),
        "size of C source": f"{shrunk:.0f} %",
        "encryption": added("encrypted"),
        "compression": added("compressed"),
        "64 B beside TLS": ratio_text(at[64].ratio("encrypted", "tls")),
        "64 KiB beside TLS": ratio_text(large.ratio("encrypted", "tls")),
        "times": table({"message": parameter("size"), **times(
            "by hand", "plain", "compressed", "encrypted", "both", "tls")}, rows),
        "ratios": table({"message": parameter("size"), **ratios(
            ("plain", "by hand"), ("both", "by hand"), ("plain", "tls"), ("encrypted", "tls"),
            ("both", "tls"))}, rows),
        "machine": table({"": itemgetter(0), "this run": itemgetter(1)}, results.machine.items())})


def messages(results, docs):
    tcp = results.rows("async", transport="tcp")
    blocking = results.rows("blocking")
    strings = results.rows("strings", transport="tcp", mode="one way")
    fill(docs / "performance-messages.md", {
        "mean of asynchronous frames": mean(tcp, "plain", "by hand"),
        "mean beside gathering writes": mean(blocking, "plain", "gathering"),
        "mean beside two writes": mean(blocking, "plain", "by hand"),
        "asynchronous frames": table(
            {"mode": parameter("mode"), "message": parameter("size"),
             **times("plain", "both", "by hand"), **ratios(("plain", "by hand"))}, tcp),
        "blocking frames": table(
            {"socket": parameter("transport"), "message": parameter("size"),
             **times("plain", "gathering", "by hand"),
             **ratios(("plain", "gathering"), ("plain", "by hand"))}, blocking),
        "strings": table(
            {"stages": parameter("stages"), "string": parameter("size"),
             **times("zelgvc", "GDataInputStream"),
             **ratios(("zelgvc", "GDataInputStream"))}, strings)})


def stages(results, docs):
    fill(docs / "performance-stages.md", {
        "round trips": table(
            {"message": parameter("size"), **times("plain", "encrypted", "both", "tls"),
             **ratios(("plain", "tls"), ("encrypted", "tls"), ("both", "tls"))},
            results.rows("channels", mode="round trip")),
        "ciphers": table({"direction": parameter("direction"), "libgcrypt": rate("libgcrypt"),
                          **ratios(("zelgvc", "libgcrypt"))},
                         results.rows("ciphers", bits=256, size=65536)),
        "mean beside conversions": mean(results.rows("stages"), "both", "conversions")})


def codec(results, docs):
    encode, decode = (results.rows("codec", direction=direction, size=65536)
                      for direction in ("encode", "decode"))
    plots.bars(docs / "performance-codec.svg", [row["corpus"] for row in encode],
               {"encode": [row.ratio("codec", "lzo") for row in encode],
                "decode": [row.ratio("codec", "lzo") for row in decode]},
               "times the speed of liblzo2, blocks of 64 KiB", 1)
    decoded = {row["corpus"]: row for row in decode}

    def decoding(cell):
        return lambda row: cell(decoded[row["corpus"]])

    def mean_cell(direction, subject, yardstick):
        return lambda size: mean(results.rows("codec", direction=direction, size=size), subject,
                                 yardstick)

    def sizes(size):
        rows = results.rows("codec", direction="encode", size=size)
        return f"{geometric_mean(row.figures['codec'] / row.figures['lzo'] for row in rows):.1%}"

    means = {"encode ÷ liblzo2": mean_cell("encode", "codec", "lzo"),
             "encode ÷ LZ4": mean_cell("encode", "codec", "lz4"),
             "decode ÷ liblzo2": mean_cell("decode", "codec", "lzo"),
             "decode ÷ LZ4": mean_cell("decode", "codec", "lz4"),
             "decode liblzo2's ÷ liblzo2": mean_cell("decode", "codec on lzo's", "lzo on lzo's")}
    fill(docs / "performance-codec.md", {
        **{head: cell(65536) for head, cell in means.items()},
        "kinds": table(
            {"data": parameter("corpus"), "half": parameter("half"), "encode": rate("codec"),
             "encode ÷ liblzo2": ratio("codec", "lzo"), "encode ÷ LZ4": ratio("codec", "lz4"),
             "decode": decoding(rate("codec")), "decode ÷ liblzo2": decoding(ratio("codec", "lzo")),
             "decode ÷ LZ4": decoding(ratio("codec", "lz4")),
             "size": lambda row: f"{row.figures['codec']:.1f} %"}, encode),
        "sizes": table(
            {"block": size_text, **means, "size ÷ liblzo2": sizes},
            sorted({row["size"] for row in results.rows("codec")})),
        "corpora": table({"data": itemgetter(1), "content": itemgetter(2)}, corpora.CORPORA)})


def crowd(results, docs):
    rows = results.rows("crowd")
    most = max(row["channels"] for row in rows if row["stages"] == "by hand")
    shown = results.rows("crowd", transport="tcp", busy="10", channels=most)
    at = {row["stages"]: row.ratio("crowd", "10 channels") for row in shown}
    idle = results.row("memory", stages="plain").figures["idle, KiB"]

    def speed(name):
        return lambda row: f"{1 / row.time(name):,.0f}"

    plots.bars(docs / "performance-crowd.svg", [named(row["stages"]) for row in shown],
               {"10 channels": [1 / row.time("10 channels") for row in shown],
                f"10 busy of {most}": [1 / row.time("crowd") for row in shown]},
               "round trips a second")
    fill(docs / "performance-crowd.md", {
        "channels": str(most),
        "plain": ratio_text(at["plain"]),
        "by hand": ratio_text(at["by hand"]),
        "idle": f"{idle:.1f} KiB",
        "round trips": table(
            {"socket": parameter("transport"), "channel": parameter("stages"),
             "busy": parameter("busy"), "channels": parameter("channels"),
             "crowd": speed("crowd"), "10 channels": speed("10 channels"),
             **ratios(("crowd", "10 channels"))}, rows),
        "memory": table(
            {"channel": parameter("stages"),
             **{name: lambda row, name=name: f"{row.figures[name + ', KiB']:.4g}"
                for name in ("idle", "after 64 B", "after 1 MiB")}},
            results.rows("memory"))})


def readme(results, bench):
    run = results.machine
    fill(bench / "README.md", {
        "run": f"{run['run']} run on {run['date']}, {run['processor']}, {run['processors']} "
               f"processors, load before {run['load before']}",
        "goals": table({head: itemgetter(i) for i, head in enumerate(goals.HEADS)},
                       [goal.cells() for goal in goals.all_goals(results)])})


def write(results, source):
    for page in (overview, messages, stages, codec, crowd):
        page(results, source / "docs")
    readme(results, source / "bench")
