"""The server is stopped (SIGTERM) while it is attacked: waiting and stopped clients, floods of connections, of values and
of requests, scribbled pages.

It exits with status 0 and leaves no file. The longest stop is reported.
"""

import signal
import subprocess
import time

from attack import BIN, Attack, main
from raw_client import CTL, UNREGISTER_SUBSCRIBER, Ended, Refused, int64

WAITING = 40


class StopsUnderAttack(Attack):
    log_level = "off"

    def prepare(self):
        """Each round has a server of its own."""

    def conclude(self):
        """There is no server left to compare."""

    def attack(self):
        longest = stops = 0
        for _ in self.rounds():
            server = self.server(log_level=self.log_level)
            attackers = self.begin()
            time.sleep(self.random.uniform(0.05, 0.2))
            longest = max(longest, self.timed_stop(server))
            for attacker in attackers:
                attacker.kill()
                attacker.communicate()
            for child in list(self.children):
                self.end_child(child)
            stops += 1
        self.figures["stop_ms"] = longest
        self.load(f"{stops} stops, each under all of them")

    def begin(self):
        commands = [[f"{BIN}/stopping_client", "waiting", f"topic-{number}"] for number in range(WAITING)]
        commands += [[f"{BIN}/scribbling_client", "60000"], [f"{BIN}/checked_pair", "push", "flood", "10000000"],
                     [f"{BIN}/checked_pair", "read", "flood"]]
        attackers = [subprocess.Popen(command, env=self.environment, stdin=subprocess.PIPE, stdout=subprocess.DEVNULL,
                                      stderr=subprocess.DEVNULL) for command in commands]
        for attacker in attackers[:WAITING // 4]:
            attacker.send_signal(signal.SIGSTOP)
        self.fork(self.connect_without_end)
        self.fork(self.request_without_end)
        return attackers

    def connect_without_end(self):
        while True:
            try:
                self.joined(CTL).close()
            except (OSError, Refused):
                time.sleep(0.001)

    def request_without_end(self):
        while True:
            try:
                client = self.joined(CTL)
                while True:
                    client.call(CTL, UNREGISTER_SUBSCRIBER, int64(-1))
            except (OSError, Refused, Ended):
                time.sleep(0.001)


if __name__ == "__main__":
    main(StopsUnderAttack)
