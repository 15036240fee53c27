# SPDX-License-Identifier: LGPL-2.1-or-later
"""Writes docs/performance*.md and their plots. Every figure comes from one run; the text around
the figures is true whatever they are."""

import math
import statistics

import plots
from results import rate_text, size_text, time_text

NAMES = {"tls": "TLS", "tls+zlib": "TLS with zlib", "both": "both stages", "10": "10 busy",
         "all": "all busy", "unix": "Unix", "tcp": "TCP"}


def named(name):
    return NAMES.get(name, name)


def table(columns, rows):
    """`columns`: heads, each with a function that makes a row's cell."""
    lines = ["| " + " | ".join(columns) + " |", "|---" * len(columns) + "|"]
    lines += ["| " + " | ".join(cell(row) for cell in columns.values()) + " |" for row in rows]
    return "\n".join(lines)


def parameter(name):
    return lambda row: size_text(row[name]) if name == "size" else named(str(row[name]))


def time(name):
    return lambda row: time_text(row.time(name)) if name in row.seconds else "–"


def ratio(subject, yardstick):
    def cell(row):
        if not {subject, yardstick} <= row.seconds.keys():
            return "–"
        value = row.ratio(subject, yardstick)
        return f"{value:.3f}" if value < 0.1 else f"{value:.2f}" if value < 10 else f"{value:.0f}"
    return cell


def per_byte(name):
    return lambda row: f"{row.time(name) / row['size'] * 1e9:.3g} ns"


def figure(name):
    return lambda row: f"{row.figures[name]:.4g}"


def mean(rows, subject, yardstick):
    values = [row.ratio(subject, yardstick) for row in rows]
    return math.exp(statistics.mean(map(math.log, values)))


def times(value):
    """As in: it runs at ... the speed of its peer."""
    return f"{value:.2f} times"


class Page:
    def __init__(self, docs, slug, title):
        self.path = docs / f"{slug}.md"
        self.parts = [f"# {title}"]

    def add(self, *parts):
        self.parts += parts

    def write(self):
        self.path.write_text("\n\n".join(self.parts) + "\n")


def curves(rows, names, value):
    return {named(name): [(row["size"], value(row, name)) for row in rows if name in row.seconds]
            for name in names}


def overview(results, docs):
    page = Page(docs, "performance", "Performance")
    one_way = results.rows("channels", lambda row: row["size"] <= 1 << 20, mode="one way")
    at = {row["size"]: row for row in one_way}
    small, large = at[64], at[65536]
    source = results.row("codec", direction="encode", corpus="source", size=65536)

    def cost(name):
        return f"{(large.time(name) - large.time('plain')) / large['size'] * 1e9:.2g} ns"

    names = ["by hand", "plain", "encrypted", "both", "tls"]
    plots.lines(docs / "performance.svg",
                curves(one_way, names, lambda row, name: row.time(name) * 1e6),
                "message", "time of a message, µs", size_text)
    page.add(
        f"A message of 64 B takes {time_text(small.time('plain'))} over loopback TCP, and "
        f"{time_text(small.time('both'))} through both stages. The same frame written by hand with "
        f"GIO takes {time_text(small.time('by hand'))}, and over TLS "
        f"{time_text(small.time('tls'))}. Large messages pay by the byte: at 64 KiB encryption adds "
        f"{cost('encrypted')} a byte and compression {cost('compressed')} for C source. The "
        f"encrypted channel runs at {times(small.ratio('encrypted', 'tls'))} the speed of TLS with "
        f"messages of 64 B and at {times(large.ratio('encrypted', 'tls'))} with 64 KiB. **Turn "
        f"compression off if your link is faster than {rate_text(large.rate('both'))}**: both stages "
        "together move no more than that. On slower links compression pays if the data shrinks; C "
        f"source shrinks to {source.figures['codec']:.0f} %.",
        "![Time of a message by its size, one way](performance.svg)",
        table({"message": parameter("size"), **{named(name): time(name) for name in (
            "by hand", "plain", "compressed", "encrypted", "both", "tls", "tls+zlib")}}, one_way),
        "TLS authenticates its records; our encrypted records are only encrypted. See "
        "[Security](security.md) before you choose.",
        "## Details",
        "- [Messages](performance-messages.md): frames and strings beside code by hand, cost per "
        "byte, system calls.\n"
        "- [Stages and TLS](performance-stages.md): stages beside TLS, beside their bare "
        "conversions, and beside libgcrypt and OpenSSL.\n"
        "- [LZO1X codec](performance-codec.md): speed and size beside liblzo2 and LZ4.\n"
        "- [Many channels](performance-crowd.md): thousands of channels in one process, and their "
        "memory.",
        "## Method")
    if results.quick:
        page.add("These figures come from a quick run, with few sizes and short turns: take them as "
                 "rough.")
    page.add(
        "The contenders of a comparison run in one process and take turns, round by round. Each time "
        "is the median of the rounds. Each ratio is the median of the ratios within the rounds; "
        "above 1, the first one is faster. There are 31 rounds, 9 in a quick run, and at least 7 if "
        "a turn is long. Nothing is pinned to a processor. Before a contender is measured, its "
        "messages must arrive unchanged. Each message on this page is blocking, and a second thread "
        "receives it.",
        "`scripts/bench --docs` measures again and writes these pages.",
        "## Machine",
        table({"": lambda item: item[0], "this run": lambda item: item[1]},
              results.machine.items()))
    page.write()


