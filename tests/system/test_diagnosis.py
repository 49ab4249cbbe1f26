"""Verdicts and post-mortem: `check` is a plug-in whose status is right for every state of a server, `report` holds what a
developer needs and no value of any topic, and `autopsy` says of a dead server what happened.
"""

import json
import os
import signal
import subprocess
import tarfile

from harness import BIN, DONE, FAILED, USAGE, main, wait_until
from test_look import LookTest

OK, WARNING, CRITICAL, UNKNOWN = 0, 1, 2, 3


class Check(LookTest):

    def verdict(self, *options, status):
        line, = self.lines("check", *options, status=status)
        return line

    def lag(self, values):
        """Leaves so many values unread. Returns: the server and the subscriber."""
        server = self.server(log_level="off")
        reader = self.sub("t", name="slow", stdout=subprocess.DEVNULL)
        reader.pause()
        self.publish("t", *range(values))
        return server, reader

    def test_a_server_at_work_is_ok(self):
        self.server()
        line = self.verdict("--lag-warn", "10", "--lag-crit", "20", status=OK)
        self.assertRegex(line, r"^MSGBUS OK - [^|]+ \| lag=0;10;20;0 age=0s;;;0 ")

    def test_limits_decide(self):
        self.lag(1000)
        waiting = json.loads(self.lines("list", "subscribers", "--json")[0])["subscribers"][0]["flows"]["queued"]
        self.assertGreater(waiting, 100)
        self.verdict("--lag-warn", str(waiting), status=OK)
        self.assertIn(" more than 10 | ", self.verdict("--lag-warn", "10", status=WARNING))
        self.assertIn("subscriber 'slow'", self.verdict("--lag-crit", "10", status=CRITICAL))
        self.verdict("--age-warn", "1h", status=OK)
        self.verdict("--age-warn", "1ms", status=WARNING)

    def test_drops_decide(self):
        _, reader = self.lag(1000)
        reader.kill()
        wait_until(self, lambda: json.loads(self.lines("top", "--once", "--json")[0])["bus"]["flows"]["dropped"]["total"] > 10,
                   "the values to be dropped")
        self.verdict("--drops-warn", "1000000", status=OK)
        self.verdict("--drops-warn", "5", "--drops-crit", "100000", status=WARNING)
        self.verdict("--drops-crit", "0", status=CRITICAL)

    def test_a_server_that_does_not_work_is_critical(self):
        server = self.server()
        server.pause()
        self.assertIn("is paused", self.verdict(status=CRITICAL))
        server.signal(signal.SIGCONT)
        server.kill()
        self.assertIn("is gone", self.verdict(status=CRITICAL))
        self.server().stop()
        self.assertIn("has stopped", self.verdict(status=CRITICAL))

    def test_without_an_account_it_is_unknown(self):
        self.assertRegex(self.verdict(status=UNKNOWN), r"^MSGBUS UNKNOWN - there is no account ")
        self.assertEqual(json.loads(self.verdict("--format", "json", status=UNKNOWN))["status"], "unknown")

    def test_a_bad_command_line_is_unknown(self):
        self.server()
        for options in (("--lag-warn", "some"), ("--age-warn", "-1"), ("--lag-warn", "3", "--lag-crit", "2")):
            self.assertIn("MSGBUS UNKNOWN - ", self.verdict(*options, status=UNKNOWN))
        for options in (("--format", "xml"), ("--no-such-option",), ("--lag-warn",)):
            lines, errors = self.run_msgbus("check", *options, status=UNKNOWN)
            self.assertEqual(lines, [])
            self.assertTrue(errors.startswith("msgbus: "), errors)

    def test_formats_agree(self):
        self.server()
        answer = json.loads(self.verdict("--format", "json", "--inbound-warn", "7", status=OK))
        self.assertEqual((answer["status"], answer["code"], answer["reasons"]), ("ok", 0, []))
        metrics = dict(line.split() for line in self.lines("check", "--format", "prometheus")
                       if not line.startswith("#"))
        self.assertEqual(metrics["msgbus_check_status"], "0")
        names = {each["name"]: each for each in answer["measures"]}
        self.assertEqual(names["inbound"]["warning"], 7)
        self.assertEqual(len(metrics), len(names) + 1)


