"""libmsgbus through ctypes: finds the library and declares the functions of msgbus_c.h."""

import collections
import ctypes
import enum
import functools
import math
import os
import struct
import sysconfig
from pathlib import Path
from typing import Any, Callable, Deque, Generator, Iterator, NamedTuple, Optional

from . import _errors

_NAME = "libmsgbus.so.0"


class Message(NamedTuple):
    """One published value."""

    topic: str
    value: int


class Loss(NamedTuple):
    """Values that a subscriber has missed, as far as the server has counted them."""

    values: int
    reason: int  # 0, or 9 when the server has cut the subscriber
    reconnections: int  # each may have lost further values, which are counted nowhere


class Notice(enum.IntEnum):
    """What `on_notice` is told."""

    SERVER_LOST = 0  # the server is gone; the library looks for a restarted one
    REGISTERED_AGAIN = 1  # with a restarted server; the sentence names what may be lost
    WAITING_FOR_SERVER = 2  # there is none yet
    WAITING_FOR_TOPIC = 3  # the topic has another publisher


class PublisherState(enum.IntEnum):
    """How it stands with the publisher of a topic."""

    NONE = 0  # there is none: at first, or since the server was restarted
    CAME = 1  # there is one, from now on or since before
    LEFT = 2  # it was unregistered, by its program
    DIED = 3  # its process has ended, or closed its connections, without that
    SILENT = 4  # there is one, and no value of it was received for `stale_after`


class PublisherNotice(NamedTuple):
    """A change that `on_publisher` is told."""

    topic: str
    state: PublisherState
    id: int  # of the publisher that came, left, died or is silent; else 0


OnNotice = Callable[[Notice, str], None]
OnPublisher = Callable[[PublisherNotice], None]
OnSubscribers = Callable[[int], None]


def encode_double(number: float) -> int:
    """Returns: the value that carries the bits of `number`, as every other language does it."""
    value: int = struct.unpack("=q", struct.pack("=d", number))[0]
    return value


def decode_double(value: int) -> float:
    """Returns: the number whose bits `value` carries."""
    number: float = struct.unpack("=d", struct.pack("=q", value))[0]
    return number


def _candidates() -> Iterator[str]:
    chosen = os.environ.get("MSGBUS_LIBRARY")
    if chosen:
        yield chosen
        return
    # Of the prefix that this module was installed to, wherever that was moved: LIB/python3/dist-packages/msgbus.
    libraries = Path(__file__).resolve().parents[3]
    architecture = sysconfig.get_config_var("MULTIARCH") or ""
    for folder in (libraries / architecture, libraries, libraries.parent / "lib64"):
        if (folder / _NAME).exists():
            yield str(folder / _NAME)
    yield _NAME


def _load() -> ctypes.CDLL:
    reason: Optional[OSError] = None
    for name in _candidates():
        try:
            return ctypes.CDLL(name)
        except OSError as error:
            reason = reason or error
    raise ImportError(f"cannot load {_NAME}: {reason}; MSGBUS_LIBRARY may name the file") from reason


class OptionsRecord(ctypes.Structure):
    _fields_ = [
        ("size", ctypes.c_size_t),
        ("route", ctypes.c_int),
        ("connect_timeout_ms", ctypes.c_int64),
        ("call_timeout_ms", ctypes.c_int64),
        ("wait_for_server_ms", ctypes.c_int64),
        ("wait_for_topic_ms", ctypes.c_int64),
        ("reconnect_for_ms", ctypes.c_int64),
        ("full_queue_timeout_ms", ctypes.c_int64),
        ("on_notice", ctypes.c_void_p),
        ("notice_user", ctypes.c_void_p),
        ("on_publisher", ctypes.c_void_p),
        ("publisher_user", ctypes.c_void_p),
        ("stale_after_ms", ctypes.c_int64),
        ("start_with_last", ctypes.c_int32),
        ("on_subscribers", ctypes.c_void_p),
        ("subscribers_user", ctypes.c_void_p),
        ("description", ctypes.c_char_p),
    ]


class LossRecord(ctypes.Structure):
    _fields_ = [("values", ctypes.c_uint64), ("reconnections", ctypes.c_uint64), ("reason", ctypes.c_int32)]


MESSAGE = struct.Struct("@PNq")  # msgbus_message: address and length of the topic, value

_NoticeFunction = ctypes.CFUNCTYPE(None, ctypes.c_int, ctypes.c_char_p, ctypes.c_void_p)
_PublisherFunction = ctypes.CFUNCTYPE(None, ctypes.c_char_p, ctypes.c_int, ctypes.c_int64, ctypes.c_void_p)
_SubscribersFunction = ctypes.CFUNCTYPE(None, ctypes.c_size_t, ctypes.c_void_p)

