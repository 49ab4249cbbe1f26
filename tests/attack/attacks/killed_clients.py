"""Clients that are killed (SIGKILL) at random moments, many at once: publishers, subscribers, half-done handshakes, joins.

No other client loses a value, and the server keeps no thread and no descriptor of them.
"""

import os
import subprocess
import time

from attack import BIN, LIMIT_OF_HANGS, Attack, main

AT_ONCE = 4
LONGEST_LIFE = 0.012  # seconds; a whole life takes about as long


class KilledClients(Attack):
    def attack(self):
        kills = 0
        self.open_input, writing = os.pipe()  # never ends, so that publishers go on
        self.addCleanup(os.close, self.open_input)
        self.addCleanup(os.close, writing)
        waiters = self.start(f"{BIN}/dying_waiters", "own", "200")
        for number in self.rounds():
            lives = [self.begin(f"{number}-{place}", place) for place in range(AT_ONCE)]
            time.sleep(self.random.uniform(0, LONGEST_LIFE))
            self.random.shuffle(lives)
            for life in lives:
                life.kill()
            for life in lives:
                life.wait()
            kills += AT_ONCE
        waiters.expect_exit(0, LIMIT_OF_HANGS)
        self.load(f"{kills:,} clients killed at random moments, 200 more while they waited")

    def begin(self, name, kind):
        command = ([f"{BIN}/stopping_client", "waiting", name], [f"{BIN}/stopping_client", "named-a-topic", name],
                   [f"{BIN}/checked_pair", "push", name, "50000"], [f"{BIN}/msgbus", "sub", name, "--name", name])[kind]
        return subprocess.Popen(command, env=self.environment, stdin=self.open_input, stdout=subprocess.DEVNULL,
                                stderr=subprocess.DEVNULL)


if __name__ == "__main__":
    main(KilledClients)
