"""A WebSocket client of the subprotocols of `msgbus stream`, made of the standard library only (RFC 6455)."""

import base64
import hashlib
import json
import os
import re
import signal
import socket
import struct

from harness import DONE, PATIENCE, BusTest

V1, SDK = "foxglove.websocket.v1", "foxglove.sdk.v1"
TEXT, BINARY, CLOSE, PING, PONG = 1, 2, 8, 9, 10
GUID = b"258EAFA5-E914-47DA-95CA-C5AB0DC85B11"


class Refused(Exception):
    """The handshake was answered with another status than 101."""

    def __init__(self, status, body):
        super().__init__(f"{status}: {body}")
        self.status = status
        self.body = body


class Closed(Exception):
    """The server has ended the connection; `code` is None without a close frame."""

    def __init__(self, code, reason=""):
        super().__init__(f"{code} {reason}")
        self.code = code
        self.reason = reason


class Client:
    """One connection. Values are read as (subscription, time in ns, payload), texts as objects."""

    def __init__(self, port, protocols=(V1,), receive_buffer=None, **headers):
        self.socket = socket.socket()
        if receive_buffer:
            self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_RCVBUF, receive_buffer)
        self.socket.settimeout(PATIENCE)
        self.socket.connect(("127.0.0.1", port))
        self.input = self.socket.makefile("rb")
        key = base64.b64encode(os.urandom(16))
        fields = {"Host": f"127.0.0.1:{port}", "Upgrade": "websocket", "Connection": "Upgrade",
                  "Sec-WebSocket-Key": key.decode(), "Sec-WebSocket-Version": "13"}
        if protocols:
            fields["Sec-WebSocket-Protocol"] = ", ".join(protocols)
        fields.update(headers)
        lines = ["GET / HTTP/1.1", *(f"{name}: {value}" for name, value in fields.items() if value), "", ""]
        try:
            self.socket.sendall("\r\n".join(lines).encode())
            self.answer = self._read_answer()
        except Exception:
            self.close()
            raise
        assert self.answer["sec-websocket-accept"] == base64.b64encode(hashlib.sha1(key + GUID).digest()).decode()

    def _read_answer(self):
        status = self.input.readline().decode()
        fields = {}
        while (line := self.input.readline().decode().strip()):
            name, value = line.split(":", 1)
            fields[name.lower()] = value.strip()
        if " 101 " not in status:
            raise Refused(int(status.split(" ")[1]) if status else None, self.input.read().decode())
        return fields

    def close(self):
        self.input.close()
        self.socket.close()

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def send_frame(self, opcode, payload, head=0x80):
        mask = os.urandom(4)
        size = len(payload)
        length = struct.pack(">B", 0x80 | size) if size < 126 else struct.pack(">BH", 0xFE, size) if size < 65536 else \
            struct.pack(">BQ", 0xFF, size)
        masked = bytes(byte ^ mask[index % 4] for index, byte in enumerate(payload))
        self.socket.sendall(bytes([head | opcode]) + length + mask + masked)

    def send(self, **request):
        self.send_frame(TEXT, json.dumps(request).encode())

    def subscribe(self, subscription, channel):
        self.send(op="subscribe", subscriptions=[{"id": subscription, "channelId": channel}])

    def _exactly(self, count):
        data = self.input.read(count)
        if len(data) < count:
            raise Closed(None)
        return data

    def read_frame(self):
        """Returns: the kind and the payload. Raises Closed."""
        head, length = self._exactly(2)
        assert head & 0x70 == 0 and head & 0x80 and length & 0x80 == 0, (head, length)
        if length == 126:
            (length,) = struct.unpack(">H", self._exactly(2))
        elif length == 127:
            (length,) = struct.unpack(">Q", self._exactly(8))
        payload = self._exactly(length)
        if head & 0xF == CLOSE:
            raise Closed(struct.unpack(">H", payload[:2])[0] if payload else None, payload[2:].decode())
        return head & 0xF, payload

    def text(self, op):
        """Reads on to the next text of this kind. Returns: the object."""
        while True:
            kind, payload = self.read_frame()
            if kind == TEXT and (text := json.loads(payload))["op"] == op:
                return text

    def channels(self):
        """Reads on to the next advertisement. Returns: the channels by topic."""
        return {channel["topic"]: channel for channel in self.text("advertise")["channels"]}

    def value(self):
        """Reads on to the next value. Returns: the subscription, the time in ns, the payload."""
        while True:
            kind, payload = self.read_frame()
            if kind == BINARY:
                opcode, subscription, time_ns = struct.unpack("<BIQ", payload[:13])
                assert opcode == 1, payload
                return subscription, time_ns, payload[13:]

    def integer(self):
        """Reads on to the next value. Returns: the subscription and the value of an Int64 message."""
        subscription, _, payload = self.value()
        assert payload[:4] == b"\0\1\0\0", payload
        return subscription, *struct.unpack("<q", payload[4:])


class StreamTest(BusTest):
    """Tests of `msgbus stream`."""

    def stream(self, *arguments):
        """Starts it at a free port. Returns: the process, with the port."""
        process = self.msgbus("stream", "--port", "0", "--name", "streamer", *arguments)
        line = process.expect_error("streaming at ws://127.0.0.1:")
        process.port = int(re.search(r":(\d+) ", line)[1])
        return process

    def client(self, process, *protocols, **more):
        client = Client(process.port, protocols or (V1,), **more)
        self.addCleanup(client.close)
        return client

    def subscribed(self, process, topic="t", subscription=7):
        """Returns: a client whose subscription is in effect."""
        client = self.client(process)
        client.subscribe(subscription, client.channels()[topic]["id"])
        self.settle(client)
        return client

    def settle(self, client):
        """Waits until the server has read what the client has sent."""
        client.send(op="none")
        self.assertIn("'none'", client.text("status")["message"])

    def expect_refused(self, process, status, sentence, *protocols, **headers):
        with self.assertRaises(Refused) as refused:
            Client(process.port, protocols, **headers)
        self.assertEqual(refused.exception.status, status)
        self.assertIn(sentence, refused.exception.body)

    def finish(self, process):
        process.signal(signal.SIGINT)
        process.expect_exit(DONE)
