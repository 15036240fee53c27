# SPDX-License-Identifier: LGPL-2.1-or-later
"""The goals, and how a run meets them."""

import dataclasses
import statistics

HEADS = ["goal", "wanted", "stretch", "middle row", "worst row", "verdict"]


@dataclasses.dataclass
class Goal:
    """The worst sample decides; the middle one says how typical it is."""

    text: str
    limit: float
    samples: list  # pairs of a value and the label of its row
    stretch: float = None
    at_most: bool = False
    unit: str = ""

    def __post_init__(self):
        self.samples = sorted(self.samples)
        self.worst = (self.samples or [(None, "")])[-1 if self.at_most else 0]

    def reaches(self, limit):
        return self.worst[0] <= limit if self.at_most else self.worst[0] >= limit

    def verdict(self):
        if not self.samples:
            return "not measured"
        if self.stretch is not None and self.reaches(self.stretch):
            return "stretch"
        return "reached" if self.reaches(self.limit) else "missed"

    def cells(self):
        wanted = f"{'at most' if self.at_most else 'at least'} {self.limit:g}{self.unit}"
        stretch = "" if self.stretch is None else f"{self.stretch:g}{self.unit}"
        middle = worst = ""
        if self.samples:
            middle = f"{statistics.median(value for value, _ in self.samples):.3g}{self.unit}"
            worst = f"{self.worst[0]:.3g}{self.unit} ({self.worst[1]})"
        return [self.text, wanted, stretch, middle, worst, self.verdict()]


def ratios(rows, subject, yardstick):
    return [(row.ratio(subject, yardstick), row.label) for row in rows]


def figures(rows, name):
    return [(row.figures[name], row.label) for row in rows]


def large(row):
    return row["size"] >= 4096


def message_goals(results):
    one_way = results.rows("channels", lambda row: row["size"] <= 4096, mode="one way")
    strings = results.rows("strings", lambda row: row["mode"] != "blocking")
    yield Goal("Blocking frames of 64 B and 1 KiB beside one gathering write by hand", 0.95,
               ratios(results.rows("blocking", lambda row: row["size"] <= 1024), "plain", "gathering"), 1)
    for size, name in ((64, "64 B"), (1024, "1 KiB")):
        rows = results.rows("blocking", size=size)
        yield Goal(f"Blocking frames of {name} through both stages beside two plain writes by hand",
                   1, ratios(rows, "both", "by hand"), 1.3)
    for stages, name in (("plain", "plain"), ("both", "both stages")):
        yield Goal(f"One way, 16 B to 4 KiB, {name}, beside GTlsConnection", 1,
                   ratios(one_way, stages, "tls"), 1.5)
    yield Goal("Asynchronous frames of 64 B beside frames by hand", 2.2,
               ratios(results.rows("async", size=64), "plain", "by hand"), 3)
    yield Goal("Asynchronous strings of 16 B to 1 KiB beside GDataInputStream, plain and staged",
               0.5, ratios(strings, "zelgvc", "GDataInputStream"), 0.8)
    yield Goal("Blocking strings of 1 KiB beside GDataInputStream, plain and staged", 0.5,
               ratios(results.rows("strings", mode="blocking"), "zelgvc", "GDataInputStream"), 0.8)
    yield Goal("64 KiB through both stages in one thread beside the sum of its four conversions",
               0.95, ratios(results.rows("stages", size=65536), "both", "conversions"), 0.98)
    for stages, calls in (("plain", (1, 2)), ("both", (1, 1))):
        rows = results.rows("calls", lambda row: row["what"] != "async round trip", stages=stages)
        for kind, limit in zip(("sends", "receives"), calls):
            yield Goal(f"System calls of a frame in a burst, {stages}: {kind}", limit,
                       figures(rows, kind), at_most=True)
    for stages in ("plain", "both"):
        rows = results.rows("channels", lambda row: row["size"] >= 65536, mode="one way")
        costs = [(row.time(stages) / row["size"], row.label) for row in rows]
        samples = [((max(costs)[0] / min(costs)[0] - 1) * 100, max(costs)[1])] if costs else []
        yield Goal(f"Cost per byte from 64 KiB on, dearest size over cheapest, {stages}", 15,
                   samples, at_most=True, unit=" %")


