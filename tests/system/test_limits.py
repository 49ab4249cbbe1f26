"""What one process may take of the server, and all together: who takes more is refused, and nobody else notices."""

import os
import re
import subprocess

from harness import BIN, BusTest, Calls, main

PAGE = os.path.join(os.path.dirname(__file__), "..", "..", "docs", "limits.md")
TOO_MANY, TOO_MANY_BYTES, TOO_MANY_VALUES = "3", "7", "9"


class Limits(BusTest):

    def test_a_process_has_so_many_publishers_and_another_one_its_own(self):
        server = self.server("--limit", "publishers-per-process=3", "--limit", "publishers=4")
        first = Calls(self)
        second = Calls(self)
        self.assertEqual(first.repeat(5, "publisher a#"), "0 x 3, 3 x 2")
        server.expect_error(f"process {first.process.popen.pid} (bus_calls) is refused more publishers: it has 3, "
                            "all processes together 3")
        self.assertEqual(second.repeat(2, "publisher b#"), "0 x 1, 3 x 1")
        server.expect_error(f"process {second.process.popen.pid} (bus_calls) is refused more publishers: it has 1, "
                            "all processes together 4")
        self.assertEqual(first.call("unpublish 1"), ["0"])
        self.assertEqual(second.call("publisher c")[0], "0", "there is room again")

    def test_a_process_has_so_many_subscribers(self):
        self.server("--limit", "subscribers-per-process=2")
        client = Calls(self)
        kept = [client.subscriber("reader", "t") for _ in range(2)]
        handshake = client.call("start third")[1]
        self.assertEqual(client.call(f"finish {handshake} commit"), [TOO_MANY, "-1"])
        self.assertEqual(client.call(f"unsubscribe {kept[0]}"), ["0"])
        client.subscriber("reader", "t")

    def test_a_topic_that_is_taken_costs_nothing(self):
        self.server("--limit", "publishers-per-process=2")
        client = Calls(self)
        client.publisher("t")
        self.assertEqual(client.repeat(10, "publisher t"), "8 x 10")
        client.publisher("u")

    def test_a_process_has_so_many_unfinished_registrations(self):
        server = self.server("--limit", "handshakes-per-process=2")
        client = Calls(self)
        self.assertEqual(client.repeat(4, "start half"), "0 x 2, 4 x 2")
        server.expect_error("is refused more unfinished registrations: it has 2")
        self.assertEqual(client.call("finish 0 cancel"), ["1", "-1"])
        self.assertEqual(client.call("start again")[0], "0")
        self.assertEqual(Calls(self).call("start other")[0], "0")

    def test_an_unfinished_registration_is_cancelled_in_time(self):
        server = self.server("--limit", "handshake-seconds=1")
        client = Calls(self)
        handshake = client.call("start half")[1]
        server.expect_error(f"unfinished registration {handshake} of process {client.process.popen.pid} (bus_calls) "
                            "takes too long and is cancelled")
        server.expect_error("[Subscriber]: The subscriber registration is cancelled")
        self.assertEqual(client.call(f"topic {handshake} t"), ["10"])
        client.subscriber("reader", "t")

    def test_a_process_has_so_many_bytes_of_names_and_topics(self):
        server = self.server("--limit", "name-bytes-per-process=400")
        client = Calls(self)
        long = "x" * 210
        publisher = client.publisher(long)
        self.assertEqual(client.call(f"publisher y{long}"), [TOO_MANY_BYTES, "-1"])
        server.expect_error("is refused more bytes of names and topics: it has 210")
        self.assertEqual(client.call(f"start {long}")[0], TOO_MANY_BYTES)
        handshake = client.call("start reader")[1]
        self.assertEqual(client.call(f"topic {handshake} {long}"), [TOO_MANY_BYTES])
        self.assertEqual(client.call(f"topic {handshake} short"), ["0"], "85 bytes")
        self.assertEqual(client.repeat(9, f"topic {handshake} short"), "8 x 9", "what is there already costs nothing")
        self.assertEqual(client.call(f"finish {handshake} commit")[0], "0")
        self.assertEqual(client.call(f"unpublish {publisher}"), ["0"])
        self.assertEqual(client.call(f"publisher {long}")[0], "0")

    def test_a_process_has_so_many_connections(self):
        server = self.server("--limit", "connections-per-process=6")
        swarm = [Calls(self) for _ in range(2)]  # of other processes
        many = self.start(f"{BIN}/bus_calls", "7")
        many.expect_error("cannot connect: -7")
        many.expect_exit(1)
        server.expect_error(f"process {many.popen.pid} (bus_calls) has 6 connections to one channel and gets no more")
        for client in swarm:
            client.publisher(f"of-{client.process.popen.pid}")
        self.assertEqual(self.start(f"{BIN}/bus_calls", "2").next_line(), "connected", "6 in static mode")

    def test_without_limits_there_are_none(self):
        for option in ("--no-limits", "--bare"):
            server = self.server(option)
            client = Calls(self)
            self.assertEqual(client.repeat(1100, "publisher a#"), "0 x 1100")
            self.assertEqual(client.repeat(100, "start half"), "0 x 100")
            client.process.kill()
            server.stop()

    def test_the_limits_are_those_of_the_page(self):
        listed = subprocess.run([f"{BIN}/msgbusd", "--limits"], check=True, capture_output=True, text=True).stdout
        listed = re.findall(r"^([a-z-]+)=(\d+)$", listed, re.MULTILINE)
        with open(PAGE, encoding="utf-8") as page:
            documented = re.findall(r"^\| `([a-z-]+)` \| ([\d,]+) \|", page.read(), re.MULTILINE)
        self.assertEqual([(name, number.replace(",", "")) for name, number in documented], listed)

    def test_a_limit_that_cannot_be_is_a_usage_error(self):
        for options in (("--limit", "publishers"), ("--limit", "cats=1"), ("--limit", "publishers=0"),
                        ("--limit", "publishers=1x"), ("--limit", "connections=2049"),
                        ("--limit", "connections-per-process=3"), ("--bare", "--hold-pushes", "1"),
                        ("--limit", "publishers=-1"), ("--no-notices", "--retain", "t"),
                        ("--no-account", "--retain", "t"), ("--bare", "--retain", "t"),
                        ("--bare", "--limit", "publishers=1"), ("--slow-subscriber", "x"),
                        ("--slow-subscriber", "x=drop-all"), ("--slow-subscriber", "x=cut:0"),
                        ("--no-parked-waits", "--slow-subscriber", "x=drop-oldest")):
            process = self.start(f"{BIN}/msgbusd", *options)
            process.expect_error("msgbusd: ")
            process.expect_exit(2)


