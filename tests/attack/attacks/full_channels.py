"""Every connection of a service, or of the static channel, is taken by processes that hold theirs and do nothing.

One more gets Busy, the connected ones are served on, and once the processes have exited a client connects at once.
"""

import os
import signal

from attack import Attack, main, wait_until
from raw_client import BUSY, CTL, Refused

CLIENTS_OF_A_CHANNEL = 2048
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
            self.assertGreaterEqual(held, CLIENTS_OF_A_CHANNEL - 8, "what the server and the pair hold")
            with self.assertRaises(Refused) as refusal:
                self.joined(CTL)
            self.assertEqual(refusal.exception.status, BUSY)
            for holder in holders:
                self.end_child(holder)
            wait_until(self, self.can_join, "the places of processes that are gone")
            fillings += 1
        self.load(f"{fillings} times all {CLIENTS_OF_A_CHANNEL:,} connections")

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
