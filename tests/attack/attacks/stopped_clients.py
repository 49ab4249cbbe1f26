"""Clients that are stopped (SIGSTOP) in every state: connecting, greeting, in each step of a handshake, waiting, pushing.

The server waits for none of them. They are continued, or killed as they are, and leave nothing behind.
"""

import os
import signal

from attack import BIN, Attack, main
from raw_client import greeting

STEPS = ("connected", "started", "named-a-topic", "subscribed", "connected-to-wait", "registered-a-publisher", "pushed",
         "received", "waiting")


class StoppedClients(Attack):
    def attack(self):
        stops = 0
        for number in self.rounds():
            stopped = [self.stop(self.start(f"{BIN}/stopping_client", step, f"{step}-{number}"), step) for step in STEPS]
            stopped.append(self.stop(self.start(f"{BIN}/checked_pair", "push", f"flood-{number}", "100000"), "ready"))
            raw = [self.fork(lambda step=step: self.stop_raw(step)) for step in ("silent", "greeted", "joined")]
            for child in raw:
                os.waitpid(child, os.WUNTRACED)
            self.expect_working()
            stops += len(stopped) + len(raw)
            for place, process in enumerate(stopped):
                if (number + place) % 2 == 0:
                    process.signal(signal.SIGCONT)
                process.close()
            for child in raw:
                self.end_child(child)
        self.load(f"{stops:,} clients stopped in {len(STEPS) + 4} states")

    def stop(self, process, line):
        process.expect(line)
        process.pause()
        return process

    def stop_raw(self, step):
        client = self.client().connect()
        if step != "silent":
            client.send(greeting())
        if step == "joined":
            client.answer()
        os.kill(os.getpid(), signal.SIGSTOP)


if __name__ == "__main__":
    main(StoppedClients)
