"""SVG plots of a run, the same bytes for the same results."""

import math
import os
import re
import sys

from .systems import OURS

COLOURS = {"msgbus": "#d1242f", "msgbus-static": "#e8888d",
           "redis": "#1f77b4", "nats": "#2ca02c", "mosquitto": "#9467bd", "dbus": "#8c564b",
           "zeromq": "#ff7f0e", "iceoryx": "#7f7f7f"}


def short(value):
    """1234 as 1.2k: three characters or so for a tick or a bar."""
    for limit, unit in ((1e6, "M"), (1e3, "k")):
        if value >= limit:
            return f"{value / limit:.{1 if value < 10 * limit and value % limit else 0}f}{unit}"
    return f"{value:.{1 if value < 10 and value % 1 else 0}f}"


def decades(values):
    """The limits of a logarithmic axis: whole decades, so that plots of different runs look alike."""
    return 10 ** math.floor(math.log10(min(values))), 10 ** math.ceil(math.log10(max(values) * 1.05))


def draw(results, folder):
    """Writes m1.svg to m6.svg as far as there are figures."""
    try:
        import matplotlib
    except ImportError:
        print("no plots: matplotlib is not installed (bench/setup installs it)", file=sys.stderr)
        return
    matplotlib.use("svg")
    matplotlib.rcParams.update({"svg.hashsalt": "bench", "font.size": 9, "axes.spines.top": False,
                                "axes.spines.right": False, "figure.constrained_layout.use": True})
    from matplotlib import pyplot, ticker

    def logarithmic(axis):
        axis.set_major_formatter(ticker.FuncFormatter(lambda value, _: short(value)))
        axis.set_minor_formatter(ticker.NullFormatter())

    def save(name, figure):
        figure.savefig(os.path.join(folder, name), metadata={"Date": None})
        pyplot.close(figure)

    def bars(name, measure, series, unit):
        """One group of bars per system; each series is (title, variant, figure, scale)."""
        systems = [s for s in results.systems
                   if any(results.median(measure, variant, s.name, figure) for _, variant, figure, _ in series)]
        if not systems:
            return
        figure, axes = pyplot.subplots(figsize=(7, 0.7 + 0.42 * len(systems)))
        height = 0.8 / len(series)
        drawn = []
        for number, (title, variant, what, scale) in enumerate(series):
            for row, system in enumerate(systems):
                passes = [value * scale for value in results.passes(measure, variant, system.name, what)]
                if not passes:
                    continue
                middle = sorted(passes)[len(passes) // 2]
                axes.barh(row + (number - (len(series) - 1) / 2) * height, middle, height * 0.92,
                          xerr=[[middle - min(passes)], [max(passes) - middle]], ecolor="#444444",
                          error_kw={"elinewidth": 0.8}, color=COLOURS.get(system.name, "#333333"),
                          alpha=1.0 if number == 0 else 0.45)
                axes.annotate(short(middle), (max(passes), row + (number - (len(series) - 1) / 2) * height),
                              xytext=(4, 0), textcoords="offset points", va="center", fontsize=7)
                drawn += passes
        axes.set_yticks(range(len(systems)), [s.label for s in systems])
        axes.invert_yaxis()
        axes.set_xscale("log")
        axes.set_xlim(*decades(drawn))
        logarithmic(axes.xaxis)
        axes.set_xlabel(unit + ("" if len(series) == 1 else " (" + ", ".join(
            f"{'dark' if i == 0 else 'light'}: {title}" for i, (title, _, _, _) in enumerate(series)) + ")"))
        axes.grid(axis="x", which="major", alpha=0.3)
        save(name, figure)

    bars("m1.svg", "M1", (("unpinned", "unpinned", "ops", 1), ("one CPU", "one CPU", "ops", 1)),
         "acknowledged publishes per second")
    bars("m2.svg", "M2", (("p50", "unpinned", "p50", 1e-3), ("p99", "unpinned", "p99", 1e-3)), "one-way µs")
    bars("m3.svg", "M3", (("", "unpinned", "deliveries", 1),), "deliveries per second, one subscriber")
    bars("m4.svg", "M4", (("", "unpinned", "deliveries", 1),), "deliveries per second, 100 subscribers")

    panels = [(measure, figure, axis) for axis in ("subscribers", "publishers")
              for measure, figure in (("M6 publish", "ops"), ("M6 fan-out", "deliveries"))
              if any(axis in variant for variant in results.variants(measure))]
    if not panels:
        return
    figure, grid = pyplot.subplots((len(panels) + 1) // 2, 2, figsize=(9, 6), squeeze=False)
    for axes, (measure, what, axis) in zip(grid.flat, panels):
        for system in results.systems:
            points = sorted((int(re.search(r"\d+", variant).group()), results.median(measure, variant, system.name, what))
                            for variant in results.variants(measure) if axis in variant
                            and results.median(measure, variant, system.name, what))
            if points:
                axes.plot(*zip(*points), marker="o", markersize=3, label=system.label,
                          color=COLOURS.get(system.name, "#333333"), linewidth=2 if system.name == OURS else 1)
        axes.set_xscale("log")
        axes.set_yscale("log")
        axes.set_ylim(*decades([value for line in axes.lines for value in line.get_ydata()]))
        axes.set_xticks(sorted({value for line in axes.lines for value in line.get_xdata()}))
        logarithmic(axes.xaxis)
        logarithmic(axes.yaxis)
        axes.set_xlabel(axis)
        axes.set_ylabel("publishes/s" if what == "ops" else "deliveries/s")
        axes.grid(alpha=0.3)
    grid.flat[0].legend(fontsize=7)
    save("m6.svg", figure)