def messages(results, docs):
    page = Page(docs, "performance-messages", "Performance of messages")
    one_way = results.rows("channels", mode="one way")
    plots.lines(docs / "performance-messages.svg",
                curves(one_way, ["by hand", "plain", "both"],
                       lambda row, name: row.time(name) / row["size"] * 1e9),
                "message", "cost of a byte, ns", size_text)
    tcp = results.rows("async", transport="tcp")
    page.add(
        "Asynchronous frames over TCP run at "
        f"{times(mean(tcp, 'plain', 'by hand'))} the speed of the same frames by hand, in the mean. "
        "Blocking frames run at "
        f"{times(mean(results.rows('blocking'), 'plain', 'gathering'))} the speed of one gathering "
        "write by hand.",
        "## Cost per byte",
        "![Cost of a byte by the size of the message](performance-messages.svg)",
        "Messages one way over loopback TCP. Small messages pay for their system calls. Large ones "
        "pay for copies, for conversions and for fresh memory, because a message is one allocation.",
        table({"message": parameter("size"), "by hand": per_byte("by hand"),
               "plain": per_byte("plain"), "both stages": per_byte("both"),
               "plain ÷ by hand": ratio("plain", "by hand"),
               "both ÷ by hand": ratio("both", "by hand")}, one_way),
        "## Asynchronous frames",
        "`put_bytes_async()` and `read_bytes_async()` beside `write_all_async()` and "
        "`read_all_async()` of a length and of the message. Both ends share one main loop. By hand, "
        "each of the four operations takes its own turn of the loop; a message stream takes one turn "
        "for each end of a frame.",
        table({"mode": parameter("mode"), "message": parameter("size"), "plain": time("plain"),
               "both stages": time("both"), "by hand": time("by hand"),
               "plain ÷ by hand": ratio("plain", "by hand")}, tcp),
        "## Blocking frames",
        "One thread sends each message and then receives it. A write gathers length and message; "
        "many programs send them in two writes.",
        table({"socket": parameter("transport"), "message": parameter("size"),
               "plain": time("plain"), "one gathering write": time("gathering"),
               "two writes": time("two writes"),
               "plain ÷ gathering": ratio("plain", "gathering"),
               "plain ÷ two writes": ratio("plain", "two writes")}, results.rows("blocking")),
        "## Strings",
        "`read_string_async()` beside GIO's `GDataInputStream` on the same stream, one way over TCP. "
        "Our reader leaves the bytes after a string in the stream. `GDataInputStream` reads ahead "
        "into its own buffer, so nothing else can read from the stream after it.",
        table({"stages": parameter("stages"), "string": parameter("size"),
               "zelgvc": time("zelgvc"), "GDataInputStream": time("GDataInputStream"),
               "zelgvc ÷ GDataInputStream": ratio("zelgvc", "GDataInputStream")},
              results.rows("strings", transport="tcp", mode="one way")),
        "## System calls",
        "System calls for each message of 64 B over a Unix socket. In a burst, 16 frames are sent "
        "and then received. A round trip is two frames. Frames by hand use one gathering write if "
        "they block. \"Wakes\" are the writes and reads by which a main context wakes itself.",
        table({"operation": parameter("what"), "channel": parameter("stages"),
               **{kind: figure(kind) for kind in ("sends", "receives", "waits", "wakes")}},
              results.rows("calls")),
        "[Method and machine](performance.md#method)")
    page.write()


