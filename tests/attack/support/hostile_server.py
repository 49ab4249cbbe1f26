"""A server that breaks the protocol at any step: what it answers, what it passes along, what it writes into the page."""

import array
import ctypes
import fcntl
import mmap
import os
import random
import select
import socket
import struct
import threading
import time

from raw_client import HALF_HEADER, PAGE_SIZE, RECORD_SIZE, REPLY, REQUEST

SEALS = fcntl.F_SEAL_SHRINK | fcntl.F_SEAL_GROW | fcntl.F_SEAL_SEAL
OFFERS = 2240  # of the offers in the page: word, offset, values
SLOT_SIZE = OFFERS + 64 * 26
PAUSE = 0.0001  # seconds, in which other threads run
EDGES = (0, 1, 2, 31, 32, 200, 201, 0x7FFFFFFF, 0x80000000, 0xFFFFFFFF)


def answer(status=0, magic=0x41565242, version=1, size=RECORD_SIZE):
    return struct.pack("<IHHiI", magic, version, size, status, 0)


def page(size=PAGE_SIZE, seals=SEALS, magic=0x53565242, layout=2, slot_size=SLOT_SIZE, record_size=RECORD_SIZE):
    """Returns: the descriptor of a region as a server makes it, or nearly."""
    file = os.memfd_create("page", os.MFD_CLOEXEC | os.MFD_ALLOW_SEALING)
    os.ftruncate(file, size)
    os.pwrite(file, struct.pack("<IIII", magic, layout, slot_size, record_size)[:size], 0)
    fcntl.fcntl(file, fcntl.F_ADD_SEALS, seals)
    return file


def bell():
    return os.eventfd(1, os.EFD_CLOEXEC | os.EFD_NONBLOCK)


class HostileServer:
    """Listens under the names of the bus, and treats every connection as `behaviour(self, connection)` says."""

    def __init__(self, runtime, mode, behaviour, seed=0):
        self.behaviour = behaviour
        self.random = random.Random(seed)
        self.ending = threading.Event()
        self.listeners, self.connections, self.threads = [], [], []
        folder = os.path.join(runtime, "static" if mode == "static" else "services")
        os.makedirs(folder, mode=0o700, exist_ok=True)
        names = (["msgbus_connection_id"] if mode == "static"
                 else [f"br.MessageBusComponent.{service}" for service in ("provider", "ctl", "subs")])
        self.paths = [os.path.join(folder, name) for name in names]
        for path in self.paths:
            listener = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
            listener.bind(path)
            listener.listen(16)
            self.listeners.append(listener)
            self._start(self._accept, listener)

    def _start(self, body, *arguments):
        self.threads.append(threading.Thread(target=body, args=arguments, daemon=True))
        self.threads[-1].start()

    def _accept(self, listener):
        while not self.ending.is_set():
            if select.select([listener], [], [], 0.05)[0]:
                connection = listener.accept()[0]
                self.connections.append(connection)
                self._start(self._treat, connection)

    def _treat(self, connection):
        try:
            self.behaviour(self, connection)
        except OSError:
            pass  # the client has ended it

    def close(self):
        """Ends every connection, as the kernel does for a server that is killed."""
        self.ending.set()
        for connection in self.connections:
            try:
                connection.shutdown(socket.SHUT_RDWR)
            except OSError:
                pass  # it has ended before
        for thread in self.threads:
            thread.join()
        for each in self.listeners + self.connections:
            each.close()
        for path in self.paths:
            os.unlink(path)

    @staticmethod
    def send(connection, content, descriptors=()):
        """The descriptors are this server's no longer."""
        connection.sendmsg([content], [(socket.SOL_SOCKET, socket.SCM_RIGHTS, array.array("i", descriptors))]
                           if descriptors else [])
        for descriptor in descriptors:
            os.close(descriptor)

    def join(self, connection):
        """Answers as a server should. Returns: the page and the doorbell."""
        file, ring, doorbell = page(), bell(), bell()
        shared = mmap.mmap(file, PAGE_SIZE)
        kept = os.dup(doorbell)
        self.send(connection, answer(), [file, ring, doorbell])
        return shared, kept

    def scribble(self, connection):
        """Joins, then writes over the page."""
        shared, doorbell = self.join(connection)
        while not self.ending.is_set():
            for _ in range(64):
                struct.pack_into("<I", shared, self.random.randrange(PAGE_SIZE // 4) * 4, self.value())
            os.eventfd_write(doorbell, 0)
            time.sleep(PAUSE)
        os.close(doorbell)

    def answer_with_lies(self, connection):
        """Joins, then answers each request, with replies and offers that are sound, nearly sound, or random."""
        shared, doorbell = self.join(connection)
        request, reply, offers = (ctypes.c_uint64.from_buffer(shared, place) for place in (REQUEST, REPLY, OFFERS))
        while not self.ending.is_set():
            sequence = request.value >> 32
            if sequence == reply.value >> 32:
                time.sleep(PAUSE)
                continue
            start = REPLY + HALF_HEADER
            shared[start:start + RECORD_SIZE] = self.record(shared)
            if self.random.randrange(2):
                offers.value = sequence << 32 | self.random.choice((0, self.value() & 0xFFFF)) << 16 | self.value() & 0xFFFF
                struct.pack_into("<I", shared, OFFERS + 8, self.random.choice((24, 1048, 1049, self.value())))
            status = self.random.choice((0, 0, 0, 0, 0, 0, 0, self.random.randrange(256)))
            reply.value = sequence << 32 | status << 24 | 0x1FFFF
            os.eventfd_write(doorbell, 0)
        del request, reply, offers
        os.close(doorbell)

    def record(self, shared):
        """Returns: a reply; mostly one to the request in the page."""
        interface, method = struct.unpack_from("<HH", shared, REQUEST + HALF_HEADER)
        size = self.random.choice((24, 32, 1056, 1056, 0x80000000 | 32, self.value()))
        if self.random.randrange(8) == 0:
            interface, method = self.value() & 0xFFFF, self.value() & 0xFFFF
        body = self.random.choice((bytes(1032), b"\xff" * 1032, self.random.randbytes(1032),
                                   struct.pack("<q", 1).ljust(1032, b"t")))
        return struct.pack("<HHI16x", interface, method, size) + body

    def value(self):
        return self.random.choice(EDGES) if self.random.randrange(2) else self.random.randrange(2**32)
