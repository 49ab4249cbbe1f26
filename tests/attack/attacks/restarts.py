"""The server is killed or stopped under load, and started again, many times; its clients look for the new one.

Every stop ends with status 0 and leaves no file. A new server starts at once where a killed one left its sockets, clients
that reconnect are served by it, and a checked pair of its own loses nothing.
"""

import signal

from attack import DONE, LIMIT_OF_HANGS, NO_SERVER, REFUSED, Attack, Pair, main

RECONNECTING = 4


class Restarts(Attack):

    def attack(self):
        readers = [self.sub("lives", name=f"reader-{number}", options=("--reconnect", "60s")) for number in range(RECONNECTING)]
        lives = 0
        for number in self.rounds():
            visitors = [self.msgbus("sub", "checked", "--name", f"visitor-{each}", "--reconnect", "60s", "-n", "5")
                        for each in range(RECONNECTING)]
            self.end(kill=number % 2 == 0)
            self.served = self.server(log_level=self.log_level)
            for reader in readers:
                reader.expect_error("again with a restarted server")
            self.publish("lives", number)
            for reader in readers:
                reader.expect(f"lives {number}")
            self.pair = Pair(self)
            for visitor in visitors:
                self.assertIn(visitor.wait(LIMIT_OF_HANGS), (DONE, REFUSED, NO_SERVER), visitor)  # it may have come too early
            lives += 1
        for reader in readers:
            reader.signal(signal.SIGINT)
            reader.expect_exit(DONE)
        self.before = self.settled_usage()
        self.load(f"{lives} restarts, {RECONNECTING} clients that stay and {RECONNECTING} that come for each")

    def end(self, kill):
        if kill:
            self.served.kill()
        else:
            self.timed_stop(self.served)
        for part in (self.pair.pusher, self.pair.reader):
            part.wait(LIMIT_OF_HANGS)  # with an error: it does not look for another server
            part.close()
        self.served.close()


if __name__ == "__main__":
    main(Restarts)
