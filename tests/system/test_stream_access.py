"""Live values over WebSocket: who is let in, and that no client harms another or the program."""

import json
import os
import socket
import struct
import subprocess
from unittest import mock

from harness import PATIENCE, main
from websocket_client import BINARY, PING, PONG, SDK, TEXT, V1, Closed, StreamTest


class StreamAccess(StreamTest):

    def test_the_client_chooses_the_subprotocol(self):
        self.server()
        process = self.stream("t")
        for offered, chosen in (((SDK,), SDK), ((V1, SDK), V1), (("other", SDK, V1), SDK)):
            client = self.client(process, *offered)
            self.assertEqual(client.answer["sec-websocket-protocol"], chosen)
            self.assertEqual(list(client.channels()), ["t"])
        self.expect_refused(process, 400, "foxglove.websocket.v1 or foxglove.sdk.v1", "other")
        self.expect_refused(process, 400, "foxglove.websocket.v1 or foxglove.sdk.v1")
        process.expect_error("refused a connection: the client must offer the subprotocol")
        self.finish(process)

    def test_pages_of_elsewhere_are_kept_out(self):
        self.server()
        process = self.stream("t", "--allow-origin", "https://Plots.example:444/")
        for origin in ("https://app.foxglove.dev", "file://", "http://localhost.example", "http://127.0.0.1.example",
                       "http://localhost:80.example", "https://plots.example", "http://plots.example:444",
                       "https://plots.example:4444", "http://localhost@evil.example"):
            self.expect_refused(process, 403,
                                f"a page of '{origin}' may not connect; '--allow-origin {origin}'", V1, Origin=origin)
        for origin in ("null", "x"):
            self.expect_refused(process, 403, f"a page of '{origin}' may not connect; there is no option", V1, Origin=origin)
        for origin in ("http://localhost:8080", "https://127.0.0.1", "http://[::1]:1", "https://plots.example:444"):
            self.assertIn("t", self.client(process, Origin=origin).channels())
        self.expect_refused(process, 403, "Host", V1, Host=f"rebound.example:{process.port}")
        self.assertIn("t", self.client(process, Host=f"localhost:{process.port}").channels())
        process.expect_error("refused a connection: a page of 'https://app.foxglove.dev'")
        self.finish(process)

    def test_other_users_are_kept_out(self):
        if os.geteuid() != 0:
            self.skipTest("needs root, to be another user")
        self.server()
        script = ("import sys; from websocket_client import Client, Refused\n"
                  "try: print(list(Client(int(sys.argv[1])).channels()))\n"
                  "except Refused as refused: print(refused)")

        def of_nobody(process):
            result = subprocess.run(["/usr/bin/python3", "-B", "-c", script, str(process.port)], user=65534, cwd="/", check=True,
                                    env={**os.environ, "PYTHONPATH": self.readable}, stdout=subprocess.PIPE, timeout=60)
            return result.stdout.decode()

        self.readable = os.path.join(os.path.dirname(self.runtime), "modules")  # of a folder that others may not enter
        os.chmod(os.path.dirname(self.runtime), 0o755)
        os.mkdir(self.readable)
        for name in ("harness.py", "websocket_client.py"):
            with open(os.path.join(os.path.dirname(__file__), name), encoding="utf-8") as source, \
                    open(os.path.join(self.readable, name), "w", encoding="utf-8") as copy:
                copy.write(source.read())
        process = self.stream("t")
        self.assertIn("403: user 65534 may not connect; --any-user", of_nobody(process))
        self.finish(process)
        process = self.stream("t", "--any-user")
        self.assertEqual(of_nobody(process), "['t']\n")
        self.finish(process)

    def test_connections_that_say_nothing_keep_nobody_out(self):
        self.server()
        process = self.stream("t")
        reader = self.subscribed(process)
        for _ in range(100):
            self.addCleanup(socket.create_connection(("127.0.0.1", process.port), timeout=60).close)
        self.assertIn("t", self.client(process).channels())
        process.expect_error("refused a connection: it did not get through its handshake")
        if os.geteuid() == 0:
            script = ("import socket, sys\n"
                      "held = [socket.create_connection(('127.0.0.1', int(sys.argv[1]))) for _ in range(200)]\n"
                      "print({each.recv(4096)[:12] for each in held}, flush=True); input()")
            with subprocess.Popen(["/usr/bin/python3", "-B", "-c", script, str(process.port)], user=65534, cwd="/",
                                  stdin=subprocess.PIPE, stdout=subprocess.PIPE) as foreign:
                self.assertEqual(foreign.stdout.readline(), b"{b'HTTP/1.1 403'}\n")
                self.assertIn("t", self.client(process).channels())
                foreign.communicate(b"\n")
        self.publish("t", 1)
        self.assertEqual(reader.integer(), (7, 1))
        self.finish(process)

    def test_what_is_no_handshake_is_refused(self):
        self.server()
        process = self.stream("t")
        for request, status in (
                (b"GET / HTTP/1.1\r\nHost: localhost\r\n\r\n", b" 426 "),
                (b"POST / HTTP/1.1\r\nHost: localhost\r\n\r\n", b" 426 "),
                (b"GET / HTTP/1.1\r\nHost: localhost\r\nUpgrade: websocket\r\nConnection: Upgrade\r\n"
                 b"Sec-WebSocket-Protocol: foxglove.sdk.v1\r\nSec-WebSocket-Version: 99\r\n\r\n", b" 4"),
                (b"\0\1\2\3\r\n\r\n", b" 400 "),
                (b"GET / HTTP/1.1\r\nHost: localhost\r\nUpgrade: websocket\r\n\r\n\x81\x80", b" 400 "),
                (b"GET / HTTP/1.1\r\nX: " + 20000 * b"x", b" 400 ")):
            with socket.create_connection(("127.0.0.1", process.port), timeout=60) as connection:
                connection.sendall(request)
                self.assertIn(status, connection.recv(4096).split(b"\r\n")[0], request[:60])
        with socket.create_connection(("127.0.0.1", process.port)):
            pass  # nothing at all
        self.assertIn("t", self.client(process).channels())
        self.finish(process)

    def test_what_is_no_frame_ends_that_client_only(self):
        self.server()
        process = self.stream("t")
        other = self.subscribed(process)
        for junk, code in (
                (lambda client: client.socket.sendall(b"\x81\x02{}"), 1002),  # without a mask
                (lambda client: client.send_frame(3, b""), 1002),
                (lambda client: client.send_frame(TEXT, b"{}", head=0xF0), 1002),
                (lambda client: client.send_frame(PING, b"", head=0), 1002),
                (lambda client: client.send_frame(TEXT, b"\xff\xfe"), 1007),
                (lambda client: client.send_frame(TEXT, b"{"), 1007),
                (lambda client: client.send_frame(TEXT, 60000 * b"["), 1007),
                (lambda client: client.send_frame(TEXT, b"[]"), 1007),
                (lambda client: client.send_frame(TEXT, b'{"op":"unsubscribe","subscriptionIds":' + 32700 * b"["
                                                  + 32700 * b"]" + b"}"), 1007),
                (lambda client: client.send(no="op"), 1007),
                (lambda client: client.send(op="subscribe"), 1007),
                (lambda client: client.subscribe(-1, 1), 1007),
                (lambda client: client.subscribe(2**32, 1), 1007),
                (lambda client: client.subscribe("1", 1), 1007),
                (lambda client: client.subscribe(1.5, 1), 1007),
                (lambda client: client.send(op="unsubscribe", subscriptionIds=[{}]), 1007),
                (lambda client: client.send_frame(BINARY, b"\1" + bytes(12)), 1003),
                (lambda client: client.send_frame(TEXT, 100000 * b" "), 1009)):
            client = self.client(process)
            client.text("advertise")
            junk(client)
            with self.assertRaises(Closed) as closed:
                client.text("none")
            self.assertEqual(closed.exception.code, code, closed.exception)
            client.close()
        self.publish("t", 1)
        self.assertEqual(other.integer(), (7, 1))
        self.finish(process)

    def test_requests_that_cannot_be_served_are_answered(self):
        self.server()
        process = self.stream("t")
        client = self.client(process)
        channel = client.channels()["t"]["id"]
        client.subscribe(1, channel)
        for request, sentence in (
                ({"op": "subscribe", "subscriptions": [{"id": 2, "channelId": 99}]}, "there is no channel 99"),
                ({"op": "subscribe", "subscriptions": [{"id": 1, "channelId": channel}]}, "there is a subscription 1 already"),
                ({"op": "subscribe", "subscriptions": [{"id": 2, "channelId": channel}]}, "a subscription to channel"),
                ({"op": "unsubscribe", "subscriptionIds": [3]}, "there is no subscription 3"),
                ({"op": "unsubscribe", "subscriptionIds": list(range(10, 1000))}, "there is no subscription 10 (and 989 more)"),
                ({"op": "getParameters\n"}, "does not serve 'getParameters\\n'")):
            client.send(**request)
            status = client.text("status")
            self.assertEqual(status["level"], 2)
            self.assertIn(sentence, status["message"])
        self.publish("t", 1)
        self.assertEqual(client.integer(), (1, 1))
        client.send_frame(PING, b"there?")
        self.assertEqual(client.read_frame(), (PONG, b"there?"))
        client.send_frame(8, struct.pack(">H", 1000))
        with self.assertRaises(Closed) as closed:
            client.text("none")
        self.assertEqual(closed.exception.code, 1000)
        process.expect_error("client 1 ")
        process.expect_error(" ended")
        self.finish(process)

    def test_many_requests_at_once_are_all_answered(self):
        self.server()
        process = self.stream("t")
        client = self.client(process)
        client.channels()
        sent = bytearray()
        with mock.patch.object(client, "socket", mock.Mock(sendall=sent.extend)):
            for number in range(200):
                client.send(op=f"x{number}")
        client.socket.sendall(sent)
        for number in range(200):
            self.assertIn(f"'x{number}'", client.text("status")["message"])
        self.finish(process)

    def test_a_client_that_asks_and_never_reads_is_not_read_either(self):
        self.server()
        process = self.stream("t")
        asked = 0
        for kind, payload in ((PING, 125 * b"x"), (TEXT, json.dumps({"op": "x" * 60, "more": 1000 * "x"}).encode())):
            client = self.client(process, receive_buffer=4096)
            client.socket.settimeout(1)
            with self.assertRaises(OSError):  # the server does not read on, and so needs no more memory
                for asked in range(10**9):
                    client.send_frame(kind, payload)
        self.assertIn("t", self.client(process).channels())
        client.socket.settimeout(PATIENCE)
        for _ in range(asked):  # it gets all answers when it reads
            self.assertIn("does not serve", client.text("status")["message"])
        self.finish(process)

    def test_there_are_at_most_so_many_clients(self):
        self.server()
        process = self.stream("t")
        clients = [self.subscribed(process) for _ in range(32)]
        self.expect_refused(process, 503, "32 clients already", V1)
        self.publish("t", 1)
        for client in clients:
            self.assertEqual(client.integer(), (7, 1))
        clients[0].close()
        process.expect_error("client 1 (")
        process.expect_error(" ended")
        self.assertIn("t", self.client(process).channels())
        self.finish(process)


if __name__ == "__main__":
    main()
