"""The command line as one table: each option with each format, and each exit status, is a row that is run.

A row of SUB is what a subscriber prints of what is published to "t"; a row of PUB what a publisher's command line delivers; a
row of OTHER a command on a bus that has a publisher and a subscriber of "t", or none. The last test fails for an option
that no row has.
"""

import json
import re
import subprocess
import time

from harness import BIN, DONE, FAILED, MODE, NO_SERVER, REFUSED, TIMED_OUT, USAGE, BusTest, main, wait_until

TIME = r"\d{4}-\d\d-\d\dT\d\d:\d\d:\d\d\.\d{6}Z"
SECONDS = r"\d+\.\d{6}"
EPOCH = r"1\d{9}\.\d{6}"
NUMBER = r"\d+(\.\d+)?(e-?\d+)?"
OBJECT = r'\{{"topic":"t","value":{},"subscriber":"n","time":{},"seq":{}\}}'

# (options, the lines that two values, 5 and -7, become as regular expressions)
FORMATS = [
    ([], ["t 5", "t -7"]),
    (["--ts"], [f"{TIME} t 5", f"{TIME} t -7"]),
    (["--ts=rel"], [f"{SECONDS} t 5", f"{SECONDS} t -7"]),
    (["--ts=delta"], [f"{SECONDS} t 5", f"{SECONDS} t -7"]),
    (["--ts=unix"], [f"{EPOCH} t 5", f"{EPOCH} t -7"]),
    (["--json"], [OBJECT.format(5, f'"{TIME}"', 1), OBJECT.format(-7, f'"{TIME}"', 2)]),
    (["--json", "--ts=rel"], [OBJECT.format(5, NUMBER, 1), OBJECT.format(-7, NUMBER, 2)]),
    (["--json", "--ts=delta"], [OBJECT.format(5, NUMBER, 1), OBJECT.format(-7, NUMBER, 2)]),
    (["--json", "--ts=unix"], [OBJECT.format(5, NUMBER, 1), OBJECT.format(-7, NUMBER, 2)]),
    (["--json=str"], [OBJECT.format('"5"', f'"{TIME}"', 1), OBJECT.format('"-7"', f'"{TIME}"', 2)]),
    (["--json=str", "--ts=unix"], [OBJECT.format('"5"', NUMBER, 1), OBJECT.format('"-7"', NUMBER, 2)]),
    (["--csv"], ["time,seq,topic,value", f"{TIME},1,t,5", f"{TIME},2,t,-7"]),
    (["--csv", "--ts=rel"], ["time,seq,topic,value", f"{SECONDS},1,t,5", f"{SECONDS},2,t,-7"]),
    (["--csv", "--ts=delta"], ["time,seq,topic,value", f"{SECONDS},1,t,5", f"{SECONDS},2,t,-7"]),
    (["--csv", "--ts=unix"], ["time,seq,topic,value", f"{EPOCH},1,t,5", f"{EPOCH},2,t,-7"]),
    (["-F", "%t=%v"], ["t=5", "t=-7"]),
    (["--format", "%T|%x|%n|%%"], [r"t\|0000000000000005\|1\|%", r"t\|fffffffffffffff9\|2\|%"]),
    (["-F", "%i %u %r %d"], [f"{TIME} {EPOCH} {SECONDS} {SECONDS}"] * 2),
    (["-F", r"%v\n-\t\\"], ["5", r"-\t\\", "-7", r"-\t\\"]),
]

# (options beside "-n 2", whether the id is reported on stderr)
SUB = [
    ([], True),
    (["-q"], False),
    (["--quiet"], False),
    ([f"--{MODE}"], True),
    (["--reconnect", "0"], True),
    (["--timeout", "5s"], True),
    (["--wait"], True),
    (["--wait=5s"], True),
    (["--idle", "60s"], True),
    (["-W", "60"], True),
    (["--time-limit", "60"], True),
]

