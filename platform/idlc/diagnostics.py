"""Where something stands in an IDL text, and what is wrong with it."""

from dataclasses import dataclass


@dataclass(frozen=True, order=True)
class Position:
    file: str
    line: int
    column: int

    def __str__(self):
        return f"{self.file}:{self.line}:{self.column}"


class IdlError(Exception):
    """A fault of the input, for the person who wrote it."""

    def __init__(self, position, message):
        super().__init__(f"{position}: {message}")
        self.position = position
