"""A stop under load ends, answers every client, and leaves nothing; signals that come twice are one request."""

import signal
import time

from harness import BIN, DONE, NO_SERVER, BusTest, main


class Crowds(BusTest):
    """bench/stop measures how long these stops take."""

    def stop_under(self, waiting, registered, publishers):
        server = self.server("--no-limits", log_level="off")
        crowd = self.start(f"{BIN}/stop_crowd", str(waiting), str(registered), str(publishers))
        crowd.expect("ready")
        server.stop()
        crowd.expect_exit(DONE)

    def test_with_1000_waiting_subscribers_and_full_load(self):
        self.stop_under(1000, 0, 4)

    def test_with_30000_registered_subscribers_and_full_load(self):
        self.stop_under(20, 30000, 4)


class Signals(BusTest):

    def signal_twice(self, process):
        """As timeout(1) does, which signals its child and then its process group."""
        process.signal(signal.SIGTERM)
        process.signal(signal.SIGTERM)

    def test_a_server_that_is_signalled_twice_stops_in_order(self):
        server = self.server(log_level="info")
        readers = [self.sub("t", name=f"r{number}", options=("--reconnect", "0")) for number in range(20)]
        self.signal_twice(server)
        server.expect_error("Ended, served for")
        server.expect_orderly_end()
        for reader in readers:
            reader.expect_exit(NO_SERVER)

    def test_a_client_that_is_signalled_twice_unregisters(self):
        server = self.server()
        reader = self.sub("t")
        self.signal_twice(reader)
        reader.expect_exit(DONE)
        server.expect_error("The subscriber ID (1) has been removed")
        publisher = self.pub("t")
        self.signal_twice(publisher)
        publisher.expect_exit(DONE)
        self.publish("t", 1)

    def test_a_client_that_cannot_unregister_ends_at_a_later_signal(self):
        server = self.server()
        reader = self.sub("t")
        server.pause()
        reader.signal(signal.SIGTERM)
        while reader.popen.poll() is None:
            time.sleep(0.05)
            reader.signal(signal.SIGTERM)
        reader.expect_exit(-signal.SIGTERM)
        server.signal(signal.SIGCONT)


if __name__ == "__main__":
    main()