def stages(results, docs):
    page = Page(docs, "performance-stages", "Performance of stages and TLS")
    rows = results.rows("channels", lambda row: row["size"] <= 1 << 20)
    one_way = [row for row in rows if row["mode"] == "one way"]
    plots.lines(docs / "performance-stages.svg",
                curves(one_way, ["plain", "compressed", "encrypted", "both", "tls", "tls+zlib"],
                       lambda row, name: row.rate(name) / 1e6),
                "message", "MB/s", size_text)
    ciphers = results.rows("ciphers", bits=256)
    largest = {row["direction"]: row for row in ciphers}

    def speed(name):
        return lambda row: rate_text(row.rate(name))

    page.add(
        "One way over loopback TCP, the encrypted channel runs at "
        f"{times(mean(one_way, 'encrypted', 'tls'))} the speed of TLS in the mean of the sizes below, "
        f"and both stages at {times(mean(one_way, 'both', 'tls+zlib'))} the speed of TLS with zlib.",
        "![Data rate by the size of the message](performance-stages.svg)",
        "## Beside TLS",
        f"TLS is glib-networking's `GTlsConnection` with {results.machine.get('tls', 'TLS')}, one "
        "write for a message. TLS with zlib adds GIO's zlib converters at level 1, flushed after each "
        "message. The messages are C source. In a burst, one thread sends 16 messages and then "
        "receives them.",
        "TLS encrypts blocks side by side in counter mode. Our records are AES-CBC, where each block "
        "waits for the one before. Compression is bound by the codec. It pays if the link is slower "
        "than the compressed channel.",
        table({"mode": parameter("mode"), "message": parameter("size"),
               **{named(name): time(name) for name in ("encrypted", "both", "tls", "tls+zlib")},
               "encrypted ÷ TLS": ratio("encrypted", "tls"), "both ÷ TLS": ratio("both", "tls"),
               "both ÷ TLS with zlib": ratio("both", "tls+zlib")}, rows),
        "## Channel beside bare conversions",
        "A message through both stages over a Unix socket in one thread, beside the four conversions "
        "alone: compress, encrypt, decrypt, decompress. The difference is system calls, framing and "
        "copies.",
        table({"data": parameter("corpus"), "message": parameter("size"), "channel": time("both"),
               "conversions": time("conversions"),
               "channel ÷ conversions": ratio("both", "conversions")}, results.rows("stages")),
        "## Ciphers",
        "One record, again and again, with a key of 256 bits. libgcrypt gets padded text and keeps "
        "its chain; OpenSSL sets a new IV and pads. Bare libgcrypt encrypts "
        f"{rate_text(largest['encrypt'].rate('libgcrypt'))} at "
        f"{size_text(largest['encrypt']['size'])}, bound by the latency of the AES instruction, and "
        f"decrypts {rate_text(largest['decrypt'].rate('libgcrypt'))}. Small records pay for the "
        "calls: `g_converter_convert()` and two calls of the cipher for a record.",
        table({"direction": parameter("direction"), "record": parameter("size"),
               "zelgvc": speed("zelgvc"), "libgcrypt": speed("libgcrypt"),
               "OpenSSL": speed("openssl"), "zelgvc ÷ libgcrypt": ratio("zelgvc", "libgcrypt"),
               "zelgvc ÷ OpenSSL": ratio("zelgvc", "openssl")}, ciphers),
        "[Method and machine](performance.md#method)")
    page.write()