class Report(LookTest):

    secret = 7411370000000000123

    def archive(self, *options):
        path = os.path.join(self.runtime, "report.tar.gz")
        lines = self.lines("report", "-o", path, *options)
        self.assertEqual(lines[0], path)
        with tarfile.open(path) as archive:
            contents = {os.path.basename(member.name): archive.extractfile(member).read() for member in archive}
        for name in set(contents) - {"README.txt"}:
            self.assertTrue(any(f" {name} " in line for line in lines), f"{name} is not listed: {lines}")
        os.unlink(path)
        return contents

    def test_a_report_has_no_values(self):
        log = os.path.join(self.runtime, "log")
        with open(log, "wb") as file:
            server = self.server(log_level="debug", stderr=file)
        reader = self.sub("topic/of/interest")
        publisher = self.pub("topic/of/interest")
        publisher.write(f"{self.secret}\n")
        reader.expect(f"topic/of/interest {self.secret}")
        contents = self.archive()
        for name, content in contents.items():
            self.assertNotIn(str(self.secret).encode(), content, name)
        self.assertEqual(set(contents), {"README.txt", "account.json", "account.previous.txt", "versions.txt", "os-release.txt",
                                         "limits.txt", "server-limits.txt", "server-status.txt", "environment.txt",
                                         "server.log"})
        topic, = json.loads(contents["account.json"])["topics"]
        self.assertEqual((topic["topic"], topic["last_value"], topic["last_value_text"]), ("topic/of/interest", None, None))
        self.assertEqual(topic["publisher"]["accepted"], 1)
        self.assertIn(b"topic/of/interest", contents["server.log"])
        self.assertIn(f"BORVEN_RUNTIME_DIR={self.runtime}".encode(), contents["environment.txt"])
        self.assertNotIn(b"PATH=", contents["environment.txt"])
        self.assertIn(b"glibc", contents["versions.txt"])
        self.assertIn(b"Max open files", contents["server-limits.txt"])
        server.kill()
        self.server()
        contents = self.archive("--log", log)
        previous = json.loads(contents["account.previous.json"])
        self.assertEqual([each["last_value"] for each in previous["topics"]], [None])
        self.assertIn(b"topic/of/interest", contents["server.log"])

    def test_without_a_server_there_is_a_report(self):
        contents = self.archive()
        self.assertIn(b"there is no account", contents["account.txt"])
        self.assertIn("versions.txt", contents)

    def test_what_exists_is_not_overwritten(self):
        path = os.path.join(self.runtime, "precious")
        with open(path, "w", encoding="utf-8") as file:
            file.write("precious")
        _, errors = self.run_msgbus("report", "-o", path, status=FAILED)
        self.assertIn("cannot create", errors)
        with open(path, encoding="utf-8") as file:
            self.assertEqual(file.read(), "precious")
        self.run_msgbus("report", "-o", "/nonexistent/report", status=FAILED)
        for log in ("/nonexistent/log", "/dev/zero", self.runtime):
            path = os.path.join(self.runtime, "new")
            _, errors = self.run_msgbus("report", "-o", path, "--log", log, status=USAGE)
            self.assertIn("cannot read the log", errors)
            self.assertFalse(os.path.exists(path))

    def test_the_default_name_has_the_time(self):
        ended = subprocess.run([f"{BIN}/msgbus", "report"], env=self.environment, cwd=self.runtime, timeout=60,
                               capture_output=True, text=True, check=True)
        name = ended.stdout.splitlines()[0]
        self.assertRegex(name, r"^msgbus-report-\d{8}T\d{6}Z\.tar\.gz$")
        self.assertEqual(os.stat(os.path.join(self.runtime, name)).st_mode & 0o777, 0o600)


class Autopsy(LookTest):

    def autopsy(self, *options):
        return "\n".join(self.lines("autopsy", *options))

    def test_a_killed_server_shows_who_was_behind(self):
        server = self.server(log_level="off")
        reader = self.sub("t", name="slow", stdout=subprocess.DEVNULL)
        victim = self.sub("t", name="victim", stdout=subprocess.DEVNULL)
        reader.pause()
        victim.pause()
        self.publish("t", *range(1000))
        victim.kill()
        wait_until(self, lambda: "subscriber-died" in self.autopsy(), "the death to be noticed")
        server.kill()
        text = self.autopsy()
        self.assertIn("it ended while it was serving, without a stop", text)
        self.assertIn("  the account adds up", text)
        self.assertRegex(text, r"behind: 1 subscribers had values unread\n.*\n +\d+ +\d+ +msgbus +\S+ +\d+ +\S+ +slow\n")
        self.assertRegex(text, r"lost: \d+ values")
        self.assertIn("process ended", text)
        self.assertRegex(text, r"subscriber-died id=\d+ pid=\d+ program=msgbus lost=\d+ name=victim")
        self.assertRegex(text, r"\nthreads: .*\n +AWAY +LONGEST +WHEN +THREAD\n")
        state = json.loads(self.lines("autopsy", "--json")[0])
        self.assertFalse(state["server"]["alive"])

    def test_running_paused_and_stopped_servers_are_told_apart(self):
        server = self.server()
        self.assertIn("it runs, and is serving", self.autopsy())
        server.pause()
        self.assertIn("it is paused by a signal or a debugger while serving", self.autopsy())
        server.signal(signal.SIGCONT)
        server.stop()
        self.assertIn("it has stopped in order", self.autopsy())
        self.server("--hold-pushes", "1")
        self.assertIn("it has stopped in order", self.autopsy("--previous"))
        self.assertIn("it runs", self.autopsy())

    def test_errors_are_listed_once(self):
        self.server(log_level="error")
        self.pub("t")
        for _ in range(3):
            second = self.msgbus("pub", "t", "1")
            self.assertNotEqual(second.wait(), DONE)
        self.assertRegex(self.autopsy(), r"errors: \d+ different ones were logged\n.*\n +warning +3 ")


if __name__ == "__main__":
    main()
