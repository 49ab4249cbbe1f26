"""The summary: the ratios that the other tables lead to. A missing figure is a dash."""

import statistics

from . import latency_report
from .results import MANY
from .systems import OURS
from .text import number, table


def brokered(system):
    return system.brokered


def acknowledging_broker(system):
    return system.brokered and system.acknowledges


def against(results, measure, variant, figure, better, among=acknowledging_broker):
    """This bus divided by the best peer of `among`, or None."""
    ours = results.median(measure, variant, OURS, figure)
    best = results.best(measure, variant, figure, better, among)
    return None if ours is None or best is None else f"{number(ours / best[0])} × {best[1].label}"


def worst_pass(results, measure, figure):
    """The least of all passes divided by their median."""
    passes = results.passes(measure, "unpinned", OURS, figure)
    return None if len(passes) < 2 else f"{number(min(passes) / statistics.median(passes))} ({len(passes)} passes)"


def waiting_cost(results, figure, waiting, unit):
    value = results.median("M5", waiting, OURS, figure)
    return None if value is None else f"{number(value)} {unit}".strip()


def against_relay(results, hops):
    """M2 divided by the relay of the same pass: the median of the passes."""
    ours = results.passes("M2", "unpinned", OURS, "p50")
    floor = results.passes("M2 relay", "unpinned", hops, "p50")
    if not ours or len(ours) != len(floor):     # a failed pass: which one is the same pass is not known
        return None
    return (f"{number(statistics.median(o / f for o, f in zip(ours, floor)))} × "
            f"({number(statistics.median(ours) / 1e3)} µs, {number(statistics.median(floor) / 1e3)} µs)")


def more_publishers(results, most, fewest):
    many = results.median("M6 publish", f"publishers: {most}", OURS, "ops")
    few = results.median("M6 publish", f"publishers: {fewest}", OURS, "ops")
    return None if None in (many, few) else f"{number(many / few)} × ({number(many)}, {number(few)})"


def against_floor(results):
    """The mean time of a publish divided by the least it can take here: a round trip and a push."""
    ops = results.median("M1", "unpinned", OURS, "ops")
    # The median trip against our mean: a disturbed pass then counts against us, not for us.
    trip = results.median("limits", "two CPUs", "shared-spin", "p50")
    push = results.median("micro", "one process", "micro", "Push")
    if None in (ops, trip, push):
        return None
    return f"{number(1e9 / ops / (trip + push))} × ({number(trip)} + {number(push)} ns)"


def section_summary(results):
    sizes = results.raw["sizes"]
    counts = results.variants("M5") or ["100"]
    most = counts[-1]
    many = sizes.get("many", 0)
    publishers = sizes["growth_publishers"]
    rows = [
        ("M1 publishes/s", "higher", against(results, "M1", "unpinned", "ops", max)),
        ("M1 publishes/s, everything on one CPU", "higher", against(results, "M1", "one CPU", "ops", max)),
        ("M2 p50", "lower", against(results, "M2", "unpinned", "p50", min)),
        ("M3 deliveries/s", "higher", against(results, "M3", "unpinned", "deliveries", max)),
        ("M4 deliveries/s, 100 subscribers", "higher", against(results, "M4", "unpinned", "deliveries", max)),
        (f"M5 time to register {most} subscribers against Redis", "lower",
         against(results, "M5", most, "registerMs", min, lambda s: s.name == "redis")),
        ("M2 p50 against a relay of three hops in the same pass", "lower", against_relay(results, "3")),
        (f"M6 publishes/s of {publishers[-1]} publishers against {publishers[0]}", "higher",
         more_publishers(results, publishers[-1], publishers[0])),
        ("M1 publishes/s, worst pass against the median", "higher", worst_pass(results, "M1", "ops")),
        ("M3 deliveries/s, worst pass against the median", "higher", worst_pass(results, "M3", "deliveries")),
        ("M1 time per publish against a raw round trip through shared memory + Push", "lower", against_floor(results)),
    ]
    rows.insert(6, latency_report.summary_row(results, number))
    if many:    # results of older runs have none
        rows.insert(5, (f"M4 deliveries/s, {many:,} subscribers", "higher", against(results, "M4", MANY, "deliveries", max)))
    rows += [(f"M5 server CPU, {count} subscribers waiting", "lower", waiting_cost(results, "cpuPercent", count, "%"))
             for count in counts if int(count) >= 100]
    rows += [(f"M5 {what} per waiting subscriber, {most} waiting", "lower", waiting_cost(results, figure, most, unit))
             for what, figure, unit in (("resident memory", "rssKib", "KiB"), ("threads", "threads", ""),
                                        ("descriptors", "descriptors", ""))]
    return ["### Summary",
            "Ratios to a peer are to the best one that acknowledges through a broker.",
            table(["what", "measured", "better is"], [[what, measured or "–", better] for what, better, measured in rows])]
