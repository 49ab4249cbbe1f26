"""Published values arrive complete and in order at every subscriber of their topic, and at no other."""

import json
import os
import signal
import subprocess
import unicodedata

from harness import BIN, DONE, FAILED, MODE, BusTest, main


class Delivery(BusTest):

    def deliver_to_two(self, count):
        self.server()
        readers = [self.sub("t", name=name, options=("-n", str(count))) for name in ("left", "right")]
        publisher = self.pub("t")
        publisher.write("".join(f"{value}\n" for value in range(count)))
        publisher.end_input()
        publisher.expect_exit(DONE)
        for reader in readers:
            reader.expect_all(f"t {value}" for value in range(count))
            reader.expect_end()
            reader.expect_exit(DONE)

    def test_one_publisher_reaches_two_subscribers_in_order(self):
        self.deliver_to_two(300)

    def test_two_topics_reach_one_subscriber_in_the_order_of_their_pushes(self):
        self.server()
        reader = self.sub("a", "b", options=("-n", "6"))
        for value in range(3):
            self.publish("a", value)
            self.publish("b", -value)
        reader.expect_all(["a 0", "b 0", "a 1", "b -1", "a 2", "b -2"])
        reader.expect_exit(DONE)

    def test_a_subscriber_gets_no_topic_that_it_did_not_name(self):
        self.server()
        reader = self.sub("mine", options=("-n", "1"))
        self.publish("other", 1)
        self.publish("mine", 2)
        reader.expect("mine 2")
        reader.expect_end()

    def test_two_subscribers_of_one_name_both_receive(self):
        self.server()
        readers = [self.sub("t", name="same", options=("-n", "1")) for _ in range(2)]
        self.publish("t", 5)
        for reader in readers:
            reader.expect("t 5")

    def test_values_have_64_bits(self):
        self.server()
        extremes = [-2**63, -1, 0, 1, 2**63 - 1]
        reader = self.sub("t", options=("-n", "5"))
        self.publish("t", *extremes)
        reader.expect_all(f"t {value}" for value in extremes)

    def test_a_negative_value_is_no_option(self):
        self.server()
        reader = self.sub("t", options=("-n", "1"))
        self.msgbus("pub", "t", "-7").expect_exit(DONE)
        reader.expect("t -7")

    def test_the_last_line_needs_no_line_end(self):
        self.server()
        reader = self.sub("t", options=("-n", "2"))
        publisher = self.pub("t")
        publisher.write("1\n2")
        publisher.end_input()
        publisher.expect_exit(DONE)
        reader.expect_all(["t 1", "t 2"])

    def test_a_line_is_published_at_once(self):
        self.server()
        reader = self.sub("t")
        publisher = self.pub("t")
        for value in range(3):
            publisher.write(f"{value}\n")
            reader.expect(f"t {value}")

    def test_json_tells_topic_and_value_exactly(self):
        self.server()
        topic = 'with "quotes", a \\ and\nnew line \u00e4'
        reader = self.sub(topic, options=("-n", "1", "--json"))
        self.publish(topic, 2**63 - 1)
        message = json.loads(reader.next_line())
        self.assertEqual((message["topic"], message["value"]), (topic, 2**63 - 1))
        reader.expect_end()

    def test_plain_output_is_one_line_whatever_the_topic(self):
        self.server()
        reader = self.sub("two\nlines", options=("-n", "1"))
        self.publish("two\nlines", 1)
        reader.expect("two\\nlines 1")
        reader.expect_end()

    CONTROLS = "a\\b \x1b[31m\x7f\u009b31m\u2028 \udc9b31m \u00e4"  # U+DC9B stands for a lone byte 9B

    def test_plain_output_controls_no_terminal_and_printf_gives_the_topic_back(self):
        self.server()
        reader = self.sub(self.CONTROLS, options=("-n", "1"))
        self.publish(self.CONTROLS, 1)
        line = reader.next_line()
        self.assertEqual(line, "a\\\\b \\x1b[31m\\x7f\\xc2\\x9b31m\\xe2\\x80\\xa8 \\x9b31m \u00e4 1")
        topic = subprocess.run(["bash", "-c", 'printf %b "${1% *}"', "bash", line], check=True, stdout=subprocess.PIPE).stdout
        self.assertEqual(topic, os.fsencode(self.CONTROLS))

    def test_json_output_controls_no_terminal(self):
        self.server()
        topic = "a\\b \x1b[31m\x7f\u009b31m\u2028 \u00e4"
        reader = self.sub(topic, options=("-n", "1", "--json"))
        self.publish(topic, 1)
        line = reader.next_line()
        self.assertFalse([character for character in line if unicodedata.category(character) in ("Cc", "Cf", "Zl", "Zp")], line)
        self.assertEqual(json.loads(line)["topic"], topic)

    def test_messages_that_quote_a_topic_or_a_name_control_no_terminal(self):
        server = self.server()
        quoted = "t\x1b[31m\u009b"
        shown = "t\\x1b[31m\\xc2\\x9b"
        reader = self.msgbus("sub", quoted, "--name", quoted)
        reader.expect_error(f"subscribed as '{shown}'")
        publisher = self.msgbus("pub", quoted, "-l", "-v")
        publisher.expect_error(f"publishing to topic '{shown}'")
        refused = self.msgbus("pub", quoted, "1")
        refused.expect_error(f"topic '{shown}' already has a publisher")
        unknown = self.msgbus(quoted)
        unknown.expect_error(f"unknown command '{shown}'")
        server.expect_error(shown)
        for process in (server, reader, publisher, refused, unknown):
            self.assertNotIn("\x1b", "".join(process.seen))

    def test_a_subscriber_that_does_not_read_loses_nothing(self):
        self.server()
        reader = self.sub("t", options=("-n", "5000"))
        reader.pause()
        publisher = self.pub("t")
        publisher.write("".join(f"{value}\n" for value in range(5000)))
        publisher.end_input()
        publisher.expect_exit(DONE)
        reader.signal(signal.SIGCONT)
        reader.expect_all(f"t {value}" for value in range(5000))
        reader.expect_exit(DONE)

    def test_a_subscriber_that_lags_behind_gets_two_topics_in_the_order_of_their_pushes(self):
        self.server(log_level="info")  # at debug level the server offers no values ahead
        reader = self.sub("a", "b", options=("-n", "600"))
        reader.pause()
        pushed = []
        for run in range(6):
            topic = "ab"[run % 2]
            values = range(1000 * run, 1000 * run + 100)
            self.publish(topic, *values)
            pushed.extend(f"{topic} {value}" for value in values)
        reader.signal(signal.SIGCONT)
        reader.expect_all(pushed)
        reader.expect_end()
        reader.expect_exit(DONE)

    def test_a_topic_of_1023_bytes_arrives_without_its_last_one_and_both_sides_are_warned(self):
        self.server()
        topic = "x" * 1023
        reader = self.msgbus("sub", topic, "--name", "reader", "-n", "1")
        reader.expect_error("warning: subscribers receive only the first 1022 bytes")
        reader.expect_error("subscribed as")
        publisher = self.msgbus("pub", topic, "1")
        publisher.expect_error("warning: subscribers receive only the first 1022 bytes")
        publisher.expect_exit(DONE)
        reader.expect("x" * 1022 + " 1")

    def test_a_topic_of_1022_bytes_arrives_whole(self):
        self.server()
        topic = "y" * 1022
        reader = self.sub(topic, options=("-n", "1"))
        self.publish(topic, 1)
        reader.expect(topic + " 1")

    def test_delivery_is_the_same_without_the_additions_of_the_server(self):
        self.server("--no-parked-waits", "--no-flush-wake", "--no-placement", "--no-arena-pool")
        reader = self.sub("t", options=("-n", "100"))
        self.publish("t", *range(100))
        reader.expect_all(f"t {value}" for value in range(100))
        reader.expect_exit(DONE)

    def test_delivery_is_the_same_with_everything_on_one_processor(self):
        usable = os.sched_getaffinity(0)
        self.addCleanup(os.sched_setaffinity, 0, usable)
        os.sched_setaffinity(0, {max(usable)})
        self.deliver_to_two(5000)

    def test_the_examples_talk_to_each_other(self):
        server = self.server()
        reader = self.start(f"{BIN}/example_subscribe")
        server.expect_error("Wait is called by subscriber")
        self.start(f"{BIN}/example_publish_one").expect_exit(DONE)
        reader.expect("temperature 21")
        server.kill()
        reader.expect_exit(FAILED)

    def test_clients_find_the_server_by_themselves(self):
        self.server()
        del self.environment["BORVEN_BUS"]
        self.expect_working()

    def test_an_option_overrules_the_environment(self):
        self.server()
        self.environment["BORVEN_BUS"] = "dynamic" if MODE == "static" else "static"
        self.msgbus("pub", "t", "1", f"--{MODE}").expect_exit(DONE)


if __name__ == "__main__":
    main()
