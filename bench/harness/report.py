"""The report of a run as Markdown. Nothing here measures; a missing figure is a dash."""

import os
import re
import statistics

from . import latency_plots, latency_report, plots
from .systems import OURS

BEGIN = "<!-- measured: begin (written by bench/run, do not edit between the markers) -->"
END = "<!-- measured: end -->"
EMPTY_PAGE = f"# Performance\n\n{BEGIN}\n{END}\n"

LIMITS = {
    "shared-spin": "round trip of a 1056-byte record through shared memory, both sides spin",
    "shared-sleep": "the same, both sides sleep (futex)",
    "seqpacket": "the same through a socket pair (SOCK_SEQPACKET)",
    "thread": "create and join a thread with a stack of 1 MiB",
}


def brokered(system):
    return system.brokered


def acknowledging(system):
    return system.acknowledges


def number(value, digits=3):
    """`value` with `digits` significant digits and a comma between thousands."""
    if value is None:
        return "–"
    if value == 0:
        return "0"
    magnitude = len(str(int(abs(value))))
    return f"{value:,.{max(digits - magnitude, 0) if abs(value) >= 1 else digits - 1}f}"


def spread(passes, scale=1.0):
    """The median and, in brackets, the least and the greatest pass."""
    if not passes:
        return "–"
    scaled = [value * scale for value in passes]
    middle = number(statistics.median(scaled))
    return middle if len(scaled) == 1 else f"{middle} [{number(min(scaled))} – {number(max(scaled))}]"


def table(header, rows):
    lines = ["| " + " | ".join(header) + " |", "|" + "|".join("---" if i == 0 else "---:" for i in range(len(header)))
             + "|"]
    return "\n".join(lines + ["| " + " | ".join(row) + " |" for row in rows])


def ratio(value, best):
    return "–" if value is None or best is None else f"{number(value / best[0], 2)} ×"


def image(pictures, name):
    return f"![{plots.QUESTIONS[name]}]({os.path.normpath(os.path.join(pictures, plots.file_name(name)))})"


def rate_table(results, measure, variant, figure, unit, extra):
    """A table of one rate, its ratio to the best peer with a broker, and `extra` columns (title, figure, scale)."""
    best = results.best(measure, variant, figure, max, brokered)
    rows = []
    for s in results.shown(measure, variant):
        failure = results.failure(measure, variant, s.name)
        if failure:
            rows.append([s.label, f"failed: {failure}", "–"] + ["–"] * len(extra))
            continue
        rows.append([s.label, spread(results.passes(measure, variant, s.name, figure)),
                     ratio(results.median(measure, variant, s.name, figure), best)] +
                    [spread(results.passes(measure, variant, s.name, name), scale) for _, name, scale in extra])
    return table(["system", unit, f"against {best[1].label if best else 'the best peer'}"] +
                 [title for title, _, _ in extra], rows)


def section_m1(results, pictures):
    parts = []
    for variant, title in (("unpinned", "scheduler's choice of CPUs"), ("one CPU", "everything on one CPU (taskset -c 0)")):
        if results.shown("M1", variant):
            parts += [f"#### M1, {title}", rate_table(results, "M1", variant, "ops", "publishes/s", (
                ("p50 µs", "p50", 1e-3), ("p99 µs", "p99", 1e-3), ("max µs", "max", 1e-3)))]
    if not parts:
        return []
    cost = [[s.label] + [spread(results.passes("M1", "unpinned", s.name, name)) for name in (
        "serverCpuUs", "serverSwitches", "publisherCpuUs", "publisherSwitches", "subscriberCpuUs",
        "subscriberSwitches")] for s in results.shown("M1", "unpinned")]
    return (["### M1: acknowledged publish, one at a time, one subscriber attached", image(pictures, "m1")] + parts
            + ["#### What one value of M1 costs",
               "CPU time and context switches per value, including those of starting and ending the processes.",
               table(["system", "server µs", "server switches", "publisher µs", "publisher switches", "subscriber µs",
                      "subscriber switches"], cost)])


