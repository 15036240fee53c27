# SPDX-License-Identifier: LGPL-2.1-or-later
"""Line plots with logarithmic axes as SVG, with nothing but the standard library."""

import math
from html import escape

WIDTH, HEIGHT = 760, 400
LEFT, RIGHT, TOP, BOTTOM = 78, 170, 44, 52
COLOURS = ["#0b62a4", "#c4480b", "#2b8a3e", "#7b3fa0", "#8a6d00", "#555555"]
DASHES = ["", "7 4", "2 3", "10 3 2 3", "", "7 4"]


class Axis:
    """Maps the decades (or, with linear=True, the range from 0) of `values` to pixels."""

    def __init__(self, values, start, end, linear=False):
        self.start, self.end, self.linear = start, end, linear
        self.low = 0 if linear else min(values) * 0.85
        self.high = max(values) * 1.15

    def place(self, value):
        if self.linear:
            part = value / self.high
        else:
            part = math.log(value / self.low) / math.log(self.high / self.low)
        return self.start + part * (self.end - self.start)

    def ticks(self):
        if self.linear:
            step = 10 ** math.floor(math.log10(self.high))
            while self.high / step < 4:
                step /= 2
            return [i * step for i in range(int(self.high / step) + 1)]
        first = math.floor(math.log10(self.low))
        last = math.ceil(math.log10(self.high))
        wide = last - first > 3
        return [
            digit * 10.0**power
            for power in range(first, last + 1)
            for digit in ([1] if wide else [1, 2, 5])
            if self.low <= digit * 10.0**power <= self.high
        ]


def number(value):
    return f"{value:,.0f}" if value >= 10 or value == 0 else f"{value:.3g}"


def text(x, y, content, anchor="middle", size=12, extra=""):
    return (
        f'<text x="{x:.1f}" y="{y:.1f}" text-anchor="{anchor}" font-size="{size}" {extra}>'
        f"{escape(content)}</text>"
    )


def frame(x_axis, y_axis, x_ticks, x_name, y_name):
    """The grid with its labels; x_ticks are pairs of a value and its label."""
    bottom, right = HEIGHT - BOTTOM, WIDTH - RIGHT
    parts = []
    for value in y_axis.ticks():
        y = y_axis.place(value)
        parts.append(f'<line x1="{LEFT}" y1="{y:.1f}" x2="{right}" y2="{y:.1f}" stroke="#ddd"/>')
        parts.append(text(LEFT - 6, y + 4, number(value), "end"))
    for value, label in x_ticks:
        x = x_axis.place(value)
        parts.append(f'<line x1="{x:.1f}" y1="{TOP}" x2="{x:.1f}" y2="{bottom}" stroke="#eee"/>')
        parts.append(text(x, bottom + 16, label, size=10))
    parts.append(
        f'<rect x="{LEFT}" y="{TOP}" width="{right - LEFT}" height="{bottom - TOP}" '
        'fill="none" stroke="#888"/>'
    )
    parts.append(text((LEFT + right) / 2, HEIGHT - 14, x_name))
    middle = (TOP + bottom) / 2
    parts.append(text(16, middle, y_name, extra=f'transform="rotate(-90 16 {middle})"'))
    return parts


def curve(points, x_axis, y_axis, index):
    """A line through the medians with a bar from quartile to quartile at each."""
    colour, dash = COLOURS[index % len(COLOURS)], DASHES[index % len(DASHES)]
    places = [(x_axis.place(x), y_axis.place(y)) for x, y, _, _ in points]
    path = " ".join(f"{x:.1f},{y:.1f}" for x, y in places)
    parts = [
        f'<polyline points="{path}" fill="none" stroke="{colour}" stroke-width="2" '
        f'stroke-dasharray="{dash}"/>'
    ]
    for (x, y), (_, _, low, high) in zip(places, points):
        top, foot = y_axis.place(high), y_axis.place(max(low, y_axis.low or low))
        parts.append(
            f'<line x1="{x:.1f}" y1="{top:.1f}" x2="{x:.1f}" y2="{foot:.1f}" stroke="{colour}"/>'
        )
        parts.append(f'<circle cx="{x:.1f}" cy="{y:.1f}" r="3" fill="{colour}"/>')
    return parts


def legend(names):
    parts = []
    left = WIDTH - RIGHT + 14
    for index, name in enumerate(names):
        y = TOP + 12 + 20 * index
        colour, dash = COLOURS[index % len(COLOURS)], DASHES[index % len(DASHES)]
        parts.append(
            f'<line x1="{left}" y1="{y}" x2="{left + 26}" y2="{y}" stroke="{colour}" '
            f'stroke-width="2" stroke-dasharray="{dash}"/>'
        )
        parts.append(text(left + 32, y + 4, name, "start"))
    return parts


def line_plot(title, x_name, y_name, series, x_label, linear_y=False):
    """series: pairs of a name and its points (x, y, low, high); x_label names an x value."""
    points = [point for _, of in series for point in of]
    xs = sorted({x for x, _, _, _ in points})
    x_axis = Axis(xs, LEFT, WIDTH - RIGHT)
    y_axis = Axis([v for _, *of in points for v in of], HEIGHT - BOTTOM, TOP, linear_y)
    parts = [
        f'<svg xmlns="http://www.w3.org/2000/svg" width="{WIDTH}" height="{HEIGHT}" '
        f'viewBox="0 0 {WIDTH} {HEIGHT}" font-family="sans-serif" role="img">',
        f"<title>{escape(title)}</title>",
        f'<rect width="{WIDTH}" height="{HEIGHT}" fill="white"/>',
        text((LEFT + WIDTH - RIGHT) / 2, 26, title, size=15),
    ]
    parts += frame(x_axis, y_axis, [(x, x_label(x)) for x in xs], x_name, y_name)
    for index, (_, of) in enumerate(series):
        parts += curve(of, x_axis, y_axis, index)
    parts += legend([name for name, _ in series])
    return "\n".join(parts + ["</svg>", ""])
