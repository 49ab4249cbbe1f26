"""One client begins registrations and finishes none.

It is refused with result code 4 beyond 64, and what it has begun is cancelled after a minute (which an attack of more than
a few seconds waits for). Others register meanwhile.
"""

import time

from attack import SECONDS, Attack, main, wait_until
from raw_client import CTL, START_SUBS

TOO_MANY = 4
MOST = 64
CANCELLED_AFTER = 60.0  # seconds


class EndlessHandshakes(Attack):
    def attack(self):
        client = self.joined(CTL)
        began = time.monotonic()
        for _ in range(MOST):
            self.assertEqual(self.start_one(client), 0)
        refused = 0
        for _ in self.rounds():
            self.assertEqual(self.start_one(client), TOO_MANY)
            refused += 1
        self.expect_working()
        sentence = f"{MOST} begun, {refused:,} refused"
        if SECONDS > 5:
            time.sleep(max(0.0, began + CANCELLED_AFTER - 1 - time.monotonic()))
            wait_until(self, lambda: self.start_one(client) == 0, "handshakes to be cancelled")
            sentence += f"; cancelled after {time.monotonic() - began:.0f} s"
        client.close()
        self.load(sentence)

    def start_one(self, client):
        status, code, _ = client.call(CTL, START_SUBS, b"endless\0")
        self.assertEqual(status, 0)
        return code


if __name__ == "__main__":
    main(EndlessHandshakes)
