"""Defends that the dashboard's port serves one browser, for the page that it serves itself, and only to read: other users,
other pages in the same browser and other requests get nothing, and the server does not hear of them.
"""

import http.client
import json
import os
import re
import signal
import socket

from dashboard import DashboardTest
from fake_monitor import FakeBus
from harness import DONE, FAILED, USAGE, main, wait_until

PAGE = os.path.join(os.path.dirname(os.path.abspath(__file__)), "../../apps/msgbus/dashboard/page")
TYPES = {"css": "text/css; charset=utf-8", "js": "text/javascript; charset=utf-8", "svg": "image/svg+xml"}
MARKUP_OF_TEXT = r"innerHTML|outerHTML|insertAdjacentHTML|document\.write|\beval\b|\bstyle=|\bon\w+=\""


def page_files():
    """Returns: the paths of the page's files, below its folder."""
    return sorted(os.path.relpath(os.path.join(folder, name), PAGE) for folder, _, names in os.walk(PAGE) for name in names)


class Admission(DashboardTest):
    """Who is let in."""

    def test_token_lets_in_once(self):
        self.start_dashboard()
        reply = self.request(self.token_target)
        self.assertEqual(reply.status, 303)
        attributes = reply.headers["Set-Cookie"].split("; ")[1:]
        self.assertEqual(attributes, ["HttpOnly", "SameSite=Strict", "Path=/"])
        cookie = reply.headers["Set-Cookie"].partition(";")[0]
        self.assertEqual(self.request("/", cookie=cookie).status, 200)
        again = self.request(self.token_target)
        self.assertEqual(again.status, 403)
        self.assertIn("has been used", again.body)
        self.assertNotIn("Set-Cookie", again.headers)

    def test_address_opened_again_by_the_browser_that_was_let_in_shows_the_page(self):
        self.start_dashboard()
        cookie = self.enter()
        reply = self.request(self.token_target, cookie=cookie)
        self.assertEqual((reply.status, reply.headers["Location"]), (303, "/"))

    def test_head_does_not_use_the_token_up(self):
        self.start_dashboard()
        self.assertNotIn("Set-Cookie", self.request(self.token_target, method="HEAD").headers)
        self.enter()

    def test_wrong_token_is_refused(self):
        self.start_dashboard()
        for target in ("/?token=", "/?token=" + "0" * 64, self.token_target[:-1], self.token_target + "0"):
            self.assertEqual(self.request(target).status, 403, target)
        self.enter()

    def test_tokens_and_cookies_are_new_each_time(self):
        self.start_dashboard()
        first = self.token_target, self.enter().partition("=")[2]
        self.start_dashboard()
        second = self.token_target, self.enter().partition("=")[2]
        self.assertEqual(len({*first, *second}), 4)

    def test_nothing_is_served_without_the_cookie(self):
        self.start_dashboard()
        monitor = self.start_monitor()
        name, _, value = self.enter().partition("=")
        other_value = ("1" if value[0] == "0" else "0") + value[1:]
        for cookie in (None, f"{name}=", f"{name}={other_value}", f"other={value}", value, f"x{name}={value}", "; ;=;"):
            for target in ("/", "/main.js", "/page.css", "/v1/state", "/v1/events", "/metrics", "/nothing"):
                self.assertEqual(self.request(target, cookie=cookie).status, 401, (cookie, target))
        self.assertEqual(monitor.seen, [])
        self.assertEqual(self.request("/v1/state", cookie=f"theirs=1; {name}={value}; more=2").status, 200)

    def test_foreign_host_is_refused(self):
        self.start_dashboard()
        monitor = self.start_monitor()
        cookie = self.enter()
        for host in (f"bus.example:{self.port}", "127.0.0.1", f"127.0.0.1:{self.port + 1}", f"127.0.0.1:{self.port}.example",
                     f"127.0.0.1.example:{self.port}", "", [f"127.0.0.1:{self.port}", "bus.example"], []):
            reply = self.request("/v1/state", headers={"Host": host}, cookie=cookie)
            self.assertEqual((reply.status, "error" in json.loads(reply.body)), (403, True), host)
        self.assertEqual(monitor.seen, [])
        self.assertEqual(self.request("/v1/state", headers={"Host": f"localhost:{self.port}"}, cookie=cookie).status, 200)

    def test_foreign_host_does_not_use_the_token_up(self):
        self.start_dashboard()
        self.assertEqual(self.request(self.token_target, headers={"Host": "bus.example"}).status, 403)
        self.enter()

    def test_foreign_origin_is_refused(self):
        self.start_dashboard()
        monitor = self.start_monitor()
        cookie = self.enter()
        for origin in ("http://bus.example", "null", "", f"https://127.0.0.1:{self.port}", f"http://127.0.0.1:{self.port + 1}",
                       f"http://127.0.0.1:{self.port}/"):
            self.assertEqual(self.request("/v1/state", headers={"Origin": origin}, cookie=cookie).status, 403, origin)
        self.assertEqual(monitor.seen, [])
        own = {"Origin": f"http://127.0.0.1:{self.port}"}
        self.assertEqual(self.request("/v1/state", headers=own, cookie=cookie).status, 200)

    def test_only_this_machine_reaches_the_port(self):
        self.start_dashboard()
        with open("/proc/net/tcp", encoding="ascii") as table:
            listening = [line.split()[1] for line in table if line.split()[3] == "0A"]
        self.assertIn(f"0100007F:{self.port:04X}", listening)
        self.assertNotIn(f"00000000:{self.port:04X}", listening)


