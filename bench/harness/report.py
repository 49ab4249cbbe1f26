"""The report of a run as Markdown. Nothing here measures; a missing figure is a dash."""

import os
import re
import statistics

from . import cache_line, latency_plots, latency_report, plots
from .modes import modes
from .quiet import QUIET_LOAD, under_load
from .results import MANY
from .summary import brokered, section_summary
from .text import number, table

BEGIN = "<!-- measured: begin (written by bench/run, do not edit between the markers) -->"
END = "<!-- measured: end -->"
EMPTY_PAGE = f"# Performance\n\n{BEGIN}\n{END}\n"

LIMITS = {
    "shared-spin": "round trip of a 1056-byte record through shared memory, both sides spin",
    "shared-sleep": "the same, both sides sleep (futex)",
    "seqpacket": "the same through a socket pair (SOCK_SEQPACKET)",
    "thread": "create and join a thread with a stack of 1 MiB",
}


def spread(passes, scale=1.0):
    """The median and, in brackets, the least and the greatest pass; the two modes behind it if there are two."""
    if not passes:
        return "–"
    scaled = [value * scale for value in passes]
    middle = number(statistics.median(scaled))
    if len(scaled) == 1:
        return middle
    cell = f"{middle} [{number(min(scaled))} – {number(max(scaled))}]"
    groups = modes(scaled)
    return cell if groups is None else cell + "; two modes: " + " / ".join(
        f"{number(median)} ({count} of {len(scaled)})" for median, count in groups)


def measured(results, systems):
    """One line under a table: when it was measured, and the versions of its systems."""
    versions = results.raw.get("versions", {})
    named = [f"{s.label} {versions[s.name]['version']}" + (f" of {versions[s.name]['date']}" if versions[s.name]["date"] else "")
             for s in systems if s.name in versions and not s.variant]
    return f"<sub>Measured {results.raw['date']}{': ' if named else '.'}{', '.join(named)}{'.' if named else ''}</sub>"


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
    return "\n\n".join((table(["system", unit, f"against {best[1].label if best else 'the best peer'}"] +
                              [title for title, _, _ in extra], rows),
                        measured(results, results.shown(measure, variant))))


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
                      "subscriber switches"], cost), measured(results, results.shown("M1", "unpinned"))])


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
            table(["system", "p50 µs", f"against {best[1].label if best else 'the best peer'}", "p99 µs", "max µs"], rows),
            measured(results, shown)] + relay(results)


def relay(results):
    """The floor of M2: a value through a chain of processes, taken in the same passes."""
    rows = []
    for variant in results.variants("M2 relay"):
        rows += [[f"{hops} hop{'s' if hops != '1' else ''}", variant] +
                 [spread(results.passes("M2 relay", variant, hops, figure), 1e-3) for figure in ("p50", "p99", "max")]
                 for hops in results.raw["figures"]["M2 relay"][variant]]
    if not rows:
        return []
    return ["#### M2, the floor: a relay of processes",
            "One value every 2 ms through a chain of processes that do nothing but wait on a word in shared memory (futex) and "
            "pass the value on; taken in the same passes as M2.",
            table(["relay", "where", "p50 µs", "p99 µs", "max µs"], rows), measured(results, ())]


def section_rate(results, measure, title, pictures, variants):
    """`variants` are (variant, title of its table)."""
    shown = [(variant, heading) for variant, heading in variants if results.shown(measure, variant)]
    if not shown:
        return []
    parts = [title, image(pictures, measure.lower())]
    for variant, heading in shown:
        parts += [heading] if heading else []
        parts.append(rate_table(results, measure, variant, "deliveries", "deliveries/s",
                                (("server CPU µs per delivery", "serverUsPerDelivery", 1),
                                 ("refused and repeated publishes", "refused", 1))))
    return parts


