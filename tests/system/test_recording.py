"""Recordings: every value with its time, descriptions, losses and restarts; files that were cut; and what is played from them."""

import json
import os
import random
import re
import time

from harness import BIN, DONE, FAILED, NO_SERVER, REFUSED, TIMED_OUT, USAGE, BusTest, main, wait_until

KILLS = int(os.environ.get("BORVEN_TEST_KILLS", "3"))  # how often a recorder is killed


class RecordingTest(BusTest):
    """A test with recordings in a folder of its own."""

    def path(self, name="file.mcap"):
        return os.path.join(os.path.dirname(self.runtime), name)

    def recorder(self, *arguments, file="file.mcap"):
        process = self.msgbus("record", self.path(file), *arguments)
        process.expect_error("recording to ")
        return process

    def finish(self, recorder, status=DONE):
        recorder.signal(2)
        recorder.expect_exit(status)

    def inspect(self, file="file.mcap", status=DONE):
        process = self.msgbus("inspect", self.path(file), "--json")
        process.expect_exit(status)
        [line] = [line for line in process.seen if line.startswith("{")]
        return json.loads(line)

    def exported(self, file="file.mcap"):
        process = self.msgbus("export", self.path(file), "--to", "jsonl")
        process.expect_exit(DONE)
        return [json.loads(line) for line in process.seen if line.startswith("{")]

    def has_values(self):
        return self.inspect()["values"] > 0

    def size(self, file="file.mcap"):
        return os.path.getsize(self.path(file)) if os.path.exists(self.path(file)) else 0