# (arguments, input, what subscribers of "t" get, exit status, part of stderr)
PUB = [
    (["t", "1", "2"], "", [1, 2], DONE, ""),
    (["t", "0x10", "0xffffffffffffffff"], "", [16, -1], DONE, ""),
    (["-t", "t", "1", "2"], "", [1, 2], DONE, ""),
    (["1", "2", "--topic", "t"], "", [1, 2], DONE, ""),
    (["-t", "t", "--", "-3"], "", [-3], DONE, ""),
    (["t", "-"], "1\n2\n", [1, 2], DONE, ""),
    (["t", "-l"], "1\n2", [1, 2], DONE, ""),
    (["t", "--lines"], "1\r\n  2\t\r\n0x3\n", [1, 2, 3], DONE, ""),
    (["-t", "t", "-"], "1\n", [1], DONE, ""),
    (["t", "-"], "", [], DONE, ""),
    (["t", "-"], "1\n\n2\n", [1], USAGE, "line 2: '' is not a 64-bit integer; values published before it: 1"),
    (["t", "-", "--skip-empty"], "1\n\n \r\n2\n", [1, 2], DONE, ""),
    (["t", "-", "--skip-empty"], "1\n\nx\n", [1], USAGE, "line 3: 'x' is not a 64-bit integer; values published before it: 1"),
    (["t", "1", "-r", "1000"], "", [1], DONE, ""),
    (["t", "1", "2", "--rate", "1000"], "", [1, 2], DONE, ""),
    (["t", "1", "2", "--interval", "1ms"], "", [1, 2], DONE, ""),
    (["t", "-", "--interval", "1ms"], "1\n2\n", [1, 2], DONE, ""),
    (["t", "1", "2", "--repeat", "2"], "", [1, 2, 1, 2], DONE, ""),
    (["t", "1", "-v"], "", [1], DONE, "publishing to topic 't' (id "),
    (["t", "1", "--verbose"], "", [1], DONE, "publishing to topic 't' (id "),
    (["t", "1", "-q"], "", [1], DONE, ""),
    (["t", "1", "--quiet"], "", [1], DONE, ""),
    (["t", "1", f"--{MODE}", "--reconnect", "1s", "--timeout", "5s", "--wait"], "", [1], DONE, ""),
    (["t", "1", "--wait-topic", "1s"], "", [1], DONE, ""),
    (["t", "1", "--description", "integer;unit=V"], "", [1], DONE, ""),
    (["t", "1", "x", "2"], "", [], USAGE, "'x' is not a 64-bit integer"),
    (["t", "--now", "1"], "", [], USAGE, "--now excludes other values"),
    (["t", "1", "-l"], "", [], USAGE, "excludes"),
    (["t", "1", "--skip-empty"], "", [], USAGE, "--skip-empty is for values of standard input"),
    (["t", "-", "--repeat", "2"], "", [], USAGE, "--repeat excludes values of standard input"),
    (["t", "1", "--repeat", "0"], "", [], USAGE, "'0' is not a count"),
    (["t", "1", "-r", "fast"], "", [], USAGE, "'fast' is not a rate"),
    (["t", "1", "-r", "1", "--interval", "1"], "", [], USAGE, "excludes"),
    (["t", "1", "--description", "fixed;step=x"], "", [], USAGE, "description"),
]

