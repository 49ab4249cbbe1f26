#!/usr/bin/env python3
"""A server's monitor.sock with a bus that was made up: as many topics, and as strange ones, as a test wants.

    tests/dashboard/fake_monitor.py RUNTIME_DIRECTORY [--topics COUNT]    serves until it is interrupted
"""

import argparse
import http.server
import json
import math
import os
import random
import select
import socketserver
import threading
import time
import urllib.parse

SECOND = 1_000_000_000
EVENT_KINDS = {
    "publisher-registered", "subscriber-registered", "publisher-gone", "subscriber-gone", "publisher-died", "subscriber-died",
    "subscriber-cut", "refused", "serving", "draining", "stopping",
}


def rates(value):
    return {"last_1s": value, "last_10s": value * 0.97, "last_60s": value * 0.9}


def latency(samples, center=1 << 14):
    octaves = [{"upto_ns": (center << shift) // 8, "count": max(1, int(samples * math.exp(-((shift - 2) ** 2) / 3)))}
               for shift in range(9)] if samples else []
    return {"samples": sum(octave["count"] for octave in octaves), "p50_ns": center // 2, "p90_ns": center * 2,
            "p99_ns": center * 5, "p999_ns": center * 15, "max_ns": center * 30, "octaves": octaves}


def flows(due, queued=0, offered=0, dropped=None):
    reasons = {"oldest": 0, "newest": 0, "cut": 0, "unregistered": 0, "undelivered": 0, **(dropped or {})}
    total = sum(reasons.values())
    return {"due": due, "taken": due - queued - offered - total, "offered": offered, "queued": queued, "handed_over": 0,
            "dropped": {**reasons, "total": total}}


class FakeBus:
    """What the made-up server knows. A test changes it under `lock`; state() is what a reader gets."""

    def __init__(self, topics=0, seed=1):
        self.lock = threading.RLock()
        self.random = random.Random(seed)
        self.started = time.time_ns()
        self.server_started = self.started - 3 * 3600 * SECOND
        self.publishers, self.subscribers, self.events = {}, {}, []
        self.next_id = 1
        self.server_pid = 4000
        self.refused_full = 0
        self.is_lively = False
        self.descriptions = {}
        self.meanings = {}
        for number in range(topics):
            self.add_publisher(f"plant/line-{number // 10:02}/sensor-{number % 10}", rate=self.random.lognormvariate(4, 2))
        for number in range(topics // 2):
            chosen = self.random.sample(sorted(self.publishers), k=min(len(self.publishers), 1 + number % 4))
            self.add_subscriber(f"reader-{number:03}", chosen)

    def new_id(self):
        self.next_id += 1
        return self.next_id - 1

    def add_event(self, kind, name, identity, pid, program, code=0, lost=0):
        assert kind in EVENT_KINDS
        with self.lock:
            self.events.append({"number": len(self.events) + 1, "unix_ns": time.time_ns(), "event": kind, "id": identity,
                                "name": name, "pid": pid, "program": program, "code": code, "lost": lost})
            del self.events[:-1024]

    def add_publisher(self, topic, rate=0.0, program=None, pid=None, value=None):
        with self.lock:
            identity = self.new_id()
            self.publishers[topic] = {"id": identity, "pid": pid or 5000 + identity // 8, "rate": rate, "accepted": 0,
                                      "program": program or f"sampler-{identity // 8}", "value": value,
                                      "since": time.time_ns(), "last": time.time_ns() if value is not None or rate else None}
            entry = self.publishers[topic]
            self.add_event("publisher-registered", topic, identity, entry["pid"], entry["program"])

    def add_subscriber(self, name, topics, program=None, pid=None, **more):
        with self.lock:
            identity = self.new_id()
            entry = {"id": identity, "name": name, "topics": list(topics), "pid": pid or 7000 + identity // 3,
                     "program": program or f"logger-{identity // 3 % 20}", "queued": 0, "age": 0, "dropped": {}, "cut": False,
                     "waiting": True, "since": time.time_ns(), **more}
            self.subscribers[identity] = entry
            self.add_event("subscriber-registered", name, identity, entry["pid"], entry["program"])
            return identity

    def remove_subscriber(self, identity, kind="subscriber-died"):
        with self.lock:
            entry = self.subscribers.pop(identity)
            self.add_event(kind, entry["name"], identity, entry["pid"], entry["program"], lost=entry["queued"])

    def push(self, topic, value):
        with self.lock:
            entry = self.publishers[topic]
            entry.update(value=value, last=time.time_ns(), accepted=entry["accepted"] + 1)

    def describe(self, topic, text, meaning):
        """`meaning`: a function from the value to what the server says about it."""
        self.descriptions[topic] = {"text": text, "remark": text.partition("remark=")[2]}
        self.meanings[topic] = meaning

    def _publisher_json(self, topic, entry, now):
        wave = 1 + 0.35 * math.sin(now / SECOND / 7 + entry["id"]) + self.random.uniform(-0.1, 0.1)
        rate = entry["rate"] * wave if self.is_lively else entry["rate"]
        value, last = entry["value"], entry["last"]
        if entry["rate"]:
            value = int(20000 + 3000 * math.sin(now / SECOND / 11 + entry["id"]))
            last = now - int(SECOND / (entry["rate"] + 0.01))
        accepted = entry["accepted"] + int(entry["rate"] * (now - self.server_started) / SECOND)
        gap = int(SECOND / entry["rate"]) if entry["rate"] else None
        return {"id": entry["id"], "topic": topic, "pid": entry["pid"], "program": entry["program"],
                "since_unix_ns": entry["since"], "registered": True, "left_unix_ns": None, "accepted": accepted,
                "accepted_before": 0, "without_subscriber": 0, "refused_full": 0, "last_value": value,
                "last_value_text": None if value is None else str(value), "last_unix_ns": last,
                "last_age_ns": None if last is None else now - last, "smallest_gap_ns": gap and gap // 2,
                "largest_gap_ns": gap and gap * 3, "rates": rates(rate)}

    def _subscriber_json(self, entry, published, now):
        rate = sum(published[topic]["rates"]["last_1s"] for topic in entry["topics"] if topic in published)
        due = sum(published[topic]["accepted"] for topic in entry["topics"] if topic in published)
        due = max(due, entry["queued"] + sum(entry["dropped"].values()))
        return {"id": entry["id"], "name": entry["name"], "topics": entry["topics"], "pid": entry["pid"],
                "program": entry["program"], "since_unix_ns": entry["since"], "waiting": entry["waiting"], "cut": entry["cut"],
                "flows": flows(due, queued=entry["queued"], dropped=entry["dropped"]), "oldest_age_ns": entry["age"] or None,
                "rates": rates(rate), "latency": latency(due // 64)}

    def _topic_json(self, topic, publisher, subscribers):
        mine = [each for each in subscribers if topic in each["topics"]]
        meaning = self.meanings.get(topic)
        of_publisher = publisher or dict.fromkeys(("last_value", "last_value_text", "last_unix_ns", "last_age_ns"))
        return {"topic": topic, "publisher": publisher, "last_value": of_publisher["last_value"],
                "last_value_text": of_publisher["last_value_text"],
                "last_value_described": meaning(publisher["last_value"]) if publisher and meaning else None,
                "last_unix_ns": of_publisher["last_unix_ns"],
                "last_age_ns": of_publisher["last_age_ns"], "rates": publisher["rates"] if publisher else rates(0),
                "subscribers": [each["id"] for each in mine], "queued": sum(each["flows"]["queued"] for each in mine),
                "dropped": sum(each["flows"]["dropped"]["total"] for each in mine),
                "description": publisher and self.descriptions.get(topic)}

    def state(self):
        with self.lock:
            now = time.time_ns()
            published = {topic: self._publisher_json(topic, entry, now) for topic, entry in sorted(self.publishers.items())}
            subscribers = [self._subscriber_json(entry, published, now) for _, entry in sorted(self.subscribers.items())]
            topics = sorted({*published, *(topic for each in subscribers for topic in each["topics"])})
            return {"version": 1, "read_unix_ns": now, "server": self._server_json(now),
                    "bus": self._bus_json(published, subscribers),
                    "topics": [self._topic_json(topic, published.get(topic), subscribers) for topic in topics],
                    "publishers": list(published.values()), "subscribers": subscribers, "clients": self._clients_json(),
                    "threads": self._threads_json(now), "errors": self._errors_json(now), "events": list(self.events)}

    def _server_json(self, now):
        return {"version": "0.1.0", "pid": self.server_pid, "alive": True, "paused": False, "state": "serving", "mode": "dynamic",
                "started_unix_ns": self.server_started, "uptime_ns": now - self.server_started,
                "options": "--slow-subscriber *=drop-oldest:4096",
                "workers": 4, "threads": 17, "descriptors": 83, "memory_bytes": 18_430_000}

    def _bus_json(self, published, subscribers):
        accepted = sum(each["accepted"] for each in published.values())
        total = {"due": 0, "taken": 0, "offered": 0, "queued": 0, "handed_over": 0}
        dropped = {}
        for subscriber in subscribers:
            for key in total:
                total[key] += subscriber["flows"][key]
            for key, count in subscriber["flows"]["dropped"].items():
                dropped[key] = dropped.get(key, 0) + count
        reasons = ("oldest", "newest", "cut", "unregistered", "undelivered", "total")
        return {"accepted": accepted, "fanned_out": accepted - accepted // 50, "inbound": 0, "without_subscriber": accepted // 50,
                "refused_full": self.refused_full, "most_inbound": 412, "unknown_pushes": 0, "unknown_waits": 0,
                "refused_registrations": 1, "refused_connections": 0, "rescued": 0, "discrepancies": 0, "adds_up": True,
                "flows": {**total, "dropped": {reason: dropped.get(reason, 0) for reason in reasons}},
                "latency": latency(accepted // 64)}

    def _clients_json(self):
        return [{"pid": 5001, "program": "sampler-1", "since_unix_ns": self.started, "unknown_pushes": 0, "unknown_waits": 0,
                 "refused_registrations": 1}]

    def _threads_json(self, now):
        names = ["dispatch-1", "events", "housekeeper", "worker-1", "worker-2"]
        return [{"name": name, "away_ns": 0, "longest_away_ns": 3_200_000 * (index + 1), "longest_unix_ns": now - 60 * SECOND}
                for index, name in enumerate(names)]

    def _errors_json(self, now):
        return [{"level": "warning", "place": "server/src/queue_limit.cpp:88", "count": 3, "first_unix_ns": now - 600 * SECOND,
                 "last_unix_ns": now - 20 * SECOND, "text": "subscriber 'slow-reader' has 4096 unread values; the oldest go"}]


class Handler(http.server.BaseHTTPRequestHandler):
    protocol_version = "HTTP/1.1"

    def do_GET(self):  # noqa: N802 - the library's name
        self.close_connection = True
        path, _, query = self.path.partition("?")
        self.server.seen.append((self.command, self.path, dict(self.headers)))
        if path == "/v1/state":
            self._reply(json.dumps(self.server.bus.state()).encode())
        elif path == "/v1/events" and self.server.refuses_streams:
            self._reply(b'{"error": "there are too many streams of events"}\n', status=503)
        elif path == "/v1/events":
            after = self.headers.get("Last-Event-ID") or urllib.parse.parse_qs(query).get("after", ["0"])[0]
            self._stream(int(after))
        elif path == "/metrics":
            self._reply(b"# EOF\n", "application/openmetrics-text; version=1.0.0; charset=utf-8")
        else:
            self._reply(b'{"error": "there is no such path"}\n', status=404)

    do_HEAD = do_GET  # noqa: N815

    def _reply(self, body, kind="application/json", status=200):
        self.send_response(status)
        self.send_header("Content-Type", kind)
        self.send_header("Content-Length", str(len(body)))
        self.end_headers()
        if self.command == "GET":
            self.wfile.write(body)

    def _stream(self, after):
        self.send_response(200)
        self.send_header("Content-Type", "text/event-stream")
        self.end_headers()
        while not self.server.is_closing and not self._has_left():
            for event in [each for each in self.server.bus.events if each["number"] > after]:
                after = event["number"]
                self.wfile.write(f"id: {after}\nevent: {event['event']}\ndata: {json.dumps(event)}\n\n".encode())
            time.sleep(0.02)

        self.server.ended_streams += 1

    def _has_left(self):
        return self.connection in select.select([self.connection], [], [], 0)[0]

    def address_string(self):
        return "client"

    def log_message(self, *_):
        pass


class FakeMonitor(socketserver.ThreadingMixIn, socketserver.UnixStreamServer):
    """Serves `bus` at monitor.sock in `directory` until close()."""

    daemon_threads = True
    request_queue_size = 64

    def __init__(self, directory, bus):
        self.bus = bus
        self.seen = []  # (method, path, headers) of each request
        self.ended_streams = 0
        self.refuses_streams = False
        self.is_closing = False
        super().__init__(os.path.join(directory, "monitor.sock"), Handler)
        self.thread = threading.Thread(target=self.serve_forever, args=(0.02,), daemon=True)
        self.thread.start()

    def handle_error(self, request, client_address):
        pass  # a reader that goes away is everyday

    def close(self):
        self.is_closing = True
        self.shutdown()
        self.server_close()
        os.unlink(self.server_address)


def example_bus(topics):
    """A bus worth looking at."""
    bus = FakeBus()
    bus.is_lively = True
    floor = (("temperature", 48), ("humidity", 12), ("pressure", 96), ("vibration", 960), ("door", 0.4))
    for hall in ("north", "south", "yard"):
        for name, rate in floor:
            bus.add_publisher(f"plant/{hall}/{name}", rate=rate, program=f"sensor-{hall}", pid=5100 + len(hall))
    bus.add_publisher("motor/1/speed", rate=400, program="motor-control", pid=5200)
    bus.add_publisher("motor/2/speed", rate=395, program="motor-control", pid=5200)
    bus.add_publisher("<script>alert(1)</script>", value=7, program="prober", pid=5300)
    for hall in ("north", "south", "yard"):
        bus.describe(f"plant/{hall}/temperature", "fixed;step=1/1000;unit=°C;remark=at the ceiling",
                     lambda value: f"{value / 1000:.3f} °C")
    everything = sorted(bus.publishers)
    bus.add_subscriber("historian", everything, program="historian", pid=7001)
    bus.add_subscriber("alarm", [topic for topic in everything if "temperature" in topic or "pressure" in topic],
                       program="alarmd", pid=7002)
    bus.add_subscriber("motor-watch", ["motor/1/speed", "motor/2/speed"], program="motor-ui", pid=7003, queued=37, age=90_000_000)
    bus.add_subscriber("slow-reader", ["plant/north/vibration", "plant/south/vibration"], program="python3.11", pid=7004,
                       queued=4096, age=4_266_000_000, dropped={"oldest": 18_233}, waiting=False)
    bus.add_subscriber("display", ["plant/yard/door", "plant/yard/temperature"], program="display", pid=7005)
    bus.add_subscriber("old-display", ["plant/yard/door"], program="display", pid=7006, cut=True, waiting=False, queued=1200,
                       age=61_000_000_000, dropped={"cut": 310})
    bus.add_event("refused", "motor/1/speed", 0, 5400, "motor-control-b", code=3)
    bus.remove_subscriber(bus.add_subscriber("probe", ["motor/1/speed"], program="msgbus", pid=7100, queued=12))
    for number in range(topics):
        bus.add_publisher(f"bulk/{number:04}", rate=bus.random.lognormvariate(2, 2), pid=6000 + number % 9,
                          program=f"bulk-{number % 9}")
        bus.add_subscriber(f"bulk-reader-{number:04}", [f"bulk/{number:04}"], program="bulk-reader", pid=8000 + number % 11)
    return bus


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("directory")
    parser.add_argument("--topics", type=int, default=0, help="how many more topics and subscribers")
    arguments = parser.parse_args()
    FakeMonitor(arguments.directory, example_bus(arguments.topics)).thread.join()


if __name__ == "__main__":
    main()
