"""SVG plots of a run, one per question. The same results give the same bytes."""

import io
import math
import os
import re
import statistics
import sys
from xml.etree import ElementTree

from .results import MANY
from .systems import OURS

QUESTIONS = {
    "m1": "M1: How many acknowledged publishes per second, one at a time?",
    "m2": "M2: How long does one value take on an idle system?",
    "m3": "M3: How many values per second reach one subscriber?",
    "m4": "M4: How many deliveries per second to many subscribers?",
    "m6-publish": "M6: How does the publish rate change with subscribers and publishers?",
    "m6-fan-out": "M6: How does the delivery rate change with subscribers and publishers?",
    "m7-rate": "M7: How does the 99th percentile change with the rate?",
    "m7-percentiles": "M7: How are the delivery times distributed at a fixed rate?",
}
COLOURS = {"msgbus": "#d1242f", "msgbus-static": "#e8888d", "redis": "#1f77b4", "nats": "#2ca02c",
           "mosquitto": "#9467bd", "dbus": "#8c564b", "zeromq": "#ff7f0e", "iceoryx": "#7f7f7f", "cyclonedds": "#17becf"}
SVG = "http://www.w3.org/2000/svg"
SPREAD = "point: median, ticks: passes; log scale"


def file_name(picture):
    return picture + ".svg"


def draw(results, folder, others):
    """Writes one SVG per question that the results can answer. `others` makes further figures: {picture: function}."""
    try:
        import matplotlib
    except ImportError:
        print("no plots: matplotlib is not installed (bench/setup installs it)", file=sys.stderr)
        return
    matplotlib.use("svg")
    # Text stays text, in one font family. Clip paths and automatic layout would differ from run to run, so none is used.
    matplotlib.rcParams.update({"svg.fonttype": "none", "svg.hashsalt": "bench", "font.family": ["sans-serif"],
                                "font.sans-serif": ["DejaVu Sans"], "font.size": 9, "axes.spines.top": False,
                                "axes.spines.right": False, "axes.titlesize": 10, "axes.titlelocation": "left"})
    unpinned = (("unpinned", "deliveries", 1, ""),)
    figures = {
        "m1": _points(results, "m1", "acknowledged publishes per second", (
            ("unpinned", "ops", 1, "scheduler's choice of CPUs"), ("one CPU", "ops", 1, "everything on one CPU"))),
        "m2": _points(results, "m2", "one-way time in µs", (
            ("unpinned", "p50", 1e-3, "p50"), ("unpinned", "p99", 1e-3, "p99"))),
        "m3": _points(results, "m3", "deliveries per second", unpinned),
        "m4": _points(results, "m4", "deliveries per second", unpinned if MANY not in results.variants("M4") else (
            ("unpinned", "deliveries", 1, "100 subscribers"),
            (MANY, "deliveries", 1, f"{results.raw['sizes']['many']:,} subscribers"))),
        "m6-publish": _growth(results, "m6-publish", "M6 publish", "ops", "publishes per second", 1),
        "m6-fan-out": _growth(results, "m6-fan-out", "M6 fan-out", "deliveries", "deliveries per second", 100),
    }
    figures.update({picture: make(results) for picture, make in others.items()})
    for picture, figure in figures.items():
        if figure is not None:
            _save(figure, os.path.join(folder, file_name(picture)))


def _points(results, picture, unit, series):
    """One row per system with its median and spread. Each series is (variant, figure, scale, title).

    Returns: the figure, or None when there is nothing to draw.
    """
    measure = picture.upper()
    systems = [s for s in results.systems
               if any(results.median(measure, variant, s.name, what) for variant, what, _, _ in series)]
    if not systems:
        return None
    legend = len(series) > 1
    figure, (axes,) = new_figure(width=7, height=1.2 + 0.3 * len(systems), left=1.2, right=0.45,
                                 top=0.5 if legend else 0.3, bottom=0.5)
    drawn = []
    for number, (variant, what, scale, title) in enumerate(series):
        filled = number == 0
        axes.plot([], [], "o", color="#333333", markerfacecolor="#333333" if filled else "white", label=title)
        for row, system in enumerate(systems):
            passes = [value * scale for value in results.passes(measure, variant, system.name, what)]
            if passes:
                _spread(axes, row + (number - (len(series) - 1) / 2) * 0.4, passes, colour(system), filled)
                drawn += passes
    axes.set_yticks(range(len(systems)), [s.label for s in systems])
    axes.set_ylim(len(systems) - 0.4, -0.6)
    logarithmic(axes, axes.xaxis, drawn)
    axes.set_xlabel(f"{unit} ({SPREAD})")
    axes.set_title(QUESTIONS[picture], pad=22 if legend else 6)
    axes.grid(axis="x", alpha=0.3, clip_on=False)
    if legend:
        axes.legend(fontsize=8, frameon=False, ncol=len(series), loc="lower left", bbox_to_anchor=(0, 0.99), borderaxespad=0)
    return figure


