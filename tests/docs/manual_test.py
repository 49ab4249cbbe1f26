"""The manual pages say what --help says: every option, variable, status and example of every command.

usage: manual_test.py PROGRAM PAGE
"""

import re
import subprocess
import sys
import unittest

PROGRAM, PAGE = sys.argv[1:3]
NAME = PROGRAM.rsplit("/", 1)[-1]


def plain(text):
    """Returns: the text in one line, as words with one space between them."""
    return " ".join(text.split())


def help_of(*command):
    return subprocess.run([PROGRAM, *command, "--help"], capture_output=True, text=True, check=True).stdout


def entries(text):
    """Returns: the title, name and meaning of each entry; an example is an entry whose meaning stands below it."""
    found = []
    for title, body in re.findall(r"^([A-Z][\w ]+):\n((?:  .*\n)+)", text, re.MULTILINE):
        indent = 6 if title == "Examples" else None
        for line in body.splitlines():
            if line[2] != " ":
                name, _, meaning = line[2:].partition("  ") if indent is None else (line[2:], "", "")
                found.append([title, name, meaning.strip()])
            else:
                found[-1][2] = plain(f"{found[-1][2]} {line}")
    return found


def lists_commands(title):
    return "ommands" in title or title in ("Recordings", "Help")


def commands(text):
    return [name for title, name, _ in entries(text) if lists_commands(title)]


class Manual(unittest.TestCase):

    @classmethod
    def setUpClass(cls):
        shown = subprocess.run(["mandoc", "-Tutf8", "-O", "width=1000", PAGE], capture_output=True, text=True,
                               check=True).stdout
        cls.page = plain(re.sub(r".\x08", "", shown).replace("‐", "-"))

    def in_page(self, text):
        self.assertTrue(plain(text) in self.page, f"not in the page: {plain(text)}")

    def test_the_page_has_no_mistakes(self):
        found = subprocess.run(["mandoc", "-Tlint", "-W", "warning", PAGE], capture_output=True, text=True, check=False)
        self.assertEqual((found.returncode, found.stdout), (0, ""))

    def test_every_entry_of_every_help_is_in_the_page(self):
        program = help_of()
        helps = [program, *(help_of(command) for command in commands(program))]
        count = 0
        for text in helps:
            self.in_page(re.match(r"Usage: (.*)", text).group(1))
            for title, name, meaning in entries(text):
                if meaning and title == "Examples":
                    self.in_page(f"{meaning}: {name}")
                elif lists_commands(title):
                    self.in_page(meaning)
                else:
                    self.in_page(f"{name} {meaning}")
                count += 1
        self.assertGreater(count, 20)


if __name__ == "__main__":
    unittest.main(argv=sys.argv[:1])
