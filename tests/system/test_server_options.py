"""The options of the server: one table of options, of where they can come from, and of what is wrong with them."""

import os
import tempfile

from harness import BIN, DONE, MODE, USAGE, BusTest, main

# Key, another value than the default, how it is shown, and what else has to be set.
OPTIONS = (
    ("mode", "static", "static", ""),
    ("hold-pushes", "7", "7", ""),
    ("drain-limit", "7", "7", ""),
    ("group", "4711", "4711", ""),
    ("retain", "a*", "a*", ""),
    ("log-level", "bus=debug,server=error", "bus=debug,server=error", ""),
    ("log-format", "json", "json", ""),
    ("log-limit", "false", "false", ""),
    ("account", "false", "false", ""),
    ("monitor", "127.0.0.1:7", "127.0.0.1:7", ""),
    ("monitor-token-file", "/t", "/t", "monitor = 127.0.0.1:7\n"),
    ("notices", "no", "false", ""),
    ("limit", "publishers=7", "publishers=7", ""),
    ("slow-subscriber", "x*=drop-oldest:7", "x*=drop-oldest:7", ""),
    ("limits", "off", "false", ""),
    ("ownership", "0", "false", ""),
    ("registration-gate", "false", "false", ""),
    ("intake", "false", "false", ""),
    ("fail-stop", "false", "false", ""),
    ("name-watch", "false", "false", ""),
    ("parked-waits", "false", "false", ""),
    ("flush-wake", "false", "false", ""),
    ("placement", "false", "false", ""),
    ("arena-pool", "false", "false", ""),
)
SWITCHES = {"log-limit", "account", "notices", "limits", "ownership", "registration-gate", "intake", "fail-stop",
            "name-watch", "parked-waits", "flush-wake", "placement", "arena-pool"}

# What a file has, and what the program says about it behind "msgbusd: FILE:".
MISTAKES = (
    ("mode", "1: 'mode' is not KEY = VALUE"),
    ("\n\n  log-levle = info", "3: unknown key 'log-levle'; did you mean 'log-level'?"),
    ("no-account = true", "1: unknown key 'no-account'; a part is switched off by 'account = false'"),
    ("ready-fd = 3", "1: 'ready-fd' can only be given on the command line"),
    ("mode = static\nmode = static", "2: 'mode' is in line 1 already"),
    ("account = maybe", "1: account: 'maybe' must be true or false"),
    ("log-level = loud", "1: log-level: 'loud' is not a log level"),
    ("limit = cows=5", "1: limit: 'cows=5' is not NAME=NUMBER"),
    ("monitor = 8.8.8.8:53", "1: monitor: "),
    ("retain = x\nnotices = no", "1: 'retain' needs 'notices', which "),
    ("retain = \"x", "1: the quotes are not closed"),
    ("retain = \x1b[31m", "1: a control character stands in the value"),
)


