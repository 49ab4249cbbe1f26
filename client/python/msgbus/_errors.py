"""The exceptions, one class for each kind of failure."""

from typing import Dict, Type


class Error(Exception):
    """Base of all failures. `code` is the number that msgbus_c.h gives it: positive from the bus, else negative."""

    code: int = 0

    def __init__(self, sentence: str, code: int = 0) -> None:
        super().__init__(sentence)
        if code != 0:
            self.code = code


class Refused(Error):
    """The bus received the request and rejected it; `code` is 1 to 10. 2: it is full. 8: the topic has a publisher
    already. 9: the subscriber left too many values unread, and was cut."""


class NoServer(Error):
    """No server was found, or it did not accept the connection in time."""

    code = -101


class ServerGone(Error):
    """The server died or closed the connection. It may or may not have handled the last request."""

    code = -102


class NoAnswer(Error, TimeoutError):
    """A request was not answered in time: its outcome is unknown if it was sent."""

    code = -103


class TimedOut(Error, TimeoutError):
    """What a call waited for did not happen in time. Nothing is lost."""

    code = -104


class InvalidArgument(Error, ValueError):
    """An argument cannot be used, for example an empty topic. Nothing was done."""

    code = -105


class Closed(Error):
    """The publisher was closed, or the subscriber canceled."""

    code = -106


class NoMemory(Error, MemoryError):
    """Out of memory."""

    code = -107


class PlatformError(Error):
    """Another failure of the system, for example no descriptors are left."""

    code = -108


_CLASSES: Dict[int, Type[Error]] = {
    kind.code: kind
    for kind in (NoServer, ServerGone, NoAnswer, TimedOut, InvalidArgument, Closed, NoMemory, PlatformError)
}

FULL = 2
CONFLICT = 8
STOPPING = 10


def make_error(code: int, sentence: str) -> Error:
    """Returns: the exception for a code of the library."""
    return _CLASSES.get(code, Refused if code > 0 else Error)(sentence, code)
