"""A client that speaks the platform's protocol by hand, so that it can break it at any step.

The formats are those of names/handshake.h and records/shared_memory_slot.h.
"""

import array
import ctypes
import mmap
import os
import select
import socket
import struct
import time

RECORD_SIZE = 1056
LAYOUT_VERSION = 2
PROVIDER, CTL, SUBS = range(3)
PUSH, = range(1)
WAIT, = range(1)
REGISTER_PUBLISHER, START_SUBS, SUBSCRIBE, FINISH_SUBS, UNREGISTER_PUBLISHER, UNREGISTER_SUBSCRIBER = range(6)

CLOSED, UNIMPLEMENTED, BAD_RECORD, TIMED_OUT, BUSY, DENIED, NO_RESOURCES = -3, -2, -5, -6, -7, -8, -9
OTHER_VERSION = -14

ERROR_FLAG = 0x80000000
PAGE_SIZE = 4096
REQUEST, REPLY = 64, 1152  # of the halves in the page: word, hint, wake, record
HALF_HEADER = 16
ALL_PIECES = 0x1FFFF


def greeting(magic=0x48565242, layout=LAYOUT_VERSION, size=RECORD_SIZE):
    return struct.pack("<IHH", magic, layout, size)


def header(interface, method, size=RECORD_SIZE):
    return struct.pack("<HHI16x", interface, method, size)


def int64(*values):
    return struct.pack(f"<{len(values)}q", *values)


class Ended(Exception):
    """The server has ended the connection."""


class Refused(Exception):
    """The server answered a greeting with a status."""

    def __init__(self, status):
        super().__init__(f"refused with status {status}")
        self.status = status


class RawClient:
    """One connection. `service` names the wanted service in dynamic mode; a static server has one channel for all."""

    services = {PROVIDER: "provider", CTL: "ctl", SUBS: "subs"}

    def __init__(self, runtime, mode, service=CTL):
        name = ("static/msgbus_connection_id" if mode == "static"
                else f"services/br.MessageBusComponent.{self.services[service]}")
        self.path = os.path.join(runtime, name)
        self.socket = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
        self.descriptors = []
        self.page = None
        self.events = None
        self.sequence = 0

    def __enter__(self):
        return self

    def __exit__(self, *_):
        self.close()

    def connect(self, patience=60.0):
        # Not settimeout: to a socket that does not block, a full backlog is an error.
        self.socket.setsockopt(socket.SOL_SOCKET, socket.SO_SNDTIMEO, struct.pack("ll", int(patience), 0))
        self.socket.connect(self.path)
        return self

    def send(self, content, descriptors=()):
        """Returns: whether the socket accepted it."""
        rights = [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", descriptors))] if descriptors else []
        try:
            self.socket.sendmsg([content], rights, socket.MSG_NOSIGNAL)
            return True
        except OSError:
            return False

    def answer(self, patience=60.0):
        """Returns: the status in the server's answer, with the descriptors taken; None when the server just hung up."""
        self.socket.settimeout(patience)
        try:
            content, self.descriptors, _, _ = self._receive()
        except ConnectionResetError:
            content = b""
        return struct.unpack_from("<i", content, 8)[0] if len(content) == 16 else None

    def _receive(self):
        try:
            return socket.recv_fds(self.socket, 64, 8)
        except ConnectionResetError:  # reported once, before the answer, when the server left a greeting unread
            return socket.recv_fds(self.socket, 64, 8)

    def join(self, patience=60.0):
        self.connect(patience).send(greeting())
        status = self.answer(patience)
        if status != 0:
            raise Refused(status)
        self.page = mmap.mmap(self.descriptors[0], PAGE_SIZE)
        self.events = select.epoll()
        self.events.register(self.descriptors[2], select.EPOLLIN | select.EPOLLET)  # the counter of a doorbell stays at 1
        self.events.register(self.socket, select.EPOLLRDHUP)
        return self

    def keep_socket_only(self):
        """Closes everything whose end the server cannot see."""
        for descriptor in self.descriptors:
            os.close(descriptor)
        self.descriptors = []
        if self.events is not None:
            self.events.close()
            self.events = None
        return self

    def word(self, offset):
        return ctypes.c_uint64.from_buffer(self.page, offset)

    def publish(self, record, sequence=None, pieces=ALL_PIECES):
        """Puts a request into the page as the protocol does, and rings."""
        self.sequence = (self.sequence + 1) & 0xFFFFFFFF if sequence is None else sequence
        start = REQUEST + HALF_HEADER
        self.page[start:start + RECORD_SIZE] = record[:RECORD_SIZE].ljust(RECORD_SIZE, b"\0")
        self.word(REQUEST).value = self.sequence << 32 | pieces
        self.ring()

    def ring(self, count=0):
        os.write(self.descriptors[1], struct.pack("<Q", count))

    def await_reply(self, patience=60.0):
        """Returns: (status in place of a reply or 0, the record)."""
        deadline = time.monotonic() + patience
        ctypes.c_uint32.from_buffer(self.page, REQUEST + 8).value = self.sequence
        while True:
            word = self.word(REPLY).value
            if word >> 32 == self.sequence:
                start = REPLY + HALF_HEADER
                return -(word >> 24 & 0xFF), self.page[start:start + RECORD_SIZE]
            if time.monotonic() > deadline:
                raise TimeoutError("a request by hand was not answered")
            for descriptor, _ in self.events.poll(patience):
                if descriptor == self.socket.fileno():
                    raise Ended

    def call(self, interface, method, body=b"", size=RECORD_SIZE):
        """Returns: (status, result code of the bus, body of the reply)."""
        self.publish(header(interface, method, size) + body)
        status, record = self.await_reply()
        size_word, = struct.unpack_from("<I", record, 4)
        code = struct.unpack_from("<H", record, 24)[0] if size_word & ERROR_FLAG else 0
        return status, code, record[24:]

    def close(self):
        if self.page is not None:
            self.page.close()
            self.page = None
        self.keep_socket_only()
        self.socket.close()
