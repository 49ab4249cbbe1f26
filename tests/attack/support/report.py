"""The table of docs/robustness.md: one row for each attack, with the worst of both modes."""

import platform
from datetime import date

BEGIN, END = "<!-- results: written by ./dev attack --report -->", "<!-- end of the results -->"
HEAD = ("| Attack | Load (dynamic mode) | Pair: values, longest gap | Afterwards | Stop |", "|---|---|---:|---:|---:|")


def write(path, results):
    """Replaces what stands between the two marks."""
    text = path.read_text(encoding="utf-8")
    head, _, rest = text.partition(BEGIN)
    tail = rest.partition(END)[2]
    path.write_text(f"{head}{BEGIN}\n\n{table(results)}\n\n{END}{tail}", encoding="utf-8")


def table(results):
    rows = {}
    for result in results:
        rows.setdefault(result["attack"], []).append(result)
    lines = [f"{date.today()}, Linux {platform.release()}, worst of both modes.", "", *HEAD]
    return "\n".join(lines + [row_of(name, runs) for name, runs in rows.items()])


def row_of(name, runs):
    outcomes = sorted({run["outcome"] for run in runs})
    held = [run for run in runs if run["outcome"] == "held"]
    if not held or "FAILED" in outcomes or "HUNG" in outcomes:
        return f"| `{name}` | {', '.join(outcomes)} | | | |"
    return f"| `{name}` | {held[0]['load']} | {pair_of(held)} | {afterwards_of(held)} | {stop_of(held)} |"


def pair_of(held):
    values = [run["values"] for run in held if "values" in run]
    return f"{sum(values):,}, {max(run['longest_gap_ms'] for run in held if 'values' in run):.0f} ms" if values else "-"


def afterwards_of(held):
    measured = [run for run in held if "threads" in run]
    if not measured:
        return "-"
    threads, descriptors = (max(run[what] for run in measured) for what in ("threads", "descriptors"))
    memory = max(run["memory_kib"] for run in measured) / 1024
    return f"{threads:+} threads, {descriptors:+} descriptors, {memory:+.1f} MiB"


def stop_of(held):
    stops = [run["stop_ms"] for run in held if "stop_ms" in run]
    return f"{max(stops):.0f} ms" if stops else "-"