class Requests(DashboardTest):
    """What is asked for."""

    def test_only_reading_methods_are_served(self):
        self.start_dashboard()
        monitor = self.start_monitor()
        cookie = self.enter()
        for method in ("POST", "PUT", "DELETE", "PATCH", "OPTIONS", "TRACE", "CONNECT", "NONSENSE"):
            reply = self.request("/v1/topics/a/description", method=method, cookie=cookie)
            self.assertEqual((reply.status, reply.headers["Allow"]), (405, "GET, HEAD"), method)
        self.assertEqual(monitor.seen, [])

    def test_only_the_page_and_what_it_reads_are_served(self):
        self.start_dashboard()
        monitor = self.start_monitor()
        cookie = self.enter()
        for target in ("/healthz", "/v1", "/v1/", "/v2/state", "/v1/../healthz", "/v1/./state", "/v1/..", "//v1/state",
                       "/metrics/", "/metricsx", "/index.html", "/../page.css", "/etc/passwd", "v1/state", "*",
                       f"http://127.0.0.1:{self.port}/v1/state"):
            self.assertEqual(self.request(target, cookie=cookie).status, 404, target)
        self.assertEqual(monitor.seen, [])

    def test_requests_that_cannot_be_read_are_refused(self):
        self.start_dashboard()
        self.assertIn(b" 400 ", self.send_raw(b"\x16\x03\x01 what is this\r\n\r\n"))
        self.assertIn(b" 400 ", self.send_raw(b"GET / HTTP/1.1\r\nno colon\r\n\r\n"))
        self.assertIn(b" 431 ", self.send_raw(b"GET / HTTP/1.1\r\nX: " + b"x" * 20000 + b"\r\n\r\n"))
        self.enter()

    def test_idle_connections_do_not_keep_a_browser_out_for_ever(self):
        self.start_dashboard()
        idle = [socket.create_connection(("127.0.0.1", self.port)) for _ in range(100)]
        for connection in idle:
            self.addCleanup(connection.close)

        def is_served():
            try:
                return self.request("/").status == 401
            except (ConnectionError, http.client.HTTPException):
                return False

        wait_until(self, is_served, "the idle connections to be closed")

    def test_state_and_metrics_come_from_the_server(self):
        self.start_dashboard()
        bus = FakeBus(topics=300)
        monitor = self.start_monitor(bus)
        cookie = self.enter()
        reply = self.request("/v1/state?now", cookie=cookie)
        self.assertEqual((reply.status, reply.headers["Content-Type"]), (200, "application/json"))
        self.assertEqual(len(json.loads(reply.body)["topics"]), len(bus.publishers))
        self.assertTrue(self.request("/metrics", cookie=cookie).body.endswith("# EOF\n"))
        head = self.request("/v1/state", method="HEAD", cookie=cookie)
        self.assertEqual((head.status, head.body), (200, ""))
        self.assertEqual(self.request("/v1/nothing", cookie=cookie).status, 404)
        self.assertEqual([(method, path) for method, path, _ in monitor.seen],
                         [("GET", "/v1/state?now"), ("GET", "/metrics"), ("HEAD", "/v1/state"), ("GET", "/v1/nothing")])
        self.assertFalse([headers for _, _, headers in monitor.seen if "Cookie" in headers], "the cookie is no business of it")

    def test_events_come_one_by_one(self):
        self.start_dashboard()
        bus = FakeBus()
        monitor = self.start_monitor(bus)
        cookie = self.enter()
        bus.add_event("serving", "", 0, 0, "")
        connection = self.open_request("/v1/events", headers={"Last-Event-ID": "0"}, cookie=cookie)
        response = connection.getresponse()
        self.assertEqual(response.headers["Content-Type"], "text/event-stream")
        self.assertEqual(response.readline(), b"id: 1\n")
        bus.add_event("draining", "", 0, 0, "")
        lines = iter(response.readline, b"")
        self.assertIn(b"event: draining\n", lines)
        self.assertEqual(monitor.seen[0][2]["Last-Event-ID"], "0")

        response.close()
        connection.close()
        wait_until(self, lambda: monitor.ended_streams == 1, "the server to be rid of the stream")

    def test_every_response_is_guarded(self):
        self.start_dashboard()
        self.start_monitor()
        cookie = self.enter()
        for target, status in (("/", 200), ("/main.js", 200), ("/v1/state", 200), ("/v1/nothing", 404), ("/nothing", 404),
                               (self.token_target, 303)):
            reply = self.request(target, cookie=cookie)
            self.assertEqual(reply.status, status)
            self.assertEqual(reply.headers["Content-Security-Policy"],
                             "default-src 'none'; script-src 'self'; style-src 'self'; connect-src 'self'; img-src 'self' data:; "
                             "frame-ancestors 'none'; base-uri 'none'; form-action 'none'")
            self.assertEqual(reply.headers["X-Content-Type-Options"], "nosniff")
            self.assertEqual(reply.headers["Referrer-Policy"], "no-referrer")
            self.assertEqual(reply.headers["Cache-Control"], "no-store")
            self.assertNotIn("Access-Control-Allow-Origin", reply.headers)


