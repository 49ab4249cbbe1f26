"""Clients scribble over their pages while several threads receive on the channel, without a bus above it.

Each call of an honest client is answered, with the reply to its own request.
"""

import os

from attack import BIN, LIMIT_OF_HANGS, MODE, SECONDS, Attack, main


class ConcurrentReceivers(Attack):

    def prepare(self):
        if MODE != "static":
            self.skipTest("has no bus, and so no mode")

    def conclude(self):
        for folder, _, names in os.walk(self.runtime):
            self.assertEqual(names, [], folder)

    def attack(self):
        program = self.start(f"{BIN}/concurrent_receivers", str(int(SECONDS * 1000)))
        words, answered, ended = map(int, program.next_line().split())
        program.expect_exit(0, LIMIT_OF_HANGS)
        self.assertGreater(answered, 0)
        self.load(f"{words / 1e6:,.0f} million words, {answered:,} honest calls, {ended:,} connections ended")


if __name__ == "__main__":
    main(ConcurrentReceivers)
