"""Many deaths of waiting subscribers leave nothing behind in the server, and take nothing from others.

BORVEN_TEST_DEATHS is the number of deaths.
"""

import os
import threading

from harness import BIN, DONE, PATIENCE, BusTest, main, wait_until

DEATHS = int(os.environ.get("BORVEN_TEST_DEATHS", "300"))


def usage(server):
    """Returns: how many threads and descriptors the server has."""
    process = f"/proc/{server.popen.pid}"
    return len(os.listdir(f"{process}/task")), len(os.listdir(f"{process}/fd"))


class ManyDeaths(BusTest):

    def settled_usage(self, server, expected=None):
        """Returns: the usage, once it is as expected or has not changed for a while: threads end behind their work."""
        seen = []

        def is_settled():
            seen.append(usage(server))
            return seen[-1] == expected or (len(seen) >= 100 and len(set(seen[-100:])) == 1)

        wait_until(self, is_settled, "the server's threads and descriptors to settle")
        return seen[-1]

    def test_killed_waiters_leave_nothing_behind_and_others_lose_nothing(self):
        self.kill_waiters("own")

    def test_killed_waiters_of_shared_subscribers_leave_nothing_behind(self):
        self.kill_waiters("shared", "--no-ownership")

    def kill_waiters(self, kind, *options):
        server = self.server(*options, log_level="info")  # its first line opens the log's descriptor
        reader = self.sub("t")
        publisher = self.pub("t")
        publisher.write("0\n")
        reader.expect("t 0")
        before = self.settled_usage(server)

        ending = threading.Event()
        written = [0]

        def count_up():
            while not ending.is_set():
                publisher.write("".join(f"{len(written) + each}\n" for each in range(10)))
                written.extend(range(10))
                ending.wait(0.005)

        writer = threading.Thread(target=count_up)
        writer.start()
        try:
            waiters = self.start(f"{BIN}/dying_waiters", kind, str(DEATHS))
            waiters.expect_exit(DONE, PATIENCE + DEATHS / 20)
        finally:
            ending.set()
            writer.join()
        reader.expect_all(f"t {value}" for value in range(1, len(written)))
        self.assertEqual(self.settled_usage(server, before), before, "threads and descriptors")
        publisher.end_input()
        publisher.expect_exit(DONE)
        server.stop()


if __name__ == "__main__":
    main()