def codec(results, docs):
    page = Page(docs, "performance-codec", "Performance of the LZO1X codec")
    encode = results.rows("codec", direction="encode", size=65536)
    decode = {row["corpus"]: row
              for row in results.rows("codec", direction="decode", size=65536)}
    plots.bars(docs / "performance-codec.svg", [row["corpus"] for row in encode],
               {"encode": [row.ratio("codec", "lzo") for row in encode],
                "decode": [decode[row["corpus"]].ratio("codec", "lzo") for row in encode]},
               "times the speed of liblzo2, blocks of 64 KiB", 1)

    def decoding(cell):
        return lambda row: cell(decode[row["corpus"]])

    def speed(row):
        return rate_text(row.rate("codec"))

    page.add(
        "With blocks of 64 KiB the codec encodes at "
        f"{times(mean(encode, 'codec', 'lzo'))} the speed of liblzo2 and decodes at "
        f"{times(mean(decode.values(), 'codec', 'lzo'))}, in the geometric mean over "
        f"{len(encode)} kinds of data. LZ4 is another format: our codec encodes at "
        f"{times(mean(encode, 'codec', 'lz4'))} its speed and decodes at "
        f"{times(mean(decode.values(), 'codec', 'lz4'))}.",
        "![Speed beside liblzo2 by kind of data](performance-codec.svg)",
        "## By kind of data",
        "Blocks of 64 KiB of a corpus of 1 MiB, in one thread. We tuned the codec on one half of the "
        "corpora; the judging half stays unseen. The last column is the encoded size.",
        table({"data": parameter("corpus"), "half": parameter("half"), "encode": speed,
               "encode ÷ liblzo2": ratio("codec", "lzo"), "encode ÷ LZ4": ratio("codec", "lz4"),
               "decode": decoding(speed), "decode ÷ liblzo2": decoding(ratio("codec", "lzo")),
               "decode ÷ LZ4": decoding(ratio("codec", "lz4")),
               "size": lambda row: f"{row.figures['codec']:.0f} %"}, encode),
        "Where data repeats, an encoder follows one chain of dependent steps from match to match. A "
        "decoder waits for the length of each instruction, which LZ4 knows sooner. Data that does "
        "not shrink is bound by copying.",
        "## By size of block",
        "Geometric means over all kinds of data. The last column compares encoded sizes: below "
        "100 %, ours is smaller.")

    def mean_cell(direction, subject, yardstick):
        def cell(size):
            rows = results.rows("codec", direction=direction, size=size)
            return f"{mean(rows, subject, yardstick):.2f}"
        return cell

    def sizes(size):
        rows = results.rows("codec", direction="encode", size=size)
        logs = [math.log(row.figures["codec"] / row.figures["lzo"]) for row in rows]
        return f"{100 * math.exp(statistics.mean(logs)):.1f} %"

    page.add(
        table({"block": size_text, "encode ÷ liblzo2": mean_cell("encode", "codec", "lzo"),
               "encode ÷ LZ4": mean_cell("encode", "codec", "lz4"),
               "decode ÷ liblzo2": mean_cell("decode", "codec", "lzo"),
               "decode ÷ LZ4": mean_cell("decode", "codec", "lz4"),
               "decode liblzo2's ÷ liblzo2":
                   mean_cell("decode", "codec on lzo's", "lzo on lzo's"),
               "size ÷ liblzo2": sizes},
              sorted({row["size"] for row in results.rows("codec")})),
        "## Converters beside the codec",
        "`GvcCompressor` and `GvcDecompressor` beside direct calls of the codec. A call of "
        "`g_converter_convert()` costs tens of nanoseconds, which shows in small blocks only.",
        table({"direction": parameter("direction"), "data": parameter("corpus"),
               "block": parameter("size"), "converter": time("converter"), "codec": time("codec"),
               "converter ÷ codec": ratio("converter", "codec")},
              results.rows("converters", lambda row: row["corpus"] in ("source", "random"))),
        "## Method",
        "Each turn goes through the whole corpus, because a branch predictor learns smaller samples "
        "by heart. liblzo2 encodes with `lzo1x_1` and decodes with `lzo1x_decompress_safe`. Both "
        "decoders read the streams of our encoder; \"liblzo2's\" are the streams of `lzo1x_1`. LZ4 "
        "reads its own. `bench/corpora.py` makes the corpora or finds them on the machine. See also "
        "[method and machine](performance.md#method).")
    page.write()