def section_m2(results, pictures):
    shown = results.shown("M2", "unpinned")
    if not shown:
        return []
    best = results.best("M2", "unpinned", "p50", min, brokered)
    rows = []
    for s in shown:
        failure = results.failure("M2", "unpinned", s.name)
        rows.append([s.label] + ([f"failed: {failure}", "–", "–", "–"] if failure else [
            spread(results.passes("M2", "unpinned", s.name, "p50"), 1e-3),
            ratio(results.median("M2", "unpinned", s.name, "p50"), best),
            spread(results.passes("M2", "unpinned", s.name, "p99"), 1e-3),
            spread(results.passes("M2", "unpinned", s.name, "max"), 1e-3)]))
    return ["### M2: one-way delivery on an idle system, one value every 2 ms", image(pictures, "m2"),
            table(["system", "p50 µs", f"against {best[1].label if best else 'the best peer'}", "p99 µs", "max µs"], rows)]


def section_rate(results, measure, title, pictures):
    if not results.shown(measure, "unpinned"):
        return []
    return [title, image(pictures, measure.lower()),
            rate_table(results, measure, "unpinned", "deliveries", "deliveries/s",
                       (("refused and repeated publishes", "refused", 1),))]


def section_m5(results):
    counts = results.variants("M5")
    if not counts:
        return []
    rows = []
    most = counts[-1]
    for s in results.systems:
        if not any(s in results.shown("M5", count) for count in counts):
            continue
        row = [s.label] + [spread(results.passes("M5", "100", s.name, name)) for name in ("cpuPercent", "ticksPercent")]
        for count in counts:
            failure = results.failure("M5", count, s.name)
            row.append("failed" if failure else spread(results.passes("M5", count, s.name, "rssKib")))
        failure = results.failure("M5", most, s.name)
        row.append("failed" if failure else spread(results.passes("M5", most, s.name, "pssKib")))
        row.append("failed" if failure else spread(results.passes("M5", most, s.name, "registerMs")))
        rows.append(row)
    failures = [f"{s.label}, {count} waiting: {results.failure('M5', count, s.name)}" for s in results.systems
                for count in counts if results.failure("M5", count, s.name)]
    return ["### M5: the cost of being idle",
            "The server's memory that each waiting subscriber adds, and the server's CPU time with 100 waiting and no traffic: "
            "from the scheduler's counters in ns, and from utime + stime, which count units of 10 ms. PSS counts a page "
            "that n processes map as 1/n, so it is lower where clients map the server's memory.",
            table(["system", "CPU %", "utime + stime %"] + [f"RSS KiB each, {count}" for count in counts] +
                  [f"PSS KiB each, {most}", f"ms to register {most}"], rows)] + failures


def section_m6(results, pictures):
    parts = []
    for measure, picture, figure, title in (("M6 publish", "m6-publish", "ops", "publishes/s"),
                                            ("M6 fan-out", "m6-fan-out", "deliveries", "deliveries/s")):
        variants = results.variants(measure)
        if not variants:
            continue
        rows = []
        for s in results.systems:
            if any(s in results.shown(measure, variant) for variant in variants):
                rows.append([s.label] + ["failed" if results.failure(measure, variant, s.name) else
                                         spread(results.passes(measure, variant, s.name, figure))
                                         for variant in variants])
        parts += [f"#### {measure}: {title}", image(pictures, picture), table(["system"] + variants, rows)]
        for variant in variants:
            parts += [f"{s.label}, {variant}: {results.failure(measure, variant, s.name)}" for s in results.systems
                      if results.failure(measure, variant, s.name)]
    if not parts:
        return []
    return ["### M6: growth",
            "Columns `subscribers: N` have one publisher. Columns `publishers: N` have one subscriber (publish) or 100 "
            f"subscribers (fan-out). A publisher stops after {results.raw['sizes']['growth_deliveries']:,} deliveries, or "
            "100 values."] + parts


def section_limits(results):
    rows = []
    for variant in results.variants("limits"):
        for name, title in LIMITS.items():
            if results.passes("limits", variant, name, "p50"):
                rows.append([title, variant] + [spread(results.passes("limits", variant, name, figure), 1e-3)
                                                for figure in ("p50", "mean", "p99")])
    parts = ["### Limits of the machine", table(["what", "where", "p50 µs", "mean µs", "p99 µs"], rows)] if rows else []
    micro = results.raw["figures"].get("micro", {}).get("one process", {}).get("micro", [])
    if micro:
        parts += ["### Inside one process", table(["benchmark", "ns"], [
            [f"`{name}`", spread(results.passes("micro", "one process", "micro", name))] for name in micro[0]])]
    return parts


def against(results, measure, variant, figure, better, among):
    """This bus divided by the best peer of `among`, or None."""
    ours = results.median(measure, variant, OURS, figure)
    best = results.best(measure, variant, figure, better, among)
    return None if ours is None or best is None else f"{number(ours / best[0])} × {best[1].label}"


