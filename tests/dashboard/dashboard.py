"""The command `msgbus dashboard` as a real process, and a client that sends it what a test wants."""

import http.client
import os
import socket
import sys
import urllib.parse

sys.path.insert(0, os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "system"))
os.environ.setdefault("BORVEN_TEST_MODE", "dynamic")

import harness  # noqa: E402
from fake_monitor import FakeBus, FakeMonitor  # noqa: E402


class Reply:
    """A response as it came."""

    def __init__(self, response):
        self.status = response.status
        self.headers = response.headers
        self.body = response.read().decode()


class DashboardTest(harness.BusTest):
    """A test with a dashboard, and a made-up server when it wants one."""

    def start_dashboard(self, *options, **more):
        """Starts it. Returns: the process; self.address is what it printed."""
        process = self.msgbus("dashboard", *options, **more)
        self.address = process.next_line()
        parts = urllib.parse.urlsplit(self.address)
        self.port = parts.port
        self.token_target = f"{parts.path}?{parts.query}"
        return process

    def start_monitor(self, bus=None):
        monitor = FakeMonitor(self.runtime, bus or FakeBus())
        self.addCleanup(lambda: monitor.is_closing or monitor.close())
        return monitor

    def open_request(self, target, method="GET", headers=None, cookie=None):
        """Sends a request. Returns: the connection, whose response has not been read."""
        connection = http.client.HTTPConnection("127.0.0.1", self.port, timeout=harness.PATIENCE)
        self.addCleanup(connection.close)
        connection.putrequest(method, target, skip_host=True, skip_accept_encoding=True)
        fields = {"Host": f"127.0.0.1:{self.port}", **(headers or {})}
        if cookie:
            fields["Cookie"] = cookie
        for name, value in fields.items():
            for each in value if isinstance(value, list) else [value]:
                connection.putheader(name, each)
        connection.endheaders()
        return connection

    def request(self, target, method="GET", headers=None, cookie=None):
        connection = self.open_request(target, method, headers, cookie)
        try:
            return Reply(connection.getresponse())
        finally:
            connection.close()

    def enter(self):
        """Opens the printed address. Returns: the cookie that it gave."""
        reply = self.request(self.token_target)
        self.assertEqual((reply.status, reply.headers["Location"]), (303, "/"))
        return reply.headers["Set-Cookie"].partition(";")[0]

    def send_raw(self, data):
        """Returns: all that comes back for these bytes."""
        with socket.create_connection(("127.0.0.1", self.port), timeout=harness.PATIENCE) as connection:
            connection.sendall(data)
            received = b""
            try:
                while piece := connection.recv(65536):
                    received += piece
            except ConnectionResetError:
                pass  # the rest of a request that it did not read
            return received