def section_m5(results):
    counts = results.variants("M5")
    if not counts:
        return []
    shown = [s for s in results.systems if any(s in results.shown("M5", count) for count in counts)]
    many = [count for count in counts if int(count) >= 100]
    failures = [f"{s.label}, {count} waiting: {results.failure('M5', count, s.name)}" for s in shown
                for count in counts if results.failure("M5", count, s.name)]

    def cells(s, columns):
        return ["failed" if results.failure("M5", count, s.name) else spread(results.passes("M5", count, s.name, name))
                for count, name in columns]

    most = counts[-1]
    cpu = [(count, name) for count in many for name in ("cpuPercent", "ticksPercent")]
    memory = [(count, "rssKib") for count in counts] + [(most, "pssKib")]
    held = [(count, name) for count in many for name in ("threads", "descriptors")]
    return (["### M5: the cost of being idle",
             "The server's CPU time with waiting subscribers and no traffic: from the scheduler's counters in ns, and from "
             "utime + stime, which count units of 10 ms.",
             table(["system"] + [f"{title}, {count} waiting" for count in many for title in ("CPU %", "utime + stime %")],
                   [[s.label] + cells(s, cpu) for s in shown]),
             measured(results, shown),
             "The server's memory that each waiting subscriber adds. PSS counts a page that n processes map as 1/n, so it is "
             "lower where clients map the server's memory.",
             table(["system"] + [f"RSS KiB each, {count}" for count in counts] + [f"PSS KiB each, {most}"],
                   [[s.label] + cells(s, memory) for s in shown]),
             measured(results, shown),
             "The server's threads and descriptors that each waiting subscriber adds, and the time to register the subscribers "
             "one by one.",
             table(["system"] + [f"{name} each, {count}" for count in many for name in ("threads", "descriptors")] +
                   [f"ms to register {most}"],
                   [[s.label] + cells(s, held + [(most, "registerMs")]) for s in shown]),
             measured(results, shown)] + failures)


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
        parts += [f"#### {measure}: {title}", image(pictures, picture), table(["system"] + variants, rows),
                  measured(results, [s for s in results.systems if any(s in results.shown(measure, v) for v in variants)])]
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


def setting(results):
    raw, machine = results.raw, results.raw["machine"]
    sizes = raw["sizes"]
    lines = [f"`{raw['command']}`, {raw['date']}, {raw['seconds'] / 60:.0f} min. {machine['cpus']} CPUs of "
             f"{machine['cpu']} ({machine['virtual']}), {machine['memoryGib']} GiB, Linux {machine['kernel']}, "
             f"{machine['compiler']}; load at the start {machine['load']:.2f}.",
             f"Medians of {sizes['passes']} passes (M5, M6, the limits, M4 with more than 100 subscribers, and the static "
             f"variant: {sizes['growth_passes']}) with the least and the greatest "
             "in brackets; the systems take turns pass by pass. Every value is checked for loss, repetition and order by "
             "every subscriber. Each subscriber is a connection with its own thread, which blocks in the receive call of its "
             "library; all subscribers are in one process, all publishers in another.",
             "Two modes are shown where the widest gap between the passes is wider than each of the two groups that it makes, "
             "each group has at least two passes, and the upper median is more than 1.5 times the lower one."]
    if "packages" in machine:   # results of older runs
        lines.append("Packages: " + ", ".join(machine["packages"]) + ".")
    shown = [s for s in results.systems if s.name not in raw["absent"] and s.name in raw.get("versions", {s.name: ""})]
    if "versions" in raw:
        lines += ["Versions, and the dates of the packages, or of the commit of this bus:",
                  "| system | version | date | packages |\n|---|---|---|---|\n" + "\n".join(
                      f"| {s.label} | {raw['versions'][s.name]['version'] or '–'} | {raw['versions'][s.name]['date'] or '–'} | "
                      f"{', '.join(raw['versions'][s.name]['packages']) or '–'} |" for s in shown)]
    lines.append("| system | a publish returns on | loss is excluded by |\n|---|---|---|\n" +
                 "\n".join(f"| {s.label} | {s.acknowledgement} | {s.no_loss} |" for s in shown))
    lines += [f"{s.label} has no rows with more than {s.most_subscribers} subscribers: its build allows no more for one "
              "publisher." for s in shown if s.most_subscribers < 1000]
    lines += [f"Not measured: {name}: {reason}." for name, reason in raw["absent"].items()]
    return lines


def warnings(results):
    """What has to be known before any figure is read."""
    raw = results.raw
    found = [f"**Missing in this run: {', '.join(raw['absent'])}.**"] if raw["absent"] else []
    if under_load(raw):
        found.append(f"**Taken under load: the load average was {raw['machine']['load']:.2f} at the start (a quiet machine: less "
                     f"than {QUIET_LOAD}).**")
    return found


def text(results, pictures):
    """The whole report as Markdown, with links to the plots in the folder `pictures`."""
    many = results.raw["sizes"].get("many", 0)
    latency = latency_report.section(results, number, table, lambda name: image(pictures, name))
    parts = (warnings(results) + section_summary(results) + [measured(results, results.systems)] +
             section_m1(results, pictures) + section_m2(results, pictures) +
             section_rate(results, "M3", "### M3: sustained delivery to one subscriber, each publish acknowledged", pictures,
                          (("unpinned", ""),)) +
             section_rate(results, "M4", "### M4: fan-out", pictures,
                          (("unpinned", "#### M4, 100 subscribers"), (MANY, f"#### M4, {many:,} subscribers"))) +
             cache_line.section(results, spread) +
             section_m5(results) + section_m6(results, pictures) + latency + section_limits(results) +
             ["### Setting"] + setting(results))
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
