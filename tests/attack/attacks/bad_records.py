"""Requests with every interface, method and size that a header can carry, and any bytes behind it.

Each is answered, with a reply, a result code or a status; a connection that is ended was not answered wrongly. No other
client notices.
"""

from itertools import product

from attack import Attack, main
from raw_client import (CTL, FINISH_SUBS, PROVIDER, REGISTER_PUBLISHER, START_SUBS, SUBS, UNREGISTER_PUBLISHER, Ended, int64)

INTERFACES = (0, 1, 2, 3, 4, 0xFF, 0x8000, 0xFFFF)
METHODS = (0, 1, 2, 3, 4, 5, 6, 7, 0xFF, 0x8000, 0xFFFF)
SIZES = (1056, 0, 1, 23, 24, 25, 31, 32, 40, 1055, 1057, 4096, 0x7FFFFF, 0x800000, 0x800000 | 1056, 0x80000000 | 1056,
         0xFFFFFFFF)


class BadRecords(Attack):
    log_level = "off"

    def attack(self):
        self.calls = self.ended = 0
        headers = list(product(INTERFACES, METHODS, SIZES))
        for number in self.rounds():
            service = (PROVIDER, CTL, SUBS)[number % 3]
            with self.client(service) as client:
                client.join()
                for interface, method, size in self.random.sample(headers, 200):
                    try:
                        self.call(client, interface, method, size)
                    except Ended:
                        self.ended += 1
                        break
        self.load(f"{self.calls:,} requests, {self.ended} connections ended")

    def call(self, client, interface, method, size):
        body = self.random.choice((bytes(1032), b"\xff" * 1032, b"t\0", self.random.randbytes(1032)))
        status, code, reply = client.call(interface, method, body, size)
        self.calls += 1
        if (status, code, interface) == (0, 0, CTL):
            self.take_back(client, method, reply)

    def take_back(self, client, method, reply):
        """A registration by accident must not stay: topics and handshakes of a connection that is alive are kept."""
        number = int.from_bytes(reply[:8], "little", signed=True)
        if method == REGISTER_PUBLISHER:
            self.assertEqual(client.call(CTL, UNREGISTER_PUBLISHER, int64(number))[:2], (0, 0))
        elif method == START_SUBS:
            self.assertEqual(client.call(CTL, FINISH_SUBS, int64(number) + b"\0")[0], 0)


if __name__ == "__main__":
    main(BadRecords)
