"""Real processes as a script: start, connect, subscribe, expect, kill, expect, clean exit.

No step sleeps for a fixed time: each waits for a condition with a deadline. A failing test prints the output of its
processes. BORVEN_BIN is the folder of the programs, BORVEN_TEST_MODE the mode to test, BORVEN_TEST_SERVER_OPTIONS holds
further options of each server, separated by spaces.
"""

import os
import queue
import signal
import subprocess
import tempfile
import threading
import time
import unittest

BIN = os.environ["BORVEN_BIN"]
MODE = os.environ["BORVEN_TEST_MODE"]
SERVER_OPTIONS = os.environ.get("BORVEN_TEST_SERVER_OPTIONS", "").split()
SANITIZED = os.environ.get("BORVEN_TEST_SLOWNESS", "1") != "1"
PATIENCE = float(os.environ.get("BORVEN_TEST_PATIENCE", "180" if SANITIZED else "60"))  # seconds; a deadline for hangs only
STOP_LIMIT = 6.0 * float(os.environ.get("BORVEN_TEST_SLOWNESS", "1"))  # seconds: the bus polls every 5

DONE, FAILED, USAGE, REFUSED, NO_SERVER, TIMED_OUT = 0, 1, 2, 3, 4, 124
FAULT = 5  # of a server that cannot go on


class Process:
    """A running program and the lines that it prints, in order of arrival."""

    def __init__(self, test, arguments, environment, stdout=subprocess.PIPE, stderr=subprocess.PIPE, pass_fds=()):
        self.test = test
        self.arguments = arguments
        self.seen = []
        self.popen = subprocess.Popen(arguments, stdin=subprocess.PIPE, stdout=stdout, stderr=stderr,
                                      env=environment, pass_fds=pass_fds)
        self.out = queue.Queue()
        self.err = queue.Queue()
        self.readers = [threading.Thread(target=self._read, args=each, daemon=True)
                        for each in ((self.popen.stdout, self.out), (self.popen.stderr, self.err))]
        for reader in self.readers:
            reader.start()

    def _read(self, stream, lines):
        if stream is not None:
            for line in stream:
                text = line.decode(errors="replace").rstrip("\n")
                self.seen.append(text)
                lines.put(text)
        lines.put(None)

    def expect(self, line):
        """Fails unless the next line on stdout is `line`."""
        self.test.assertEqual(self._next(self.out), line, self)

    def expect_all(self, lines):
        for line in lines:
            self.expect(line)

    def expect_end(self):
        """Fails unless stdout ends without another line."""
        self.test.assertIsNone(self._next(self.out), self)

    def next_line(self):
        line = self._next(self.out)
        self.test.assertIsNotNone(line, f"{self} closed its output")
        return line

    def expect_error(self, part):
        """Waits for a line on stderr that contains `part`. Returns: the line."""
        while True:
            line = self._next(self.err)
            self.test.assertIsNotNone(line, f"{self} did not print '{part}'")
            if part in line:
                return line

    def _next(self, lines):
        try:
            return lines.get(timeout=PATIENCE)
        except queue.Empty:
            self.test.fail(f"{self} printed nothing more in time")

    def write(self, text):
        try:
            self.popen.stdin.write(text.encode())
            self.popen.stdin.flush()
        except BrokenPipeError:
            pass  # the process has exited; the test checks its status where that matters

    def end_input(self):
        try:
            self.popen.stdin.close()
        except BrokenPipeError:
            pass

    def signal(self, number):
        self.popen.send_signal(number)

    def pause(self):
        """Sends SIGSTOP, and waits until every thread has stopped."""
        self.signal(signal.SIGSTOP)
        wait_until(self.test, lambda: set(self._thread_states()) == {"T"}, f"{self} to stop")

    def _thread_states(self):
        folder = f"/proc/{self.popen.pid}/task"
        for thread in os.listdir(folder):
            try:
                with open(f"{folder}/{thread}/stat", encoding="utf-8") as stat:
                    yield stat.read().rsplit(")", 1)[1].split()[0]
            except (FileNotFoundError, ProcessLookupError):
                pass  # it has ended meanwhile

    def kill(self):
        self.popen.kill()
        self.popen.wait()

    def wait(self, patience=PATIENCE):
        try:
            status = self.popen.wait(patience)
        except subprocess.TimeoutExpired:
            self.test.fail(f"{self} did not exit")
        for reader in self.readers:
            reader.join(PATIENCE)
        return status

    def expect_exit(self, status, patience=PATIENCE):
        self.test.assertEqual(self.wait(patience), status, self)

    def close(self):
        if self.popen.poll() is None:
            self.popen.send_signal(signal.SIGCONT)
            self.kill()
        for reader in self.readers:
            reader.join(PATIENCE)
        for stream in (self.popen.stdin, self.popen.stdout, self.popen.stderr):
            if stream is not None:
                try:
                    stream.close()
                except BrokenPipeError:
                    pass

    def __str__(self):
        command = " ".join(os.path.basename(word)[:40] for word in self.arguments)
        return f"[{command}] (status {self.popen.poll()})"


