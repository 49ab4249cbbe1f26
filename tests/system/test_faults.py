"""A server that cannot go on for all of its clients ends at once, with a status of its own and one line."""

import os
import resource
import signal
import unittest

from harness import BIN, DONE, FAILED, FAULT, NO_SERVER, SANITIZED, BusTest, main

ENDING = "ending, so that the server can be started again"


class Faults(BusTest):

    def expect_fault(self, server, reason):
        line = server.expect_error(ENDING)
        self.assertIn(f"msgbusd: {reason}", line)
        server.expect_exit(FAULT)
        self.assertEqual(server.seen, [line], "at --log-level off there is no other line")
        self.server(log_level="off")
        self.expect_working()

    def test_a_thread_that_cannot_be_started_ends_the_server(self):
        own = self.environment
        self.environment = {**own, "LD_PRELOAD": f"{BIN}/thread_limit.so", "BORVEN_THREAD_LIMIT": "ready"}
        server = self.server("--no-parked-waits", log_level="off")
        self.environment = own
        reader = self.sub("t", options=("--reconnect", "0"))
        reader.expect_exit(NO_SERVER)
        self.expect_fault(server, "cannot start a thread of the bus")

    @unittest.skipIf(SANITIZED, "sanitizers reserve more addresses than any limit")
    def test_memory_that_runs_out_ends_the_server(self):
        server = self.server("--no-limits", log_level="off")
        with open(f"/proc/{server.popen.pid}/statm", encoding="utf-8") as statm:
            size = int(statm.read().split()[0]) * resource.getpagesize()
        resource.prlimit(server.popen.pid, resource.RLIMIT_AS, (size + (8 << 20), size + (8 << 20)))
        crowd = self.start(f"{BIN}/stop_crowd", "0", "1000000", "0")
        self.expect_fault(server, "there is no memory")
        crowd.wait()

    def test_descriptors_that_run_out_harm_no_client_that_is_there(self):
        server = self.server(log_level="off")
        reader = self.sub("t")
        publisher = self.pub("t")
        used = len(os.listdir(f"/proc/{server.popen.pid}/fd"))
        # One less than a client takes. Two are free again when the failure is reported: a sanitizer opens a pipe then.
        resource.prlimit(server.popen.pid, resource.RLIMIT_NOFILE, (used + 4, used + 4))
        late = self.msgbus("sub", "t", "--name", "late", "-W", "10s")
        late.expect_error("cannot connect to the message bus: ")
        late.expect_exit(FAILED)
        for value in range(100):
            publisher.write(f"{value}\n")
        reader.expect_all([f"t {value}" for value in range(100)])
        server.stop()

    def test_a_log_that_cannot_be_written_harms_no_client(self):
        limit = 1 << 16
        for path in ("/dev/full", os.path.join(os.path.dirname(self.runtime), "limited")):
            with open(path, "wb") as log:
                server = self.server(stderr=log)
            resource.prlimit(server.popen.pid, resource.RLIMIT_FSIZE, (limit, limit))
            reader = self.sub("t")
            self.publish("t", *range(1000))
            reader.expect_all([f"t {value}" for value in range(1000)])
            reader.signal(signal.SIGTERM)
            reader.expect_exit(DONE)
            server.stop()
        self.assertEqual(os.path.getsize(path), limit, "the limit was not reached")


if __name__ == "__main__":
    main()
