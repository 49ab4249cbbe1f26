"""Pushes, waits, unregistrations and steps of a handshake with ids that nothing has: the ends of their range, and random ones.

Each is refused with a result code; a push is dropped, which the bus answers with 0. No other client notices.
"""

from attack import Attack, main
from raw_client import (CTL, FINISH_SUBS, PROVIDER, PUSH, SUBS, SUBSCRIBE, UNREGISTER_PUBLISHER, UNREGISTER_SUBSCRIBER, WAIT,
                        int64)

EDGES = (-2**63, -2**32, -2, -1, 0, 2**31, 2**32 + 1, 2**63 - 1)


class UnknownIds(Attack):
    log_level = "off"

    def attack(self):
        ctl, provider, subs = (self.joined(service) for service in (CTL, PROVIDER, SUBS))
        count = 0
        for _ in self.rounds():
            number = self.random.choice(EDGES + (self.random.randrange(2**40, 2**62), ))
            for method, body in ((SUBSCRIBE, b"topic\0"), (FINISH_SUBS, b"\1"), (UNREGISTER_PUBLISHER, b""),
                                 (UNREGISTER_SUBSCRIBER, b"")):
                status, code, _ = ctl.call(CTL, method, int64(number) + body)
                self.assertEqual((status, code != 0), (0, True), f"method {method} with id {number}")
            status, code, _ = subs.call(SUBS, WAIT, int64(number))
            self.assertEqual((status, code != 0), (0, True), f"wait with id {number}")
            self.assertEqual(provider.call(PROVIDER, PUSH, int64(number, 7))[0], 0)
            count += 6
        for client in (ctl, provider, subs):
            client.close()
        self.load(f"{count:,} requests")


if __name__ == "__main__":
    main(UnknownIds)
