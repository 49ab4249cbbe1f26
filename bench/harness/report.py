"""Tables and plots from the figures of a run. Nothing here measures, and a figure that is not there leaves a dash."""

import json
import os
import re
import statistics

from . import plots
from .systems import OURS

BEGIN = "<!-- measured: begin (written by bench/run, do not edit between the markers) -->"
END = "<!-- measured: end -->"
EMPTY_PAGE = f"# Performance\n\n{BEGIN}\n{END}\n"


class Results:
    """The figures of a run, pass by pass, with the questions that tables and plots ask."""

    def __init__(self, raw, systems):
        self.raw = raw
        self.systems = systems

    def passes(self, measure, variant, system, figure):
        taken = self.raw["figures"].get(measure, {}).get(variant, {}).get(system, [])
        return [one[figure] for one in taken if one.get(figure) is not None]

    def median(self, measure, variant, system, figure):
        passes = self.passes(measure, variant, system, figure)
        return statistics.median(passes) if passes else None

    def variants(self, measure):
        return list(self.raw["figures"].get(measure, {}))

    def failure(self, measure, variant, system):
        return self.raw["failures"].get(measure, {}).get(variant, {}).get(system)

    def shown(self, measure, variant):
        """The systems that have figures or a failure to show."""
        return [s for s in self.systems if s.name in self.raw["figures"].get(measure, {}).get(variant, {})
                or self.failure(measure, variant, s.name)]

    def best(self, measure, variant, figure, better, among):
        """Returns: (figure, system) of the best of the peers `among` names, or None."""
        found = [(self.median(measure, variant, s.name, figure), s) for s in self.systems
                 if not s.ours and among(s)]
        found = [pair for pair in found if pair[0] is not None]
        return better(found, key=lambda pair: pair[0]) if found else None


def brokered(system):
    return system.brokered


def acknowledging(system):
    return system.acknowledges


def number(value, digits=3):
    """`value` with `digits` significant digits and thousands apart."""
    if value is None:
        return "–"
    if value == 0:
        return "0"
    magnitude = len(str(int(abs(value))))
    return f"{value:,.{max(digits - magnitude, 0) if abs(value) >= 1 else digits - 1}f}"


def spread(passes, scale=1.0):
    """Median and, in brackets, the least and the greatest pass."""
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


def rate_table(results, measure, variant, figure, unit, extra):
    """A table of one rate, its ratio to the best brokered peer, and `extra` columns (title, figure, scale)."""
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
    return table(["system", unit, f"of {best[1].label if best else 'the best peer'}"] +
                 [title for title, _, _ in extra], rows)


def section_m1(results):
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
    return (["### M1: acknowledged publish, one at a time, one subscriber attached", "![M1](performance/m1.svg)"] + parts
            + ["#### What one value of M1 costs",
               "CPU time and context switches per value, start and end of the processes included.",
               table(["system", "server µs", "server switches", "publisher µs", "publisher switches", "subscriber µs",
                      "subscriber switches"], cost)])


def section_m2(results):
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
    return ["### M2: one-way delivery on an idle system, one value every 2 ms", "![M2](performance/m2.svg)",
            table(["system", "p50 µs", f"of {best[1].label if best else 'the best peer'}", "p99 µs", "max µs"], rows)]


def section_rate(results, measure, title):
    if not results.shown(measure, "unpinned"):
        return []
    return [title, f"![{measure}](performance/{measure.lower()}.svg)",
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
            "Growth of the server's memory by each waiting subscriber; its CPU with 100 waiting and no traffic, from the "
            "scheduler's ns counters and from utime + stime, whose unit is 10 ms. PSS counts a page that n processes map "
            "as 1/n: it falls where the clients map the server's memory.",
            table(["system", "CPU %", "utime + stime %"] + [f"RSS KiB each, {count}" for count in counts] +
                  [f"PSS KiB each, {most}", f"ms to register {most}"], rows)] + failures


def section_m6(results):
    parts = []
    for measure, figure, title in (("M6 publish", "ops", "publishes/s"), ("M6 fan-out", "deliveries", "deliveries/s")):
        variants = results.variants(measure)
        if not variants:
            continue
        rows = []
        for s in results.systems:
            if any(s in results.shown(measure, variant) for variant in variants):
                rows.append([s.label] + ["failed" if results.failure(measure, variant, s.name) else
                                         spread(results.passes(measure, variant, s.name, figure))
                                         for variant in variants])
        parts += [f"#### {measure}: {title}", table(["system"] + variants, rows)]
        for variant in variants:
            parts += [f"{s.label}, {variant}: {results.failure(measure, variant, s.name)}" for s in results.systems
                      if results.failure(measure, variant, s.name)]
    if not parts:
        return []
    return ["### M6: growth",
            "By subscribers with one publisher; by publishers with one subscriber (publish) or 100 subscribers (fan-out). "
            f"A publisher stops after {results.raw['sizes']['growth_deliveries']:,} deliveries, or 100 values.",
            "![M6](performance/m6.svg)"] + parts


LIMITS = {
    "shared-spin": "record of 1056 bytes there and back through shared memory, both sides spin",
    "shared-sleep": "the same, both sides sleep (futex)",
    "seqpacket": "the same through a socket pair (SOCK_SEQPACKET)",
    "thread": "a thread with a stack of 1 MiB made and joined",
}


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
            [f"`{name}`", spread([one[name] for one in micro if name in one])] for name in micro[0]])]
    return parts