class SlowSubscribers(BusTest):

    def fill(self, client, count):
        publisher = client.publisher("t")
        self.assertEqual(client.repeat(count, f"publish {publisher} 1"), f"0 x {count}")
        return publisher

    def test_one_that_leaves_too_much_unread_is_cut_and_nobody_else_notices(self):
        server = self.server("--limit", "queued-values=1000", log_level="info")
        reader = self.sub("t")
        slow = Calls(self)
        subscriber = slow.subscriber("slow", "t")
        client = Calls(self)
        publisher = client.publisher("t")
        for _ in range(11):  # in portions, so that the reader is never a thousand values behind
            self.assertEqual(client.repeat(91, f"publish {publisher} 1"), "0 x 91")
            reader.expect_all("t 1" for _ in range(91))
        line = server.expect_error("leaves too many values unread and is cut")
        self.assertIn(f"Subscriber {subscriber} (slow) of process {slow.process.popen.pid} (bus_calls)", line)
        server.expect_error(f"Subscriber {subscriber} has lost 1001 values")
        self.assertEqual(slow.call(f"wait {subscriber}"), [TOO_MANY_VALUES])
        self.assertEqual(slow.call("lost"), ["0", "9", "1001"])
        self.assertEqual(slow.call(f"unsubscribe {subscriber}"), ["8"])
        again = slow.subscriber("slow", "t")
        self.assertEqual(client.call(f"push {publisher} 5"), ["0"])
        self.assertEqual(slow.call(f"wait {again}"), ["0", "t", "5"])

    def test_one_that_keeps_up_is_never_cut(self):
        self.server("--limit", "queued-values=2")
        reader = self.sub("t")
        writer = self.pub("t")
        for value in range(200):
            writer.write(f"{value}\n")
            reader.expect(f"t {value}")

    def test_the_memory_of_a_process_and_of_all_is_limited(self):
        for limit in ("queued-bytes-per-process", "queued-bytes-total"):
            server = self.server("--limit", f"{limit}=100000", "--limit", "queued-values=100000", log_level="info")
            slow = Calls(self)
            small = slow.subscriber("small", "u")
            large = slow.subscriber("large", "t")
            client = Calls(self)
            few = client.publisher("u")
            self.assertEqual(client.repeat(300, f"push {few} 1"), "0 x 300")
            self.fill(client, 1500)
            server.expect_error(f"Subscriber {large} (large)")
            server.expect_error(f"Subscriber {large} has lost")
            self.assertEqual(slow.call(f"wait {small}"), ["0", "u", "1"])
            self.assertEqual(slow.call(f"wait {large}"), [TOO_MANY_VALUES])
            server.stop()


