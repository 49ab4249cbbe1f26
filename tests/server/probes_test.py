"""The probes of a program, named as its argument, are those of docs/observing_probes.md: by name and number of arguments.

A tool that traces them finds them in the notes of the program's file, so nothing has to run.
"""

import re
import subprocess
import sys
import unittest
from pathlib import Path

PAGE = Path(__file__).resolve().parents[2] / "docs" / "observing_probes.md"

program = ""


def documented():
    """Returns: the number of arguments of each probe in the page's table."""
    rows = re.findall(r"^\| `msgbus:(\w+)` \| ([^|]*) \|", PAGE.read_text(encoding="utf-8"), re.MULTILINE)
    return {name: len(re.findall("`[^`]+`", arguments)) for name, arguments in rows}


def built_in():
    """Returns: the numbers of arguments of each probe in the program; a probe may be at several places."""
    notes = subprocess.run(["readelf", "--notes", "--wide", program], check=True, stdout=subprocess.PIPE, text=True).stdout
    probes = {}
    for name, arguments in re.findall(r"Provider: msgbus\n\s*Name: (\w+)\n.*\n\s*Arguments: (.*)", notes):
        probes.setdefault(name, set()).add(len(arguments.split()))
    return probes


class Probes(unittest.TestCase):

    def test_are_those_of_the_page(self):
        self.assertEqual(5, len(documented()))
        self.assertEqual({name: {count} for name, count in documented().items()}, built_in())


if __name__ == "__main__":
    program = sys.argv.pop(1)
    unittest.main()