class Options(BusTest):

    def setUp(self):
        super().setUp()
        folder = tempfile.TemporaryDirectory(prefix="borven-options-")
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        del self.environment["MSGBUSD_CONFIG"]
        self.environment["XDG_CONFIG_HOME"] = os.path.join(self.folder, "home")
        self.file = self.write("msgbusd.conf", "")

    def write(self, name, text):
        """Returns: the path of the file, in a folder of this test."""
        path = os.path.join(self.folder, name)
        os.makedirs(os.path.dirname(path), exist_ok=True)
        with open(path, "w", encoding="utf-8") as file:
            file.write(text)
        return path

    def run_msgbusd(self, *arguments, status=DONE, **variables):
        """Returns: the lines that it prints."""
        before = dict(self.environment)
        self.environment.update(variables)
        process = self.start(f"{BIN}/msgbusd", *arguments)
        self.environment.clear()
        self.environment.update(before)
        process.expect_exit(status)
        return process.seen

    def printed(self, *arguments, **variables):
        return self.run_msgbusd("--print-config", *arguments, **variables)

    def test_each_option_can_come_from_each_source(self):
        shown_by_default = self.printed()
        for key, value, shown, first in OPTIONS:
            self.write("msgbusd.conf", first)
            line = f"{key} = {shown}  # "
            self.assertNotIn(line + "default", shown_by_default)
            flag = f"--no-{key}" if key in SWITCHES else f"--{key}"
            words = [flag] if key in SWITCHES else [flag, value]
            self.assertIn(line + flag, self.printed("--config", self.file, *words))
            variable = "MSGBUSD_" + key.upper().replace("-", "_")
            self.assertIn(line + variable, self.printed("--config", self.file, **{variable: value}))
            self.write("msgbusd.conf", f"{first}{key} = {value}\n")
            number = first.count("\n") + 1
            self.assertIn(f"{line}{self.file}:{number}", self.printed(f"--config={self.file}"))

    def test_the_table_has_every_option(self):
        keys = {line.removeprefix("# ").split()[0] for line in self.printed() if "=" in line or line.endswith("not set")}
        self.assertEqual(keys, {key for key, *_ in OPTIONS})

    def test_the_command_line_overrides_the_environment_and_that_the_file(self):
        self.write("msgbusd.conf", "log-level = error")
        level = [line for line in self.printed(MSGBUSD_CONFIG=self.file) if line.startswith("log-level")]
        self.assertEqual(level, [f"log-level = error  # {self.file}:1"])
        variables = {"MSGBUSD_CONFIG": self.file, "MSGBUSD_LOG_LEVEL": "debug"}
        self.assertIn("log-level = debug  # MSGBUSD_LOG_LEVEL", self.printed(**variables))
        self.assertIn("log-level = off  # --log-level", self.printed("--log-level", "off", **variables))

    def test_what_is_printed_makes_the_same_settings(self):
        def without_sources(lines):
            return [line.split("  #")[0] for line in lines]
        first = self.printed("--bare", "--static", "--retain=x", "--no-account=false", "--log-level=bus=off")
        path = self.write("second.conf", "\n".join(first))
        self.assertEqual(without_sources(self.printed("--config", path)), without_sources(first))

    def test_the_file_of_the_user_is_read_unless_another_one_is_named(self):
        path = self.write("home/borven/msgbusd.conf", "mode = static")
        self.assertIn(f"mode = static  # {path}:1", self.printed())
        self.assertIn("mode = dynamic  # default", self.printed("--config", "/dev/null"))
        self.assertIn(f"No mistakes in the options and {path}", self.run_msgbusd("--check-config"))

    def test_mistakes_in_a_file_are_named_with_their_lines(self):
        for text, sentence in MISTAKES:
            self.write("msgbusd.conf", text)
            for options in ([f"--{MODE}"], ["--check-config"], ["--print-config"]):
                said = self.run_msgbusd("--config", self.file, *options, status=USAGE)
                self.assertEqual(len(said), 2, said)
                self.assertIn(f"msgbusd: {self.file}:{sentence}", said[0])
                self.assertEqual(said[1], "See 'msgbusd --help'.")

    def test_every_mistake_is_named_at_once(self):
        self.write("msgbusd.conf", "mode\nlimit = cows=5\n")
        said = self.run_msgbusd("--check-config", "--config", self.file, "--log-format=xml", status=USAGE,
                                MSGBUSD_ACCOUNT="perhaps")
        self.assertEqual(len(said), 5, said)

    def test_a_file_that_is_named_has_to_be_readable(self):
        for path, reason in (("/nowhere/file", "No such file or directory"), (self.runtime, "Is a directory")):
            said = self.run_msgbusd("--config", path, status=USAGE)
            self.assertEqual(said[0], f"msgbusd: cannot read '{path}': {reason}")

    def test_a_variable_that_is_misspelt_is_named(self):
        said = self.run_msgbusd("--check-config", MSGBUSD_LOGLEVEL="info", MSGBUSD_SERVICE_HOST="10.0.0.1")
        self.assertCountEqual(said, ["msgbusd: warning: the variable MSGBUSD_LOGLEVEL has no effect; "
                                     "did you mean MSGBUSD_LOG_LEVEL?", "No mistakes in the options"])

    def test_a_server_logs_a_variable_that_is_misspelt(self):
        self.environment["MSGBUSD_LOGLEVEL"] = "info"
        server = self.server()
        server.stop()
        self.assertIn("the variable MSGBUSD_LOGLEVEL has no effect", "\n".join(server.seen))

    def test_check_config_starts_nothing(self):
        self.run_msgbusd("--check-config", f"--{MODE}")
        self.assertEqual(os.listdir(self.runtime), [])

    def test_a_server_does_what_its_file_says(self):
        self.write("msgbusd.conf", "log-format = json\nlimit = publishers=1\n")
        server = self.server("--config", self.file)
        self.assertTrue(server.expect_error("Serving").startswith('{"time":"'))
        publisher = self.pub("a")
        self.msgbus("pub", "b", "1").expect_exit(3)
        publisher.end_input()

    def test_variables_of_the_platform_can_be_overridden(self):
        self.environment["BORVEN_LOG_LIMIT"] = "off"
        self.assertIn("log-limit = false  # BORVEN_LOG_LIMIT", self.printed())
        self.assertIn("log-limit = true  # --no-log-limit", self.printed("--no-log-limit=false"))


if __name__ == "__main__":
    main()
