"""The parts of a guide that can be run: commands, what they print, and files.

    ```sh                          commands, in the terminal that the title names
    ```text                        behind commands, or with the title of a terminal: lines that appear there, in this
                                   order; "..." stands for anything
    ```cpp title="display.cpp"     a file
    <!-- not run: REASON -->       in front of a part that is left out
    <!-- fails -->                 in front of commands of which one fails
    <!-- Ctrl-C -->                in front of commands: first ends what runs in that terminal
"""

import re
from dataclasses import dataclass, field

SHELLS = ("sh", "bash")


@dataclass
class Commands:
    terminal: str
    lines: list
    expected: list = field(default_factory=list)
    may_fail: bool = False
    interrupts: bool = False


@dataclass
class Appearance:
    terminal: str
    lines: list


@dataclass
class File:
    name: str
    text: str


@dataclass
class Page:
    parts: list
    skipped: list  # reasons


FENCE = re.compile(r"^(?P<indent> *)```(?P<language>\w*)(?P<rest>[^\n]*)\n(?P<body>.*?)^(?P=indent)```$",
                   re.MULTILINE | re.DOTALL)
REMARK = re.compile(r"<!-- (not run: (?P<reason>.+?)|(?P<fails>fails)|(?P<ends>Ctrl-C)) -->\s*\Z")


def read(text):
    """Returns: the page."""
    page = Page([], [])
    end = 0
    for fence in FENCE.finditer(text):
        before, end = text[end:fence.start()], fence.end()
        remark = REMARK.search(before)
        title = re.search(r'title="([^"]+)"', fence["rest"])
        indent = len(fence["indent"])
        lines = [line[indent:] for line in fence["body"].splitlines()]
        if remark and remark["reason"]:
            page.skipped.append(remark["reason"])
        elif fence["language"] in SHELLS:
            page.parts.append(Commands(title[1] if title else "", lines, may_fail=bool(remark and remark["fails"]),
                                       interrupts=bool(remark and remark["ends"])))
        elif fence["language"] == "text" and title:
            page.parts.append(Appearance(title[1], lines))
        elif fence["language"] == "text" and not before.strip() and page.parts and isinstance(page.parts[-1], Commands):
            page.parts[-1].expected = lines
        elif title:
            page.parts.append(File(title[1], "\n".join(lines) + "\n"))
    return page