class PageFiles(DashboardTest):
    """The page, without a browser."""

    def test_files_are_those_of_the_source(self):
        self.start_dashboard()
        cookie = self.enter()
        for name in page_files():
            target = "/" if name == "index.html" else f"/{name}"
            reply = self.request(target, cookie=cookie)
            with open(os.path.join(PAGE, name), encoding="utf-8") as file:
                self.assertEqual(reply.body, file.read(), name)
            self.assertEqual(reply.headers["Content-Type"], TYPES.get(name.rpartition(".")[2], "text/html; charset=utf-8"))

    def test_page_refers_to_its_own_files_only(self):
        names = page_files()
        for name in names:
            with open(os.path.join(PAGE, name), encoding="utf-8") as file:
                text = file.read()
            for reference in re.findall(r"(?:src|href|from|import)[=\s]+\"([^\"#]+)\"", text):
                path = reference[1:] if reference.startswith("/") else os.path.join(os.path.dirname(name), reference)
                self.assertIn(os.path.normpath(path), names, name)
            self.assertNotRegex(text.replace("http://www.w3.org/2000/svg", ""), r"https?://|url\(|@import", name)

    def test_page_never_makes_markup_of_text(self):
        for name in page_files():
            with open(os.path.join(PAGE, name), encoding="utf-8") as file:
                self.assertNotRegex(file.read(), MARKUP_OF_TEXT)


