"""The connections of a service, or of the static channel, are taken by many processes that hold theirs and do nothing.

They get Busy when only the places for newcomers are left, which a client still gets; the connected ones are served on.
"""

import os
import signal

from attack import Attack, main, wait_until
from raw_client import BUSY, CTL, Refused

CLIENTS_OF_A_CHANNEL = 2048
FOR_NEWCOMERS = CLIENTS_OF_A_CHANNEL // 16  # kept for processes that have few
OF_ONE_PROCESS = 64  # so that a limit per process is not what refuses


class FullChannels(Attack):
    memory_allowance_kib = 8 * 1024

    def attack(self):
        fillings = 0
        for _ in self.rounds():
            reading, writing = os.pipe()
            holders = [self.fork(lambda: self.hold(writing)) for _ in range(CLIENTS_OF_A_CHANNEL // OF_ONE_PROCESS + 1)]
            os.close(writing)
            held = sum(self.count_of(reading) for _ in holders)
            os.close(reading)
            self.assertLessEqual(held, CLIENTS_OF_A_CHANNEL)
            self.assertGreaterEqual(held, CLIENTS_OF_A_CHANNEL - FOR_NEWCOMERS - 8, "what the server and the pair hold")
            self.joined(CTL).close()
            for holder in holders:
                self.end_child(holder)
            wait_until(self, self.can_join, "the places of processes that are gone")
            fillings += 1
        self.load(f"{fillings} times all {CLIENTS_OF_A_CHANNEL:,} connections but those for newcomers")

    def hold(self, report):
        clients = []
        try:
            for _ in range(OF_ONE_PROCESS):
                clients.append(self.client(CTL).join().keep_socket_only())
        except Refused as refusal:
            self.assertEqual(refusal.status, BUSY)
        os.write(report, bytes([len(clients)]))
        signal.pause()

    @staticmethod
    def count_of(reading):
        return os.read(reading, 1)[0]

    def can_join(self):
        try:
            self.joined(CTL).close()
            return True
        except Refused:
            return False


if __name__ == "__main__":
    main(FullChannels)