class Recordings(RecordingTest):

    def test_every_value_is_in_the_file_with_its_time(self):
        self.server()
        recorder = self.recorder("one", "two", "-n", "1003")
        before = time.time()
        self.publish("one", -2**63, 2**63 - 1)
        self.publish("two", 5)
        self.publish("one", *range(1000))
        recorder.expect_exit(DONE)
        values = self.exported()
        self.assertEqual([(each["topic"], each["value"]) for each in values],
                         [("one", -2**63), ("one", 2**63 - 1), ("two", 5), *(("one", value) for value in range(1000))])
        self.assertEqual([each["seq"] for each in values if each["topic"] == "one"], list(range(1002)))
        times = [each["time"] for each in values]
        self.assertEqual(times, sorted(times))
        summary = self.inspect()
        self.assertTrue(summary["complete"])
        self.assertEqual([(each["topic"], each["values"]) for each in summary["topics"]], [("one", 1002), ("two", 1)])
        first = summary["topics"][0]["first_unix_ns"] / 1e9
        self.assertTrue(before - 1 < first < time.time() + 1, first)
        self.assertEqual([note["name"] for note in summary["notes"]], ["msgbus.begin", "msgbus.end"])
        self.assertIn("server_version", summary["notes"][0]["texts"])
        self.assertEqual(summary["notes"][1]["texts"], {"values": "1003", "lost": "0"})

    def test_a_file_that_is_there_is_kept(self):
        self.server()
        with open(self.path(), "w", encoding="utf-8") as file:
            file.write("mine")
        process = self.msgbus("record", self.path(), "t")
        process.expect_error("there is a file ")
        process.expect_exit(FAILED)
        with open(self.path(), encoding="utf-8") as file:
            self.assertEqual(file.read(), "mine")
        self.finish(self.recorder("t", "--force"))
        self.assertTrue(self.inspect()["complete"])

    def test_descriptions_are_recorded_and_played(self):
        self.server()
        recorder = self.recorder("t", "d")
        publishers = [self.pub("t", "--description", "fixed;step=1/10;unit=V"), self.pub("d", "--description", "float64")]
        publishers[0].write("215\n")
        publishers[1].write("0x3ff8000000000000\n")
        wait_until(self, lambda: self.inspect()["values"] == 2, "both values")
        self.finish(recorder)
        for publisher in publishers:
            publisher.end_input()
            publisher.expect_exit(DONE)
        topics = {each["topic"]: each for each in self.inspect()["topics"]}
        self.assertEqual((topics["t"]["description"], topics["t"]["float"]), ("fixed;step=1/10;unit=V", False))
        self.assertEqual((topics["d"]["description"], topics["d"]["float"]), ("float64", True))
        player = self.msgbus("play", self.path(), "--topic", "t=again", "--loop")
        wait_until(self, lambda: self.get("again") == "215 (21.5 V)", "the value with its meaning")
        wait_until(self, lambda: self.get("d") == "4609434218613702656 (1.5)", "the other one")
        player.signal(2)
        player.expect_exit(DONE)

    def get(self, topic):
        process = self.msgbus("get", topic)
        process.wait()
        return process.seen[0].rsplit(" ", 1)[0] if process.seen else ""

    def test_what_is_played_has_the_order_and_the_times_of_the_recording(self):
        self.server()
        recorder = self.recorder("one", "two", "-n", "60")
        one, two = self.pub("one", "-r", "100"), self.pub("two", "-r", "100")
        for publisher in (one, two):
            publisher.write("".join(f"{value}\n" for value in range(30)))
            publisher.end_input()
            publisher.expect_exit(DONE)
        recorder.expect_exit(DONE)
        reader = self.sub("one", "two", options=("-n", "60", "--json"))
        self.msgbus("play", self.path()).expect_exit(DONE)
        reader.expect_exit(DONE)
        played = [json.loads(line) for line in reader.seen if line.startswith("{")]
        self.assertEqual([(each["topic"], each["value"]) for each in played],
                         [(each["topic"], each["value"]) for each in self.exported()])

    def test_parts_speeds_and_loops(self):
        self.server()
        recorder = self.recorder("t", "-n", "11")
        self.msgbus("pub", "t", *(str(value) for value in range(11)), "--interval", "50ms").expect_exit(DONE)
        recorder.expect_exit(DONE)
        for options, values in ((["--speed", "max"], range(11)), (["--speed", "20"], range(11)),
                                (["--from", "225ms", "--speed", "max"], range(5, 11)),
                                (["--to", "225ms", "--speed", "max"], range(5)),
                                (["--from", "125ms", "--to", "225ms"], range(3, 5))):
            with self.subTest(options=options):
                reader = self.sub("t", options=("-n", str(len(values))))
                self.msgbus("play", self.path(), *options).expect_exit(DONE)
                reader.expect_all([f"t {value}" for value in values])
        reader = self.sub("t", options=("-n", "30"))
        player = self.msgbus("play", self.path(), "--loop", "--speed", "max")
        reader.expect_all([f"t {index % 11}" for index in range(30)])
        player.signal(2)
        player.expect_exit(DONE)

    def test_a_topic_of_any_bytes_comes_back(self):
        self.server()
        topic = b"a\xff \\\n,".decode("utf-8", "surrogateescape")
        recorder = self.recorder(topic, "-n", "1")
        self.publish(topic, 1)
        recorder.expect_exit(DONE)
        self.assertEqual(bytes.fromhex(self.exported()[0]["topic_hex"]), os.fsencode(topic))

    def test_a_killed_recorder_leaves_everything_that_is_older_than_a_second(self):
        self.server()
        for _ in range(KILLS):
            recorder = self.recorder("t", "--force")
            publisher = self.msgbus("pub", "t", "-", "-r", "20000")
            publisher.write("".join(f"{value}\n" for value in range(15000)))
            wait_until(self, lambda: self.size() > 2000, "the first chunk")
            time.sleep(random.random() / 4)
            killed = time.time()
            recorder.kill()
            publisher.kill()
            summary = self.inspect()
            self.assertFalse(summary["complete"])
            self.assertIn("in its last second", summary["missing"])
            values = [each["value"] for each in self.exported()]
            self.assertEqual(values, list(range(len(values))))
            self.assertGreater(summary["topics"][0]["last_unix_ns"] / 1e9, killed - 1)

    def test_splitting_keeps_every_value_and_the_limit_removes_the_oldest_files(self):
        self.server()
        for limit, kept in (([], range(40000)), (["--max-disk", "100k"], None)):
            recorder = self.recorder("t", "--split", "40k", *limit, "-n", "40000", "--force", file="s.mcap")
            publisher = self.pub("t", "-r", "20000")
            publisher.write("".join(f"{value}\n" for value in range(40000)))
            publisher.end_input()
            recorder.expect_exit(DONE)
            files = sorted((name for name in os.listdir(os.path.dirname(self.path())) if name.startswith("s_")),
                           key=lambda name: int(name[2:-5]))
            values = [each["value"] for name in files for each in self.exported(name)]
            if kept is not None:
                self.assertGreater(len(files), 3)
                self.assertEqual(values, list(kept))
                for name in files:
                    self.assertTrue(self.inspect(name)["complete"])
                    os.remove(self.path(name))
            else:
                self.assertGreater(files[0], "s_0.mcap")
                self.assertEqual(values, list(range(values[0], 40000)))
            publisher.expect_exit(DONE)

    def test_another_run_of_a_split_recording_begins_behind_the_files_that_are_there(self):
        self.server()
        with open(self.path("s_7.mcap"), "wb"):
            pass
        recorder = self.recorder("t", "--split", "100ms", file="s.mcap")
        for value in range(5):
            self.publish("t", value)
            time.sleep(0.6)
        self.finish(recorder)
        files = sorted((name for name in os.listdir(os.path.dirname(self.path())) if name.startswith("s_")),
                       key=lambda name: int(name[2:-5]))
        self.assertGreater(len(files), 2)
        self.assertEqual(files, [f"s_{number}.mcap" for number in range(7, 7 + len(files))])
        self.assertEqual([each["value"] for name in files[1:] for each in self.exported(name)], list(range(5)))

    def test_losses_are_noted_and_the_status_says_so(self):
        self.server("--slow-subscriber", "slow=drop-oldest:1000")
        recorder = self.recorder("t", "--name", "slow")
        self.publish("t", 1)
        wait_until(self, self.has_values, "the first value")
        recorder.pause()
        publisher = self.pub("t")
        publisher.write("".join(f"{value}\n" for value in range(5000)))
        publisher.end_input()
        publisher.expect_exit(DONE)
        recorder.signal(18)
        wait_until(self, lambda: any(each["value"] == 4999 for each in self.exported()), "the last value")
        recorder.signal(2)
        recorder.expect_exit(FAILED)
        summary = self.inspect()
        lost = sum(int(note["texts"]["values"]) for note in summary["notes"] if note["name"] == "msgbus.loss")
        self.assertEqual(summary["values"] + lost, 5001)
        self.assertGreater(lost, 0)

    def test_a_restart_of_the_server_is_noted(self):
        server = self.server()
        recorder = self.recorder("t", "-n", "2")
        self.publish("t", 1)
        wait_until(self, self.has_values, "the first value")
        server.stop()
        self.server()
        recorder.expect_error("again with a restarted server")
        self.publish("t", 2)
        recorder.expect_exit(DONE)
        self.assertIn("msgbus.restart", [note["name"] for note in self.inspect()["notes"]])

    def test_topics_that_match_are_recorded_also_when_they_come_later_and_across_a_restart(self):
        server = self.server()
        self.publish("s/before", 0)
        recorder = self.recorder("--match", "s/*", "other")
        self.publish("s/before", 1)
        self.publish("s/later", *range(2, 7))
        recorder.expect_error("receiving topic 's/later' too")
        self.publish("s/later", 7)
        self.publish("other", 8)
        self.publish("x", 9)
        wait_until(self, lambda: self.inspect()["values"] >= 4, "the first values")
        server.stop()
        self.server()
        recorder.expect_error("again with a restarted server")
        wait_until(self, lambda: self.listed("s/later"), "all of it to be registered again")
        self.publish("s/later", 10)
        self.publish("s/new", 11)
        recorder.expect_error("receiving topic 's/new' too")
        wait_until(self, lambda: any(each["value"] == 11 for each in self.exported()), "the last value")
        self.finish(recorder)
        values = {}
        for each in self.exported():
            values.setdefault(each["topic"], []).append(each["value"])
        self.assertEqual(set(values), {"s/before", "s/later", "s/new", "other"})
        self.assertEqual((values["s/before"], values["other"], values["s/new"]), ([1], [8], [11]))
        later = values["s/later"]  # the last one of those before it was noticed, and all others
        self.assertEqual(later, list(range(later[0], 8)) + [10])
        self.assertLessEqual(later[0], 6)
        summary = self.inspect()
        self.assertEqual([note["name"] for note in summary["notes"]], ["msgbus.begin", "msgbus.restart", "msgbus.end"])

    def listed(self, topic):
        process = self.msgbus("list", "--json")
        process.expect_exit(DONE)
        topics = [each for line in process.seen if line.startswith("{") for each in json.loads(line)["topics"]]
        return any(each["topic"] == topic and each["subscribers"] for each in topics)

    def is_described(self, topic):
        process = self.msgbus("info", topic, "--json")
        process.wait()
        return any('"text":"float64"' in line for line in process.seen)

    def test_a_number_of_a_double_is_exported_beside_its_bits(self):
        self.server()
        recorder = self.recorder("d", "t", "-n", "4")
        publisher = self.pub("d", "--description", "float64")
        wait_until(self, lambda: self.is_described("d"), "the description to be known")
        publisher.write("0x3ff8000000000000\n0x7ff0000000000000\n0x3fb999999999999a\n")
        self.publish("t", 5)
        recorder.expect_exit(DONE)
        values = [(each["topic"], each["value"], each.get("raw")) for each in self.exported()]
        self.assertEqual(sorted(values, key=str), [
            ("d", 0.1, 0x3fb999999999999a), ("d", 1.5, 0x3ff8000000000000), ("d", None, 0x7ff0000000000000), ("t", 5, None)])
        csv = self.msgbus("export", self.path(), "--to", "csv")
        csv.expect_exit(DONE)
        self.assertEqual({line.split(",", 2)[2] for line in csv.seen}, {"topic,value", "d,1.5", "d,inf", "d,0.1", "t,5"})

    def test_a_full_disk_ends_the_recording_and_what_was_written_is_readable(self):
        self.server()
        process = self.start("bash", "-c", f"ulimit -f 500; trap '' XFSZ; exec {BIN}/msgbus record {self.path()} t")
        process.expect_error("recording to ")
        publisher = self.msgbus("pub", "t", "-", "-r", "20000")
        publisher.write("".join(f"{value * 7919 % 1000003}\n" for value in range(100000)))
        process.expect_error("File too large; values recorded before: ")
        process.expect_exit(FAILED)
        publisher.kill()
        summary = self.inspect()
        self.assertGreater(summary["values"], 0)
        self.assertFalse(summary["complete"])

    def test_what_cannot_be_played_or_read_is_a_sentence(self):
        self.server()
        with open(self.path("text"), "w", encoding="utf-8") as file:
            file.write("no recording")
        for arguments, status, sentence in (
                (["play", self.path("text")], FAILED, "is not an MCAP file"),
                (["inspect", self.path("missing")], FAILED, "No such file or directory"),
                (["export", self.path("text"), "--to", "csv"], FAILED, "is not an MCAP file"),
                (["export", self.path("text"), "--to", "xml"], USAGE, "'xml' is not a format"),
                (["play", self.path("text"), "--speed", "fast"], USAGE, "'fast' is not a speed"),
                (["play", self.path("text"), "--topic", "a"], USAGE, "'a' is not OLD=NEW"),
                (["play", self.path("text"), "--from", "T"], USAGE, "is not a place in a recording"),
                (["record", self.path("x"), "t", "--max-disk", "1M"], USAGE, "--max-disk needs --split"),
                (["record", self.path("x"), "t", "--split", "0k"], USAGE, "'0k' is not a size"),
                (["record", self.path("x")], USAGE, "TOPIC is required"),
                (["record", "/nowhere/x", "t"], FAILED, "cannot create files in '/nowhere'"),
                (["record", self.path("text"), "t", "--wait"], FAILED, "there is a file"),
                (["record", "/nowhere/x", "t", "--wait", "--ring", "1s"], FAILED, "cannot create files in '/nowhere'")):
            process = self.msgbus(*arguments)
            process.expect_exit(status)
            self.assertIn(sentence, "\n".join(process.seen))

    def test_what_is_not_in_the_recording_cannot_be_played(self):
        self.server()
        recorder = self.recorder("t", "-n", "3")
        self.publish("t", 1, 2, 3)
        recorder.expect_exit(DONE)
        for arguments, sentence in ((["--topic", "nosuch=x"], "the recording has no topic 'nosuch'"),
                                    (["--topic", "t=a", "--topic", "t=b"], "topic 't' is renamed twice"),
                                    (["--from", "200ms", "--to", "100ms"], "nothing between --from and --to"),
                                    (["--from", "10000h"], "nothing between --from and --to")):
            process = self.msgbus("play", self.path(), *arguments)
            process.expect_exit(USAGE)
            self.assertIn(sentence, "\n".join(process.seen))

    def test_what_is_behind_a_damaged_part_is_counted_and_the_status_says_so(self):
        self.server()
        recorder = self.recorder("t")
        for value in range(3):
            self.publish("t", *range(value * 100, value * 100 + 100))
            wait_until(self, lambda count=value * 100 + 100: self.inspect()["values"] == count, "the chunk")
        self.finish(recorder)
        with open(self.path(), "r+b") as file:
            whole = file.read()
            chunks = [match.start() for match in re.finditer(re.escape(b"\x28\xb5\x2f\xfd"), whole)]  # their compressed values
            self.assertGreaterEqual(len(chunks), 3)
            changed = chunks[1] + 10
            file.seek(changed)
            file.write(bytes([whole[changed] ^ 0x10]))
        summary = self.inspect(status=FAILED)
        self.assertIn(summary["values"], range(100, 300))
        self.assertFalse(summary["complete"])
        self.assertIn("damaged", summary["missing"])
        self.assertGreater(len(summary["damages"]), 0)
        export = self.msgbus("export", self.path(), "--to", "csv")
        export.expect_exit(FAILED)
        values = [line.split(",")[-1] for line in export.seen if not line.startswith("msgbus: ")][1:]
        self.assertIn(len(values), range(1, 200))  # what was read before

    def test_a_time_limit_without_enough_values_is_a_status(self):
        self.server()
        self.msgbus("record", self.path(), "t", "-W", "100ms", "-n", "5").expect_exit(TIMED_OUT)
        self.msgbus("record", self.path(), "t", "-W", "100ms", "--force").expect_exit(DONE)
        self.assertTrue(self.inspect()["complete"])


