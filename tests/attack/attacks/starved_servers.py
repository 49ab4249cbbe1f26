"""The server runs out of address space, and so of memory and of stacks for threads, or of descriptors, under load.

It goes on for everybody once the shortage is over, or it ends at once with a status other than 0. It never accepts
clients that it does not serve.
"""

import resource

from attack import LIMIT_OF_HANGS, Attack, main

MIB = 1024 * 1024
LIMITS = [(resource.RLIMIT_AS, more * MIB) for more in (0, 1, 2, 4, 8)] + [(resource.RLIMIT_NOFILE, 0)]


class StarvedServers(Attack):
    log_level = "off"

    def prepare(self):
        """Each server is starved in its own way."""

    def conclude(self):
        """There is nothing to compare: a starved server may have ended."""

    def attack(self):
        ended = went_on = 0
        for number in self.rounds():
            kind, more = LIMITS[number % len(LIMITS)]
            server = self.server(log_level=self.log_level)
            limit = self.address_space(server) + more if kind == resource.RLIMIT_AS else 48
            before = resource.prlimit(server.popen.pid, kind)
            resource.prlimit(server.popen.pid, kind, (limit, before[1]))
            self.strain()
            if server.popen.poll() is None:
                resource.prlimit(server.popen.pid, kind, before)
            if server.popen.poll() is None:
                self.expect_working()
                self.timed_stop(server)
                went_on += 1
            else:
                self.assertGreater(server.wait(), 0, "a server that ends has an exit status of its own")
                ended += 1
        self.load(f"{went_on} servers went on, {ended} ended")

    @staticmethod
    def address_space(server):
        with open(f"/proc/{server.popen.pid}/statm", encoding="utf-8") as file:
            return int(file.read().split()[0]) * resource.getpagesize()

    def strain(self):
        readers = [self.msgbus("sub", "strain", "--name", f"reader-{number}", "--reconnect", "0", "-W", "1s")
                   for number in range(30)]
        publisher = self.msgbus("pub", "strain", "--reconnect", "0", *map(str, range(100)))
        for process in [publisher, *readers]:
            process.wait(LIMIT_OF_HANGS)


if __name__ == "__main__":
    main(StarvedServers)
