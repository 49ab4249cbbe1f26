"""The results of a run: how they are stored, and the questions that tables and plots ask of them."""

import json
import os
import statistics

FILE_NAME = "results.json"
MANY = "many subscribers"   # the variant of M4 with the number of subscribers in sizes["many"]


class Results:
    """The figures of a run, pass by pass.

    `raw["figures"][measure][variant][system]` is a list of dicts, one per pass; `raw["failures"]` has the same levels and
    holds the reason in place of the list.
    """

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
        """Returns: (figure, system) of the best peer for which `among` is true, or None."""
        found = [(self.median(measure, variant, s.name, figure), s) for s in self.systems
                 if not s.ours and among(s)]
        found = [pair for pair in found if pair[0] is not None]
        return better(found, key=lambda pair: pair[0]) if found else None


def save(raw, folder):
    """Writes results.json with one line per fact and per record, so that a diff of two runs is readable.

    A record is one system in one variant of one measure, and each of its figures lists the passes in the order taken.
    Integers are exact; other numbers keep nine significant digits, more than the report shows.
    """
    by_line = ("machine", "versions", "sizes")
    parts = {name: json.dumps(value) for name, value in raw.items() if name not in by_line}
    for name in by_line:
        parts[name] = _lines("{}", [f"{json.dumps(key)}: {json.dumps(value)}" for key, value in raw.get(name, {}).items()])
    parts["failures"] = _lines("[]", [json.dumps({**place, "reason": reason}) for place, reason in _leaves(raw["failures"])])
    parts["figures"] = _lines("[]", [json.dumps({**place, **_columns(passes)}) for place, passes in _leaves(raw["figures"])])
    with open(os.path.join(folder, FILE_NAME), "w", encoding="utf-8") as file:
        file.write("{\n" + ",\n".join(f"{json.dumps(name)}: {parts[name]}" for name in raw) + "\n}\n")


def load(folder):
    """Returns: what `save` was given, with its rounding."""
    with open(os.path.join(folder, FILE_NAME), encoding="utf-8") as file:
        raw = json.load(file)
    failures, figures = {}, {}
    for record in raw["failures"]:
        _level(failures, record)[record["system"]] = record["reason"]
    for record in raw["figures"]:
        columns = {name: values for name, values in record.items() if isinstance(values, list)}
        _level(figures, record)[record["system"]] = [dict(zip(columns, one)) for one in zip(*columns.values())]
    return {**raw, "failures": failures, "figures": figures}


def _lines(brackets, items):
    return brackets if not items else brackets[0] + "\n " + ",\n ".join(items) + "\n" + brackets[1]


def _leaves(tree):
    """Each leaf of measure, variant and system, with its place."""
    for measure, variants in tree.items():
        for variant, systems in variants.items():
            for system, leaf in systems.items():
                yield {"measure": measure, "variant": variant, "system": system}, leaf


def _level(tree, record):
    return tree.setdefault(record["measure"], {}).setdefault(record["variant"], {})


def _columns(passes):
    """The passes by figure. A figure that a pass lacks is null."""
    names = dict.fromkeys(name for one in passes for name in one)
    return {name: [_rounded(one.get(name)) for one in passes] for name in names}


def _rounded(value):
    return float(f"{value:.9g}") if isinstance(value, float) else value