class Rings(RecordingTest):
    """The last values in memory, and what makes files of them."""

    def ring(self, *arguments, time="60s"):
        process = self.msgbus("record", self.path("r.mcap"), "--ring", time, *arguments)
        process.expect_error("keeping the last ")
        return process

    def files(self):
        folder = os.path.dirname(self.path())
        return sorted(name for name in os.listdir(folder) if name.startswith("r_"))

    def written(self, recorder, number):
        """Waits for the file with this number. Returns: its values and why it was written."""
        name = f"r_{number}.mcap"
        recorder.expect_error(f"{name}': ")
        summary = self.inspect(name)
        self.assertTrue(summary["complete"])
        [why] = [note["texts"] for note in summary["notes"] if note["name"] == "msgbus.ring"]
        self.assertEqual([note["name"] for note in summary["notes"]][::len(summary["notes"]) - 1], ["msgbus.begin", "msgbus.end"])
        return [each["value"] for each in self.exported(name)], why

    def taken(self, recorder, *topics_and_values):
        """Publishes, and waits until the recorder has what was published."""
        for topic, *values in topics_and_values:
            self.publish(topic, *values)
        wait_until(self, self.is_taken, "the values to be taken")

    def is_taken(self):
        process = self.msgbus("top", "--once", "--json")
        process.expect_exit(DONE)
        bus = json.loads(next(line for line in process.seen if line.startswith("{")))["bus"]
        flows = bus["flows"]
        return bus["inbound"] == 0 and flows["due"] == flows["taken"] + flows["dropped"]["total"]

    def test_a_signal_writes_what_is_in_memory_and_recording_goes_on(self):
        self.server()
        recorder = self.ring("one", "two")
        self.taken(recorder, ("one", 1, 2), ("two", 3))
        self.assertEqual(self.files(), [])
        recorder.signal(10)
        values, why = self.written(recorder, 0)
        self.assertEqual((values, why["reason"]), ([1, 2, 3], "signal"))
        self.taken(recorder, ("one", 4))
        recorder.signal(10)
        self.assertEqual(self.written(recorder, 1)[0], [1, 2, 3, 4])
        self.finish(recorder)
        self.assertEqual(self.files(), ["r_0.mcap", "r_1.mcap"])
        self.assertIn("received 4 values, wrote 2 files", recorder.seen[-1])

    def test_files_that_are_there_are_kept(self):
        self.server()
        with open(self.path("r_0.mcap"), "w", encoding="utf-8") as file:
            file.write("mine")
        recorder = self.ring("t")
        recorder.signal(10)
        self.written(recorder, 1)
        self.finish(recorder)
        with open(self.path("r_0.mcap"), encoding="utf-8") as file:
            self.assertEqual(file.read(), "mine")

    def test_a_value_out_of_range_writes_a_file_but_not_again_while_it_stays_so(self):
        self.server()
        recorder = self.ring("t", "u", "--on", "t>100", "--on", "u<0")
        self.publish("t", 99, 100, 101, 102)
        values, why = self.written(recorder, 0)
        self.assertEqual((values[:3], why["reason"], why["condition"], why["value"]), ([99, 100, 101], "value", "t>100", "101"))
        self.publish("t", *range(200, 300))
        self.publish("t", 1, 300)
        self.publish("u", -1)  # another condition
        _, why = self.written(recorder, 1)
        self.assertEqual(why["condition"], "u<0")
        self.finish(recorder)
        self.assertEqual(self.files(), ["r_0.mcap", "r_1.mcap"])

    def test_a_condition_counts_again_when_it_was_false_and_the_time_is_over(self):
        self.server()
        recorder = self.ring("t", "--on", "t>100", time="500ms")
        publisher = self.pub("t")
        publisher.write("101\n")
        self.written(recorder, 0)
        time.sleep(0.6)
        publisher.write("102\n")  # it stays true
        publisher.write("1\n")
        publisher.write("103\n")
        _, why = self.written(recorder, 1)
        self.assertEqual(why["value"], "103")
        self.finish(recorder)
        self.assertEqual(self.files(), ["r_0.mcap", "r_1.mcap"])

    def test_described_values_are_compared_by_what_they_stand_for(self):
        self.server()
        recorder = self.ring("v", "--on", "v<11.5")
        publisher = self.pub("v", "--description", "fixed;step=1/10;unit=V")
        publisher.write("116\n115\n114\n")
        values, why = self.written(recorder, 0)
        self.assertEqual((values, why["value"], why["description"]), ([116, 115, 114], "114", "fixed;step=1/10;unit=V"))
        self.finish(recorder)

    def lose(self, *options):
        """Starts a server and a recorder that loses values. Returns: the recorder."""
        self.server("--slow-subscriber", "slow=" + options[0])
        recorder = self.ring("t", "--name", "slow", *options[1:])
        self.taken(recorder, ("t", 1))
        recorder.pause()
        self.publish("t", *range(2000))
        recorder.signal(18)
        return recorder

    def test_a_loss_writes_a_file_where_that_is_wanted(self):
        recorder = self.lose("drop-oldest:500", "--on", "loss")
        values, why = self.written(recorder, 0)
        self.assertEqual((values[0], why["reason"]), (1, "loss"))
        self.assertGreater(int(why["lost"]), 0)
        self.finish(recorder, FAILED)

    def test_a_cut_writes_a_file_and_ends_the_recording(self):
        recorder = self.lose("cut:500", "--on", "cut")
        values, why = self.written(recorder, 0)
        self.assertEqual((values[0], why["reason"]), (1, "cut"))
        recorder.expect_error("left too many values unread")
        recorder.expect_exit(REFUSED)

    def test_without_these_conditions_a_loss_writes_nothing(self):
        recorder = self.lose("drop-oldest:500")
        wait_until(self, self.is_taken, "the values to be taken")
        self.finish(recorder, FAILED)
        self.assertEqual(self.files(), [])

    def test_the_end_of_the_server_writes_a_file_once_and_recording_goes_on_with_the_next(self):
        server = self.server()
        recorder = self.ring("--match", "t*")
        self.publish("t1", 1, 2)
        recorder.expect_error("receiving topic 't1' too")
        wait_until(self, self.is_taken, "the last value")
        server.kill()
        values, why = self.written(recorder, 0)
        self.assertEqual((values[-1], why["reason"]), (2, "server-gone"))
        self.server()
        recorder.expect_error("again with a restarted server")
        self.publish("t3", 3)
        recorder.expect_error("receiving topic 't3' too")
        wait_until(self, self.is_taken, "the value")
        recorder.signal(10)
        self.assertEqual(self.written(recorder, 1)[0], [*values, 3])
        self.assertIn("msgbus.restart", [note["name"] for note in self.inspect("r_1.mcap")["notes"]])
        self.finish(recorder)
        self.assertEqual(self.files(), ["r_0.mcap", "r_1.mcap"])

    def test_the_end_of_the_server_ends_a_recording_that_does_not_reconnect_behind_its_file(self):
        server = self.server()
        recorder = self.ring("t", "--reconnect", "0")
        self.taken(recorder, ("t", 1))
        server.kill()
        self.assertEqual(self.written(recorder, 0)[0], [1])
        recorder.expect_exit(NO_SERVER)
        self.assertEqual(self.files(), ["r_0.mcap"])

    def test_time_and_room_are_limits(self):
        self.server()
        recorder = self.ring("t", "--ring-bytes", "4k")
        self.taken(recorder, ("t", *range(1000)))
        recorder.signal(10)
        values, why = self.written(recorder, 0)
        self.assertEqual(values, list(range(1000 - len(values), 1000)))
        self.assertLessEqual(len(values), 4096 / 32)
        self.assertGreater(len(values), 100)
        self.assertEqual(why["limited_by"], "--ring-bytes")
        self.finish(recorder)
        recorder = self.ring("t", time="200ms")
        self.taken(recorder, ("t", 1))
        time.sleep(0.3)
        recorder.signal(10)
        self.assertEqual(self.written(recorder, 1)[0], [])
        self.finish(recorder)


if __name__ == "__main__":
    main()
