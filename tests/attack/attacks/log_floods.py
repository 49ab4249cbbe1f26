"""A client makes the server log: each of its requests is an error line.

The log stays small, and says how many lines it left out.
"""

from attack import SECONDS, Attack, main
from raw_client import CTL, UNREGISTER_PUBLISHER, UNREGISTER_SUBSCRIBER, int64

LINES_PER_SECOND = 20  # of one place
PLACES = 4


class LogFloods(Attack):
    def attack(self):
        requests = 0
        with self.joined(CTL) as client:
            for number in self.rounds():
                client.call(CTL, (UNREGISTER_PUBLISHER, UNREGISTER_SUBSCRIBER)[number % 2], int64(-1))
                requests += 1
        lines = len(self.served.seen)
        self.assertLessEqual(lines, PLACES * LINES_PER_SECOND * (SECONDS + 3))
        self.load(f"{requests:,} requests, {lines:,} lines in the log")


if __name__ == "__main__":
    main(LogFloods)