class AwayServers(DashboardTest):
    """A server that is not there."""

    def expect_away(self, cookie, part):
        reply = self.request("/v1/state", cookie=cookie)
        self.assertEqual((reply.status, reply.headers["Content-Type"]), (503, "application/json"))
        self.assertIn(part, json.loads(reply.body)["error"])

    def test_absent_server_is_reported_until_it_is_back(self):
        self.start_dashboard()
        cookie = self.enter()
        self.expect_away(cookie, "there is no server")
        for _ in range(2):
            monitor = self.start_monitor()
            self.assertEqual(self.request("/v1/state", cookie=cookie).status, 200)
            monitor.close()
            self.expect_away(cookie, "there is no server")

    def test_killed_server_is_reported(self):
        self.start_dashboard()
        cookie = self.enter()
        with socket.socket(socket.AF_UNIX) as left_behind:
            left_behind.bind(os.path.join(self.runtime, "monitor.sock"))
        self.expect_away(cookie, "there is no server")

    def test_silent_server_is_reported(self):
        self.start_dashboard()
        cookie = self.enter()
        with socket.socket(socket.AF_UNIX) as silent:
            silent.bind(os.path.join(self.runtime, "monitor.sock"))
            silent.listen()
            self.expect_away(cookie, "does not answer")

    def test_server_that_ends_before_it_answers_is_reported(self):
        self.start_dashboard()
        cookie = self.enter()
        with socket.socket(socket.AF_UNIX) as listener:
            listener.bind(os.path.join(self.runtime, "monitor.sock"))
            listener.listen()
            connection = self.open_request("/v1/state", cookie=cookie)
            peer, _ = listener.accept()
            peer.recv(10)
            peer.close()
            self.assertEqual(connection.getresponse().status, 503)

    def test_missing_runtime_directory_is_reported(self):
        self.start_dashboard()
        cookie = self.enter()
        os.rmdir(self.runtime)
        self.expect_away(cookie, "runtime directory")
        os.mkdir(self.runtime, 0o700)
        self.start_monitor()
        self.assertEqual(self.request("/v1/state", cookie=cookie).status, 200)


class Command(DashboardTest):
    """The command line."""

    def test_signals_end_it_and_its_connections(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP):
            process = self.start_dashboard()
            monitor = self.start_monitor()
            stream = self.open_request("/v1/events", cookie=self.enter())
            stream.getresponse()
            process.signal(number)
            process.expect_exit(DONE)
            wait_until(self, lambda made=monitor: made.ended_streams == 1, "the server to be rid of the stream")
            monitor.close()
            with self.assertRaises(ConnectionRefusedError):
                socket.create_connection(("127.0.0.1", self.port))

    def test_port_can_be_chosen(self):
        self.start_dashboard()
        taken = self.port
        other = self.msgbus("dashboard", "--port", str(taken))
        other.expect_error(f"cannot listen at port {taken} of 127.0.0.1: Address already in use")
        other.expect_exit(FAILED)
        for bad in ("65536", "-1", "http", ""):
            process = self.msgbus("dashboard", "--port", bad)
            process.expect_error(f"'{bad}' is not a port")
            process.expect_exit(USAGE)

    def test_port_is_free_again_at_once(self):
        process = self.start_dashboard()
        self.enter()
        process.signal(signal.SIGINT)
        process.expect_exit(DONE)
        port = self.port
        self.start_dashboard("--port", str(port))
        self.assertEqual(self.port, port)

    def test_browser_is_opened_only_when_asked(self):
        folder = os.path.dirname(self.runtime)
        opened = os.path.join(folder, "opened")
        program = os.path.join(folder, "xdg-open")
        with open(program, "w", encoding="utf-8") as script:
            script.write(f'#!/bin/sh\nprintf %s "$1" >"{opened}.part" && mv "{opened}.part" "{opened}"\n')
        os.chmod(program, 0o700)
        self.environment["PATH"] = folder + os.pathsep + self.environment["PATH"]
        self.start_dashboard()
        self.enter()
        self.assertFalse(os.path.exists(opened))
        self.start_dashboard("--open")
        wait_until(self, lambda: os.path.exists(opened), "the browser to be opened")
        with open(opened, encoding="utf-8") as file:
            self.assertEqual(file.read(), self.address)

    def test_missing_browser_is_reported(self):
        self.environment["PATH"] = self.runtime
        process = self.start_dashboard("--open")
        process.expect_error("cannot run xdg-open: No such file or directory; open the address by hand")
        self.enter()


if __name__ == "__main__":
    main()
