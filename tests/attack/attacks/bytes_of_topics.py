"""One client fills the server's memory with topics of full length: in one handshake, and as a publisher of each.

It is refused with result code 7 at the budget of its process, or with 3 when it has too many publishers first. When it is
gone, so are its topics.
"""

from attack import Attack, main
from raw_client import CTL, REGISTER_PUBLISHER, START_SUBS, SUBSCRIBE

TOO_MANY_BYTES, TOO_MANY = 7, 3
TOPIC_SIZE = 1023
MOST = 64 * 1024 * 1024 // TOPIC_SIZE


class BytesOfTopics(Attack):
    memory_allowance_kib = 8 * 1024

    def attack(self):
        named = registered = 0
        for _ in self.rounds():
            with self.joined(CTL) as client:
                status, code, body = client.call(CTL, START_SUBS, b"reader\0")
                self.assertEqual((status, code), (0, 0))
                named = self.fill(client, SUBSCRIBE, body[:8], (TOO_MANY_BYTES, ))
            with self.joined(CTL) as client:
                registered = self.fill(client, REGISTER_PUBLISHER, b"", (TOO_MANY_BYTES, TOO_MANY))
        self.load(f"{named:,} topics of {TOPIC_SIZE:,} bytes in a handshake, {registered:,} publishers")

    def fill(self, client, method, start, refusals):
        """Returns: how many topics were accepted before one was refused."""
        for number in range(MOST):
            status, code, _ = client.call(CTL, method, start + f"{number:08}".encode().ljust(TOPIC_SIZE, b"x") + b"\0")
            self.assertEqual(status, 0)
            if code != 0:
                self.assertIn(code, refusals)
                return number
        self.fail(f"{MOST:,} topics were accepted")
        return MOST


if __name__ == "__main__":
    main(BytesOfTopics)
