# SPDX-License-Identifier: LGPL-2.1-or-later
"""Plots as small SVG files that fit dark pages and phones: no background, no fixed size, large
letters, and colours that read on white and on black."""

import re

import matplotlib

matplotlib.use("svg")
from matplotlib import pyplot  # noqa: E402

GREY = "#7a7a7a"
COLOURS = ["#808080", "#2f80ed", "#d9730d", "#2a9d5c", "#9b5de5", "#e0475b", "#b8860b"]
MARKERS = "os^Dv<>"

matplotlib.rcParams.update({
    "svg.fonttype": "none", "svg.hashsalt": "zelgvc", "font.family": "sans-serif",
    "font.size": 13, "axes.spines.top": False, "axes.spines.right": False,
    "lines.linewidth": 2.5, "lines.markersize": 6, "legend.frameon": False,
    **dict.fromkeys(["text.color", "axes.labelcolor", "axes.edgecolor", "xtick.color",
                     "ytick.color", "grid.color"], GREY),
})


def save(figure, path):
    figure.savefig(path, format="svg", transparent=True, bbox_inches="tight",
                   metadata={"Date": None, "Creator": None, "Format": None, "Type": None})
    pyplot.close(figure)
    text = path.read_text()
    # The size of the page decides, so the root has a view box alone.
    text = re.sub(r'(<svg [^>]*?)width="[^"]*" height="[^"]*" ', r"\1", text)
    text = re.sub(r"<\?xml.*?\?>|<!DOCTYPE.*?>|<metadata>.*?</metadata>", "", text,
                  flags=re.DOTALL)
    text = text.replace("*{stroke", "@media (prefers-color-scheme: dark)"
                        "{text{fill: #c0c0c0 !important}} *{stroke", 1)
    text = re.sub(r' transform="rotate\(-?0 [^"]*"', "", text)
    path.write_text(" ".join(text.split()).replace("> <", "><") + "\n")


def lines(path, series, x_name, y_name, x_text):
    """`series`: a name and its points (x, y) for each curve. Both axes are logarithmic."""
    figure, axes = pyplot.subplots(figsize=(5.2, 3.6))
    for i, (name, points) in enumerate(series.items()):
        xs, ys = zip(*sorted(points))
        axes.plot(xs, ys, label=name, color=COLOURS[i], marker=MARKERS[i])
    axes.set_xscale("log")
    axes.set_yscale("log")
    ticks = sorted({x for points in series.values() for x, _ in points})
    axes.set_xticks(ticks, [x_text(x) for x in ticks], rotation=30 if len(ticks) > 5 else 0)
    axes.minorticks_off()
    axes.yaxis.set_major_formatter(lambda value, _: f"{value:g}")
    axes.grid(axis="y", linewidth=0.5, alpha=0.6)
    axes.set_xlabel(x_name)
    axes.set_ylabel(y_name)
    axes.legend(loc="upper center", bbox_to_anchor=(0.45, -0.2), ncol=3, handlelength=1.6,
                columnspacing=1.2)
    save(figure, path)


def bars(path, names, series, x_name, mark=None):
    """Bars on a logarithmic axis: `series` has a name and a value for each of `names`."""
    height = 0.8 / len(series)
    figure, axes = pyplot.subplots(figsize=(5.2, 1.2 + 0.24 * len(series) * len(names)))
    for i, (name, values) in enumerate(series.items()):
        places = [place + i * height for place in range(len(names))]
        drawn = axes.barh(places, values, height, label=name, color=COLOURS[i + 1])
        axes.bar_label(drawn, [f"{value:,.3g}" if value < 100 else f"{value:,.0f}"
                               for value in values], padding=3, color=GREY, fontsize=11)
    axes.set_yticks([place + 0.4 - height / 2 for place in range(len(names))], names)
    axes.invert_yaxis()
    every = [value for values in series.values() for value in values]
    axes.set_xscale("log")
    axes.set_xlim(min(every) / 2, max(every) * 3)
    axes.minorticks_off()
    axes.set_xticks([])
    axes.tick_params(length=0)
    if mark is not None:
        axes.axvline(mark, color=GREY, linewidth=1, linestyle="--")
    axes.set_xlabel(x_name)
    axes.legend(loc="lower center", bbox_to_anchor=(0.4, 1), ncol=2)
    save(figure, path)