def crowd(results, docs):
    page = Page(docs, "performance-crowd", "Performance of many channels")
    rows = results.rows("crowd")

    def a_second(row, name):
        return 1 / row.time(name)

    shown = [row for row in rows if row["transport"] == "tcp"
             and (row["channels"], row["busy"]) == (5000, "10")]
    plots.bars(docs / "performance-crowd.svg", [named(row["stages"]) for row in shown],
               {"10 channels": [a_second(row, "10 channels") for row in shown],
                "10 busy of 5000": [a_second(row, "crowd") for row in shown]},
               "round trips a second")
    plain = next(row for row in shown if row["stages"] == "plain")
    hand = next(row for row in shown if row["stages"] == "by hand")
    idle = results.row("memory", stages="plain").figures["idle, KiB"]
    page.add(
        f"10 busy channels among 5000 run at {times(plain.ratio('crowd', '10 channels'))} the speed "
        "of 10 channels alone. Frames by hand, with a source of GLib for each socket, run at "
        f"{times(hand.ratio('crowd', '10 channels'))}. An idle plain channel takes {idle:.1f} KiB of "
        "heap.",
        "![Round trips a second](performance-crowd.svg)",
        "## Round trips",
        "Asynchronous round trips of 64 B on 10 channels or on all of them, while the others wait for "
        "a message. Both ends are in one main loop, and both count as channels. The columns of speed "
        "are round trips a second, of all busy channels together.",
        table({"socket": parameter("transport"), "channel": parameter("stages"),
               "busy": parameter("busy"), "channels": parameter("channels"),
               "crowd": lambda row: f"{a_second(row, 'crowd'):,.0f}",
               "10 channels": lambda row: f"{a_second(row, '10 channels'):,.0f}",
               "crowd ÷ 10 channels": ratio("crowd", "10 channels")}, rows),
        "## Memory",
        "KiB of heap for each of 400 channels with a receive in flight, its socket connection "
        "included: before the first message, and after a message of 64 B or 1 MiB each way. By hand "
        "is a bare `GSocketConnection`.",
        table({"channel": parameter("stages"), "idle": figure("idle, KiB"),
               "after 64 B": figure("after 64 B, KiB"),
               "after 1 MiB": figure("after 1 MiB, KiB")}, results.rows("memory")))
    if builds := results.rows("builds"):
        page.add(
            "## Without epoll",
            "Messages of 64 B over a Unix socket on one channel, beside a build of the library with "
            "`-Depoll=disabled`. The builds take turns, in a fresh process each time.",
            table({"operation": parameter("what"), "channel": parameter("stages"),
                   **{name: time(name) for name in builds[0].seconds},
                   "ratio": ratio(*builds[0].seconds)}, builds))
    page.add("[Method and machine](performance.md#method)")
    page.write()


def write(results, docs):
    for old in (*docs.glob("performance*.md"), *docs.glob("performance*.svg")):
        old.unlink()
    for page in (overview, messages, stages, codec, crowd):
        page(results, docs)
