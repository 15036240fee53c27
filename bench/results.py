# SPDX-License-Identifier: LGPL-2.1-or-later
"""The rows of a run of zelgvc-bench, and figures as text."""

import statistics


def size_text(size):
    for unit, name in ((1 << 20, "MiB"), (1 << 10, "KiB")):
        if size >= unit and size % unit == 0:
            return f"{size // unit} {name}"
    return f"{size} B"


def three_digits(value):
    return f"{value:.0f}" if value >= 100 else f"{value:.3g}"


def time_text(seconds):
    for unit, name in ((1e-9, "ns"), (1e-6, "µs"), (1e-3, "ms")):
        if seconds < 999.5 * unit:
            return f"{three_digits(seconds / unit)} {name}"
    return f"{seconds:.2f} s"


def rate_text(rate):
    return f"{rate / 1e9:.2f} GB/s" if rate >= 999.5e6 else f"{three_digits(rate / 1e6)} MB/s"


def value_text(name, value):
    return size_text(value) if name == "size" else str(value)


class Row:
    """A row: its parameters, the seconds of each contender in each round, and other figures."""

    def __init__(self, data):
        self.parameters = dict(data)
        self.group = self.parameters.pop("group")
        self.seconds = self.parameters.pop("seconds", {})
        self.figures = self.parameters.pop("figures", {})
        self.label = ", ".join(value_text(*item) for item in self.parameters.items())

    def __getitem__(self, name):
        return self.parameters.get(name)

    def time(self, name):
        return statistics.median(self.seconds[name])

    def rate(self, name):
        """Bytes a second."""
        return self["size"] / self.time(name)

    def ratio(self, subject, yardstick):
        """How many times faster `subject` was: the median over the rounds."""
        return statistics.median(other / own for own, other in
                                 zip(self.seconds[subject], self.seconds[yardstick]))

    def text(self):
        parts = [self.group, self.label]
        parts += [f"{name} {time_text(self.time(name))}" for name in self.seconds]
        parts += [f"{name} {value:.4g}" for name, value in self.figures.items()]
        return " | ".join(parts)


class Results:
    def __init__(self, rows, machine):
        self.all = [Row(data) for data in rows]
        self.machine = machine

    def rows(self, group, keep=lambda row: True, **wanted):
        return [row for row in self.all if row.group == group and keep(row)
                and all(row[name] == value for name, value in wanted.items())]

    def row(self, group, **wanted):
        return self.rows(group, **wanted)[0]
