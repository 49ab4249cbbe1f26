"""How far apart the CPUs were during the passes.

A hypervisor moves its virtual CPUs. Two of them that share a core or a cache pass a cache line on several times faster than
two that do not, and so the same machine has two sets of figures. Each pass records which one it belongs to.
"""

from .text import number, table

FIGURE = "lineNs"
MEASURES = (("M1", "ops"), ("M3", "deliveries"), ("M4", "deliveries"))
FAR = 2.5   # times the shortest time of the run


def distances(results):
    """The time that a cache line took, in ns, for every pass of every system."""
    return [line for measure, _ in MEASURES for s in results.systems
            for line in results.passes(measure, "unpinned", s.name, FIGURE)]


def border(lines):
    """Returns: the time in ns between near and far CPUs, or None when all passes had CPUs of one kind."""
    if not lines or max(lines) < FAR * min(lines):
        return None
    return FAR * min(lines)


def divided(results, measure, figure, system, limit):
    """Returns: the passes of a figure with near CPUs, and those with far ones."""
    taken = results.raw["figures"].get(measure, {}).get("unpinned", {}).get(system, [])
    near, far = [], []
    for one in taken:
        if one.get(figure) is not None and one.get(FIGURE) is not None:
            (near if one[FIGURE] < limit else far).append(one[figure])
    return near, far


def section(results, spread):
    """Markdown: the passes of M1, M3 and M4 by the distance of the CPUs. Empty for results that lack it."""
    lines = distances(results)
    if not lines:
        return []
    title = "### The distance of the CPUs"
    meaning = ("Before each pass of M1, M3 and M4, a cache line goes from one CPU to another and back many times. On a virtual "
               "machine this changes while it runs, when the hypervisor moves a virtual CPU.")
    limit = border(lines)
    if limit is None:
        return [title, f"{meaning} In this run it took {spread(lines)} ns."]
    near, far = [x for x in lines if x < limit], [x for x in lines if x >= limit]

    def cell(passes):
        return f"{spread(passes)} ({len(passes)})" if passes else "–"

    rows = [[s.label] + [cell(passes) for measure, figure in MEASURES
                         for passes in divided(results, measure, figure, s.name, limit)]
            for s in results.systems if any(results.passes(measure, "unpinned", s.name, FIGURE) for measure, _ in MEASURES)]
    return [title,
            f"{meaning} In this run it took {spread(near)} ns in {len(near)} passes (near), and {spread(far)} ns in {len(far)} "
            f"(far; the border is {number(limit)} ns). The number of passes is in parentheses.",
            table(["system"] + [f"{measure}, {where}" for measure, _ in MEASURES for where in ("near", "far")], rows)]
