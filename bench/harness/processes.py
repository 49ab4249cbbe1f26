"""Child processes that print JSON lines. Every wait has a deadline; a process is ended by its pid."""

import json
import os
import resource
import select
import signal
import subprocess
import time


class Failure(Exception):
    """A pass that could not be taken. The message goes into the report."""


class Child:
    """One process of the benchmark. Its standard error goes to a file, which a failure quotes."""

    def __init__(self, name, command, directory, cpus=None, environment=None):
        self.name = name
        self.usage = None
        self._pending = b""
        self._errors_path = os.path.join(directory, f"{name}.stderr")
        with open(self._errors_path, "wb") as errors:
            self._process = subprocess.Popen(
                command, stdin=subprocess.PIPE, stdout=subprocess.PIPE, stderr=errors, cwd=directory,
                env=environment, preexec_fn=lambda: _prepare(cpus))
        self.pid = self._process.pid

    def line(self, deadline_s):
        """The next line of its standard output."""
        deadline = time.monotonic() + deadline_s
        while b"\n" not in self._pending:
            left = deadline - time.monotonic()
            if left <= 0 or not select.select([self._process.stdout], [], [], left)[0]:
                raise Failure(f"{self.name}: no answer within {deadline_s:.0f} s")
            chunk = os.read(self._process.stdout.fileno(), 65536)
            if not chunk:
                raise Failure(f"{self.name} ended: {self.errors()}")
            self._pending += chunk
        line, self._pending = self._pending.split(b"\n", 1)
        return line.decode(errors="replace")

    def event(self, name, deadline_s):
        """The next JSON line, which must be the event `name`."""
        line = self.line(deadline_s)
        event = json.loads(line)
        if event.get("event") != name:
            raise Failure(f"{self.name}: expected {name}, got {line}")
        return event

    def send(self, text):
        """Writes a line to its standard input."""
        self._process.stdin.write(text.encode() + b"\n")
        self._process.stdin.flush()

    def errors(self):
        with open(self._errors_path, encoding="utf-8", errors="replace") as file:
            return " ".join(file.read().split())[-300:] or "no message on standard error"

    def finish(self, deadline_s):
        """Closes its standard input and waits until it exits. Returns: its exit code."""
        self._process.stdin.close()
        if not self._reap(deadline_s):
            raise Failure(f"{self.name}: did not end within {deadline_s:.0f} s")
        return self._process.returncode

    def stop(self):
        """Ends it: SIGTERM, a second SIGTERM if it runs on for 0.2 s, then SIGKILL."""
        for number, deadline_s in ((signal.SIGTERM, 0.2), (signal.SIGTERM, 5), (signal.SIGKILL, 5)):
            if self._process.returncode is not None:
                break
            try:
                os.kill(self.pid, number)
            except ProcessLookupError:
                pass
            self._reap(deadline_s)
        self._process.stdin.close()
        self._process.stdout.close()

    def _reap(self, deadline_s):
        """Waits for its exit and keeps its resource usage, which includes threads that ended earlier."""
        if self._process.returncode is not None:
            return True
        deadline = time.monotonic() + deadline_s
        pause = 0.0005
        while time.monotonic() < deadline:
            pid, status, usage = os.wait4(self.pid, os.WNOHANG)
            if pid != 0:
                self._process.returncode = os.waitstatus_to_exitcode(status)
                self.usage = usage
                return True
            time.sleep(pause)
            pause = min(pause * 2, 0.02)
        return False


def _prepare(cpus):
    if cpus is not None:
        os.sched_setaffinity(0, cpus)
    hard = resource.getrlimit(resource.RLIMIT_NOFILE)[1]
    resource.setrlimit(resource.RLIMIT_NOFILE, (hard, hard))


def wait_for(condition, what, child, deadline_s=10):
    """Polls a condition that no descriptor signals, such as a file that a server creates."""
    deadline = time.monotonic() + deadline_s
    while not condition():
        if time.monotonic() > deadline:
            raise Failure(f"{child.name}: {what} did not appear: {child.errors()}")
        time.sleep(0.002)


def cpu_ns(pid):
    """CPU time of a process, with that of its ended threads, from the scheduler's counters in ns."""
    # MAKE_PROCESS_CPUCLOCK(pid, CPUCLOCK_SCHED) of Linux; see clock_getcpuclockid(3).
    return time.clock_gettime_ns((~pid << 3) | 2)


def cpu_ticks_s(pid):
    """CPU time of a process in seconds, as utime + stime count it."""
    with open(f"/proc/{pid}/stat", encoding="utf-8") as file:
        fields = file.read().rsplit(")", 1)[1].split()
    return (int(fields[11]) + int(fields[12])) / os.sysconf("SC_CLK_TCK")


def threads(pid):
    return len(os.listdir(f"/proc/{pid}/task"))


def descriptors(pid):
    return len(os.listdir(f"/proc/{pid}/fd"))


def memory_kib(pid):
    """Resident memory of a process: {"rss": KiB, "pss": KiB}.

    pss counts a page shared by n processes as 1/n. It excludes mapped files, because their share falls when another
    process loads the same library.
    """
    fields = {}
    with open(f"/proc/{pid}/smaps_rollup", encoding="utf-8") as file:
        for line in file:
            name, _, rest = line.partition(":")
            if rest.endswith(" kB\n"):
                fields[name] = int(rest.split()[0])
    return {"rss": fields["Rss"], "pss": fields["Pss_Anon"] + fields["Pss_Shmem"]}
