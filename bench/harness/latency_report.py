"""The report's section and summary row of M7. Percentiles are those of the merged histograms of the passes that count."""

import statistics

from . import latency
from .histogram import LEAST_BEYOND, Histogram
from .systems import OURS

HEADLINE_RATE = 50_000
PERCENTILES = (50, 99, 99.9)


class Point:
    """One system at one rate."""

    def __init__(self, passes):
        self.passes = passes
        self.counted = [Histogram.decode(one["histogram"]) for one in passes if one["void"] is None]
        self.merged = Histogram.merged(self.counted)

    @property
    def reached(self):
        return bool(self.counted)

    @property
    def reasons(self):
        return [one["void"] for one in self.passes if one["void"] is not None]

    def of_passes(self, percentile):
        """The percentile of each pass that counts and has enough samples for it."""
        found = [one.percentile(percentile) for one in self.counted]
        return [ns for ns in found if ns is not None]


class Curves:
    """The points of a run by system and rate."""

    def __init__(self, results):
        self.systems = [*results.systems, latency.RELAY]
        self.failures = {(name, latency.rate_of(variant)): reason
                         for variant, reasons in results.raw["failures"].get(latency.MEASURE, {}).items()
                         for name, reason in reasons.items()}
        self._points = {(name, latency.rate_of(variant)): Point(passes)
                        for variant, systems in results.raw["figures"].get(latency.MEASURE, {}).items()
                        for name, passes in systems.items()}
        self.rates = sorted({rate for _, rate in [*self._points, *self.failures]})
        self.shown = [s for s in self.systems if any((s.name, rate) in self._points or (s.name, rate) in self.failures
                                                     for rate in self.rates)]

    def point(self, system, rate):
        return self._points.get((system.name, rate))

    def points(self, system):
        return [(rate, self.point(system, rate)) for rate in self.rates if self.point(system, rate)]

    def reached(self, system, rate):
        point = self.point(system, rate)
        return point is not None and point.reached

    def common_rate(self):
        """The highest rate that more than half of the systems reach, or None. The relay is none of them."""
        compared = [s for s in self.shown if s is not latency.RELAY]
        common = [rate for rate in self.rates if sum(self.reached(s, rate) for s in compared) * 2 > len(compared)]
        return max(common, default=None)

    def compared_rates(self):
        """The rates at which the systems are compared in detail: the common one, and the headline's if a system reaches it."""
        rates = {self.common_rate()}
        if any(self.reached(s, HEADLINE_RATE) for s in self.shown):
            rates.add(HEADLINE_RATE)
        return sorted(rates - {None})

    def p99(self):
        """{system: [(rate, ns, whether some passes are void)]} of the systems that have any."""
        lines = {s: [(rate, point.merged.percentile(99), bool(point.reasons)) for rate, point in self.points(s)
                     if point.merged.percentile(99) is not None] for s in self.shown}
        return {s: points for s, points in lines.items() if points}

    def highest_reached(self, system):
        return max((rate for rate in self.rates if self.reached(system, rate)), default=None)


def summary_row(results, number):
    """This bus at HEADLINE_RATE against the best peer that acknowledges and has a broker. `number` formats a figure."""
    what = f"M7 delivery p99 at {HEADLINE_RATE:,} values/s against the best acknowledging peer with a broker"
    curves = Curves(results)
    p99 = {s.name: curves.point(s, HEADLINE_RATE).merged.percentile(99)
           for s in curves.shown if curves.reached(s, HEADLINE_RATE)}
    ours = p99.get(OURS)
    peers = [s for s in results.systems if not s.ours and s.brokered and s.acknowledges]
    measured = [(p99[s.name], s) for s in peers if p99.get(s.name) is not None]
    if not curves.rates:
        return what, "lower", None
    if ours is None:
        best = curves.highest_reached(next(s for s in curves.systems if s.name == OURS))
        return what, "lower", "void: this bus reaches " + (f"{best:,} values/s" if best else "no rate")
    if not measured:
        reached = [(curves.highest_reached(s), s) for s in peers if curves.highest_reached(s)]
        best = max(reached, key=lambda pair: pair[0], default=None)
        peer = f", the best reaches {best[0]:,} ({best[1].label})" if best else ""
        return what, "lower", f"{number(ours / 1e3)} µs; void for every peer{peer}"
    best = min(measured, key=lambda pair: pair[0])
    return what, "lower", f"{number(ours / best[0])} × {best[1].label}"


