"""The message bus for Python programs.

    import msgbus

    with msgbus.Publisher("temperature") as publisher:
        publisher.push(21)

    with msgbus.Subscriber("display", ["temperature", "pressure"]) as subscriber:
        for topic, value in subscriber:
            print(topic, value)

Values are integers of 64 bits with a sign; `encode_double` and `decode_double` carry a float in one. Times are in
seconds. Every failure is an exception: `Error` and its classes, each with a sentence and a `code`.

Threads: a publisher may be used by any number of threads, which take turns. A subscriber is for one thread, or one task,
at a time; `cancel`, `close`, `lost` and `id` may be used by any thread meanwhile. A call lets other threads run.

Fork: in a child process, the objects of the parent raise `ServerGone`, and closing them leaves the parent's registrations
alone; new objects work. A program that starts children with `multiprocessing` makes its objects in the child.
"""

from ._errors import (Closed, Error, InvalidArgument, NoAnswer, NoMemory, NoServer, PlatformError, Refused, ServerGone,
                      TimedOut)
from ._library import Loss, Message, Notice, PublisherNotice, PublisherState, decode_double, encode_double
from ._publisher import Publisher
from ._subscriber import Subscriber

__all__ = [
    "Closed", "Error", "InvalidArgument", "Loss", "Message", "NoAnswer", "NoMemory", "NoServer", "Notice", "PlatformError",
    "Publisher", "PublisherNotice", "PublisherState", "Refused", "ServerGone", "Subscriber", "TimedOut", "decode_double",
    "encode_double",
]
