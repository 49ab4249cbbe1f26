"""`msgbus sub --match`: topics that are there and topics that come, each in its own order, whatever becomes of the others."""

import json
import time

from harness import DONE, FAILED, USAGE, BusTest, main, wait_until


class Match(BusTest):

    def reader(self, *globs, options=()):
        return self.sub(*(word for glob in globs for word in ("--match", glob)), options=options)

    def subscribers(self, name="reader"):
        process = self.msgbus("list", "subscribers", "--json")
        process.expect_exit(DONE)
        [line] = [line for line in process.seen if line.startswith("{")]
        return [each for each in json.loads(line)["subscribers"] if each["name"] == name]

    def topics(self):
        return sum(len([topic for topic in each["topics"] if not topic.startswith(r"\x1F")]) for each in self.subscribers())

    def test_topics_that_are_there_and_those_that_come_arrive_each_in_order(self):
        self.server()
        there = [self.pub("a/0"), self.pub("b")]
        reader = self.reader("a/*", options=("-n", "2100"))
        come = [self.pub(f"a/{number}") for number in range(1, 21)]
        wait_until(self, lambda: self.topics() == 21, "all of them to be received")
        for publisher in [*there, *come]:
            publisher.write("".join(f"{value}\n" for value in range(100)))
            publisher.end_input()
        values = {}
        for _ in range(2100):
            topic, value = reader.next_line().split()
            values.setdefault(topic, []).append(int(value))
        reader.expect_exit(DONE)
        self.assertEqual(values, {f"a/{number}": list(range(100)) for number in range(21)})

    def test_a_topic_that_comes_starts_with_its_last_value_and_goes_on_without_a_gap(self):
        self.server()
        reader = self.reader("t*")
        publisher = self.pub("t")
        publisher.write("".join(f"{value}\n" for value in range(20000)))
        publisher.end_input()
        values = []
        while not values or values[-1] != 19999:
            values.append(int(reader.next_line().split()[1]))
        self.assertEqual(values, list(range(values[0], 20000)))
        self.publish("t", 1)
        reader.expect("t 1")

    def test_a_short_lived_topic_leaves_its_last_value(self):
        self.server()
        reader = self.reader("t*")
        self.publish("t", 1, 2, 3)
        values = [reader.next_line()]
        while values[-1] != "t 3":
            values.append(reader.next_line())
        self.assertEqual(values, ["t 1", "t 2", "t 3"][-len(values):])

    def test_a_topic_that_has_a_subscriber_before_its_publisher_misses_nothing(self):
        self.server()
        reader = self.reader("t*")
        self.sub("t", name="other")
        reader.expect_error("receiving topic 't' too")
        self.publish("t", *range(1000))
        reader.expect_all([f"t {value}" for value in range(1000)])

    def test_a_topic_that_is_named_too_or_matches_twice_arrives_once(self):
        self.server()
        there = self.pub("a")
        reader = self.sub("a", "x", "--match", "a*", "--match", "*", options=("--json",))
        self.publish("x", 1)
        there.write("2\n")
        self.publish("b", 3)
        received = [json.loads(reader.next_line()) for _ in range(3)]
        self.assertEqual([(each["topic"], each["value"], each["seq"]) for each in received],
                         [("x", 1, 1), ("a", 2, 2), ("b", 3, 3)])

    def test_a_topic_that_vanishes_disturbs_no_other(self):
        self.server()
        reader = self.reader("*")
        stays, dies = self.pub("stays"), self.pub("dies")
        dies.write("1\n")
        reader.expect("dies 1")
        stays.write("2\n")
        reader.expect("stays 2")
        dies.kill()
        for value in range(3, 100):
            stays.write(f"{value}\n")
            reader.expect(f"stays {value}")
        self.publish("dies", 100)
        reader.expect("dies 100")

    def test_more_topics_than_a_process_may_have_subscribers_come_and_go(self):
        self.server("--limit", "subscribers-per-process=70")
        reader = self.reader("t/*")
        for number in range(150):
            self.publish(f"t/{number}", number)
            reader.expect(f"t/{number} {number}")
        self.assertLessEqual(len(self.subscribers()), 65)
        self.publish("t/0", 1000)
        reader.expect("t/0 1000")
        reader.signal(2)
        reader.expect_exit(DONE)

    def test_a_topic_beyond_a_limit_is_reported_and_the_others_go_on(self):
        self.server("--limit", "subscribers-per-process=2")
        reader = self.reader("t*")
        first = self.pub("t1")
        reader.expect_error("receiving topic 't1' too")
        self.pub("t2").write("2\n")
        reader.expect_error("topic 't2' cannot be received for now: ")
        first.write("1\n")
        reader.expect("t1 1")
        reader.signal(2)
        reader.expect_exit(FAILED)

    def test_it_goes_on_with_a_restarted_server(self):
        server = self.server()
        reader = self.reader("t*")
        self.publish("t1", 1)
        reader.expect("t1 1")
        server.stop()
        self.server()
        reader.expect_error("again with a restarted server")
        wait_until(self, lambda: self.topics() == 1, "the topic to be received again")
        self.publish("t1", 2)
        reader.expect("t1 2")
        self.publish("t2", 3)
        reader.expect("t2 3")
        reader.signal(2)
        reader.expect_exit(DONE)

    def test_the_restart_may_take_long(self):
        server = self.server()
        reader = self.reader("t*", options=("--reconnect", "60s"))
        self.publish("t1", 1)
        reader.expect("t1 1")
        server.kill()
        time.sleep(3)  # more than a server needs to make its account
        self.server()
        reader.expect_error("again with a restarted server")
        self.publish("t2", 3)
        reader.expect("t2 3")
        reader.signal(2)
        reader.expect_exit(DONE)
        self.assertNotIn("keeps no account", "\n".join(reader.seen))

    def test_silence_and_counts_are_those_of_all_topics(self):
        self.server()
        reader = self.reader("t*", options=("--idle", "1s", "--csv", "--ts=rel"))
        self.publish("t1", 1)
        self.publish("t2", 2)
        lines = [reader.next_line() for _ in range(3)]
        self.assertEqual([line.split(",", 1)[1] for line in lines], ["seq,topic,value", "1,t1,1", "2,t2,2"])
        reader.expect_end()
        reader.expect_exit(DONE)

    def test_a_server_without_an_account_is_one_error(self):
        server = self.server("--no-account")
        reader = self.msgbus("sub", "--match", "*")
        reader.expect_exit(FAILED)
        self.assertEqual(reader.seen, [
            "msgbus: the server keeps no account (--no-account), so that --match cannot notice the topics that it has"])
        server.stop()
        # What a server before has left is no account of this one.
        self.server().stop()
        self.server("--no-account")
        reader = self.msgbus("sub", "--match", "*")
        reader.expect_error("keeps no account")
        reader.expect_exit(FAILED)

    def test_a_restarted_server_without_an_account_is_reported_and_the_topics_go_on(self):
        server = self.server()
        reader = self.reader("t*")
        self.publish("t1", 1)
        reader.expect("t1 1")
        server.stop()
        self.server("--no-account")
        reader.expect_error("topics that come from now on are not noticed")
        self.publish("t1", 2)
        reader.expect("t1 2")
        reader.signal(2)
        reader.expect_exit(FAILED)

    def test_a_pattern_that_matches_nothing_is_an_error(self):
        self.server()
        for pattern, sentence in (("", "an empty pattern"), ("a\\", "ends with a backslash")):
            process = self.msgbus("sub", "--match", pattern)
            process.expect_error(sentence)
            process.expect_exit(USAGE)


if __name__ == "__main__":
    main()
