"""Creation of a handle, with the waits that its options allow."""

import time
from typing import Any, Callable, Set

from . import _errors
from ._library import Notice, Options, check

_TIME_BETWEEN_ATTEMPTS = 0.05


def create(function: Callable[[], Any], options: Options) -> None:
    """Calls `function`, which creates a handle, until it succeeds or the waits are over.

    The waits are here because signals, such as that of Ctrl-C, do not end a call of the library.
    """
    server_deadline = time.monotonic() + options.wait_for_server
    topic_deadline = None
    noted: Set[Notice] = set()
    while True:
        try:
            return check(function())
        except (_errors.NoServer, _errors.ServerGone, _errors.NoAnswer):
            if time.monotonic() >= server_deadline:
                raise
            notice, sentence = Notice.WAITING_FOR_SERVER, "no message bus server is running; waiting for one"
        except _errors.Refused as refusal:
            if refusal.code == _errors.CONFLICT and options.wait_for_topic > 0:
                if topic_deadline is None:
                    topic_deadline = time.monotonic() + options.wait_for_topic
                if time.monotonic() >= topic_deadline:
                    raise
                notice, sentence = Notice.WAITING_FOR_TOPIC, f"{refusal}; waiting for it"
            elif refusal.code == _errors.STOPPING and time.monotonic() < server_deadline:
                notice, sentence = Notice.WAITING_FOR_SERVER, "the message bus server stops; waiting for another one"
            else:
                raise
        if notice not in noted:
            noted.add(notice)
            options.notify(notice, sentence)
        time.sleep(_TIME_BETWEEN_ATTEMPTS)