class SlowSubscriberPolicies(BusTest):
    """Only where the server holds the values: with parked waits."""

    def deliver(self, policy, count):
        """Returns: the values that a subscriber gets that waits only after `count` were pushed, and what it lost."""
        server = self.server("--slow-subscriber", f"slow*={policy}:10")
        slow = Calls(self)
        subscriber = slow.subscriber("slow", "t")
        client = Calls(self)
        publisher = client.publisher("t")
        watch = client.subscriber("other", "t")
        for value in range(count):
            self.assertEqual(client.call(f"push {publisher} {value}"), ["0"])
        for value in range(count):
            self.assertEqual(client.call(f"wait {watch}"), ["0", "t", str(value)])
        values = [int(slow.call(f"wait {subscriber}")[2]) for _ in range(10)]
        lost = slow.call("lost")
        server.stop()
        return values, lost

    def test_drop_oldest_keeps_the_newest(self):
        self.assertEqual(self.deliver("drop-oldest", 35), (list(range(25, 35)), ["0", "0", "25"]))

    def test_drop_newest_keeps_the_oldest(self):
        self.assertEqual(self.deliver("drop-newest", 35), (list(range(10)), ["0", "0", "25"]))

    def test_offers_are_revoked_before_the_oldest_are_dropped(self):
        self.server("--slow-subscriber", "slow=drop-oldest:10", log_level="info")
        slow = Calls(self)
        subscriber = slow.subscriber("slow", "t")
        client = Calls(self)
        watch = client.subscriber("other", "t")  # what it has received has been delivered to both
        publisher = client.publisher("t")
        for value in range(10):
            client.call(f"push {publisher} {value}")
        for value in range(10):
            self.assertEqual(client.call(f"wait {watch}"), ["0", "t", str(value)])
        self.assertEqual(slow.call(f"wait {subscriber}"), ["0", "t", "0"])  # the others are offered
        for value in range(10, 30):
            client.call(f"push {publisher} {value}")
        for value in range(10, 30):
            self.assertEqual(client.call(f"wait {watch}"), ["0", "t", str(value)])
        self.assertEqual([slow.call(f"wait {subscriber}")[2] for _ in range(10)], [str(n) for n in range(20, 30)])
        self.assertEqual(slow.call("lost"), ["0", "0", "19"])


if __name__ == "__main__":
    main()
