"""A drain lets subscribers read what was pushed, and no client loses more than the log says."""

import signal

from harness import DONE, NO_SERVER, REFUSED, BusTest, main


class Drains(BusTest):

    def test_what_was_pushed_is_read_before_the_stop(self):
        server = self.server(log_level="info")
        reader = self.sub("t", options=("--reconnect", "0"))
        reader.pause()
        self.publish("t", *range(2000))
        server.signal(signal.SIGUSR1)
        server.expect_error("Draining")
        reader.signal(signal.SIGCONT)
        reader.expect_all([f"t {value}" for value in range(2000)])
        server.expect_error("Drained: every value was read")
        server.expect_orderly_end()
        reader.expect_exit(NO_SERVER)

    def test_a_drain_of_an_idle_server_is_a_stop(self):
        server = self.server(log_level="info")
        reader = self.sub("t", options=("--reconnect", "0"))
        server.signal(signal.SIGUSR1)
        server.expect_error("Drained: every value was read")
        server.expect_orderly_end()
        reader.expect_exit(NO_SERVER)

    def test_after_its_limit_what_was_left_is_counted(self):
        server = self.server("--drain-limit", "100", log_level="info")
        reader = self.sub("t")
        reader.pause()
        self.publish("t", *range(500))
        server.signal(signal.SIGUSR1)
        line = server.expect_error("Values left unread: ")
        left = int(line.split("Values left unread: ")[1].split()[0])
        self.assertIn(" of 1 subscribers", line)
        server.expect_orderly_end()
        reader.signal(signal.SIGCONT)
        reader.signal(signal.SIGTERM)
        reader.expect_exit(DONE)
        read = [text for text in reader.seen if text.startswith("t ")]
        self.assertEqual(len(read) + left, 500)

    def test_while_it_drains_nothing_is_registered_and_pushes_are_refused(self):
        server = self.server(log_level="info")
        reader = self.sub("t", options=("--reconnect", "0"))
        publisher = self.pub("u", "--reconnect", "0")
        reader.pause()
        self.publish("t", *range(2000))
        server.signal(signal.SIGUSR1)
        server.expect_error("Draining")
        late = self.msgbus("sub", "t", "--name", "late")
        late.expect_exit(REFUSED)
        publisher.write("1\n")
        server.signal(signal.SIGTERM)  # ends the drain
        server.expect_error("Values left unread: ")
        server.expect_orderly_end()
        publisher.expect_exit(NO_SERVER)  # its push was refused and tried again, until the server was gone
        reader.kill()

    def test_without_intake_it_is_a_stop(self):
        server = self.server("--no-intake", log_level="info")
        server.signal(signal.SIGUSR1)
        server.expect_orderly_end()
        self.assertFalse([line for line in server.seen if "Drain" in line])


class Upgrades(BusTest):

    def test_clients_that_reconnect_lose_and_double_nothing(self):
        values = 30000
        server = self.server(log_level="info")
        reader = self.sub("t", options=("--reconnect", "60s"))
        publisher = self.pub("t", "--reconnect", "60s")
        publisher.write("".join(f"{value}\n" for value in range(values)))
        publisher.end_input()
        for value in range(3):
            reader.expect_all([f"t {number}" for number in range(value * 1000, (value + 1) * 1000)])
            server.signal(signal.SIGUSR1)
            server.expect_error("Drained: every value was read")
            server.expect_orderly_end()
            server = self.server("--hold-pushes", "2000", log_level="info")
        reader.expect_all([f"t {number}" for number in range(3000, values)])
        publisher.expect_exit(DONE)
        server.stop()


class Holds(BusTest):

    def test_pushes_wait_for_the_subscribers_of_an_earlier_server(self):
        self.server("--hold-pushes", "1000")
        publisher = self.msgbus("pub", "t", "7")
        reader = self.sub("t", options=("-n", "1"))
        reader.expect("t 7")
        publisher.expect_exit(DONE)


if __name__ == "__main__":
    main()
