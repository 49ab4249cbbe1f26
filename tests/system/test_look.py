"""The commands that look into the bus, at servers that run, are paused, have stopped, were killed or are restarted: what they
print is what is on the bus, no client hears of them, and they end with the status that the documents give them.
"""

import json
import os
import signal
import subprocess

from harness import BIN, DONE, FAILED, NO_SERVER, PATIENCE, TIMED_OUT, USAGE, BusTest, main, wait_until


class LookTest(BusTest):
    """A bus on which commands are run to their end."""

    def run_msgbus(self, *arguments, status=DONE):
        """Fails unless it exits with `status`. Returns: the lines on stdout, and stderr as one text."""
        ended = subprocess.run([f"{BIN}/msgbus", *arguments], env=self.environment, timeout=60, text=True,
                               stdin=subprocess.DEVNULL, capture_output=True, check=False)
        self.assertEqual(ended.returncode, status, f"msgbus {arguments}: {ended.stdout}{ended.stderr}")
        return ended.stdout.splitlines(), ended.stderr

    def lines(self, *arguments, **more):
        lines, errors = self.run_msgbus(*arguments, **more)
        self.assertEqual(errors, "")
        return lines

    def json(self, *arguments, **more):
        lines = self.lines(*arguments, "--json", **more)
        self.assertEqual(len(lines), 1, lines)
        return json.loads(lines[0])