def section(results, number, table, image):
    """The section as a list of paragraphs. The formatting functions are the report's."""
    curves = Curves(results)
    if not curves.rates:
        return []
    sizes = results.raw["sizes"]
    pictures = (["m7-rate"] if curves.p99() else []) + (["m7-percentiles"] if curves.compared_rates() else [])
    parts = ["### M7: delivery latency under load", *_method(sizes), *(image(name) for name in pictures),
             "#### p50 / p99 / p99.9 in µs by values per second", _overview(curves, number, table)]
    for rate in curves.compared_rates():
        parts += [f"#### At {rate:,} values per second", _detail(curves, rate, number, table)]
    return parts + _voids(curves) + [_noise(curves, number)]


def _method(sizes):
    rates = {}
    for rate, seconds in sizes["latency_rates"]:
        rates.setdefault(seconds, []).append(f"{rate:,}")
    counted = "; ".join(f"{seconds:g} s at {', '.join(each)}" for seconds, each in rates.items())
    return [
        "Open loop: value i leaves at start + i / rate and its latency counts from that time to the subscriber's receive call, "
        "so that a value that waits for a slow publish before it counts as late. Each publish is acknowledged as in M1. "
        f"{sizes['latency_passes']} passes for each system and rate; counted of each pass after "
        f"{sizes['latency_warm_up_s']:g} s of warm-up: {counted} values/s.",
        "Each figure is from the merged histograms of the passes that count (three significant digits), and none has fewer "
        f"than {LEAST_BEYOND} samples beyond it. A pass is void if it loses, repeats or reorders a value, publishes or delivers "
        f"less than {latency.LEAST_SHARE:.0%} of its rate, or ends with the publisher more than "
        f"{latency.MOST_END_LAG_NS // 1_000_000} ms behind. At the first rate where every pass of a system is void, its curve "
        "ends. The relay is no bus: three hand-overs between sleeping threads through sockets.",
    ]


def _overview(curves, number, table):
    rows = []
    for s in curves.shown:
        row = [s.label]
        for rate in curves.rates:
            point = curves.point(s, rate)
            if (s.name, rate) in curves.failures:
                row.append("failed")
            elif point is None:
                row.append("–")
            elif not point.reached:
                row.append("void")
            else:
                cell = " / ".join(_microseconds(point.merged.percentile(p), number) for p in PERCENTILES)
                row.append(cell + (f" ({len(point.counted)} of {len(point.passes)} passes)" if point.reasons else ""))
        rows.append(row)
    return table(["system"] + [f"{rate:,}/s" for rate in curves.rates], rows)


def _detail(curves, rate, number, table):
    rows = []
    for s in curves.shown:
        point = curves.point(s, rate)
        if point is None:
            continue
        if not point.reached:
            rows.append([s.label, "void"] + ["–"] * 5)
            continue
        rows.append([s.label] + [_with_spread(point, percentile, number) for percentile in (*PERCENTILES, 99.99)] +
                    [_microseconds(point.merged.highest, number), f"{point.merged.total:,}"])
    return table(["system", "p50 µs", "p99 µs", "p99.9 µs", "p99.99 µs", "max µs", "values"], rows)


def _with_spread(point, percentile, number):
    merged = point.merged.percentile(percentile)
    passes = point.of_passes(percentile)
    text = _microseconds(merged, number)
    if merged is None or len(passes) < 2:
        return text
    return f"{text} [{_microseconds(min(passes), number)} – {_microseconds(max(passes), number)}]"


def _microseconds(ns, number):
    return number(None if ns is None else ns / 1e3)


def _voids(curves):
    lines = []
    for s in curves.shown:
        lines += [f"- {s.label}, {rate:,}/s, void: {'; '.join(point.reasons)}."
                  for rate, point in curves.points(s) if point.reasons]
        lines += [f"- {s.label}, {rate:,}/s, failed: {reason}" for (name, rate), reason in curves.failures.items()
                  if name == s.name]
    return ["\n".join(lines)] if lines else []


def _noise(curves, number):
    """The noise meter's figures over all passes."""
    passes = [one for s in curves.shown for _, point in curves.points(s) for one in point.passes]
    longest = [one["noiseLongestNs"] / 1e6 for one in passes]
    lost = [one["noiseLost"] * 100 for one in passes]
    if not passes:
        return "No pass was taken."
    return (f"Noise of the machine, from threads that read the clock on every CPU before and after each pass: the longest gap "
            f"was {number(statistics.median(longest))} ms in the median pass and {number(max(longest))} ms in the worst, and "
            f"gaps of more than {latency.NOISE_THRESHOLD_US} µs took {number(statistics.median(lost))} % of the time in the "
            f"median pass and {number(max(lost))} % in the worst.")