_handle = ctypes.c_void_p
_size = ctypes.c_size_t
_int64 = ctypes.c_int64


def _declare(loaded: ctypes.CDLL) -> ctypes.CDLL:
    for name, result, arguments in (
        ("last_error", ctypes.c_char_p, ()),
        ("options_init", ctypes.c_int, (ctypes.POINTER(OptionsRecord), _size)),
        ("publisher_create", ctypes.c_int, (ctypes.POINTER(_handle), ctypes.c_char_p, ctypes.POINTER(OptionsRecord))),
        ("publisher_destroy", None, (_handle,)),
        ("publisher_push", ctypes.c_int, (_handle, _int64, _int64)),
        ("publisher_push_all", ctypes.c_int,
         (_handle, ctypes.POINTER(_int64), _size, ctypes.POINTER(_size), _int64)),
        ("publisher_try_push", ctypes.c_int, (_handle, _int64)),
        ("publisher_drain", ctypes.c_int, (_handle, _int64)),
        ("publisher_subscribers", ctypes.c_int, (_handle, ctypes.POINTER(_size))),
        ("publisher_close", ctypes.c_int, (_handle,)),
        ("publisher_id", _int64, (_handle,)),
        ("subscriber_create", ctypes.c_int,
         (ctypes.POINTER(_handle), ctypes.c_char_p, ctypes.POINTER(ctypes.c_char_p), _size,
          ctypes.POINTER(OptionsRecord))),
        ("subscriber_destroy", None, (_handle,)),
        ("subscriber_take", ctypes.c_int, (_handle, ctypes.c_void_p, _size, ctypes.POINTER(_size), _int64)),
        ("subscriber_descriptor", ctypes.c_int, (_handle, ctypes.POINTER(ctypes.c_int))),
        ("subscriber_cancel", None, (_handle,)),
        ("subscriber_lost", ctypes.c_int, (_handle, ctypes.POINTER(LossRecord))),
        ("subscriber_id", _int64, (_handle,)),
    ):
        function = getattr(loaded, "msgbus_" + name)
        function.restype = result
        function.argtypes = arguments
    return loaded


library = _declare(_load())


def check(code: int) -> None:
    """Raises the exception for `code`, unless that is 0."""
    if code != 0:
        raise _errors.make_error(code, library.msgbus_last_error().decode(errors="replace"))


def encode_text(text: str, what: str) -> bytes:
    if not isinstance(text, str):
        raise TypeError(f"the {what} is no str: {text!r}")
    if "\0" in text:
        raise _errors.InvalidArgument(f"the {what} contains a NUL")
    return text.encode(errors="surrogateescape")


def decode_text(octets: bytes) -> str:
    """The inverse of encode_text. A topic need not be UTF-8, and one that is cut may end within a character."""
    return octets.decode(errors="surrogateescape")


def check_time(seconds: float, what: str) -> float:
    """Returns: the time as a float; one that is too long for that as infinity. Raises: TypeError; InvalidArgument."""
    if not hasattr(seconds, "__float__") and not hasattr(seconds, "__index__"):
        raise TypeError(f"the {what} is no number of seconds: {seconds!r}")
    try:
        number = float(seconds)
    except OverflowError:
        number = math.inf if seconds > 0 else -math.inf
    if math.isnan(number):
        raise _errors.InvalidArgument(f"the {what} is not a number")
    return number


def milliseconds(seconds: float) -> int:
    """Returns: the time, rounded up; a negative one as none, one without end as the longest there is."""
    return math.ceil(min(max(seconds, 0), 1e15) * 1000)


def _option(seconds: float, name: str) -> int:
    time = check_time(seconds, name)
    if time < 0:
        raise _errors.InvalidArgument(f"the {name} is negative")
    return milliseconds(time)


#: How often this process is a child made by fork, of a process that had loaded this module.
forks = [0]


def _count_fork() -> None:
    forks[0] += 1


os.register_at_fork(after_in_child=_count_fork)


