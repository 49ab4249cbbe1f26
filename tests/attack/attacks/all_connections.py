"""One process takes connections of a service until it is refused.

It gets Busy at its own budget, while clients of other processes still connect and are served.
"""

from attack import Attack, main
from raw_client import BUSY, CTL, Refused

CLIENTS_OF_A_CHANNEL = 2048
LEFT_FOR_OTHERS = 64


class AllConnections(Attack):
    def attack(self):
        most = 0
        for _ in self.rounds():
            held = []
            with self.assertRaises(Refused) as refusal:
                while len(held) <= CLIENTS_OF_A_CHANNEL:
                    held.append(self.joined(CTL).keep_socket_only())
            self.assertEqual(refusal.exception.status, BUSY)
            self.assertLess(len(held), CLIENTS_OF_A_CHANNEL - LEFT_FOR_OTHERS)
            self.expect_working()
            for client in held:
                client.close()
            most = max(most, len(held))
        self.load(f"{most:,} connections of one process, and no more")


if __name__ == "__main__":
    main(AllConnections)
