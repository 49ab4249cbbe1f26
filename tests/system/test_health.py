"""A service manager hears when the bus serves, drains and stops, and a beat only while values go through it."""

import os
import signal
import socket
import tempfile

from harness import MODE, PATIENCE, BusTest, Calls, main, wait_until


class Health(BusTest):

    def setUp(self):
        super().setUp()
        folder = tempfile.TemporaryDirectory(prefix="borven-notify-")
        self.addCleanup(folder.cleanup)
        self.notify = socket.socket(socket.AF_UNIX, socket.SOCK_DGRAM)
        self.addCleanup(self.notify.close)
        self.notify.settimeout(PATIENCE)
        path = os.path.join(folder.name, "socket")
        self.notify.bind(path)
        self.environment["NOTIFY_SOCKET"] = path

    def watch(self, period_us):
        self.environment["WATCHDOG_USEC"] = str(period_us)

    def next(self):
        return self.notify.recv(4096).decode()

    def next_but_beats(self):
        while (report := self.next()) == "WATCHDOG=1":
            pass
        return report

    def test_start_and_stop_are_reported(self):
        server = self.server()
        self.assertEqual(self.next(), "READY=1\nSTATUS=Serving")
        server.stop()
        self.assertEqual(self.next(), "STOPPING=1\nSTATUS=Stopping")

    def test_beats_come_while_the_bus_delivers(self):
        self.watch(100000)
        server = self.server()
        self.assertEqual(self.next_but_beats(), "READY=1\nSTATUS=Serving")
        for _ in range(5):
            self.assertEqual(self.next(), "WATCHDOG=1")
        server.expect_error("New message (~health-")
        self.expect_working()
        server.stop()
        self.assertEqual(self.next_but_beats(), "STOPPING=1\nSTATUS=Stopping")

    def test_no_beat_comes_without_a_delivery(self):
        self.watch(100000)
        server = self.server("--hold-pushes", "4000000000", log_level="off")
        self.assertEqual(self.next(), "READY=1\nSTATUS=Serving")
        self.notify.settimeout(1)
        with self.assertRaises(TimeoutError):
            self.next()
        server.stop()

    def test_beats_come_although_every_total_is_used_up(self):
        self.watch(100000)
        totals = ("publishers", "subscribers", "handshakes")
        self.server(*(option for total in totals for option in ("--limit", f"{total}=1")))
        client = Calls(self)

        def take(call):
            # A beat has one of its own for a moment.
            wait_until(self, lambda: client.call(call)[0] == "0", f"'{call}' to be accepted")
        take("publisher t")

        def take_subscriber():
            code, number = client.call("start reader")
            return code == "0" and client.call(f"finish {number} commit")[0] == "0"
        wait_until(self, take_subscriber, "a subscriber to be accepted")
        take("start half")
        for _ in range(40):  # more than the socket holds
            self.assertIn(self.next(), ("READY=1\nSTATUS=Serving", "WATCHDOG=1"))

    def test_a_drain_keeps_the_watchdog_quiet(self):
        server_options = ("--drain-limit", "60000")
        self.watch(100000)
        server = self.server(*server_options, log_level="info")
        reader = self.sub("t")
        reader.pause()
        self.publish("t", *range(2000))
        server.signal(signal.SIGUSR1)
        while self.next() != "STATUS=Draining, then stopping":
            pass
        for _ in range(5):
            self.assertEqual(self.next(), "WATCHDOG=1")
        server.stop()
        reader.kill()

    def test_a_watched_server_has_one_thread_more(self):
        self.watch(30000000)
        server = self.server("--no-placement")

        def names():
            folder = f"/proc/{server.popen.pid}/task"
            found = []
            for task in os.listdir(folder):
                try:
                    with open(f"{folder}/{task}/comm", encoding="utf-8") as comm:
                        found.append(comm.read().strip())
                except (FileNotFoundError, ProcessLookupError):
                    pass
            return found
        wait_until(self, lambda: names().count("health") == 1, "the thread of the health check")
        self.assertIn("serve-static" if MODE == "static" else "accept", names())


if __name__ == "__main__":
    main()
