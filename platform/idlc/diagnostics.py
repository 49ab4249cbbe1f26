"""Errors in an IDL text and their positions."""

from dataclasses import dataclass


@dataclass(frozen=True, order=True)
class Position:
    file: str
    line: int
    column: int

    def __str__(self):
        return f"{self.file}:{self.line}:{self.column}"


class IdlError(Exception):
    """An error in the input; its text begins with the position."""

    def __init__(self, position, message):
        super().__init__(f"{position}: {message}")
        self.position = position
