"""The account of a real server over HTTP: what it says, who may ask, events as they happen, and what is left behind."""

import http.client
import json
import os
import re
import signal
import socket
import sys

from harness import BIN, PATIENCE, USAGE, BusTest, main, wait_until

from prometheus_client.openmetrics.parser import text_string_to_metric_families

# Connects to the monitor, hands the connection to the process that started it, and becomes a publisher: a connection that
# belongs to the publisher's process.
PUBLISHER_WITH_CONNECTION = """
import os, socket, sys
monitor = socket.socket(socket.AF_UNIX)
monitor.connect(sys.argv[1])
socket.send_fds(socket.socket(fileno=int(sys.argv[2])), [b"x"], [monitor.fileno()])
os.execv(sys.argv[3], sys.argv[3:])
"""


class UnixConnection(http.client.HTTPConnection):
    """HTTP over a Unix socket: the one at a path, or one that is connected."""

    def __init__(self, path, connected=None):
        super().__init__("localhost", timeout=PATIENCE)
        self.path = path
        self.connected = connected

    def connect(self):
        self.sock = self.connected or socket.socket(socket.AF_UNIX)
        self.sock.settimeout(PATIENCE)
        if not self.connected:
            self.sock.connect(self.path)


class MonitorTest(BusTest):
    def setUp(self):
        super().setUp()
        self.socket_path = os.path.join(self.runtime, "monitor.sock")

    def connection(self, connected=None):
        connection = UnixConnection(self.socket_path, connected)
        self.addCleanup(connection.close)
        return connection

    def request(self, target, method="GET", connection=None, **options):
        """Returns: the status, and the body as text."""
        used = connection or self.connection()
        used.request(method, target, **options)
        response = used.getresponse()
        body = response.read().decode()
        if not connection:
            used.close()
        return response.status, body

    def get(self, target):
        status, body = self.request(target)
        self.assertEqual(status, 200, body)
        return body

    def json(self, target):
        return json.loads(self.get(target))

    def metrics(self):
        families = text_string_to_metric_families(self.get("/metrics"))
        return {(sample.name, tuple(sample.labels.items())): sample.value
                for family in families for sample in family.samples}

    def events(self, target="/v1/events"):
        connection = self.connection()
        connection.request("GET", target)
        response = connection.getresponse()
        self.assertEqual(response.status, 200)
        return response

    def next_event(self, stream):
        """Returns: the kind and the content of the next event."""
        kind = None
        while True:
            line = stream.readline().decode().rstrip("\n")
            if line.startswith("event: "):
                kind = line.removeprefix("event: ")
            elif line.startswith("data: "):
                return kind, json.loads(line.removeprefix("data: "))