def _spread(axes, y, passes, colour, filled):
    """A point at the median, a line from the least to the greatest pass with a tick at each, and the median as text."""
    middle = statistics.median(passes)
    axes.plot([min(passes), max(passes)], [y, y], color=colour, linewidth=1.5, clip_on=False)
    axes.plot(sorted(passes), [y] * len(passes), "|", color=colour, markersize=6, clip_on=False)
    axes.plot([middle], [y], "o", color=colour, markerfacecolor=colour if filled else "white", markersize=5, clip_on=False)
    axes.annotate(short(middle), (max(passes), y), xytext=(5, 0), textcoords="offset points", va="center", fontsize=7)


def _growth(results, picture, measure, what, unit, subscribers):
    """Medians by the number of subscribers, and by the number of publishers with `subscribers` subscribers.

    Returns: the figure, or None when there is nothing to draw.
    """
    labels = {"subscribers": "number of subscribers (1 publisher)",
              "publishers": f"number of publishers ({subscribers} subscriber{'s' if subscribers > 1 else ''})"}
    counted = [clients for clients in labels if any(clients in variant for variant in results.variants(measure))]
    if not counted:
        return None
    figure, panels = new_figure(width=8, height=3.4, left=0.65, right=1.15, top=0.3, bottom=0.5, panels=len(counted))
    drawn = []
    for axes, clients in zip(panels, counted):
        variants = [variant for variant in results.variants(measure) if clients in variant]
        drawn += _curves(axes, results, measure, variants, what)
        axes.set_xlabel(labels[clients])
        axes.grid(alpha=0.3, clip_on=False)
    for axes in panels:
        logarithmic(axes, axes.yaxis, drawn)
        axes.tick_params(labelleft=axes is panels[0])
    panels[0].set_ylabel(f"{unit} (median, log scale)")
    panels[0].set_title(QUESTIONS[picture])
    panels[-1].legend(fontsize=7, frameon=False, loc="center left", bbox_to_anchor=(1.02, 0.5))
    return figure


def _curves(axes, results, measure, variants, what):
    """One line per system through its medians, by the number that a variant has in its name. Returns: the medians."""
    counts, drawn = set(), []
    for system in results.systems:
        medians = {int(re.search(r"\d+", variant).group()): results.median(measure, variant, system.name, what)
                   for variant in variants}
        points = sorted((count, median) for count, median in medians.items() if median)
        if points:
            axes.plot(*zip(*points), marker="o", markersize=3, label=system.label, clip_on=False, color=colour(system),
                      linewidth=2 if system.name == OURS else 1)
            counts.update(count for count, _ in points)
            drawn += [median for _, median in points]
    logarithmic(axes, axes.xaxis, counts)
    axes.set_xlim(min(counts), max(counts))
    axes.set_xticks(sorted(counts))
    return drawn


def colour(system):
    return COLOURS.get(system.name, "#333333")


def new_figure(width, height, left, right, top, bottom, panels=1):
    """A figure with panels side by side. Lengths are in inches. Returns: (figure, panels)."""
    from matplotlib import pyplot

    figure, grid = pyplot.subplots(1, panels, figsize=(width, height), squeeze=False)
    figure.subplots_adjust(left=left / width, right=1 - right / width, bottom=bottom / height, top=1 - top / height,
                           wspace=0.08)
    return figure, grid[0]


def logarithmic(axes, axis, values):
    """Makes `axis` logarithmic over whole decades, so that plots of different runs look alike."""
    from matplotlib import ticker

    limits = 10 ** math.floor(math.log10(min(values))), 10 ** math.ceil(math.log10(max(values) * 1.05))
    if axis is axes.xaxis:
        axes.set_xscale("log")
        axes.set_xlim(*limits)
    else:
        axes.set_yscale("log")
        axes.set_ylim(*limits)
    axis.set_minor_locator(ticker.NullLocator())
    axis.set_major_formatter(ticker.FuncFormatter(lambda value, _: short(value)))


def short(value):
    """1234 as 1.2k: about three characters, for a tick or a point."""
    for limit, unit in ((1e6, "M"), (1e3, "k")):
        if value >= limit:
            return f"{value / limit:.{1 if value < 10 * limit and value % limit else 0}f}{unit}"
    return f"{value:.{1 if value < 10 and value % 1 else 0}f}"


def _save(figure, path):
    """Writes the SVG: one element per line, without metadata, comments and groups that only carry a name."""
    from matplotlib import pyplot

    buffer = io.StringIO()
    figure.savefig(buffer, format="svg", metadata={"Date": None, "Creator": None, "Format": None, "Type": None})
    pyplot.close(figure)
    ElementTree.register_namespace("", SVG)
    ElementTree.register_namespace("xlink", "http://www.w3.org/1999/xlink")
    root = ElementTree.fromstring(buffer.getvalue())
    root[:] = _without_bare_groups(root)
    ElementTree.indent(root, " ")
    with open(path, "wb") as file:
        file.write(ElementTree.tostring(root) + b"\n")


def _without_bare_groups(parent):
    kept = []
    for element in parent:
        element[:] = _without_bare_groups(element)
        if element.get("transform", "").startswith("rotate(-0 "):
            del element.attrib["transform"]
        if "d" in element.attrib:
            element.set("d", " ".join(element.get("d").split()))
        if element.tag == f"{{{SVG}}}g" and not set(element.attrib) - {"id"}:
            kept += element
        else:
            kept.append(element)
    return kept
