"""Joins with garbage: wrong, cut, long and empty greetings, random bytes, descriptors that nobody asked for, half-closed
sockets, sockets of another kind.

Each is refused or ignored. What is passed along does not stay open in the server.
"""

import os
import socket

from attack import Attack, main
from raw_client import CTL, DENIED, OTHER_VERSION, PROVIDER, SUBS, greeting


class GarbageJoins(Attack):

    def attack(self):
        kinds = (self.wrong_greeting, self.other_version, self.random_bytes, self.passed_descriptors, self.half_closed,
                 self.other_kind_of_socket, self.talk_after_the_join)
        attempts = 0
        for number in self.rounds():
            for kind in kinds:
                with self.client((PROVIDER, CTL, SUBS)[number % 3]) as client:
                    kind(client)
                attempts += 1
        self.load(f"{attempts:,} joins of {len(kinds)} kinds")

    def wrong_greeting(self, client):
        content = self.random.choice((b"\0", greeting()[:-1], greeting() + b"x", greeting(magic=1), greeting(size=1055),
                                      greeting(size=0), greeting() * 2))
        client.connect().send(content)
        self.assertEqual(client.answer(), DENIED)

    def other_version(self, client):
        client.connect().send(greeting(layout=self.random.choice((0, 3, 0xFFFF))))
        self.assertEqual(client.answer(), OTHER_VERSION)

    def random_bytes(self, client):
        client.connect().send(self.random.randbytes(self.random.choice((1, 8, 1056, 100000))))
        self.assertEqual(client.answer(), DENIED)

    def passed_descriptors(self, client):
        reading, writing = os.pipe()
        client.connect().send(greeting(magic=self.random.choice((0x48565242, 7))), [writing] * self.random.choice((1, 100, 253)))
        os.close(writing)
        client.answer()
        os.set_blocking(reading, True)
        self.assertEqual(os.read(reading, 1), b"", "the server keeps a descriptor that was passed to it")
        os.close(reading)

    def half_closed(self, client):
        client.connect().socket.shutdown(self.random.choice((socket.SHUT_RD, socket.SHUT_WR)))
        client.send(greeting())
        client.answer()

    def other_kind_of_socket(self, client):
        with socket.socket(socket.AF_UNIX, self.random.choice((socket.SOCK_STREAM, socket.SOCK_DGRAM))) as other:
            with self.assertRaises(OSError):
                other.connect(client.path)

    def talk_after_the_join(self, client):
        client.join()
        for _ in range(10):
            client.send(self.random.randbytes(100), [0, 1, 2])


if __name__ == "__main__":
    main(GarbageJoins)