class Server(Process):
    """msgbusd, ready to serve."""

    def __init__(self, test, *options, log_level="debug", **more):
        ready, write_end = os.pipe()
        super().__init__(test, [f"{BIN}/msgbusd", f"--{MODE}", "--log-level", log_level, "--ready-fd", str(write_end),
                                *SERVER_OPTIONS, *options], test.environment, pass_fds=(write_end,), **more)
        os.close(write_end)
        with os.fdopen(ready, "rb") as pipe:
            report = pipe.read()
        test.assertEqual(report, b"READY\n", f"{self} did not become ready: {self.seen}")

    def stop(self):
        """Sends SIGTERM; fails unless the server exits with status 0 and leaves nothing but its account."""
        self.signal(signal.SIGTERM)
        self.expect_orderly_end()

    def expect_orderly_end(self):
        """Fails unless the server exits with status 0 and leaves nothing but its account."""
        self.expect_exit(0)
        self.test.expect_clean_runtime()

    def stops_in_time(self):
        """Stops the server. Returns: whether that took less than STOP_LIMIT."""
        began = time.monotonic()
        self.stop()
        return time.monotonic() - began < STOP_LIMIT


class BusTest(unittest.TestCase):
    """A test with its own runtime directory. Kills the processes that still run at its end."""

    maxDiff = None

    def setUp(self):
        directory = tempfile.TemporaryDirectory(prefix="borven-system-")
        self.addCleanup(directory.cleanup)
        self.runtime = os.path.join(directory.name, "runtime")
        os.mkdir(self.runtime, 0o700)
        self.environment = {**os.environ, "BORVEN_RUNTIME_DIR": self.runtime, "BORVEN_BUS": MODE,
                            "MSGBUSD_CONFIG": "/dev/null"}
        self.processes = []
        self.addCleanup(self._end_all)

    def _end_all(self):
        for process in self.processes:
            process.close()
            print(f"--- {process}")  # unittest prints it only for a failing test
            print("\n".join(process.seen[-60:]))

    def expect_clean_runtime(self):
        """Fails unless the runtime directory has nothing but the account of a server."""
        left = set(os.listdir(self.runtime)) - {"account", "account.previous"}
        self.assertEqual(left, set(), "the server left files behind")

    def expect_once(self, attempt):
        """Fails unless `attempt` is true once in three times. For time limits, which a busy machine may miss."""
        self.assertTrue(any(attempt() for _ in range(3)))

    def start(self, *arguments, **options):
        process = Process(self, list(arguments), self.environment, **options)
        self.processes.append(process)
        return process

    def server(self, *options, **more):
        server = Server(self, *options, **more)
        self.processes.append(server)
        return server

    def msgbus(self, *arguments, **options):
        return self.start(f"{BIN}/msgbus", *arguments, **options)

    def sub(self, *topics, name="reader", options=(), **more):
        """Starts a subscriber and waits until it is registered."""
        process = self.msgbus("sub", *topics, "--name", name, *options, **more)
        process.expect_error(f"subscribed as '{name}'")
        return process

    def pub(self, topic, *options):
        """Starts a publisher that reads values from its standard input, and waits until it is registered."""
        process = self.msgbus("pub", topic, "-l", "-v", *options)
        process.expect_error(f"publishing to topic '{topic}'")
        return process

    def publish(self, topic, *values):
        """Runs a publisher that publishes `values` and exits."""
        process = self.msgbus("pub", topic, "--", *(str(value) for value in values))
        process.expect_exit(DONE)

    def expect_working(self):
        """Fails unless the bus still delivers a value to a new subscriber."""
        reader = self.sub("still-working", name="probe", options=("-n", "1"))
        self.publish("still-working", 42)
        reader.expect("still-working 42")
        reader.expect_exit(DONE)


class Calls:
    """A client that makes the calls of the bus one by one (bus_calls.cpp)."""

    def __init__(self, test):
        self.test = test
        self.process = test.start(f"{BIN}/bus_calls")
        self.process.expect("connected")

    def call(self, text):
        """Returns: the result code, and what else came back, as words."""
        self.process.write(text + "\n")
        return self.process.next_line().split(" ")

    def repeat(self, times, text):
        """Returns: how many of the calls had each result code. '#' in the text becomes the number of the call."""
        self.process.write(f"repeat {times} {text}\n")
        return self.process.next_line()

    def publisher(self, topic):
        """Returns: its id."""
        code, number = self.call(f"publisher {topic}")
        self.test.assertEqual(code, "0")
        return number

    def subscriber(self, name, *topics):
        """Returns: its id."""
        code, handshake = self.call(f"start {name}")
        self.test.assertEqual(code, "0")
        for topic in topics:
            self.test.assertEqual(self.call(f"topic {handshake} {topic}"), ["0"])
        code, number = self.call(f"finish {handshake} commit")
        self.test.assertEqual(code, "0")
        return number


def main():
    unittest.main(buffer=True)


def wait_until(test, condition, what):
    """Polls `condition`, which no output of a process announces. Fails after a deadline."""
    deadline = time.monotonic() + PATIENCE
    while not condition():
        if time.monotonic() > deadline:
            test.fail(f"timed out waiting for {what}")
        time.sleep(0.01)
