"""The plots of M7: p99 over the rate, and the distribution at the rates that are compared."""

from . import plots
from .latency import RELAY
from .latency_report import Curves

_TICKS = (50, 90, 99, 99.9, 99.99, 99.999)
_POINTS_PER_OCTAVE = 8


def over_rate(results):
    """p99 by rate, one line per system. Returns: the figure, or None when there is nothing to draw."""
    lines = {s: [(rate, ns / 1e3, partly_void) for rate, ns, partly_void in points]
             for s, points in Curves(results).p99().items()}
    if not lines:
        return None
    figure, (axes,) = plots.new_figure(width=7, height=3.6, left=0.65, right=1.5, top=0.3, bottom=0.5)
    for s, points in lines.items():
        axes.plot([rate for rate, _, _ in points], [us for _, us, _ in points], **_line(s))
        for rate, us, partly_void in points:
            axes.plot([rate], [us], "o", markersize=3.5, color=plots.colour(s), clip_on=False,
                      markerfacecolor="white" if partly_void else plots.colour(s))
    rates = [rate for points in lines.values() for rate, _, _ in points]
    plots.logarithmic(axes, axes.xaxis, rates)
    axes.set_xticks(sorted(set(rates)))
    axes.set_xlim(min(rates) / 1.1, max(rates) * 1.1)
    plots.logarithmic(axes, axes.yaxis, [us for points in lines.values() for _, us, _ in points])
    axes.set_xlabel("values per second; a line ends at the last rate reached; hollow: some passes void")
    axes.set_ylabel("p99 in µs (log scale)")
    axes.grid(alpha=0.3, clip_on=False)
    _finish(axes, axes, "m7-rate", lines)
    return figure


def distributions(results):
    """The latency by percentile, a panel for each rate that is compared. Returns: the figure, or None."""
    curves = Curves(results)
    panels = []
    for rate in curves.compared_rates():
        lines = {s: _distribution(curves.point(s, rate).merged) for s in curves.shown if curves.reached(s, rate)}
        lines = {s: points for s, points in lines.items() if points}
        if lines:
            panels.append((rate, lines))
    if not panels:
        return None
    figure, all_axes = plots.new_figure(width=2.15 + 3.1 * len(panels), height=3.6, left=0.65, right=1.5, top=0.45, bottom=0.5,
                                        panels=len(panels))
    every = [point for _, lines in panels for points in lines.values() for point in points]
    for axes, (rate, lines) in zip(all_axes, panels):
        for s, points in lines.items():
            axes.plot(*zip(*points), **_line(s))
        plots.logarithmic(axes, axes.yaxis, [us for _, us in every])
        axes.set_xscale("log")
        axes.set_xlim(1, max(2, *(inverse for inverse, _ in every)) * 1.1)
        ticks = [(100 / (100 - percentile), f"{percentile:g}") for percentile in _TICKS]
        axes.set_xticks(*zip(*((place, text) for place, text in ticks if place <= axes.get_xlim()[1])))
        axes.minorticks_off()
        axes.tick_params(labelleft=axes is all_axes[0])
        axes.set_xlabel(f"percentile, at {rate:,} values per second")
        axes.grid(alpha=0.3, clip_on=False)
    drawn = [s for s in curves.shown if any(s in lines for _, lines in panels)]
    all_axes[0].set_ylabel("latency in µs (log scale)")
    _finish(all_axes[0], all_axes[-1], "m7-percentiles", drawn)
    return figure


def _distribution(histogram):
    """(1 / (1 - quantile), µs) at even distances on a logarithmic axis, as far as percentiles have enough samples."""
    points = []
    step = 1
    while True:
        inverse = 2 ** (step / _POINTS_PER_OCTAVE)
        ns = histogram.percentile(round(100 - 100 / inverse, 6))
        if ns is None:
            return points
        points.append((inverse, ns / 1e3))
        step += 1


def _line(system):
    return {"color": plots.colour(system), "linewidth": 2 if system.ours else 1, "linestyle": ":" if system is RELAY else "-",
            "clip_on": False}


def _finish(first, last, picture, systems):
    """The title above the first panel, and the legend of `systems` beside the last."""
    first.set_title(plots.QUESTIONS[picture])
    handles = [last.plot([], [], label=s.label, **_line(s))[0] for s in systems]
    last.legend(handles=handles, fontsize=7, frameon=False, loc="center left", bbox_to_anchor=(1.02, 0.5))


FIGURES = {"m7-rate": over_rate, "m7-percentiles": distributions}
