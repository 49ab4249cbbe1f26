"""The publisher."""

import array
import ctypes
import itertools
import operator
import threading
import time
import weakref
from types import TracebackType
from typing import Any, Iterable, NoReturn, Optional, Sized, Type

from . import _errors
from ._creation import create
from ._library import OnNotice, OnSubscribers, Options, check, check_time, encode_text, forks, library, milliseconds

_LEAST, _GREATEST = -2**63, 2**63 - 1
_CHUNK = 4096


def _whole(value: int) -> int:
    """Returns: `value`, which ctypes would cut to 64 bits."""
    number = operator.index(value)
    if not _LEAST <= number <= _GREATEST:
        raise OverflowError(f"{number} does not fit into 64 bits with a sign")
    return number


def _limit(timeout: Optional[float]) -> int:
    """Returns: the time-out of a call, as the library takes it."""
    return -1 if timeout is None else milliseconds(check_time(timeout, "timeout"))


def _destroy(handle: ctypes.c_void_p, _options: Options) -> None:
    library.msgbus_publisher_destroy(handle)


class Publisher:
    """The only publisher of `topic`, from its creation until `close`. In a `with` block it is closed at the end.

    Options, all times in seconds:
    - `route`: "automatic", "dynamic" or "static", how to find the server;
    - `connect_timeout`, `call_timeout`: how long a running server may take to accept a connection, to answer a request;
    - `wait_for_server`, `wait_for_topic`: how long to wait for a server, for another publisher of the topic to leave;
    - `reconnect_for`: how long to look for a restarted server after the server is gone; a value may arrive twice then;
    - `full_queue_timeout`: how long a push retries while the bus is full;
    - `on_notice`: called with a `Notice` and a sentence within a call, on its thread. Must not call the publisher. What it
      raises, the call raises;
    - `on_subscribers`: called with the number of the topic's subscribers, first by the constructor, then behind a push
      whenever it has become 0 or 1. What it raises, the call raises, although the value was published;
    - `description`: what the values mean, for those who look at the bus, for example "fixed;step=1/10;unit=V": the text of
      a description of the C++ library (msgbus/codec.h). Anything else raises `InvalidArgument`.

    Raises `Refused` with code 8 when the topic has a publisher, and the other classes of `Error`.
    Signals: while the constructor waits, Ctrl-C ends that at once. In another call, it is noticed when the call ends.
    """

    def __init__(self, topic: str, *, route: str = "automatic", connect_timeout: float = 5.0, call_timeout: float = 5.0,
                 wait_for_server: float = 0.0, wait_for_topic: float = 0.0, reconnect_for: float = 0.0,
                 full_queue_timeout: float = 10.0, on_notice: Optional[OnNotice] = None,
                 on_subscribers: Optional[OnSubscribers] = None, description: Optional[str] = None) -> None:
        name = encode_text(topic, "topic")
        options = Options(route, connect_timeout, call_timeout, wait_for_server, wait_for_topic, reconnect_for,
                          full_queue_timeout, on_notice, on_subscribers=on_subscribers,
                          description=None if description is None else encode_text(description, "description"))
        handle = ctypes.c_void_p()
        self._topic = topic
        self._options = options
        self._handle: Optional[ctypes.c_void_p] = handle
        # Of the same thread more than once: the handler of a signal may call, too.
        self._lock = threading.RLock()
        self._end = weakref.finalize(self, _destroy, handle, options)
        self._end.atexit = False  # another thread may be within a call; the server unregisters what a process leaves
        self._forks = forks[0]
        try:
            create(lambda: library.msgbus_publisher_create(ctypes.byref(handle), name, options.record), options)
            options.report()
        except BaseException:
            self._end()
            raise

    @property
    def topic(self) -> str:
        return self._topic

    @property
    def id(self) -> int:
        """The id on the bus, a new one after a reconnection; -1 once closed."""
        with self._turn():
            number: int = -1 if self._handle is None else library.msgbus_publisher_id(self._handle)
            return number

    def push(self, value: int, timeout: Optional[float] = None) -> None:
        """Publishes `value`: returns when the bus has queued it for delivery, and retries while the bus is full.

        `timeout`: a limit in place of those of the options; 0 gives the bus one try. It begins when the publisher is free:
        a call of another thread ends first.
        Raises `Refused` with code 2 when the bus stays full; `NoAnswer`; `ServerGone`; `Closed`; OverflowError.
        """
        self._call(library.msgbus_publisher_push, _whole(value), _limit(timeout))

    def push_all(self, values: Iterable[int], timeout: Optional[float] = None) -> int:
        """Publishes `values`, each as `push` does, with one limit for all. Returns: how many there were.

        Those of a collection cross into the library by the thousand, those of an iterator as soon as it has them.
        The exceptions of `push` have an attribute `pushed` here: how many values the bus had queued, the first ones.
        """
        deadline = None if timeout is None else time.monotonic() + check_time(timeout, "timeout")
        total = 0
        source = iter(values)
        most = _CHUNK if isinstance(values, Sized) else 1
        try:
            while True:
                chunk = array.array("q", itertools.islice(source, most))
                if not chunk:
                    return total
                first = 0
                while first < len(chunk):
                    limit = _limit(None if deadline is None else deadline - time.monotonic())
                    count = self._push_chunk(chunk, first, limit)
                    first += count
                    total += count
        except _errors.Error as error:
            error.pushed = total  # type: ignore[attr-defined]
            raise

    def _push_chunk(self, chunk: "array.array[int]", first: int, limit: int) -> int:
        length = len(chunk) - first
        pushed = ctypes.c_size_t()
        # The buffer of `chunk` cannot move while `places` refers to it.
        places = (ctypes.c_int64 * length).from_buffer(chunk, first * chunk.itemsize)
        self._call(library.msgbus_publisher_push_all, places, length, ctypes.byref(pushed), limit)
        return pushed.value

    def try_push(self, value: int) -> bool:
        """Publishes `value` unless the bus is full. Returns: whether it is queued. Raises as `push`."""
        try:
            self._call(library.msgbus_publisher_try_push, _whole(value))
        except _errors.Refused as refusal:
            if refusal.code == _errors.FULL:
                return False
            raise
        return True

    def drain(self, timeout: Optional[float] = None) -> None:
        """Waits until no push is unanswered: one that ended with `NoAnswer` may still be under way.

        `timeout`: None for `call_timeout`. Raises `TimedOut`; `ServerGone`, and then the outcome is not known.
        """
        self._call(library.msgbus_publisher_drain, _limit(timeout))

    def subscribers(self) -> int:
        """Asks how many subscribers the topic has. Returns: the number, which may lag behind for as long as a value takes.

        The first call, without `on_subscribers`, makes a connection for this. Raises `PlatformError` when the server does
        not count subscribers, and what the constructor raises.
        """
        count = ctypes.c_size_t()
        self._call(library.msgbus_publisher_subscribers, ctypes.byref(count))
        return count.value

    def close(self) -> None:
        """Unregisters. A second call does nothing; every other call raises `Closed` then.

        Raises `Refused` with code 8 when another client has unregistered this publisher; `NoAnswer`; `ServerGone`.
        """
        with self._turn():
            if self._handle is None:
                return
            try:
                check(library.msgbus_publisher_close(self._handle))
            finally:
                self._handle = None
                self._end()

    def _call(self, function: Any, *arguments: Any) -> None:
        with self._turn():
            if self._handle is None:
                raise _errors.Closed("the publisher is closed")
            self._options.check(function(self._handle, *arguments))

    def _turn(self) -> "threading._RLock":
        if self._forks != forks[0]:  # another thread of the parent may have had it
            self._forks = forks[0]
            self._lock = threading.RLock()
        return self._lock

    def __reduce__(self) -> NoReturn:
        raise TypeError("a publisher cannot be copied or pickled")

    def __enter__(self) -> "Publisher":
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], error: Optional[BaseException],
                 trace: Optional[TracebackType]) -> None:
        try:
            self.close()
        except _errors.Error:
            if error is None:
                raise

    def __repr__(self) -> str:
        return f"<msgbus.Publisher {self._topic!r}{' closed' if self._handle is None else ''}>"
