"""A registration belongs to the process that made it: it ends with the process, and no other process can use it."""

from harness import BusTest, Calls, REFUSED, main, wait_until

UNKNOWN = "1"  # of a wait


class Ownership(BusTest):

    def test_the_topic_of_a_killed_publisher_is_free_at_once(self):
        server = self.server()
        for _ in range(20):
            victim = self.pub("t")
            victim.kill()
            server.expect_error("which is gone, is unregistered")
            self.publish("t", 1)

    def test_what_a_killed_process_registered_is_unregistered_in_order(self):
        server = self.server(log_level="info")
        victim = Calls(self)
        first = victim.publisher("a")
        second = victim.subscriber("reader", "a")
        third = victim.publisher("b")
        handshake = victim.call("start half")[1]
        pid = victim.process.popen.pid
        victim.process.kill()
        for what in (f"publisher {first}", f"subscriber {second}", f"publisher {third}"):
            server.expect_error(f"{what} of process {pid} (bus_calls), which is gone, is unregistered")
        server.expect_error(f"unfinished registration {handshake} of process {pid} (bus_calls), which is gone, "
                            "is cancelled")
        server.stop()

    def test_a_process_that_closes_everything_is_cleaned_up_too(self):
        server = self.server(log_level="info")
        victim = Calls(self)
        publisher = victim.publisher("a")
        victim.process.end_input()
        victim.process.expect_exit(0)
        server.expect_error(f"publisher {publisher} of process")
        self.publish("a", 1)

    def test_the_ids_of_another_process_are_unknown(self):
        self.server()
        owner = Calls(self)
        other = Calls(self)
        publisher = owner.publisher("t")
        subscriber = owner.subscriber("reader", "t")
        handshake = owner.call("start half")[1]

        self.assertEqual(other.call(f"push {publisher} 66"), ["0"])
        self.assertEqual(other.call(f"wait {subscriber}"), ["1"])
        self.assertEqual(other.call(f"unpublish {publisher}"), ["8"])
        self.assertEqual(other.call(f"unsubscribe {subscriber}"), ["8"])
        self.assertEqual(other.call(f"topic {handshake} u"), ["10"])
        self.assertEqual(other.call(f"finish {handshake} commit"), ["8", "-1"])
        self.assertEqual(other.call(f"finish {handshake} cancel"), ["8", "-1"])

        self.assertEqual(owner.call(f"push {publisher} 7"), ["0"])
        self.assertEqual(owner.call(f"wait {subscriber}"), ["0", "t", "7"], "and not what the other process pushed")
        self.assertEqual(owner.call(f"topic {handshake} u")[0], "0")
        self.assertEqual(owner.call(f"finish {handshake} commit")[0], "0")
        self.assertEqual(owner.call(f"unpublish {publisher}"), ["0"])
        self.assertEqual(owner.call(f"unsubscribe {subscriber}"), ["0"])

    def test_ids_that_nobody_has_are_answered_as_by_the_bus(self):
        self.server()
        client = Calls(self)
        for number in (-1, 0, 1, 77):
            self.assertEqual(client.call(f"push {number} 1"), ["0"])
            self.assertEqual(client.call(f"wait {number}"), ["2" if number == -1 else "1"])
            self.assertEqual(client.call(f"unpublish {number}"), ["8"])
            self.assertEqual(client.call(f"unsubscribe {number}"), ["8"])
            self.assertEqual(client.call(f"topic {number} t"), ["10"])
            self.assertEqual(client.call(f"finish {number} commit"), ["8", "-1"])

    def test_a_process_may_use_its_ids_on_every_connection(self):
        self.server()
        client = Calls(self)
        publisher = client.publisher("t")
        subscriber = client.subscriber("reader", "t")
        self.assertEqual(client.call(f"push {publisher} 7"), ["0"])
        self.assertEqual(client.call(f"wait {subscriber}"), ["0", "t", "7"])

    def test_without_ownership_everything_belongs_to_everybody_and_stays(self):
        self.server("--no-ownership")
        self.expect_shared()

    def test_bare_everything_belongs_to_everybody_and_stays(self):
        self.server("--bare")
        self.expect_shared()

    def expect_shared(self):
        owner = Calls(self)
        other = Calls(self)
        publisher = owner.publisher("t")
        subscriber = owner.subscriber("reader", "t")
        owner.process.kill()
        self.assertEqual(other.call(f"push {publisher} 66"), ["0"])
        self.assertEqual(other.call(f"wait {subscriber}"), ["0", "t", "66"])
        second = self.msgbus("pub", "t", "3")
        second.expect_error("topic 't' already has a publisher")
        second.expect_exit(REFUSED)
        self.assertEqual(other.call(f"unpublish {publisher}"), ["0"])
        self.assertEqual(other.call(f"unsubscribe {subscriber}"), ["0"])
        self.publish("t", 1)

    def test_a_waiting_subscriber_that_is_killed_costs_nothing_afterwards(self):
        server = self.server(log_level="info")
        victim = Calls(self)
        subscriber = victim.subscriber("reader", "t")
        victim.process.write(f"wait {subscriber}\n")
        self.publish("other", 1)  # an unrelated step, which needs the server
        victim.process.kill()
        server.expect_error(f"subscriber {subscriber} of process")
        self.assertEqual(Calls(self).call(f"wait {subscriber}"), [UNKNOWN])
        wait_until(self, lambda: self.publish("t", 1) is None, "a publisher")


if __name__ == "__main__":
    main()
