"""Live values over WebSocket: what clients get, and when it ends."""

import functools
import json
import os
import re
import signal
import socket
import struct
import time

from harness import DONE, FAILED, NO_SERVER, USAGE, main, wait_until
from websocket_client import BINARY, TEXT, V1, Closed, StreamTest


class Streams(StreamTest):

    def test_values_arrive_as_they_are_recorded(self):
        self.server()
        process = self.stream("one", "two")
        client = self.client(process)
        self.assertEqual(client.answer["sec-websocket-protocol"], V1)
        info = client.text("serverInfo")
        self.assertIn("msgbus ", info["name"])
        self.assertEqual(info["capabilities"], [])
        channels = client.channels()
        self.assertEqual(list(channels), ["one", "two"])
        self.assertEqual({**channels["one"], "id": None},
                         {"id": None, "topic": "one", "encoding": "cdr", "schemaName": "std_msgs/msg/Int64",
                          "schema": "int64 data", "schemaEncoding": "ros2msg"})
        client.subscribe(4_000_000_000, channels["two"]["id"])
        client.subscribe(0, channels["one"]["id"])
        self.settle(client)
        before = time.time_ns()
        self.publish("one", -2**63, 2**63 - 1)
        self.publish("two", 5)
        subscription, when, payload = client.value()
        self.assertTrue(before <= when <= time.time_ns(), when)
        self.assertEqual((subscription, payload), (0, b"\0\1\0\0" + struct.pack("<q", -2**63)))
        self.assertEqual(client.integer(), (0, 2**63 - 1))
        self.assertEqual(client.integer(), (4_000_000_000, 5))
        self.finish(process)

    def test_what_was_unsubscribed_does_not_come(self):
        self.server()
        process = self.stream("one", "two")
        client = self.client(process)
        channels = client.channels()
        client.subscribe(1, channels["one"]["id"])
        client.subscribe(2, channels["two"]["id"])
        client.send(op="unsubscribe", subscriptionIds=[1])
        self.settle(client)
        self.publish("one", 1, 2, 3)
        self.publish("two", 4)
        self.assertEqual(client.integer(), (2, 4))
        client.subscribe(1, channels["one"]["id"])  # the number may be used again
        self.settle(client)
        self.publish("one", 5)
        self.assertEqual(client.integer(), (1, 5))
        self.finish(process)

    def test_a_client_that_does_not_read_loses_values_and_others_do_not(self):
        self.server(log_level="warning")
        process = self.stream("t")
        slow = self.client(process, receive_buffer=4096)
        slow.subscribe(1, slow.channels()["t"]["id"])
        self.settle(slow)
        quick = self.subscribed(process)
        count, turn = 100_000, 2_500
        publisher = self.msgbus("pub", "t", "-")
        for begin in range(0, count, turn):  # no more than the quick one may leave unread
            values = range(begin, begin + turn)
            publisher.write("".join(f"{value}\n" for value in values))
            for value in values:
                self.assertEqual(quick.integer(), (7, value))
        publisher.end_input()
        publisher.expect_exit(DONE)
        line = process.expect_error("does not read fast enough: ")
        self.assertIn("client 1 ", line)
        self.publish("t", -1)
        self.assertEqual(quick.integer(), (7, -1))
        read, dropped = [], 0
        while not read or read[-1] != -1:
            kind, payload = slow.read_frame()
            if kind == BINARY:
                read.append(struct.unpack("<q", payload[17:])[0])
            else:
                dropped = int(re.search(r"(\d+) values were dropped", json.loads(payload)["message"])[1])
        self.assertEqual(len(read) + dropped, count + 1)  # each is sent or counted
        self.assertEqual(read[:-1], sorted(read[:-1]))
        self.assertLess(len(read), count * 3 // 4)
        self.assertEqual(read[-2], count - 1)  # it is the oldest that are dropped
        slow.close()
        process.expect_error(f"ended; it did not read fast enough: {dropped} values were dropped")
        self.finish(process)

    def test_a_topic_that_is_not_utf8_has_an_escaped_name(self):
        self.server()
        topic = os.fsdecode(b"\xff\"\\\n\xc3\xa9")
        process = self.stream(topic)
        client = self.client(process)
        [(name, channel)] = client.channels().items()
        self.assertEqual(name, "\\xff\"\\\\\\né")
        client.subscribe(1, channel["id"])
        self.settle(client)
        self.msgbus("pub", topic, "8").expect_exit(DONE)
        self.assertEqual(client.integer(), (1, 8))
        self.finish(process)

    def test_doubles_are_announced_as_such(self):
        self.server()
        process = self.stream("t", "u")
        client = self.client(process)
        before = client.channels()
        client.subscribe(1, before["t"]["id"])
        client.subscribe(2, before["u"]["id"])
        self.settle(client)
        publisher = self.pub("t", "--description", "float64;unit=V")
        bits = struct.unpack("<q", struct.pack("<d", 21.5))[0]
        publisher.write(f"{bits}\n")
        # No value of an integer's channel comes before.
        kind, text = client.read_frame()
        self.assertEqual((kind, json.loads(text)), (TEXT, {"op": "unadvertise", "channelIds": [before["t"]["id"]]}))
        after = client.channels()
        client.send(op="unsubscribe", subscriptionIds=[1])  # as clients do then
        self.settle(client)
        self.assertEqual(list(after), ["t"])
        self.assertEqual(after["t"]["schemaName"], "std_msgs/msg/Float64")
        self.assertNotIn(after["t"]["id"], [channel["id"] for channel in before.values()])
        client.subscribe(1, after["t"]["id"])
        self.settle(client)
        publisher.write(f"{bits}\n")
        subscription, _, payload = client.value()
        self.assertEqual((subscription, struct.unpack("<d", payload[4:])), (1, (21.5,)))
        self.publish("u", 3)
        self.assertEqual(client.integer(), (2, 3))
        self.assertEqual(self.client(process).channels()["t"], after["t"])
        publisher.end_input()
        self.finish(process)

    def test_many_topics_that_become_doubles_at_once_cut_no_client(self):
        self.server()
        topics = [f"t{number}" for number in range(40)]
        process = self.stream(*topics)
        client = self.client(process)
        before = client.channels()
        client.subscribe(1, before["t0"]["id"])
        self.settle(client)
        process.pause()
        publishers = [self.pub(topic, "--description", "float64;unit=V") for topic in topics]
        for topic in topics:
            wait_until(self, functools.partial(self.is_described, topic), "the description")
        process.signal(signal.SIGCONT)
        withdrawn = client.text("unadvertise")["channelIds"]
        self.assertEqual(withdrawn, [before[topic]["id"] for topic in topics])
        after = client.channels()
        self.assertEqual(list(after), topics)
        self.assertEqual({channel["schemaName"] for channel in after.values()}, {"std_msgs/msg/Float64"})
        client.subscribe(1, after["t0"]["id"])
        self.settle(client)
        publishers[0].write("5\n")
        self.assertEqual(client.value()[0], 1)
        for publisher in publishers:
            publisher.end_input()
        self.finish(process)

    def is_described(self, topic):
        process = self.msgbus("info", topic)
        process.expect_exit(DONE)
        return any("float64" in line for line in process.seen)

    def test_a_restarted_server_is_found_and_a_lost_one_ends_it(self):
        server = self.server()
        process = self.stream("t", "--reconnect", "30s")
        client = self.subscribed(process)
        server.kill()
        self.assertIn("server", client.text("status")["message"])
        server = self.server()
        process.expect_error("again with a restarted server")
        self.publish("t", 1)
        self.assertEqual(client.integer(), (7, 1))
        self.finish(process)
        with self.assertRaises(Closed) as closed:
            client.value()
        self.assertEqual(closed.exception.code, 1001)

        process = self.stream("t", "--reconnect", "0")
        client = self.subscribed(process)
        server.kill()
        with self.assertRaises(Closed) as closed:
            client.value()
        self.assertEqual(closed.exception.code, 1011)
        self.assertIn("bus", closed.exception.reason)
        process.expect_exit(NO_SERVER)

    def test_what_the_server_dropped_is_reported(self):
        self.server("--slow-subscriber", "streamer=drop-oldest:10")
        process = self.stream("t")
        client = self.subscribed(process)
        process.pause()
        self.publish("t", *range(1000))
        process.signal(signal.SIGCONT)
        lost = process.expect_error("lost ")
        read = [client.integer()[1]]
        while read[-1] != 999:
            read.append(client.integer()[1])
        self.assertEqual(read, sorted(read))
        self.assertEqual(len(read) + int(re.search(r"lost (\d+) values", lost)[1]), 1000)
        self.assertIn("lost ", client.text("status")["message"])
        self.finish(process)

    def test_it_waits_for_a_server(self):
        process = self.msgbus("stream", "t", "--port", "0")
        process.expect_exit(NO_SERVER)
        process = self.msgbus("stream", "t", "--port", "0", "--wait")
        process.expect_error("waiting for one")
        self.server()
        process.expect_error("streaming at")
        self.finish(process)
        self.finish(self.stream("t", "-q"))

    def test_a_signal_ends_it_whatever_its_clients_do(self):
        server = self.server()
        process = self.stream("t")
        still = self.client(process, receive_buffer=4096)
        still.subscribe(1, still.channels()["t"]["id"])
        self.settle(still)
        with socket.create_connection(("127.0.0.1", process.port)):
            self.publish("t", *range(20_000))
            process.signal(signal.SIGTERM)
            process.expect_exit(DONE)
        server.stop()

    def test_a_port_that_is_taken_is_one_line(self):
        self.server()
        process = self.stream("t")
        other = self.msgbus("stream", "t", "--port", str(process.port))
        other.expect_exit(FAILED)
        [line] = [line for line in other.seen if line]
        self.assertIn(f"port {process.port} of 127.0.0.1 is taken", line)
        self.finish(process)
        # Connections of the run before do not keep the port.
        again = self.msgbus("stream", "t", "--port", str(process.port))
        again.expect_error(f"streaming at ws://127.0.0.1:{process.port} ")
        self.finish(again)
        other = self.msgbus("stream", "t", "--allow-origin", "app.foxglove.dev")
        other.expect_exit(USAGE)


if __name__ == "__main__":
    main()