class Options:
    """The settings of one publisher or subscriber, as the library takes them."""

    def __init__(self, route: str, connect_timeout: float, call_timeout: float, wait_for_server: float,
                 wait_for_topic: float, reconnect_for: float, full_queue_timeout: float,
                 on_notice: Optional[OnNotice], *, on_publisher: Optional[OnPublisher] = None, stale_after: float = 0.0,
                 start_with_last: bool = False, on_subscribers: Optional[OnSubscribers] = None,
                 description: Optional[bytes] = None) -> None:
        routes = ("automatic", "dynamic", "static")
        if route not in routes:
            raise _errors.InvalidArgument(f"the route is {route!r}; it must be one of {', '.join(routes)}")
        self.record = OptionsRecord()
        check(library.msgbus_options_init(ctypes.byref(self.record), ctypes.sizeof(self.record)))
        self.record.route = routes.index(route)
        self.record.connect_timeout_ms = _option(connect_timeout, "connect_timeout")
        self.record.call_timeout_ms = _option(call_timeout, "call_timeout")
        # The waits of a constructor are in create.
        self.wait_for_server = _option(wait_for_server, "wait_for_server") / 1000
        self.wait_for_topic = _option(wait_for_topic, "wait_for_topic") / 1000
        self.record.reconnect_for_ms = _option(reconnect_for, "reconnect_for")
        self.record.full_queue_timeout_ms = _option(full_queue_timeout, "full_queue_timeout")
        self.record.stale_after_ms = _option(stale_after, "stale_after")
        self.record.start_with_last = 1 if start_with_last else 0
        self.record.description = description
        self._on_notice = on_notice
        self._raised: Optional[BaseException] = None
        self._on_publisher = on_publisher
        self._on_subscribers = on_subscribers
        # What is to be reported behind the call of the library: what a report raises must not hide the next one.
        self._publisher_notices: Deque[PublisherNotice] = collections.deque()
        self._subscriber_counts: Deque[int] = collections.deque()
        # Must live as long as the handle.
        self._functions = [self._function(_NoticeFunction, self._receive()),
                           self._function(_PublisherFunction, self._receive_publishers()),
                           self._function(_SubscribersFunction, self._receive_subscribers())]
        for name, function, callback in zip(("on_notice", "on_publisher", "on_subscribers"), self._functions,
                                            (on_notice, on_publisher, on_subscribers)):
            if callback is not None:
                setattr(self.record, name, ctypes.cast(function, ctypes.c_void_p))

    @staticmethod
    def _function(kind: Callable[..., Any], receiver: Generator[int, object, None]) -> Any:
        """Returns: a function that calls receiver.send for each of its arguments."""
        next(receiver)
        return kind(functools.partial(max, key=receiver.send))

    def notify(self, notice: Notice, sentence: str) -> None:
        if self._on_notice is not None:
            self._on_notice(notice, sentence)

    def check(self, code: int) -> None:
        """Raises what a callback raises about the call that returned `code`, or else the exception for that."""
        if self._raised is not None:
            raised, self._raised = self._raised, None
            raise raised
        self.report()
        check(code)

    def report(self) -> None:
        """Calls `on_publisher` and `on_subscribers` with what has come. Raises what they raise; the rest comes later."""
        while self._publisher_notices and self._on_publisher is not None:
            self._on_publisher(self._publisher_notices.popleft())
        while self._subscriber_counts and self._on_subscribers is not None:
            self._on_subscribers(self._subscriber_counts.popleft())

    def _receive(self) -> Generator[int, object, None]:
        """Takes the arguments of the notices, one by one: number, sentence, None.

        A signal's handler runs where Python code begins to run or goes on. An exception that it raises at the begin of
        a function that the library calls would be lost; here it comes from `yield`.
        """
        number = 0
        while True:
            try:
                argument = yield 0
                if isinstance(argument, int):
                    number = argument
                elif isinstance(argument, bytes) and self._raised is None:
                    self.notify(Notice(number), argument.decode(errors="replace"))
            except GeneratorExit:
                raise
            except BaseException as error:  # cannot go through the library
                self._raised = error

    def _receive_publishers(self) -> Generator[int, object, None]:
        """Takes the arguments of the reports, one by one, as `_receive` does: topic, state, id, None."""
        topic = ""
        state: Optional[int] = None
        while True:
            try:
                argument = yield 0
                if isinstance(argument, bytes):
                    topic, state = decode_text(argument), None
                elif isinstance(argument, int) and state is None:
                    state = argument
                elif isinstance(argument, int) and state is not None:
                    self._publisher_notices.append(PublisherNotice(topic, PublisherState(state), argument))
            except GeneratorExit:
                raise
            except BaseException as error:  # cannot go through the library
                self._raised = error

    def _receive_subscribers(self) -> Generator[int, object, None]:
        """Takes the arguments of the reports, one by one, as `_receive` does: number, None."""
        while True:
            try:
                argument = yield 0
                if isinstance(argument, int):
                    self._subscriber_counts.append(argument)
            except GeneratorExit:
                raise
            except BaseException as error:  # cannot go through the library
                self._raised = error
