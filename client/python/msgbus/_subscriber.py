"""The subscriber."""

import asyncio
import collections
import ctypes
import select
import threading
import time
import weakref
from types import TracebackType
from typing import Any, Callable, Deque, Dict, Iterable, NoReturn, Optional, Type

from . import _errors
from ._creation import create
from ._library import (MESSAGE, Loss, LossRecord, Message, OnNotice, OnPublisher, Options, check, check_time, decode_text,
                       encode_text, forks, library)

_BATCH = 512  # values that cross the boundary in one call
_LONGEST_POLL = 86400.0  # seconds
_SIGNAL_POLL = 0.1


def _destroy(handle: ctypes.c_void_p, _options: Options) -> None:
    library.msgbus_subscriber_destroy(handle)


def _wake(future: "asyncio.Future[None]") -> None:
    if not future.done():
        future.set_result(None)


class Subscriber:
    """A named receiver of the values of `topics`, from its creation until `close` or `cancel`.

    In a loop, `for topic, value in subscriber` or `async for`, it ends after `cancel`. In a `with` block it is closed at
    the end. While it is registered, the bus keeps every value until it is received, up to the limits of the server.

    Options, all times in seconds:
    - `route`: "automatic", "dynamic" or "static", how to find the server;
    - `connect_timeout`, `call_timeout`: how long a running server may take to accept a connection, to answer a request;
    - `wait_for_server`: how long to wait for a server;
    - `reconnect_for`: how long to look for a restarted server after the server is gone; values are lost then;
    - `on_notice`: called with a `Notice` and a sentence within a call, on its thread. Must not call the subscriber. What it
      raises, the call raises;
    - `on_publisher`: called with a `PublisherNotice` within a receiving call, in order with the values, when a topic's
      publisher comes, leaves, dies or is silent, and first with how it stands. May call `cancel`. What it raises, the call
      raises. Values are then taken one by one, which costs some speed;
    - `stale_after`: after how long without a value `on_publisher` is told that a publisher is silent; 0: never;
    - `start_with_last`: whether the last value of each topic comes first, if the server remembers one.

    Raises `Refused` with code 8 when a topic is named twice, and the other classes of `Error`.
    Signals: while it waits, Ctrl-C raises KeyboardInterrupt at once, and a handler may call `cancel`.
    """

    def __init__(self, name: str, topics: Iterable[str], *, route: str = "automatic", connect_timeout: float = 5.0,
                 call_timeout: float = 5.0, wait_for_server: float = 0.0, reconnect_for: float = 0.0,
                 on_notice: Optional[OnNotice] = None, on_publisher: Optional[OnPublisher] = None,
                 stale_after: float = 0.0, start_with_last: bool = False) -> None:
        if isinstance(topics, (str, bytes)):
            raise TypeError("topics is a string; it must be a list of them")
        encoded_name = encode_text(name, "name")
        encoded = [encode_text(topic, "topic") for topic in topics]
        places = (ctypes.c_char_p * len(encoded))(*encoded)
        options = Options(route, connect_timeout, call_timeout, wait_for_server, 0.0, reconnect_for, 0.0, on_notice,
                          on_publisher=on_publisher, stale_after=stale_after, start_with_last=start_with_last)
        handle = ctypes.c_void_p()
        self._name = name
        self._options = options
        # Of the same thread more than once, because a signal's handler may call, too.
        self._guard = threading.RLock()
        self._handle: Optional[ctypes.c_void_p] = handle  # ends when nothing uses it any more
        self._receiver: Optional[object] = None  # the receiving call in progress
        self._users = 0  # how many other calls are in progress
        self._end = weakref.finalize(self, _destroy, handle, options)
        self._end.atexit = False  # another thread may be within a call; the server unregisters what a process leaves
        self._is_canceled = False
        self._is_closed = False
        self._batch = _BATCH
        self._ready: Deque[Message] = collections.deque()
        self._octets = bytearray(_BATCH * MESSAGE.size)
        self._records = (ctypes.c_char * len(self._octets)).from_buffer(self._octets)
        self._count = ctypes.c_size_t()
        self._topics: Dict[bytes, str] = {}
        self._topics_limit = 2 * len(encoded) + 16
        descriptor = ctypes.c_int(-1)
        self._forks = forks[0]
        try:
            create(lambda: library.msgbus_subscriber_create(ctypes.byref(handle), encoded_name, places, len(encoded),
                                                            options.record), options)
            check(library.msgbus_subscriber_descriptor(handle, ctypes.byref(descriptor)))
        except BaseException:
            self._end()
            raise
        self._descriptor = descriptor.value
        self._poll = select.poll()
        self._poll.register(self._descriptor, select.POLLIN)

    @property
    def name(self) -> str:
        return self._name

    @property
    def id(self) -> int:
        """The id on the bus, a new one after a reconnection; -1 after `cancel`."""
        number: int = self._use(library.msgbus_subscriber_id, -1)
        return number

    def lost(self) -> Loss:
        """Returns: what this subscriber has missed, as far as the last value that it has received shows."""
        record = LossRecord()
        code = self._use(lambda handle: library.msgbus_subscriber_lost(handle, ctypes.byref(record)), None)
        if code is None:
            raise _errors.Closed("the subscriber is closed")
        check(code)
        return Loss(record.values, record.reason, record.reconnections)

    def next(self, timeout: Optional[float] = None) -> Message:
        """Takes the next value. `timeout`: how long to wait for one; None: without a limit; 0: not at all.

        Raises `TimedOut`, and a value that arrives later is not lost; `Closed` after `cancel`; `Refused` with code 1 when
        another client has unregistered this subscriber, with code 9 when the server has cut it; `ServerGone`.
        """
        me = object()
        try:
            self._begin(me)
            deadline = None if timeout is None else time.monotonic() + check_time(timeout, "timeout")
            while not self._ready and not self._take():
                self._wait(deadline)
            return self._pop()
        finally:
            if self._receiver is me:
                self._receiver = None
            if self._is_closed:
                self._end_if_unused()

    async def anext(self, timeout: Optional[float] = None) -> Message:
        """The same for asyncio: other tasks run while it waits, and now and then while values follow each other closely.

        A canceled task takes no value. With `reconnect_for`, the loop is held for up to 0.1 s per attempt.
        """
        me = object()
        try:
            self._begin(me)
            deadline = None if timeout is None else time.monotonic() + check_time(timeout, "timeout")
            has_waited = False
            while not self._ready:
                if self._take():
                    if not has_waited:
                        await asyncio.sleep(0)
                    continue
                left = None if deadline is None else deadline - time.monotonic()
                if left is not None and left <= 0:
                    raise _errors.TimedOut("no value has come in time")
                await self._wait_in_loop(left)
                has_waited = True
            return self._pop()
        finally:
            if self._receiver is me:
                self._receiver = None
            if self._is_closed:
                self._end_if_unused()

    def fileno(self) -> int:
        """Gives a descriptor for select, poll or an event loop.

        It is readable when `next(0)` would return a value or raise anything but `TimedOut`, and stays readable until
        `next(0)` has raised that. It may be readable without a reason. It stays the same over reconnections. It must not
        be read, written or closed. Values are taken one by one from the first call on, which costs some speed. Call
        `next(0)` until it raises `TimedOut` before you wait for the first time.
        """
        with self._guarded():
            if self._handle is None:
                raise _errors.Closed("the subscriber is closed")
            self._batch = 1
            return self._descriptor

    def cancel(self) -> None:
        """Unregisters, drops the values that were not taken, and ends a blocked receive. Threads: any."""
        self._is_canceled = True
        self._ready.clear()
        self._use(library.msgbus_subscriber_cancel, None)

    def close(self) -> None:
        """Cancels, and frees what the subscriber has. Threads: any."""
        self._is_closed = True
        self.cancel()
        self._end_if_unused()

    # Ctrl-C may raise an exception behind any call: therefore `try` comes first, and `finally` begins without one.

    def _begin(self, me: object) -> None:
        with self._guarded():
            if self._receiver is not None:
                raise RuntimeError("another thread or task receives from this subscriber")
            self._receiver = me

    def _use(self, function: Callable[[ctypes.c_void_p], Any], otherwise: Any) -> Any:
        """Returns: what `function` makes of the handle, which may take long; `otherwise` once closed."""
        with self._guarded():
            handle = self._handle
            if handle is None:
                return otherwise
            self._users += 1
        try:
            return function(handle)
        finally:
            with self._guarded():
                self._users -= 1
            if self._is_closed:
                self._end_if_unused()

    def _end_if_unused(self) -> None:
        """Destroys the handle, unless a call is in progress, which does it then."""
        with self._guarded():
            if self._receiver is not None or self._users > 0:
                return
            self._handle = None
        self._end()

    def _guarded(self) -> "threading._RLock":
        if self._forks != forks[0]:  # other threads of the parent may have been within a call
            self._forks = forks[0]
            self._guard = threading.RLock()
            self._receiver = None
            self._users = 0
            self._count.value = 0  # the values are the parent's
            self._ready.clear()
        return self._guard

    def _wait(self, deadline: Optional[float]) -> None:
        """Waits until the descriptor is readable. A poll is interrupted by signals, unlike a call of the library."""
        # One that comes just before the poll does not interrupt it. Only the main thread is concerned.
        longest = _SIGNAL_POLL if threading.current_thread() is threading.main_thread() else _LONGEST_POLL
        left = longest
        while True:
            if deadline is not None:
                left = min(longest, deadline - time.monotonic())
                if left <= 0:
                    raise _errors.TimedOut("no value has come in time")
            if self._poll.poll(left * 1000):
                return

    def _pop(self) -> Message:
        """Returns: the first value of `_ready`; raises Closed without one."""
        ready = self._ready
        try:
            message = ready[0]
            del ready[0]  # no popleft, which is a call: Ctrl-C behind it would lose the value
        except IndexError:  # canceled by another thread
            raise _errors.Closed("the subscriber is canceled") from None
        return message

    def _take(self) -> bool:
        """Takes what has arrived into `_ready`, which is empty. Returns: whether that is anything."""
        if self._handle is None or self._is_canceled:
            raise _errors.Closed("the subscriber is closed" if self._is_closed else "the subscriber is canceled")
        self._options.report()
        # What the library has handed out before Ctrl-C is unpacked by the next take.
        if self._count.value == 0:
            code = library.msgbus_subscriber_take(self._handle, self._records, self._batch, ctypes.byref(self._count), 0)
            self._options.check(0 if code == _errors.TimedOut.code else code)
            if code != 0:
                return False
        topics = self._topics
        if len(topics) > self._topics_limit:  # what a server sends is not trusted to be a few topics
            topics.clear()
        ready: Deque[Message] = collections.deque()
        length = self._count.value * MESSAGE.size
        for address, size, value in MESSAGE.iter_unpack(memoryview(self._octets)[:length]):
            octets = ctypes.string_at(address, size)
            topic = topics.get(octets)
            if topic is None:
                topic = topics[octets] = decode_text(octets)
            ready.append(Message(topic, value))
        self._ready = ready
        self._count.value = 0
        if self._is_canceled:
            self._ready.clear()
            raise _errors.Closed("the subscriber is canceled")
        return True

    async def _wait_in_loop(self, left: Optional[float]) -> None:
        loop = asyncio.get_running_loop()
        future = loop.create_future()
        timer = None if left is None else loop.call_later(min(left, _LONGEST_POLL), _wake, future)
        loop.add_reader(self._descriptor, _wake, future)
        try:
            await future
        finally:
            loop.remove_reader(self._descriptor)
            if timer is not None:
                timer.cancel()

    def __iter__(self) -> "Subscriber":
        return self

    def __next__(self) -> Message:
        try:
            return self._pop() if self._ready and self._forks == forks[0] else self.next()
        except _errors.Closed:
            raise StopIteration from None

    def __aiter__(self) -> "Subscriber":
        return self

    async def __anext__(self) -> Message:
        try:
            return self._pop() if self._ready and self._forks == forks[0] else await self.anext()
        except _errors.Closed:
            raise StopAsyncIteration from None

    def __reduce__(self) -> NoReturn:
        raise TypeError("a subscriber cannot be copied or pickled")

    def __enter__(self) -> "Subscriber":
        return self

    def __exit__(self, kind: Optional[Type[BaseException]], error: Optional[BaseException],
                 trace: Optional[TracebackType]) -> None:
        self.close()

    def __repr__(self) -> str:
        return f"<msgbus.Subscriber {self._name!r}{' canceled' if self._is_canceled else ''}>"
