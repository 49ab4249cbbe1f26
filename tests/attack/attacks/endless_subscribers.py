"""One client registers subscribers without end: 100,000 of them, which never unregister.

It is refused with result code 3 at the budget of its process, of about a thousand. Others register meanwhile, and the
pair keeps its rate. When the client is gone, so are its subscribers.
"""

from attack import SECONDS, Attack, main
from raw_client import CTL, FINISH_SUBS, START_SUBS, SUBSCRIBE

OVER_BUDGET = 3
FULL_BUDGET = 2000  # at most


class EndlessSubscribers(Attack):
    def attack(self):
        attempts = 100_000 if SECONDS > 5 else 5_000
        client = self.joined(CTL)
        registered = refused = 0
        for _ in range(attempts):
            code = self.register(client)
            if code == 0:
                registered += 1
                self.assertLessEqual(registered, FULL_BUDGET)
            else:
                self.assertEqual(code, OVER_BUDGET)
                refused += 1
        self.assertGreater(registered, 0)
        self.expect_working()
        client.close()
        self.load(f"{registered:,} subscribers, {refused:,} refused")

    def register(self, client):
        """Returns: the result code of the step that failed, or 0."""
        status, code, body = client.call(CTL, START_SUBS, b"endless\0")
        self.assertEqual(status, 0)
        if code != 0:
            return code
        registration = body[:8]
        for method, rest in ((SUBSCRIBE, b"checked\0"), (FINISH_SUBS, b"\1")):
            status, code, _ = client.call(CTL, method, registration + rest)
            self.assertEqual(status, 0)
            if code != 0:
                client.call(CTL, FINISH_SUBS, registration + b"\0")
                return code
        return 0


if __name__ == "__main__":
    main(EndlessSubscribers)