# (arguments, exit status, part of stdout, part of stderr), with a server and a publisher and subscriber of "t"
OTHER = [
    (["--version"], DONE, "msgbus ", ""),
    (["--help"], DONE, "Commands:", ""),
    (["-h"], DONE, "Commands:", ""),
    (["help"], DONE, "Commands:", ""),
    (["help", "sub"], DONE, "Usage: msgbus sub", ""),
    (["sub", "-h"], DONE, "Usage: msgbus sub", ""),
    ([], USAGE, "", "Commands:"),
    (["list"], DONE, "t", ""),
    (["list", "--json", "--wait"], DONE, '"t"', ""),
    *(([*words, "--account", "/nowhere"], NO_SERVER, "", "there is no account '/nowhere'")
      for words in (["list"], ["info", "t"], ["get", "t"], ["hz", "t"], ["watch"], ["top", "--once"], ["autopsy"])),
    (["check", "--account", "/nowhere"], 3, "MSGBUS UNKNOWN", ""),
    (["report", "-o", "/nowhere/x.tar.gz", "--account", "/nowhere"], FAILED, "", "/nowhere"),
    (["info", "t"], DONE, "t", ""),
    (["info", "t", "--json", "--wait=1s"], DONE, '"t"', ""),
    (["info", "x"], FAILED, "", "x"),
    (["get", "t"], DONE, "1 ", ""),
    (["get", "-t", "t", "--json", "--wait"], DONE, '"t"', ""),
    (["get", "--topic", "t"], DONE, "1 ", ""),
    (["get", "x"], FAILED, "", "x"),
    (["get", "x", "-W", "50ms"], TIMED_OUT, "", ""),
    (["get", "x", "--time-limit", "50ms"], TIMED_OUT, "", ""),
    (["hz", "t", "-n", "1", "--wait"], DONE, "ACCEPTED", ""),
    (["hz", "-t", "t", "--count", "1", "--json"], DONE, "{", ""),
    (["hz", "--topic", "t", "-W", "50ms"], TIMED_OUT, "RATE", ""),
    (["hz", "t", "--time-limit", "50ms"], TIMED_OUT, "RATE", ""),
    (["watch", "-a", "-n", "1", "--wait"], DONE, "serving", ""),
    (["watch", "--all", "--count", "1", "--json"], DONE, "{", ""),
    (["watch", "-W", "50ms"], TIMED_OUT, "", ""),
    (["watch", "--time-limit", "50ms"], TIMED_OUT, "", ""),
    (["top", "--once", "--wait"], DONE, "t", ""),
    (["top", "--once", "--json", "--sort", "name", "--reverse", "-d", "1s"], DONE, '"t"', ""),
    (["top", "--delay", "x"], USAGE, "", "'x' is not a duration"),
    (["check", "--lag-warn", "1000", "--lag-crit", "2000", "--format", "json"], DONE, "{", ""),
    (["check", "--drops-warn", "1", "--drops-crit", "2", "--inbound-warn", "9", "--inbound-crit", "10", "--age-warn", "60",
      "--age-crit", "90", "--away-warn", "60", "--away-crit", "90"], DONE, "MSGBUS OK", ""),
    (["check", "--frobnicate"], 3, "", "unknown option"),
    (["autopsy", "--json"], DONE, "{", ""),
    (["autopsy", "--previous"], NO_SERVER, "", "there is no account"),
    (["report", "-o", "/nowhere/x.tar.gz", "--log", "/nowhere/log"], USAGE, "", "cannot read the log '/nowhere/log'"),
    (["report", "--output", "/nowhere/x.tar.gz"], FAILED, "", "/nowhere/x.tar.gz"),
    (["dashboard", "--port", "x", "--open"], USAGE, "", "'x'"),
    (["record", "/nowhere/x", "t"], FAILED, "", "cannot create files in '/nowhere'"),
    (["record", "/dev/null", "-t", "t", "-W", "50ms", "--force"], DONE, "", "recorded 0 values"),
    (["record", "/dev/null", "t", "--time-limit", "50ms", "-n", "1", "--name", "n", "--force"], TIMED_OUT, "", "as 'n'"),
    (["record", "/dev/null", "--topic", "t", "--count", "x"], USAGE, "", "'x' is not a count"),
    (["record", "/dev/null", "t", "--split", "x", "--max-disk", "1M"], USAGE, "", "'x' is neither a size"),
    (["record", "/dev/null", "--match", "t*", "-W", "50ms", "--force"], DONE, "", "recorded 0 values"),
    (["record", "/dev/null", "t", "--ring", "1s", "--ring-bytes", "1M", "--on", "loss", "--on", "cut", "--on", "t>5",
      "-W", "50ms"],
     DONE, "", "received 0 values, wrote 0 files"),
    (["record", "/dev/null", "t", "--ring", "1s", "-n", "1", "-W", "50ms"], TIMED_OUT, "", "written on SIGUSR1 to process "),
    (["record", "/nowhere/x", "t", "--ring", "1s"], FAILED, "", "cannot create files in '/nowhere'"),
    (["record", "x", "t", "--ring", "0"], USAGE, "", "'0' is not a duration"),
    (["record", "x", "t", "--ring", "1s", "--on", "t=5"], USAGE, "", "--on: 't=5' is not a condition; there is loss, cut, "),
    (["record", "x", "t", "--ring", "1s", "--on", "x<5"], USAGE, "", "--on: 'x<5': topic 'x' is not recorded"),
    (["record", "x", "t", "--ring", "1s", "--split", "1M"], USAGE, "", "--ring and --split exclude each other"),
    (["record", "x", "t", "--on", "loss"], USAGE, "", "--on needs --ring"),
    (["record", "x", "t", "--ring-bytes", "1M"], USAGE, "", "--ring-bytes needs --ring"),
    (["stream", "t", "--port", "x"], USAGE, "", "'x' is not a port"),
    (["stream", "-t", "t", "--any-user", "--name", "n", "--allow-origin", "https://a.example/b"], USAGE, "", "has a path"),
    (["stream", "--topic", "t", "--allow-origin", "a.example"], USAGE, "", "'a.example' is not the origin of a page"),
    (["record", "-", "t"], USAGE, "", "a recording is a file, not standard output"),
    (["stream"], USAGE, "", "TOPIC is required"),
    (["inspect", "/dev/null"], FAILED, "", "not a regular file"),
    (["inspect", "/nowhere/x", "--json"], FAILED, "", "No such file or directory"),
    (["export", "/nowhere/x", "--to", "csv"], FAILED, "", "No such file or directory"),
    (["play", "/nowhere/x", "--speed", "max", "--topic", "a=b", "--loop", "--from", "1s", "--to", "2026-11-23T06:05:01.5Z",
      "--wait-topic", "1s"], FAILED, "", "No such file or directory"),
    (["trace", "x", "-W", "50ms"], TIMED_OUT, "", "following the next 10 values of topic 'x'"),
    (["trace", "-t", "x", "--json", "-n", "1", "--time-limit", "50ms"], TIMED_OUT, '"values":[]', "following"),
    (["trace", "--topic", "x", "--count", "1", "-W", "50ms", "-o", "/nowhere/x"], FAILED, "", "cannot write '/nowhere/x'"),
    (["trace", "x", "-W", "50ms", "--output", "/dev/null"], TIMED_OUT, "", ""),
    (["trace", "x", "-n", "1001"], USAGE, "", "--count: at most 1000"),
    (["trace", ""], USAGE, "", "the topic is empty"),
    (["get", ""], USAGE, "", "the topic is empty"),
    (["doctor"], DONE, "ok   delivery     a value took ", ""),
    (["doctor", "--json"], DONE, '"ok":true', ""),
    (["errors"], DONE, "10: internal error of the bus", ""),
    (["errors", "8"], DONE, "8: already registered", ""),
    (["errors", "-11"], DONE, "-11: no server offers that name", ""),
    (["errors", "77"], FAILED, "", "there is no code 77"),
    (["errors", "x"], USAGE, "", "'x' is not a code"),
    (["completion", "bash"], DONE, "complete -F _msgbus msgbus", ""),
    (["completion", "zsh"], DONE, "compdef _msgbus msgbus", ""),
    (["completion", "fish"], DONE, "complete -c msgbus", ""),
    (["completion", "csh"], USAGE, "", "'csh' is not a shell that is known"),
    (["bench", "rtt", "-n", "10"], DONE, "(10 in ", ""),
    (["bench", "pub", "-d", "50ms", "--histogram"], DONE, "#", ""),
    (["bench", "sub", "--count", "10", "--duration", "1h"], DONE, "received by 1 subscriber", ""),
    (["bench", "fan", "--subscribers", "3", "--count", "10", "--json"], DONE, '"published":10,"received":30', ""),
    (["bench", "rtt", "--subscribers", "3"], USAGE, "", "--subscribers is for 'msgbus bench fan'"),
    (["bench", "fast"], USAGE, "", "'fast' is not what can be measured"),
    (["delay", "x", "-n", "1", "-W", "50ms"], TIMED_OUT, "total:", "subscribed as"),
    (["delay", "-t", "x", "--json", "--time-limit", "50ms"], DONE, '"count":0', "subscribed as"),
    (["delay", "--topic", "x", "--count", "1", "--time-limit", "50ms", "--name", "n"], TIMED_OUT, "total:", "as 'n'"),
    (["delay", "x", "-d", "never"], USAGE, "", "'never' is not a duration"),
    (["delay", "x", "--delay", "0"], USAGE, "", "'0' is not a duration"),
    (["pub", "t", "1"], REFUSED, "", "topic 't' already has a publisher"),
    (["pub", "t", "1", "--wait-topic", "50ms"], REFUSED, "", "topic 't' already has a publisher"),
    (["-n", "1", "-W", "50ms", "sub", "x"], TIMED_OUT, "", "subscribed as 'msgbus-"),
    (["sub", "-t", "x", "--topic", "y", "--idle", "50ms"], DONE, "", ""),
    (["sub", "x", "--idle", "50ms", "-n", "1"], TIMED_OUT, "", ""),
    (["sub", "--match", "x*", "--idle", "50ms"], DONE, "", "subscribed as 'msgbus-"),
    (["sub", "--match", ""], USAGE, "", "--match: an empty pattern matches no topic"),
    (["sub", "--idle", "1s"], USAGE, "", "TOPIC is required, or --match"),
    (["sub", "x", "--json", "--csv"], USAGE, "", "exclude each other"),
    (["sub", "x", "--ts", "-F", "%v"], USAGE, "", "--format excludes --ts"),
    (["sub", "x", "--json=object"], USAGE, "", "'object' is not a style"),
    (["sub", "x", "--ts=iso"], USAGE, "", "'iso' is not a style of time"),
]