class Look(LookTest):

    def test_list_shows_topics_publishers_and_subscribers(self):
        server = self.server()
        reader = self.sub("a", "never", name="my reader")
        publisher = self.pub("a")
        publisher.write("21\n")
        reader.expect("a 21")
        heading, *topics = self.lines("list")
        self.assertEqual(heading.split(), "PID PROGRAM VALUE AGE RATE SUBSCRIBERS QUEUED DROPPED TOPIC".split())
        first, second = [line.split() for line in topics]
        self.assertEqual([first[0], first[1], first[2], first[5], first[8]],
                         [str(publisher.popen.pid), "msgbus", "21", "1", "a"])
        self.assertEqual([second[0], second[2], second[5], second[8]], ["-", "-", "1", "never"])
        _, line = self.lines("list", "publishers")
        self.assertEqual([line.split()[1], line.split()[4], line.split()[-1]], [str(publisher.popen.pid), "1", "a"])
        _, line = self.lines("list", "subscribers")
        self.assertEqual([line.split()[1], line.split()[4]], [str(reader.popen.pid), "2"])
        self.assertTrue(line.endswith("  my reader"), line)
        server.stop()

    def test_list_as_json_is_one_object(self):
        self.server()
        self.msgbus("pub", "a\nb", "-l", "-v").expect_error("publishing to topic 'a\\nb'")
        self.assertEqual([each["topic"] for each in self.json("list")["topics"]], ["a\\nb"])
        self.assertEqual([each["topic"] for each in self.json("list", "publishers")["publishers"]], ["a\\nb"])
        self.assertEqual(self.json("list", "subscribers"), {"version": 1, "subscribers": []})

    def test_a_look_is_no_client(self):
        server = self.server(log_level="debug")
        for arguments in (("list",), ("info", "x"), ("get", "x"), ("top", "--once"), ("check",), ("autopsy",)):
            subprocess.run([f"{BIN}/msgbus", *arguments], env=self.environment, timeout=60, check=False, capture_output=True)
        self.assertEqual(self.json("top", "--once")["clients"], [])
        server.stop()
        self.assertFalse([line for line in server.seen if "Register" in line])

    def test_info_finds_topics_names_and_ids(self):
        self.server()
        reader = self.sub("a", name="display")
        publisher = self.pub("a")
        publisher.write("5\n")
        reader.expect("a 5")
        text = "\n".join(self.lines("info", "a"))
        self.assertIn("last value    5, ", text)
        self.assertIn(f"process {publisher.popen.pid} (msgbus)", text)
        found = self.json("info", "display")
        self.assertIsNone(found["topic"])
        subscriber, = found["subscribers"]
        self.assertEqual(subscriber["name"], "display")
        self.assertIn("subscriber display", self.lines("info", str(subscriber["id"])))
        self.assertEqual(self.json("info", str(self.json("info", "a")["topic"]["publisher"]["id"]))["topic"]["topic"], "a")
        lines, errors = self.run_msgbus("info", "nothing", status=FAILED)
        self.assertEqual((lines, errors), ([], "msgbus: there is no topic, subscriber or id 'nothing'\n"))

    def test_values_are_shown_as_their_topic_is_described(self):
        self.server()
        publisher = self.pub("a", "--description", "fixed;step=1/10;unit=V")
        publisher.write("215\n")
        wait_until(self, lambda: self.json("list")["topics"][0]["last_value"] == 215, "the value to be accepted")
        wait_until(self, lambda: self.json("list")["topics"][0]["last_value_described"] == "21.5 V", "the description")
        self.assertRegex(self.lines("get", "a")[0], r"^215 \(21\.5 V\) [0-9.]+[a-z]+")
        self.assertEqual(self.json("get", "a")["last_value_described"], "21.5 V")
        text = "\n".join(self.lines("info", "a"))
        self.assertIn("last value    215 (21.5 V), ", text)
        self.assertIn("description   fixed;step=1/10;unit=V", text)
        publisher.end_input()
        publisher.expect_exit(DONE)
        self.assertRegex(self.lines("get", "a")[0], r"^215 [0-9.]+[a-z]+")

    def test_a_description_is_declared_to_a_restarted_server_again(self):
        server = self.server()
        publisher = self.pub("a", "--description", "int32;unit=rpm", "--reconnect", "10m")
        server.kill()
        self.server()
        publisher.write("3\n")
        wait_until(self, lambda: [topic["last_value_described"] for topic in self.json("list")["topics"]] == ["3 rpm"],
                   "the description")

    def test_a_description_that_is_not_taken_harms_nothing(self):
        self.server("--no-monitor")
        publisher = self.pub("a", "--description", "bool")
        publisher.write("1\n")
        self.assertIsNone(self.json("get", "a", "-W", f"{PATIENCE}s")["last_value_described"])
        _, errors = self.run_msgbus("pub", "b", "1", "--description", "no type", status=USAGE)
        self.assertIn("the description of a type is not valid", errors)

    def test_what_is_printed_of_a_name_can_be_given_back(self):
        self.server()
        self.publish("tab\there", 7)
        printed = self.lines("list")[1].split()[-1]
        self.assertEqual(printed, "tab\\there")
        self.assertTrue(self.lines("get", printed)[0].startswith("7 "))

    def test_get_prints_the_last_value_at_once(self):
        self.server()
        self.publish("a", 1, -9223372036854775808)
        value, age = self.lines("get", "a")[0].split()
        self.assertEqual(value, "-9223372036854775808")
        self.assertRegex(age, r"^[0-9.]+(ns|us|ms|s)$|^\d+m\d+s$")
        answer = self.json("get", "a")
        self.assertEqual((answer["last_value"], answer["last_value_text"]), (-2**63, "-9223372036854775808"))
        self.assertGreater(answer["last_age_ns"], 0)

    def test_get_waits_for_the_first_value(self):
        self.server()
        _, errors = self.run_msgbus("get", "later", status=FAILED)
        self.assertIn("has no value yet", errors)
        self.run_msgbus("get", "later", "-W", "50ms", status=TIMED_OUT)
        waiting = self.msgbus("get", "later", "-W", "10m")
        self.publish("later", 33)
        self.assertEqual(waiting.next_line().split()[0], "33")
        waiting.expect_exit(DONE)

    def test_get_ends_with_the_server(self):
        server = self.server()
        waiting = self.msgbus("get", "later", "-W", "10m")
        server.kill()
        waiting.expect_exit(NO_SERVER)
        self.run_msgbus("get", "later", status=NO_SERVER)

    def test_hz_counts_what_is_accepted(self):
        self.server()
        publisher = self.pub("a")
        publisher.write("1\n2\n3\n")
        wait_until(self, lambda: self.json("info", "a")["topic"]["publisher"]["accepted"] == 3, "three values")
        meter = self.msgbus("hz", "a", "-n", "2")
        self.assertEqual(meter.next_line().split(), ["RATE", "LEAST", "GAP", "MOST", "GAP", "ACCEPTED"])
        for _ in range(2):
            rate, _, _, accepted = meter.next_line().split()
            self.assertEqual((rate, accepted), ("0.0", "3"))
        meter.expect_exit(DONE)
        meter = self.msgbus("hz", "a", "--json")
        meter.next_line()
        publisher.write("4\n" * 500)
        total = 0
        while total < 503:
            line = json.loads(meter.next_line())
            total = line["accepted"]
        self.assertEqual(total, 503)
        self.assertGreater(line["rate"], 0)
        self.assertLessEqual(line["smallest_gap_ns"], line["largest_gap_ns"])
        meter.signal(signal.SIGINT)
        meter.expect_exit(DONE)
        self.run_msgbus("hz", "a", "-W", "10ms", status=TIMED_OUT)
        self.run_msgbus("hz", "unknown", status=FAILED)

    def test_watch_prints_what_happens(self):
        server = self.server()
        watch = self.msgbus("watch", "--json", "-a")
        self.assertEqual(json.loads(watch.next_line())["event"], "serving")
        reader = self.sub("a", name="display")
        event = json.loads(watch.next_line())
        self.assertEqual((event["event"], event["name"], event["pid"]), ("subscriber-registered", "display", reader.popen.pid))
        reader.kill()
        self.assertEqual(json.loads(watch.next_line())["event"], "subscriber-died")
        self.publish("b", 1)
        self.assertEqual([json.loads(watch.next_line())["event"] for _ in range(2)],
                         ["publisher-registered", "publisher-gone"])
        server.stop()
        self.assertEqual(json.loads(watch.next_line())["event"], "stopping")
        watch.signal(signal.SIGTERM)
        watch.expect_exit(DONE)

    def test_watch_begins_with_what_happens_next(self):
        self.server()
        self.publish("before", 1)
        watch = self.msgbus("watch", "-n", "1")

        def is_printed():
            self.publish("after", 1)
            return watch.popen.poll() is not None
        wait_until(self, is_printed, "an event to be printed")
        self.assertRegex(watch.next_line(), r"^\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{3}Z publisher-[a-z]+ id=\d+ pid=\d+ "
                                            r"program=msgbus name=after$")
        watch.expect_exit(DONE)

    def test_watch_follows_a_restarted_server(self):
        server = self.server()
        watch = self.msgbus("watch", "-a")
        self.assertIn(" serving ", watch.next_line() + " ")
        server.kill()
        watch.expect_error("is gone and did not stop in order")
        self.server()
        self.assertIn(" serving ", watch.next_line() + " ")
        self.publish("b", 1)
        self.assertIn(" publisher-registered ", watch.next_line())
        self.run_msgbus("watch", "-W", "10ms", status=TIMED_OUT)

    def test_a_server_that_ended_is_still_shown(self):
        server = self.server()
        self.publish("a", 12)
        server.pause()
        for command in (("list",), ("info", "a"), ("get", "a"), ("top", "--once")):
            lines, errors = self.run_msgbus(*command)
            self.assertTrue(lines)
            self.assertIn("is paused by a signal", errors)
        server.kill()
        for command in (("list",), ("info", "a"), ("get", "a"), ("top", "--once"), ("hz", "a", "-n", "1")):
            lines, errors = self.run_msgbus(*command)
            self.assertTrue(lines)
            self.assertIn("is gone and did not stop in order", errors)
            self.assertEqual(errors.count("\n"), 1)
        self.server().stop()
        self.assertIn("has stopped", self.run_msgbus("list")[1])

    def test_without_an_account_there_is_a_sentence(self):
        for command in (("list",), ("info", "a"), ("get", "a"), ("top", "--once"), ("top",), ("hz", "a"), ("watch",),
                        ("autopsy",), ("list", "--account", "/nonexistent/account")):
            lines, errors = self.run_msgbus(*command, status=NO_SERVER)
            self.assertEqual(lines, [])
            self.assertRegex(errors, r"^msgbus: there is no account '[^']*/account'.*\n$")

    def test_a_server_without_account_is_not_taken_for_the_one_before(self):
        self.server().kill()
        self.server("--no-account")
        wait_until(self, lambda: not os.path.exists(os.path.join(self.runtime, "account")), "the account to be set aside")
        self.assertIn("there is no account", self.run_msgbus("list", status=NO_SERVER)[1])
        self.assertIn("it was killed", "\n".join(self.run_msgbus("autopsy", "--previous")[0]))

    def test_what_is_no_account_is_refused(self):
        path = os.path.join(self.runtime, "account")
        for content in (b"", b"MGBUSACT", b"\xff" * 100000, bytes(100000)):
            with open(path, "wb") as file:
                file.write(content)
            for command in (("list",), ("top",), ("watch",), ("autopsy", "--json")):
                _, errors = self.run_msgbus(*command, status=FAILED)
                self.assertRegex(errors, r"^msgbus: .*account.*\n$")

    def test_an_account_can_be_read_elsewhere(self):
        server = self.server()
        self.publish("a", 12)
        server.stop()
        elsewhere = os.path.join(self.runtime, "kept")
        os.rename(os.path.join(self.runtime, "account"), elsewhere)
        self.run_msgbus("list", status=NO_SERVER)
        self.assertTrue(self.run_msgbus("get", "a", "--account", elsewhere)[0][0].startswith("12 "))

    def test_bad_command_lines_are_usage_errors(self):
        self.server()
        for command in (("list", "values"), ("info",), ("get",), ("get", "a", "-W", "soon"), ("hz", "a", "-n", "0"),
                        ("top", "--json"), ("top", "-d", "0"), ("top", "--sort", "colour"), ("watch", "-W", "-1"),
                        ("autopsy", "--previous", "--account", "x")):
            lines, errors = self.run_msgbus(*command, status=USAGE)
            self.assertEqual(lines, [])
            self.assertTrue(errors.startswith("msgbus: "), errors)

    def test_a_reader_that_closes_early_ends_a_look(self):
        self.server()
        read_end, write_end = os.pipe()
        watch = self.msgbus("watch", "-a", stdout=write_end)
        os.close(write_end)
        self.assertTrue(os.read(read_end, 1))
        os.close(read_end)
        watch.expect_exit(DONE)


if __name__ == "__main__":
    main()
