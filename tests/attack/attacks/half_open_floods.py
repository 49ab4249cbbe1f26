"""Floods of connections that never become clients: hundreds that connect and say nothing, greet by halves, or leave at
once, from several processes.

Clients that are connected are served meanwhile, others join (Busy, and the next try, is what the flood may cost them), and
nothing of the flood stays in the server.
"""

import time

from attack import SECONDS, Attack, main
from raw_client import BUSY, CTL, PROVIDER, SUBS, Refused, greeting

HELD = 200  # silent connections of each process


class HalfOpenFloods(Attack):

    def attack(self):
        children = [self.fork(lambda service=service: self.flood(service)) for service in (PROVIDER, CTL, SUBS)]
        joined = refused = 0
        for _ in self.rounds():
            try:
                self.joined().close()
                joined += 1
            except Refused as refusal:
                self.assertEqual(refusal.status, BUSY)
                refused += 1
        self.assertGreater(joined, 0)
        for child in children:
            self.assertEqual(self.await_child(child), 0)
        self.load(f"{len(children)} processes, {HELD} silent connections each; meanwhile {joined:,} joins, {refused:,} refused")

    def flood(self, service):
        held = []
        deadline = time.monotonic() + SECONDS
        while time.monotonic() < deadline:
            client = self.client(service).connect()
            kind = self.random.randrange(3)
            if kind == 0:
                client.send(greeting()[:self.random.randrange(1, 8)])
            if kind == 1:
                client.close()
            else:
                held.append(client)
            if len(held) > HELD:
                held.pop(self.random.randrange(len(held))).close()


if __name__ == "__main__":
    main(HalfOpenFloods)
