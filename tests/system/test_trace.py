"""Single values on their way through the bus: each step is there, in its order, also beside other topics and under load."""

import json
import os

from harness import DONE, FAILED, NO_SERVER, TIMED_OUT, BusTest, main, wait_until


class Traces(BusTest):

    def trace(self, topic, count, *options):
        process = self.msgbus("trace", topic, "-n", str(count), "--json", *options)
        process.expect_error(f"following the next {count} value{'' if count == 1 else 's'} of topic '{topic}'")
        return process

    def result(self, process, status=DONE):
        process.expect_exit(status)
        [line] = [line for line in process.seen if line.startswith("{")]
        return json.loads(line)

    def expect_steps(self, value):
        for copy in value["copies"]:
            steps = [value["pushed_unix_ns"], copy["queued_unix_ns"], copy["offered_unix_ns"] or copy["queued_unix_ns"],
                     copy["taken_unix_ns"]]
            self.assertEqual(steps, sorted(steps), value)
            self.assertFalse(copy["uncertain"])
        self.assertEqual(len(value["copies"]), value["subscribers"])
        if value["copies"]:
            self.assertGreaterEqual(value["fanned_out_unix_ns"], max(copy["queued_unix_ns"] for copy in value["copies"]))

    def test_each_step_of_each_copy_is_there(self):
        self.server()
        readers = [self.sub("t", "other", name=name) for name in ("one", "two")]
        process = self.trace("t", 3)
        self.publish("other", 100)
        self.publish("t", 1, -2, 3, 4)
        record = self.result(process)
        self.assertEqual([value["value"] for value in record["values"]], [1, -2, 3])
        self.assertEqual((record["topic"], record["wanted"], record["lost_steps"]), ("t", 3, 0))
        for value in record["values"]:
            self.assertEqual(value["subscribers"], 2)
            self.expect_steps(value)
        for reader in readers:
            reader.expect_all(["other 100", "t 1", "t -2", "t 3", "t 4"])

    def test_a_thousand_values_of_a_stream(self):
        self.server()
        reader = self.sub("t", options=("-n", "5000", "--csv"))
        process = self.trace("t", 1000)
        publisher = self.pub("t")
        publisher.write("".join(f"{value}\n" for value in range(5000)))
        record = self.result(process)
        self.assertEqual([value["value"] for value in record["values"]], list(range(1000)))
        for value in record["values"]:
            self.expect_steps(value)
        reader.expect_exit(DONE)

    def test_values_without_subscribers_are_followed_too(self):
        self.server()
        process = self.trace("t", 2)
        self.publish("t", 1, 2)
        record = self.result(process)
        self.assertEqual([(value["subscribers"], value["fanned_out_unix_ns"]) for value in record["values"]],
                         [(0, None), (0, None)])

    def test_what_a_subscriber_that_leaves_has_not_read_is_dropped(self):
        self.server()
        reader = self.sub("t")
        reader.pause()
        process = self.trace("t", 1)
        self.publish("t", *range(2000))
        reader.kill()
        record = self.result(process)
        [copy] = record["values"][0]["copies"]
        self.assertTrue(copy["taken_unix_ns"] or copy["dropped_unix_ns"], copy)

    def test_the_file_for_the_viewer_has_a_slice_for_each_wait(self):
        self.server()
        self.sub("t", name="reader")
        file = os.path.join(self.runtime, "trace.json")
        process = self.trace("t", 2, "-o", file)
        self.publish("t", 1, 2)
        process.expect_exit(DONE)
        with open(file, encoding="utf-8") as stream:
            events = json.load(stream)["traceEvents"]
        names = [event["name"] for event in events if event["ph"] == "X"]
        self.assertEqual(names.count("inbound"), 2)
        self.assertEqual(names.count("queued"), 2)
        self.assertTrue(all(event["dur"] >= 0 for event in events if event["ph"] == "X"))

    def test_one_trace_at_a_time(self):
        self.server()
        first = self.trace("t", 1)
        second = self.msgbus("trace", "u")
        second.expect_error("the server does not follow values: Values of another topic")
        second.expect_exit(FAILED)
        first.signal(2)
        first.expect_exit(DONE)
        third = self.trace("u", 1)
        self.publish("u", 5)
        self.assertEqual(self.result(third)["values"][0]["value"], 5)

    def test_the_next_trace_has_nothing_of_a_reader_that_was_killed(self):
        self.server()
        self.trace("t", 1).kill()
        process = None

        def starts():
            nonlocal process
            process = self.msgbus("trace", "u", "-n", "1", "--json")
            return "following" in process.expect_error("follow")

        wait_until(self, starts, "the end of the first trace")
        self.publish("t", 1)
        self.publish("u", 2)
        self.assertEqual([value["value"] for value in self.result(process)["values"]], [2])

    def test_a_time_limit_prints_what_there_is(self):
        self.server()
        process = self.trace("t", 5, "-W", "2s")
        self.publish("t", 1)
        self.assertEqual(len(self.result(process, TIMED_OUT)["values"]), 1)

    def test_a_server_that_starts_later_is_waited_for(self):
        process = self.msgbus("trace", "t", "-n", "1", "--json", "--wait")
        process.expect_error("; waiting for one")
        self.server()
        process.expect_error("following")
        self.publish("t", 1)
        self.assertEqual(len(self.result(process)["values"]), 1)

    def test_without_a_monitor_there_is_a_sentence(self):
        process = self.msgbus("trace", "t")
        process.expect_error("there is no server in this runtime directory, or it serves no monitor")
        process.expect_exit(NO_SERVER)
        self.server("--no-monitor")
        self.msgbus("trace", "t").expect_exit(NO_SERVER)


if __name__ == "__main__":
    main()
