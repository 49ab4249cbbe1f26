"""The measures. Each takes one pass of one system and returns a flat dict of figures."""

import contextlib
import json
import os
import subprocess
import tempfile
import time

from . import cache_line
from .processes import Child, Failure, cpu_ns, cpu_ticks_s, descriptors, memory_kib, threads
from .systems import Context

ONE_CPU = {0}


class Bench:
    """Runs single passes with the programs of `bin_directory`."""

    def __init__(self, bin_directory, sizes):
        self.bin_directory = bin_directory
        self.sizes = sizes

    @contextlib.contextmanager
    def _server(self, system, cpus):
        with tempfile.TemporaryDirectory(prefix=f"bench-{system.name}-") as directory:
            server, address = system.start(Context(system.program(self.bin_directory), directory, cpus))
            try:
                yield server, address, directory
            finally:
                if server:
                    server.stop()

    @contextlib.contextmanager
    def _driver(self, system, verb, address, directory, cpus, **arguments):
        command = [os.path.join(self.bin_directory, system.driver_program), verb, "--address", address]
        for name, value in arguments.items():
            command += ["--" + name.replace("_", "-"), str(value)]
        child = Child(verb, command, directory, cpus)
        try:
            yield child
        finally:
            child.stop()
            for name in system.leftovers:
                with contextlib.suppress(FileNotFoundError):
                    os.unlink(name.format(pid=child.pid))

    def _exchange(self, system, subscribers=1, publishers=1, cpus=None, stamped=0, **plan):
        """One publishing and one subscribing process; every value is checked by the subscriber."""
        deadline = self.sizes.deadline_s
        with self._server(system, cpus) as (server, address, directory):
            with self._driver(system, "publish", address, directory, cpus, publishers=publishers, stamped=stamped,
                              **plan) as publisher:
                publisher.event("ready", deadline)
                with self._driver(system, "subscribe", address, directory, cpus, subscribers=subscribers,
                                  topics=publishers, stamped=stamped) as subscriber:
                    subscriber.event("registered", deadline)
                    before_ns = cpu_ns(server.pid) if server else 0
                    publisher.send("go")
                    published = publisher.event("published", deadline)
                    received = subscriber.event("received", deadline)
                    server_ns = cpu_ns(server.pid) - before_ns if server else None
                    if subscriber.finish(deadline) != 0:
                        raise Failure(f"lost {received['lost']}, repeated or out of order {received['repeated']}")
                if publisher.finish(deadline) != 0:
                    raise Failure(f"publisher failed: {publisher.errors()}")
            if server:
                server.stop()
            cost = _cost({"server": server, "publisher": publisher, "subscriber": subscriber}, published["values"])
            if server and received["received"]:
                cost["serverUsPerDelivery"] = server_ns / 1e3 / received["received"]
        warm_up = plan.get("warm_up", 0) * publishers
        expected = (published["values"] + warm_up) * subscribers
        if received["received"] != expected:
            raise Failure(f"received {received['received']} of {expected} values")
        return published, received, cost

    def publish(self, system, cpus=None, subscribers=1, publishers=1, seconds=None, values=0):
        """M1: acknowledged publishes, one at a time per publisher, with subscribers attached.

        `values` limits each publisher: a bus that acknowledges much faster than it delivers would need long to catch up.
        """
        line = self._line(cpus)
        published, _, cost = self._exchange(system, subscribers, publishers, cpus, values=values,
                                            seconds=seconds or self.sizes.m1_seconds,
                                            warm_up=max(self.sizes.m1_warm_up // max(publishers, subscribers), 5))
        elapsed_s = (published["endNs"] - published["startNs"]) / 1e9
        return {"ops": published["values"] / elapsed_s, "p50": published["p50"], "p99": published["p99"],
                "max": published["max"], "refused": published["refused"], **cost, **line}

    def idle_delivery(self, system):
        """M2: one-way delivery, one value every 2 ms."""
        _, received, _ = self._exchange(system, stamped=1, values=self.sizes.m2_values, interval_us=2000)
        return {name: received[name] for name in ("p50", "p99", "max", "mean")}

    def delivery(self, system, values, subscribers=1, publishers=1, seconds=0):
        """M3 and M4: from the first publish until the last subscriber has the last value.

        The publishers stop after `values` values or `seconds` seconds, whichever comes first; 0 is no limit.
        """
        line = self._line(None)
        published, received, cost = self._exchange(system, subscribers, publishers, values=values // publishers,
                                                   seconds=seconds)
        elapsed_s = (received["lastNs"] - published["startNs"]) / 1e9
        return {"deliveries": received["received"] / elapsed_s, "values": published["values"],
                "refused": published["refused"], **cost, **line}

    def waiting(self, system, subscribers):
        """M5: what `subscribers` waiting connections cost the server, with one silent publisher connected."""
        deadline = self.sizes.deadline_s
        with self._server(system, None) as (server, address, directory):
            with self._driver(system, "publish", address, directory, None) as publisher:
                publisher.event("ready", deadline)
                time.sleep(self.sizes.settle_s)
                before = _held(server)
                with self._driver(system, "subscribe", address, directory, None,
                                  subscribers=subscribers) as subscriber:
                    registered = subscriber.event("registered", deadline)
                    time.sleep(self.sizes.settle_s)
                    after = _held(server)
                    figures = {"registerMs": registered["registerNs"] / 1e6}
                    figures.update({name: (after[name] - before[name]) / subscribers for name in after})
                    if server and subscribers >= 100:
                        figures.update(self._idle_cpu(server))
                    return figures

    def _idle_cpu(self, server):
        ticks_s, scheduled_ns, start = cpu_ticks_s(server.pid), cpu_ns(server.pid), time.monotonic()
        time.sleep(self.sizes.idle_s)
        elapsed = time.monotonic() - start
        return {"ticksPercent": (cpu_ticks_s(server.pid) - ticks_s) / elapsed * 100,
                "cpuPercent": (cpu_ns(server.pid) - scheduled_ns) / 1e9 / elapsed * 100}

    def _line(self, cpus):
        """How far apart the CPUs 0 and 1 are now: {cache_line.FIGURE: ns}; nothing where the pass cannot use both."""
        if cpus or not {0, 1} <= os.sched_getaffinity(0):
            return {}
        command = [os.path.join(self.bin_directory, "bench_limits"), "cache-line", "--seconds", str(self.sizes.line_s)]
        return {cache_line.FIGURE: json_of(command, None)["p50"]}

    def relay(self, hops, cpus=None):
        """A value through a chain of processes at the rate of M2."""
        return json_of([os.path.join(self.bin_directory, "bench_limits"), "relay", "--hops", str(hops), "--values",
                        str(self.sizes.relay_values)], cpus)

    def limit(self, name, cpus=None, apart=0):
        """A raw round trip, or creating and joining a thread."""
        command = [os.path.join(self.bin_directory, "bench_limits"), name, "--seconds",
                   str(self.sizes.limit_seconds), "--apart", str(apart)]
        return json_of(command, cpus)

    def micro(self, minimum_s):
        """The in-process benchmarks: {name: ns per operation}."""
        program = os.path.join(self.bin_directory, "bench_micro")
        if not os.access(program, os.X_OK):
            raise Failure("bench_micro was not built")
        report = json_of([program, "--benchmark_format=json", f"--benchmark_min_time={minimum_s}"], None)
        units = {"ns": 1, "us": 1e3, "ms": 1e6, "s": 1e9}
        return {run["name"].removesuffix("/manual_time"):
                1e9 / run["items_per_second"] if "items_per_second" in run else run["real_time"] * units[run["time_unit"]]
                for run in report["benchmarks"] if run.get("run_type", "iteration") == "iteration"}


def _held(server):
    """What a server holds now; nothing without a server."""
    if not server:
        return {}
    memory = memory_kib(server.pid)
    return {"rssKib": memory["rss"], "pssKib": memory["pss"], "threads": threads(server.pid),
            "descriptors": descriptors(server.pid)}


def _cost(children, values):
    """CPU time and context switches of each process per published value, including its start and end."""
    figures = {}
    for name, child in children.items():
        if child is None:
            continue
        usage = child.usage
        figures[name + "CpuUs"] = (usage.ru_utime + usage.ru_stime) * 1e6 / values
        figures[name + "Switches"] = (usage.ru_nvcsw + usage.ru_nivcsw) / values
    return figures


def json_of(command, cpus):
    done = subprocess.run(command, stdin=subprocess.DEVNULL, capture_output=True, timeout=600, check=False,
                          preexec_fn=lambda: os.sched_setaffinity(0, cpus) if cpus else None)
    if done.returncode != 0:
        raise Failure(" ".join(done.stderr.decode(errors="replace").split())[-300:])
    return json.loads(done.stdout)