def waiting_cost(results, figure, waiting, unit):
    value = results.median("M5", waiting, OURS, figure)
    return None if value is None else f"{number(value)} {unit}"


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
    most = (results.variants("M5") or ["100"])[-1]
    rows = (
        ("M1 publishes/s against the best peer with a broker", "higher",
         against(results, "M1", "unpinned", "ops", max, brokered)),
        ("M1 publishes/s on one CPU against the best peer with a broker", "higher",
         against(results, "M1", "one CPU", "ops", max, brokered)),
        ("M2 p50 against the best peer with a broker", "lower", against(results, "M2", "unpinned", "p50", min, brokered)),
        ("M3 deliveries/s against the best peer that acknowledges", "higher",
         against(results, "M3", "unpinned", "deliveries", max, acknowledging)),
        ("M4 deliveries/s against D-Bus", "higher",
         against(results, "M4", "unpinned", "deliveries", max, lambda s: s.name == "dbus")),
        ("M5 server CPU, 100 subscribers waiting", "lower", waiting_cost(results, "cpuPercent", "100", "%")),
        (f"M5 resident memory per waiting subscriber, {most} waiting", "lower",
         waiting_cost(results, "rssKib", most, "KiB")),
        ("M1 time per publish against a raw round trip through shared memory + Push", "lower", against_floor(results)),
        latency_report.summary_row(results, number),
    )
    return ["### Summary", table(["what", "measured", "better is"],
                                 [[what, measured or "–", better] for what, better, measured in rows])]


def setting(results):
    raw, machine = results.raw, results.raw["machine"]
    sizes = raw["sizes"]
    lines = [f"`{raw['command']}`, {raw['date']}, {raw['seconds'] / 60:.0f} min. {machine['cpus']} CPUs of "
             f"{machine['cpu']} ({machine['virtual']}), {machine['memoryGib']} GiB, Linux {machine['kernel']}, "
             f"{machine['compiler']}; load at the start {machine['load']:.2f}.",
             f"Medians of {sizes['passes']} passes (M5 and M6: {sizes['growth_passes']}) with the least and the greatest "
             "in brackets; the systems take turns pass by pass. Every value is checked for loss, repetition and order by "
             "every subscriber. Each subscriber is a connection with its own thread, which blocks in the receive call of its "
             "library; all subscribers are in one process, all publishers in another.",
             "Packages: " + ", ".join(machine["packages"]) + "."]
    rows = [[s.label, s.acknowledgement, s.no_loss] for s in results.systems if s.name not in raw["absent"]]
    lines.append("| system | a publish returns on | loss is excluded by |\n|---|---|---|\n" +
                 "\n".join("| " + " | ".join(row) + " |" for row in rows))
    lines += [f"{s.label} has no rows with more than {s.most_subscribers} subscribers: its build allows no more for one "
              "publisher." for s in results.systems if s.most_subscribers < 1000]
    lines += [f"Not measured: {name}: {reason}." for name, reason in raw["absent"].items()]
    return lines


def text(results, pictures):
    """The whole report as Markdown, with links to the plots in the folder `pictures`."""
    parts = (section_summary(results) + section_m1(results, pictures) + section_m2(results, pictures) +
             section_rate(results, "M3", "### M3: sustained delivery to one subscriber, each publish acknowledged", pictures) +
             section_rate(results, "M4", "### M4: fan-out to 100 subscribers", pictures) + section_m5(results) +
             section_m6(results, pictures) + latency_report.section(results, number, table, lambda name: image(pictures, name)) +
             section_limits(results) + ["### Setting"] + setting(results))
    return "\n\n".join(parts)


def write(results, folder, page):
    """Draws the plots in `folder` and replaces the part of `page` between its markers. Returns: that part."""
    plots.draw(results, folder, latency_plots.FIGURES)
    content = EMPTY_PAGE
    if os.path.exists(page):
        with open(page, encoding="utf-8") as file:
            content = file.read()
    if BEGIN not in content or END not in content:
        raise SystemExit(f"{page} lacks the markers around the report:\n{BEGIN}\n{END}")
    report = text(results, os.path.relpath(folder, os.path.dirname(page)))
    content = re.sub(re.escape(BEGIN) + ".*?" + re.escape(END), lambda _: f"{BEGIN}\n\n{report}\n\n{END}", content,
                     flags=re.DOTALL)
    with open(page, "w", encoding="utf-8") as file:
        file.write(content)
    return report