def crowd_goals(results):
    def waiting(least, most):
        return results.rows("crowd", lambda row: least <= row["channels"] <= most
                            and row["stages"] != "by hand", busy="10")

    plain = results.rows("memory", stages="plain")
    round_trips = results.rows("builds", what="async round trip", stages="plain")
    yield Goal("10 busy of 5000 channels, plain and both stages, beside 10 of 10", 0.8,
               ratios(waiting(5000, 5000), "crowd", "10 channels"), 0.95)
    yield Goal("10 busy of 20000 channels, or as many as there are descriptors for, plain and both "
               "stages, beside 10 of 10", 0.6,
               ratios(waiting(10000, 20000), "crowd", "10 channels"), 0.9)
    yield Goal("All of 5000 plain channels busy beside all of 10", 0.5,
               ratios(results.rows("crowd", busy="all"), "crowd", "10 channels"), 0.8)
    yield Goal("Asynchronous round trips of 64 B on one plain channel beside a build without epoll",
               1, ratios(round_trips, "zelgvc", "no epoll"), 1.2)
    yield Goal("Memory of an idle plain channel with a read in flight", 2.115,
               figures(plain, "idle, KiB"), at_most=True, unit=" KiB")
    yield Goal("Memory of a channel with both stages at rest after messages of 1 MiB", 48,
               figures(results.rows("memory", stages="both"), "after 1 MiB, KiB"), 24,
               at_most=True, unit=" KiB")


def converter_goals(results):
    for direction, name, limit in (("encrypt", "Encryptor", 0.97), ("decrypt", "Decryptor", 0.95)):
        rows = results.rows("ciphers", direction=direction)
        yield Goal(f"{name} beside bare libgcrypt, records of 4 KiB and more", limit,
                   ratios(filter(large, rows), "zelgvc", "libgcrypt"))
        yield Goal(f"{name} beside bare libgcrypt, records of 64 B", 0.7,
                   ratios([row for row in rows if row["size"] == 64], "zelgvc", "libgcrypt"))
    for direction in ("compress", "decompress"):
        rows = results.rows("converters", large, direction=direction)
        yield Goal(f"{direction.capitalize()}or beside the bare codec, blocks of 4 KiB and more",
                   0.97, ratios(rows, "converter", "codec"))
    tiny = results.rows("converters", direction="compress", size=4)
    yield Goal("Compressing 4 bytes", 60,
               [(row.time("converter") * 1e9, row.label) for row in tiny], at_most=True, unit=" ns")


def means(rows, samples_of):
    """The mean of each half of the corpora."""
    halves = {half: samples_of([row for row in rows if row["half"] == half])
              for half in ("tuning", "judging")}
    return [(statistics.geometric_mean(value for value, _ in samples), f"{half}, {len(samples)} rows")
            for half, samples in halves.items() if samples]


def codec_goals(results):
    speeds = (("encode", "Encoding", 1.25, 1, 1.4, 1.1, "codec", "lzo"),
              ("decode", "Decoding our streams", 2.8, 1.6, 3.2, 2, "codec", "lzo"),
              ("decode", "Decoding liblzo2's streams", 2.8, 1.6, 3.2, 2,
               "codec on lzo's", "lzo on lzo's"))
    for direction, name, mean, least, mean_stretch, least_stretch, subject, yardstick in speeds:
        def samples(rows):
            return ratios(rows, subject, yardstick)

        rows = results.rows("codec", large, direction=direction)
        tiny = results.rows("codec", lambda row: 64 <= row["size"] <= 1024, direction=direction)
        yield Goal(f"{name} beside liblzo2, blocks of 4 KiB and more, geometric mean of each half",
                   mean, means(rows, samples), mean_stretch)
        yield Goal(f"{name} beside liblzo2, blocks of 4 KiB and more, each", least, samples(rows),
                   least_stretch)
        yield Goal(f"{name} beside liblzo2, blocks of 64 B to 1 KiB, each", 1, samples(tiny), 1.5)

    def sizes(rows):
        return [(100 * row.figures["codec"] / row.figures["lzo"], row.label) for row in rows]

    encode = results.rows("codec", direction="encode")
    yield Goal("Encoded size over that of liblzo2, each", 100, sizes(encode), at_most=True, unit=" %")
    yield Goal("Encoded size over that of liblzo2, blocks of 4 KiB and more, geometric mean of each "
               "half", 100, means(list(filter(large, encode)), sizes), 97, at_most=True, unit=" %")
    yield Goal("Decoding beside LZ4 on its own streams, blocks of 4 KiB and more, geometric mean of "
               "each half", 0.75, means(results.rows("codec", large, direction="decode"),
                                        lambda rows: ratios(rows, "codec", "lz4")), 0.9)


def all_goals(results):
    return [*message_goals(results), *crowd_goals(results), *converter_goals(results),
            *codec_goals(results)]


def text(results):
    """Goals of groups that did not run are left out."""
    cells = [HEADS, *(goal.cells() for goal in all_goals(results) if goal.samples)]
    return "\n".join(["", "Goals:", *map(" | ".join, cells)])