def goals(results):
    """Rows of (what, goal, stretch, measured, met) against the goals of the design."""
    def against(measure, variant, figure, better, among):
        ours = results.median(measure, variant, OURS, figure)
        best = results.best(measure, variant, figure, better, among)
        return None if ours is None or best is None else (ours / best[0], f"{number(ours / best[0])} × {best[1].label}")

    def own(figure, variant, unit):
        value = results.median("M5", variant, OURS, figure)
        return None if value is None else (value, f"{number(value)} {unit}")

    def floor():
        ops = results.median("M1", "unpinned", OURS, "ops")
        # The median trip against our mean: a disturbed pass then counts against us, not for us.
        trip = results.median("limits", "two CPUs", "shared-spin", "p50")
        push = results.median("micro", "one process", "micro", "Push")
        if None in (ops, trip, push):
            return None
        return 1e9 / ops / (trip + push), f"{number(1e9 / ops / (trip + push))} × ({number(trip)} + {number(push)} ns)"

    most = (results.variants("M5") or ["100"])[-1]
    wanted = (
        ("M1 publishes/s against the best peer with a broker", max, 5, 10, "×",
         against("M1", "unpinned", "ops", max, brokered)),
        ("M1 on one CPU against the best such peer", max, 1.2, 2, "×", against("M1", "one CPU", "ops", max, brokered)),
        ("M2 p50 against the best peer with a broker", min, 1.0, 0.6, "×",
         against("M2", "unpinned", "p50", min, brokered)),
        ("M3 deliveries/s against the best peer that acknowledges", max, 2, 5, "×",
         against("M3", "unpinned", "deliveries", max, acknowledging)),
        ("M4 deliveries/s against D-Bus", max, 1.5, 5, "×",
         against("M4", "unpinned", "deliveries", max, lambda s: s.name == "dbus")),
        ("M5 server CPU, 100 waiting", min, 0.5, 0.005, "%", own("cpuPercent", "100", "%")),
        (f"M5 resident memory per waiting subscriber, {most} waiting", min, 64, 32, "KiB", own("rssKib", most, "KiB")),
        ("M1 time per call against raw shared-memory round trip + Push", min, 2, 1.3, "×", floor()),
    )
    rows = []
    for what, better, goal, stretch, unit, measured in wanted:
        word = "at least" if better is max else "at most"
        if measured is None:
            met = "–"
        else:
            met = "missed"
            for limit, name in ((goal, "goal"), (stretch, "stretch")):
                if better(measured[0], limit) == measured[0]:
                    met = name
        rows.append([what, f"{word} {goal:g} {unit}", f"{word} {stretch:g} {unit}", measured[1] if measured else "–", met])
    return rows


def setting(results):
    raw, machine = results.raw, results.raw["machine"]
    sizes = raw["sizes"]
    lines = [f"`{raw['command']}`, {raw['date']}, {raw['seconds'] / 60:.0f} min. {machine['cpus']} CPUs of "
             f"{machine['cpu']} ({machine['virtual']}), {machine['memoryGib']} GiB, Linux {machine['kernel']}, "
             f"{machine['compiler']}; load at the start {machine['load']:.2f}.",
             f"Medians of {sizes['passes']} passes (M5 and M6: {sizes['growth_passes']}) with the least and the greatest "
             "in brackets; the systems take turns pass by pass. Every value is checked for loss, repetition and order by "
             "every subscriber. Each subscriber is a connection with a thread of its own that blocks in its library's "
             "receive, all in one process; publishers likewise in another.",
             "Packages: " + ", ".join(machine["packages"]) + "."]
    rows = [[s.label, s.acknowledgement, s.no_loss] for s in results.systems if s.name not in raw["absent"]]
    lines.append("| system | a publish has returned: | loss is excluded by |\n|---|---|---|\n" +
                 "\n".join("| " + " | ".join(row) + " |" for row in rows))
    lines += [f"{s.label} has no rows with more than {s.most_subscribers} subscribers: its build allows no more for one "
              "publisher." for s in results.systems if s.most_subscribers < 1000]
    lines += [f"Not measured: {name}: {reason}." for name, reason in raw["absent"].items()]
    return lines


def text(raw, systems):
    """The whole report as Markdown."""
    results = Results(raw, systems)
    parts = (["### Goals", table(["what", "goal", "stretch", "measured", "met"], goals(results))] + section_m1(results) +
             section_m2(results) +
             section_rate(results, "M3", "### M3: sustained delivery to one subscriber, each publish acknowledged") +
             section_rate(results, "M4", "### M4: fan-out to 100 subscribers") + section_m5(results) +
             section_m6(results) + section_limits(results) + ["### Setting"] + setting(results))
    return "\n\n".join(parts)


def page(out):
    return os.path.join(out, "performance.md")


def folder(out):
    return os.path.join(out, "performance")


def write(raw, systems, out):
    """Writes results.json, the plots, and the part of performance.md between its markers."""
    os.makedirs(folder(out), exist_ok=True)
    with open(os.path.join(folder(out), "results.json"), "w", encoding="utf-8") as file:
        json.dump(raw, file, indent=1)
        file.write("\n")
    plots.draw(Results(raw, systems), folder(out))
    content = EMPTY_PAGE
    if os.path.exists(page(out)):
        with open(page(out), encoding="utf-8") as file:
            content = file.read()
    if BEGIN not in content or END not in content:
        raise SystemExit(f"{page(out)} has lost its markers:\n{BEGIN}\n{END}")
    measured = f"{BEGIN}\n\n{text(raw, systems)}\n\n{END}"
    content = re.sub(re.escape(BEGIN) + ".*?" + re.escape(END), lambda _: measured, content, flags=re.DOTALL)
    with open(page(out), "w", encoding="utf-8") as file:
        file.write(content)