# The same without a server.
WITHOUT_SERVER = [
    (["pub", "t", "1"], NO_SERVER, "", "no message bus server is running"),
    (["sub", "t"], NO_SERVER, "", "no message bus server is running"),
    (["delay", "t"], NO_SERVER, "", "no message bus server is running"),
    (["bench", "rtt"], NO_SERVER, "", "no message bus server is running"),
    (["pub", "t", "1", "--wait=50ms"], NO_SERVER, "", "no message bus server is running"),
    (["sub", "--match", "t"], NO_SERVER, "", "no message bus server is running"),
    (["sub", "t", "--wait=50ms"], NO_SERVER, "", "(BORVEN_RUNTIME_DIR)"),
    (["sub", "t", "--wait", "-W", "50ms"], TIMED_OUT, "", "waiting for one"),
    (["trace", "t"], NO_SERVER, "", "there is no server in this runtime directory"),
    (["trace", "t", "--wait=50ms"], NO_SERVER, "", "; waiting for one"),
    (["trace", "t", "--wait", "-W", "50ms"], TIMED_OUT, "", "; waiting for one"),
    (["doctor"], FAILED, "FAIL server       there is no account", ""),
    (["list"], NO_SERVER, "", "there is no account"),
    (["list", "--wait=50ms"], NO_SERVER, "", "waiting for one"),
    (["check"], 3, "MSGBUS UNKNOWN", ""),
]


