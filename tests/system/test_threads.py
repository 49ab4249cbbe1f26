"""The threads of a server are those of docs/threading.md, by name."""

import os
import re

from harness import MODE, SERVER_OPTIONS, BusTest, main, wait_until

PAGE = os.path.join(os.path.dirname(__file__), "..", "..", "docs", "threading.md")


def documented():
    """The names of the page's table that belong to the mode under test."""
    names = set()
    with open(PAGE, encoding="utf-8") as page:
        for line in page:
            row = re.match(r"\| `([\w-]+)` \| (both|static|dynamic) \|", line)
            if row and row[2] in ("both", MODE):
                names.add(row[1])
    return names


def running(pid):
    names = []
    for task in os.listdir(f"/proc/{pid}/task"):
        try:
            with open(f"/proc/{pid}/task/{task}/comm", encoding="utf-8") as comm:
                names.append(comm.read().rstrip("\n"))
        except (FileNotFoundError, ProcessLookupError):
            pass  # the thread has ended meanwhile
    return names


class Threads(BusTest):

    def test_names_are_those_of_the_page(self):
        server = self.server()
        readers = [self.sub("t", name=f"r{number}") for number in range(3)]
        publisher = self.pub("t")
        publisher.write("1\n")
        for reader in readers:
            reader.expect("t 1")
        self.assertGreater(len(documented()), 5)
        # A worker that has just been started has the name of its creator until its first receive.
        wait_until(self, lambda: set(running(server.popen.pid)) == documented(), "the names of the page")
        serving = "serve-static" if MODE == "static" else "serve-subs"
        blocked = len(readers) if "--no-parked-waits" in SERVER_OPTIONS else 0
        wait_until(self, lambda: running(server.popen.pid).count(serving) == blocked + 1,
                   "one worker that receives, and one for each wait that blocks in the bus")

    def test_names_can_be_switched_off(self):
        self.environment["BORVEN_THREAD_NAMES"] = "off"
        server = self.server()
        self.publish("t", 1)
        self.assertFalse([name for name in running(server.popen.pid) if name.startswith(("serve-", "accept"))])


if __name__ == "__main__":
    main()