class Monitor(MonitorTest):
    def test_state_accounts_for_every_value(self):
        self.server()
        reader = self.sub("temperature", name="display", options=("-n", "3"))
        self.publish("temperature", 21, 22, -23)
        self.publish("nobody", 1)
        reader.expect_all(["temperature 21", "temperature 22", "temperature -23"])
        reader.expect_exit(0)

        wait_until(self, lambda: self.json("/v1/state")["bus"]["flows"]["taken"] == 3, "the account to be up to date")
        state = self.json("/v1/state")
        self.assertEqual(state["version"], 1)
        self.assertEqual(state["server"]["state"], "serving")
        self.assertTrue(state["bus"]["adds_up"])
        self.assertEqual(state["bus"]["accepted"], 4)
        self.assertEqual(state["bus"]["without_subscriber"], 1)
        self.assertEqual(state["bus"]["flows"]["taken"], 3)
        self.assertEqual(self.json("/v1/topics/temperature")["last_value"], -23)
        self.assertEqual(self.request("/v1/topics/humidity")[0], 404)

    def test_topic_of_any_bytes_is_found(self):
        self.server()
        reader = self.sub("a/b \\ \u00e9")

        topic = self.json("/v1/topics/a%2Fb%20%5C%20%C3%A9")

        self.assertEqual(topic["topic"], "a/b \\\\ \u00e9")
        self.assertEqual(len(topic["subscribers"]), 1)
        self.assertEqual(self.json("/v1/subscribers")["subscribers"][0]["pid"], reader.popen.pid)

    def test_counters_of_the_bus_never_decrease(self):
        self.server()
        before = self.metrics()
        for i in range(3):
            reader = self.sub("temperature", options=("-n", "1"))
            self.publish("temperature", 1, 2)
            reader.expect_exit(0)
            wait_until(self, lambda count=2 * i + 2: self.json("/v1/state")["bus"]["accepted"] == count, "a fresh account")
            after = self.metrics()
            for (name, labels), value in before.items():
                if name.endswith("_total") and not name.startswith(("msgbus_topic_", "msgbus_subscriber_")):
                    self.assertGreaterEqual(after[name, labels], value, name)
            before = after
        self.assertEqual(before["msgbus_values_accepted_total", ()], 6)
        self.assertEqual(before["msgbus_account_adds_up", ()], 1)

    def test_events_come_as_they_happen_until_the_server_stops(self):
        server = self.server()
        stream = self.events()
        reader = self.sub("temperature", name="display")
        self.assertEqual(self.next_event(stream)[1]["name"], "display")
        reader.kill()
        kind, event = self.next_event(stream)
        self.assertEqual((kind, event["id"] != 0, event["pid"]), ("subscriber-died", True, reader.popen.pid))
        again = self.events(f"/v1/events?after={event['number'] - 1}")
        self.assertEqual(self.next_event(again), (kind, event))

        server.stop()

        self.assertEqual(self.next_event(stream)[0], "stopping")
        self.assertEqual(stream.read().strip(), b"")

    def test_description_comes_from_the_process_that_publishes(self):
        self.server()
        own, theirs = socket.socketpair()
        self.addCleanup(own.close)
        publisher = self.start(sys.executable, "-c", PUBLISHER_WITH_CONNECTION, self.socket_path, str(theirs.fileno()),
                               f"{BIN}/msgbus", "pub", "temperature", "-l", "-v", pass_fds=(theirs.fileno(),))
        theirs.close()
        descriptor = socket.recv_fds(own, 1, 1)[1][0]
        publisher.expect_error("publishing to topic 'temperature'")
        connection = self.connection(socket.socket(fileno=descriptor))
        target = "/v1/topics/temperature/description"

        self.assertEqual(self.request(target, "PUT", body="bool")[0], 403)
        self.assertEqual(self.request(target, "PUT", connection, body="no type")[0], 400)
        self.assertEqual(self.request(target, "PUT", connection, body="fixed;step=1/10;unit=K"), (204, ""))

        description = self.json("/v1/topics/temperature")["description"]
        self.assertEqual((description["type"], description["denominator"], description["unit"]), ("fixed", 10, "K"))
        self.assertEqual(self.request("/v1/topics/humidity/description", "PUT", body="bool")[0], 404)

    def test_drain_is_not_healthy(self):
        server = self.server("--drain-limit", "60000")
        reader = self.msgbus("sub", "temperature", "--name", "slow")
        reader.expect_error("subscribed")
        self.assertEqual(self.get("/healthz"), "ok\n")
        reader.pause()
        self.publish("temperature", *range(1000))  # more than is offered in memory that it shares
        server.signal(signal.SIGUSR1)
        server.expect_error("Draining")

        status, reason = self.request("/healthz")

        self.assertEqual(status, 503)
        self.assertIn("drains", reason)

    def test_health_is_answered_while_all_connections_are_taken(self):
        self.server()
        crowd = []
        for _ in range(100):
            client = socket.socket(socket.AF_UNIX)
            self.addCleanup(client.close)
            client.settimeout(PATIENCE)
            client.connect(self.socket_path)
            client.send(b"GET /v1/state HTTP/1.1\r\n")
            crowd.append(client)
        self.assertEqual(self.get("/healthz"), "ok\n")
        self.expect_working()

    def test_address_is_served_to_those_with_the_token(self):
        server = self.server("--monitor", "127.0.0.1:0", log_level="info")
        line = server.expect_error("served on http://")
        address = re.search(r"http://([0-9.]+:\d+)", line)[1]
        with open(f"{self.runtime}/monitor.token", encoding="ascii") as file:
            token = file.read().strip()

        def status(**headers):
            connection = http.client.HTTPConnection(address, timeout=PATIENCE)
            self.addCleanup(connection.close)
            return self.request("/metrics", connection=connection, headers=headers)[0]

        self.assertEqual(status(), 401)
        self.assertEqual(status(Authorization=f"Bearer {token[::-1]}"), 401)
        self.assertEqual(status(Authorization=f"Bearer {token}"), 200)
        self.assertEqual(status(Authorization=f"Bearer {token}", Host="example.com"), 403)
        server.stop()

    def test_token_of_the_operator_is_used(self):
        path = os.path.join(self.runtime, os.pardir, "token")
        with open(os.open(path, os.O_CREAT | os.O_WRONLY, 0o600), "w", encoding="ascii") as file:
            file.write("0123456789abcdef\n")
        server = self.server("--monitor", "[::1]:0", "--monitor-token-file", path, log_level="info")
        port = int(re.search(r"http://\[::1\]:(\d+)", server.expect_error("served on"))[1])
        connection = http.client.HTTPConnection("::1", port, timeout=PATIENCE)
        self.addCleanup(connection.close)

        status, _ = self.request("/healthz", connection=connection,
                                 headers={"Authorization": "Bearer 0123456789abcdef", "Host": f"[::1]:{port}"})

        self.assertEqual(status, 200)
        self.assertNotIn("monitor.token", os.listdir(self.runtime))

    def test_socket_of_a_killed_server_is_replaced(self):
        self.server().kill()
        self.assertTrue(os.path.exists(self.socket_path))

        server = self.server()

        self.assertEqual(self.get("/healthz"), "ok\n")
        server.stop()

    def test_server_without_a_monitor_has_none(self):
        server = self.server("--no-monitor")
        self.assertNotIn("monitor.sock", os.listdir(self.runtime))
        server.stop()

    def test_bad_options_are_usage_errors(self):
        for options in (["--monitor", "0.0.0.0:80"], ["--monitor", "127.0.0.1"], ["--monitor", "127.0.0.1:1", "--no-monitor"],
                        ["--monitor", "127.0.0.1:1", "--no-account"], ["--monitor-token-file", "token"]):
            process = self.start(f"{BIN}/msgbusd", *options)
            process.expect_error("msgbusd: --monitor")
            process.expect_exit(USAGE)

    def test_token_that_others_may_read_is_refused(self):
        path = os.path.join(self.runtime, "token")
        with open(path, "w", encoding="ascii") as file:
            file.write("0123456789abcdef\n")
        os.chmod(path, 0o644)
        process = self.start(f"{BIN}/msgbusd", "--monitor", "127.0.0.1:0", "--monitor-token-file", path)
        process.expect_error("is open to other users")
        process.expect_exit(1)

    def test_reading_the_account_again_and_again_leaves_nothing_behind(self):
        server = self.server()
        connection = self.connection()
        descriptors = f"/proc/{server.popen.pid}/fd"
        before = len(os.listdir(descriptors))
        for _ in range(50):
            self.get("/v1/state")
        self.assertEqual(self.request("/metrics", connection=connection)[0], 200)
        connection.close()
        wait_until(self, lambda: len(os.listdir(descriptors)) <= before, "the server to close its connections")


if __name__ == "__main__":
    main()