class CommandLine(BusTest):

    def run_row(self, arguments, status, out, err, text=""):
        with self.subTest(arguments=arguments):
            process = subprocess.run([f"{BIN}/msgbus", *arguments], env=self.environment, input=text, capture_output=True,
                                     text=True, timeout=60, check=False)
            self.assertEqual(process.returncode, status, process)
            self.assertIn(out, process.stdout)
            self.assertIn(err, process.stderr)
            if not out:
                self.assertEqual(process.stdout, "")

    def registered(self, name):
        listed = subprocess.run([f"{BIN}/msgbus", "list", "subscribers"], env=self.environment, capture_output=True, text=True,
                                check=True).stdout
        return re.search(rf"\b{name}$", listed, re.MULTILINE) is not None

    def sub_row(self, options, lines, says_id):
        with self.subTest(options=options):
            process = self.msgbus("sub", "t", "--name", "n", "-n", "2", *options)
            wait_until(self, lambda: self.registered("n"), "the subscriber")
            self.publish("t", 5, -7)
            for line in lines:
                self.assertRegex(process.next_line(), f"^{line}$")
            process.expect_end()
            process.expect_exit(DONE)
            self.assertEqual(any("subscribed as 'n'" in line for line in process.seen), says_id, process.seen)

    def test_each_format_with_each_style_of_time(self):
        self.server()
        for options, lines in FORMATS:
            self.sub_row(options, lines, True)

    def test_each_option_of_a_subscriber(self):
        self.server()
        for options, says_id in SUB:
            self.sub_row(options, ["t 5", "t -7"], says_id)

    def test_each_option_of_a_publisher(self):
        self.server()
        for arguments, text, values, status, err in PUB:
            reader = self.sub("t", options=("-n", str(len(values) + 1)))
            self.run_row(["pub", *arguments], status, "", err, text)
            self.publish("t", 99)
            reader.expect_all([f"t {value}" for value in [*values, 99]])
            reader.expect_exit(DONE)

    def test_each_option_of_other_commands(self):
        self.server()
        self.sub("t")
        publisher = self.pub("t")
        publisher.write("1\n")
        wait_until(self, lambda: self.get_works("t"), "the value")
        for row in OTHER:
            self.run_row(*row)

    def get_works(self, topic):
        return subprocess.run([f"{BIN}/msgbus", "get", topic], env=self.environment, capture_output=True,
                              check=False).returncode == DONE

    def test_each_status_without_a_server(self):
        for row in WITHOUT_SERVER:
            self.run_row(*row)

    def test_values_of_the_clock_are_nanoseconds_since_1970(self):
        self.server()
        reader = self.sub("t", options=("-n", "3"))
        before = time.time_ns()
        self.run_row(["pub", "t", "--now", "-r", "1000", "--repeat", "3"], DONE, "", "")
        values = [int(reader.next_line().split()[1]) for _ in range(3)]
        self.assertEqual(values, sorted(values))
        self.assertTrue(before <= values[0] <= values[2] <= time.time_ns(), values)

    def test_the_delay_of_readings_of_the_clock_is_measured(self):
        self.server()
        clock = self.msgbus("pub", "t", "--now", "-r", "1000")
        reader = self.msgbus("delay", "t", "-n", "50", "--json")
        reader.expect_exit(DONE)
        *parts, total = [json.loads(line) for line in reader.seen if line.startswith("{")]
        self.assertEqual([part["part"] for part in parts], ["interval"] * len(parts))
        self.assertEqual((total["part"], total["count"], total["early"]), ("total", 50, 0))
        times = [total[name] for name in ("min_ns", "p50_ns", "p90_ns", "p99_ns", "p99.9_ns", "max_ns")]
        self.assertEqual(times, sorted(times))
        self.assertGreater(times[0], 0)
        clock.signal(2)
        clock.expect_exit(DONE)

    def test_a_value_that_is_no_time_has_no_delay(self):
        self.server()
        reader = self.msgbus("delay", "t")
        reader.expect_error("subscribed as")
        self.publish("t", 5)
        reader.expect_error("value 5 of topic 't' is no reading of the clock within a day of now")
        reader.expect_exit(FAILED)

    def test_an_interrupted_repetition_says_what_was_published(self):
        self.server()
        reader = self.sub("t")
        endless = self.msgbus("pub", "t", "1", "--repeat", "forever", "-r", "1000")
        reader.expect("t 1")
        endless.signal(2)
        endless.expect_exit(DONE)
        counted = self.msgbus("pub", "t", "2", "3", "--repeat", "1000000", "--interval", "1h")
        while reader.next_line() != "t 2":
            pass
        counted.signal(2)
        counted.expect_error("interrupted; values published: 1")
        counted.expect_exit(FAILED)

    def test_a_publisher_that_fails_says_where_and_what_was_published(self):
        server = self.server()
        publisher = self.pub("t", "--reconnect", "0")
        reader = self.sub("t")
        publisher.write("1\n")
        reader.expect("t 1")
        server.kill()
        publisher.write("2\n")
        line = publisher.expect_error(": the message bus server is gone")
        # The subscriber may have had the value before the publisher had its acknowledgement.
        self.assertRegex(line, "line 2: .*; values published before it: 1|line 1: .*; values published before it: 0")
        publisher.expect_exit(NO_SERVER)

    def test_a_client_that_waits_is_served_by_a_server_that_starts_later(self):
        reader = self.msgbus("sub", "t", "--wait", "-n", "1")
        reader.expect_error("no message bus server is running; waiting for one")
        look = self.msgbus("list", "--wait")
        look.expect_error("no message bus server is running; waiting for one")
        self.server()
        reader.expect_error("subscribed as")
        self.msgbus("pub", "t", "7", "--wait").expect_exit(DONE)
        reader.expect("t 7")
        reader.expect_exit(DONE)
        look.expect_exit(DONE)

    def test_a_signal_ends_a_wait_for_a_server_at_once(self):
        for arguments, status in ((["sub", "t"], DONE), (["pub", "t", "1"], FAILED)):
            process = self.msgbus(*arguments, "--wait")
            process.expect_error("waiting for one")
            process.signal(15)
            process.expect_exit(status)
            self.assertNotIn("does not answer", "\n".join(process.seen))

    def test_a_publisher_waits_for_its_topic(self):
        self.server()
        reader = self.sub("t")
        first = self.pub("t")
        second = self.msgbus("pub", "t", "2", "--wait-topic", "60s")
        second.expect_error("the topic has another publisher; waiting for it to end")
        first.write("1\n")
        first.end_input()
        second.expect_exit(DONE)
        reader.expect_all(["t 1", "t 2"])

    def test_a_topic_comes_back_byte_for_byte(self):
        self.server()
        topic = b"a\xff,\"b\" \\\xc3\xa9\x1b"
        reader = subprocess.Popen([f"{BIN}/msgbus", "sub", topic, "-F", "%T", "-n", "1", "--name", "bytes"],
                                  env=self.environment, stdout=subprocess.PIPE, stderr=subprocess.DEVNULL)
        self.addCleanup(reader.kill)
        wait_until(self, lambda: self.registered("bytes"), "the subscriber")
        subprocess.run([f"{BIN}/msgbus", "pub", topic, "1"], env=self.environment, check=True, timeout=60)
        self.assertEqual(reader.communicate(timeout=60)[0], topic + b"\n")

    def test_every_option_of_every_command_is_in_a_row(self):
        commands = re.findall(r"^  (\w+) ", subprocess.run(
            [f"{BIN}/msgbus", "--help"], capture_output=True, text=True, check=True).stdout.split("Commands:")[1].split(
                "Environment:")[0], re.MULTILINE)
        self.assertGreater(len(commands), 10)
        tried = {"pub": [word for row in PUB for word in row[0]],
                 "sub": [word for options, _ in [*FORMATS, *SUB] for word in [*options, "--name", "-n", "--count"]]}
        for arguments, *_ in [*OTHER, *WITHOUT_SERVER]:
            if arguments and arguments[0] in commands:
                tried.setdefault(arguments[0], []).extend(arguments)
        # Made by the same code for all commands: the rows of 'sub' and 'pub' are enough.
        everywhere = {"--static", "--dynamic", "-h", "--help", "--wait", "--reconnect", "--timeout", "-q", "--quiet"}
        self.assertLessEqual(everywhere - {"--help", "-h"}, {word.split("=")[0] for word in [*tried["sub"], *tried["pub"]]}
                             | {"--static", "--dynamic"})
        missing = []
        for command in commands:
            text = subprocess.run([f"{BIN}/msgbus", command, "--help"], capture_output=True, text=True, check=True).stdout
            names = re.findall(r"^  (-\w|--[\w-]+)(?:, (--[\w-]+))?", text.split("Examples:")[0], re.MULTILINE)
            self.assertGreater(len(names), 0, command)
            words = {word.split("=")[0] for word in tried.get(command, [])}
            missing += [f"{command} {name}" for pair in names for name in pair if name and name not in words | everywhere]
        self.assertEqual(missing, [])


if __name__ == "__main__":
    main()
