"""What every attack has in common: a server, a checked pair beside it, and the comparison of afterwards with before.

An attacker is a class derived from Attack, alone in its file, whose `attack` does the harm for as long as `rounds` lasts.
`run` starts each file as a process with the environment of tests/system/harness.py and:

    BORVEN_ATTACK_SECONDS   how long an attack that repeats itself does so
    BORVEN_ATTACK_FIGURES   the file that receives the figures, as JSON
    BORVEN_ATTACK_BARE      1: the server has none of its defences
    BORVEN_ATTACK_SANITIZED 1: memory and mappings are not compared
"""

import json
import os
import random
import select
import signal
import sys
import time
import unittest

from harness import BIN, DONE, FAILED, MODE, NO_SERVER, PATIENCE, REFUSED, TIMED_OUT, BusTest, wait_until
from raw_client import CTL, UNREGISTER_SUBSCRIBER, RawClient, int64
from server_usage import Usage

SECONDS = float(os.environ.get("BORVEN_ATTACK_SECONDS", "1"))
BARE = ("--bare",) if os.environ.get("BORVEN_ATTACK_BARE") == "1" else ()
PAIR_RATE = 1000  # values per second
SETTLING_TIME = 10.0  # seconds in which the server has to be back where it was
MEMORY_ALLOWANCE_KIB = 4096  # what the allocator may keep for itself,
MAPPING_ALLOWANCE = 8  # and its arenas: two mappings for each thread that allocates for the first time
LIMIT_OF_HANGS = 30.0  # seconds


class Pair:
    """A publisher and a subscriber that checks: every number once and in order."""

    def __init__(self, test, topic="checked", rate=PAIR_RATE):
        self.test = test
        self.reader = test.start(f"{BIN}/checked_pair", "read", topic)
        self.reader.expect("ready")
        self.pusher = test.start(f"{BIN}/checked_pair", "push", topic, str(rate))
        self.pusher.expect("ready")

    def finish(self):
        """Returns: (number of values, longest time between two of them in milliseconds)."""
        self.pusher.end_input()
        self.pusher.expect_exit(DONE)
        self.reader.expect_exit(DONE)
        count, longest = map(int, self.reader.next_line().split())
        return count, longest / 1000


class Attack(BusTest):
    """One attack on one server."""

    server_options = ()
    log_level = "error"
    memory_allowance_kib = MEMORY_ALLOWANCE_KIB

    def attack(self):
        raise NotImplementedError

    def test_attack(self):
        self.figures = {"load": ""}
        self.random = random.Random(1)
        self.children = set()
        self.prepare()
        began = time.monotonic()
        self.attack()
        self.figures["seconds"] = time.monotonic() - began
        self.conclude()
        if path := os.environ.get("BORVEN_ATTACK_FIGURES"):
            with open(path, "w", encoding="utf-8") as file:
                json.dump(self.figures, file)

    def prepare(self):
        self.served = self.server(*BARE, *self.server_options, log_level=self.log_level)
        self.expect_working()
        with self.joined() as client:
            client.call(CTL, UNREGISTER_SUBSCRIBER, int64(-1))  # the first line of the log opens a descriptor
        self.pair = Pair(self)
        self.before = self.settled_usage()

    def conclude(self):
        self.compare_with_before()
        self.expect_working()
        self.figures["values"], self.figures["longest_gap_ms"] = self.pair.finish()
        self.figures["stop_ms"] = self.timed_stop(self.served)

    def timed_stop(self, server):
        """Fails unless SIGTERM ends the server with status 0, and without a file. Returns: how long that took in milliseconds."""
        process = os.pidfd_open(server.popen.pid)
        began = time.monotonic()
        server.signal(signal.SIGTERM)
        select.select([process], [], [], LIMIT_OF_HANGS)
        took = time.monotonic() - began
        os.close(process)
        server.expect_exit(0)
        left = set(os.listdir(self.runtime)) - {"account", "account.previous"}
        self.assertEqual(left, set(), "the server left files behind")
        return took * 1000

    def usage(self):
        return Usage.of(self.served.popen.pid)

    def settled_usage(self):
        """Returns: the usage, once the numbers have not changed for a while: threads end behind their work."""
        seen = []

        def is_settled():
            usage = self.usage()
            seen.append((usage.threads, usage.descriptors, usage.mappings))
            return len(seen) >= 20 and len(set(seen[-20:])) == 1

        wait_until(self, is_settled, "the server's threads, descriptors and mappings to settle")
        return self.usage()

    def compare_with_before(self):
        """Fails unless the server is back where it was."""
        deadline = time.monotonic() + SETTLING_TIME
        while self.difference() and time.monotonic() < deadline:
            time.sleep(0.05)
        after = self.usage()
        self.figures.update(threads=after.threads - self.before.threads,
                            descriptors=after.descriptors - self.before.descriptors,
                            mappings=after.mappings - self.before.mappings,
                            memory_kib=after.memory_kib - self.before.memory_kib)
        self.assertEqual(self.difference(), [], f"before: {self.before}, after: {after}")

    def difference(self):
        """Returns: what of the usage has grown."""
        now = self.usage()
        grown = [what for what in ("threads", "descriptors") if getattr(now, what) > getattr(self.before, what)]
        if os.environ.get("BORVEN_ATTACK_SANITIZED") == "1":
            return grown
        if now.mappings > self.before.mappings + MAPPING_ALLOWANCE:
            grown.append("mappings")
        if now.memory_kib > self.before.memory_kib + self.memory_allowance_kib:
            grown.append("memory")
        return grown

    def rounds(self):
        """Yields 0, 1, 2, ... until the time of the attack is over; at least once."""
        deadline = time.monotonic() + SECONDS
        number = 0
        while number == 0 or time.monotonic() < deadline:
            yield number
            number += 1
            self.forget_exited()

    def forget_exited(self):
        for process in [process for process in self.processes if process.popen.poll() is not None]:
            process.close()
            self.processes.remove(process)

    def client(self, service=CTL):
        """Returns: a raw client, not yet connected, that is closed at the end of the test."""
        client = RawClient(self.runtime, MODE, service)
        self.addCleanup(client.close)
        return client

    def joined(self, service=CTL):
        return self.client(service).join()

    def fork(self, body):
        """Runs `body` in a process of its own, which must not use the pipes of this one. Returns: its number."""
        child = os.fork()
        if child == 0:
            status = 1
            try:
                body()
                status = 0
            except BaseException as error:  # a child must not return into the test
                os.write(2, f"{type(error).__name__}: {error}\n".encode())
            os._exit(status)
        self.addCleanup(self.end_child, child)
        self.children.add(child)
        return child

    def end_child(self, child, number=signal.SIGKILL):
        """Sends a signal. Returns: the exit status, negative for a signal; None when it was taken before."""
        if child not in self.children:
            return None
        os.kill(child, number)
        return self.await_child(child)

    def await_child(self, child):
        self.children.discard(child)
        return os.waitstatus_to_exitcode(os.waitpid(child, 0)[1])

    def load(self, sentence):
        self.figures["load"] = sentence


def main(attacker):
    unittest.main(argv=[sys.argv[0], f"{attacker.__name__}.test_attack"], buffer=True, verbosity=2)


__all__ = ["BIN", "DONE", "FAILED", "LIMIT_OF_HANGS", "MODE", "NO_SERVER", "PATIENCE", "REFUSED", "SECONDS", "TIMED_OUT",
           "Attack", "Pair", "main", "wait_until"]
