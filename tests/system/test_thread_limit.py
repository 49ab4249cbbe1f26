"""A server that may start no thread once it is ready serves on, and stops in order.

A preloaded library sets the limit. With BORVEN_TEST_LIMIT=cgroup a pids cgroup sets it in place of that, which needs
root: './dev thread-limit'.
"""

import os
import sys
import unittest

from harness import BIN, DONE, FAILED, MODE, BusTest, main

BY_CGROUP = os.environ.get("BORVEN_TEST_LIMIT") == "cgroup"
REMOVERS = 1 if MODE == "static" else 2  # the stop needs one for each worker of the bus's pool


class PreloadedLimit:
    """The threads that the server has when it is ready, by thread_limit.so."""

    def __init__(self, test):
        self.path = os.path.join(os.path.dirname(test.runtime), "attempts")
        own = test.environment
        test.environment = {**own, "LD_PRELOAD": f"{BIN}/thread_limit.so", "BORVEN_THREAD_LIMIT": "ready",
                            "BORVEN_THREAD_LOG": self.path}
        self.server = test.server(log_level="info")
        test.environment = own

    def refused(self):
        return [line for line in self.attempts() if line.startswith("refused")]

    def attempts(self):
        if not os.path.exists(self.path):
            return []
        with open(self.path, encoding="utf-8") as log:
            return log.read().splitlines()


class Cgroup:
    """A pids cgroup of this test's own. Raises OSError where the system does not allow one."""

    def __init__(self):
        root = "/sys/fs/cgroup/pids" if os.path.isdir("/sys/fs/cgroup/pids") else "/sys/fs/cgroup"
        self.folder = f"{root}/borven-test-{os.getpid()}"
        os.mkdir(self.folder)
        try:
            self.write("pids.max", "max")
        except OSError:
            self.remove()
            raise

    def remove(self):
        os.rmdir(self.folder)

    def write(self, name, value):
        with open(f"{self.folder}/{name}", "w", encoding="utf-8") as file:
            file.write(str(value))

    def read(self, name):
        with open(f"{self.folder}/{name}", encoding="utf-8") as file:
            return file.read()


class CgroupLimit:
    """The same by a cgroup, which counts refusals only: while the server serves, every attempt is one."""

    def __init__(self, test):
        self.server = test.server(log_level="info")
        self.group = Cgroup()
        test.addCleanup(self.end)
        self.group.write("cgroup.procs", self.server.popen.pid)
        self.group.write("pids.max", self.group.read("pids.current"))

    def end(self):
        self.server.close()
        self.group.remove()

    def refused(self):
        return [line for line in self.group.read("pids.events").splitlines()
                if line.startswith("max ") and line != "max 0"]

    attempts = refused


class ThreadLimit(BusTest):

    def test_200_subscribers_come_and_go_without_a_new_thread(self):
        limit = CgroupLimit(self) if BY_CGROUP else PreloadedLimit(self)
        swarm = self.start(f"{BIN}/bus_swarm", "visit", "200")
        swarm.expect_exit(DONE)
        for number in range(3):
            self.sub("t", name=f"waits through the stop {number}")
        self.assertEqual(limit.attempts(), [], "a thread was to be started while the server served")
        limit.server.stop()
        limit.server.expect_error("Ended, served for")
        self.assertEqual(limit.refused(), [])
        if not BY_CGROUP:
            self.assertEqual(len(limit.attempts()), REMOVERS)

    @unittest.skipIf(BY_CGROUP, "tests the start, which the preloaded library can limit")
    def test_a_limit_that_is_too_low_is_a_sentence(self):
        self.environment["LD_PRELOAD"] = f"{BIN}/thread_limit.so"
        statuses = []
        while DONE not in statuses:
            self.assertLess(len(statuses), 50, "no limit is high enough")
            statuses.append(self.serve_with(len(statuses) + 1))
        self.assertGreater(len(statuses), 5)

    def serve_with(self, limit):
        """Starts a server that may have `limit` threads, and stops it if it serves. Returns: its exit status."""
        self.environment["BORVEN_THREAD_LIMIT"] = str(limit)
        ready, write_end = os.pipe()
        server = self.start(f"{BIN}/msgbusd", f"--{MODE}", "--log-level", "off", "--ready-fd", str(write_end),
                            pass_fds=(write_end,))
        os.close(write_end)
        with os.fdopen(ready, "rb") as pipe:
            if pipe.read() == b"READY\n":
                server.popen.terminate()
                return server.wait()
        server.expect_error("msgbusd: cannot start")
        server.expect_exit(FAILED)
        return FAILED


if __name__ == "__main__":
    if BY_CGROUP:
        try:
            Cgroup().remove()
        except OSError as error:
            sys.exit(f"This system does not allow a pids cgroup for the test: {error}")
    main()
