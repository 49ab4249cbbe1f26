"""What the doctor finds wrong, and that it says what to do."""

import json
import os

from harness import BIN, DONE, FAILED, MODE, BusTest, main, wait_until


class Doctor(BusTest):

    def findings(self, status, *options):
        """Returns: the advice by what was looked at; empty where all is well."""
        process = self.start(f"{BIN}/msgbus", "doctor", "--json", "--timeout", "500ms", *options)
        process.expect_exit(status)
        [line] = [line for line in process.seen if line.startswith("{")]
        return {each["what"]: each["advice"] for each in json.loads(line)["findings"]}

    def ill(self, status=FAILED):
        return {what for what, advice in self.findings(status).items() if advice}

    def test_all_is_well(self):
        self.server()
        self.assertEqual(self.ill(DONE), set())

    def test_it_leaves_nothing_on_the_bus(self):
        self.server()
        self.assertEqual(self.ill(DONE), set())
        lister = self.msgbus("list", "subscribers", "--json")
        lister.expect_exit(DONE)
        self.assertNotIn("doctor", "\n".join(lister.seen))

    def test_no_server(self):
        self.assertEqual(self.ill(), {"server", "delivery"})

    def test_no_directory(self):
        self.environment["BORVEN_RUNTIME_DIR"] = os.path.join(self.runtime, "missing")
        self.assertEqual(self.ill(), {"directory", "server", "delivery"})

    def test_a_directory_that_others_may_enter(self):
        os.chmod(self.runtime, 0o755)
        self.assertEqual(self.ill(), {"directory", "server", "delivery"})

    def test_the_other_mode(self):
        self.server()
        self.environment["BORVEN_BUS"] = "dynamic" if MODE == "static" else "static"
        self.assertEqual(self.ill(), {"mode", "delivery"})

    def test_an_option_for_the_other_mode(self):
        self.server()
        other = "dynamic" if MODE == "static" else "static"
        findings = self.findings(FAILED, "--" + other)
        self.assertEqual({what for what, advice in findings.items() if advice}, {"mode", "delivery"})
        self.environment["BORVEN_BUS"] = other
        self.assertEqual(self.findings(DONE, "--" + MODE)["mode"], "")  # the option counts

    def test_a_server_that_was_killed(self):
        self.server().kill()
        findings = self.findings(FAILED)
        self.assertIn("start one", findings["server"])
        self.assertIn("start one", findings["delivery"])
        self.assertNotIn("versions", findings)  # of what is gone

    def test_a_server_that_is_paused(self):
        server = self.server()
        server.pause()
        self.assertEqual(self.ill(), {"its work", "delivery"})

    def test_few_descriptors(self):
        self.server()
        process = self.start("bash", "-c", f"ulimit -n 32; exec {BIN}/msgbus doctor")
        process.expect_exit(FAILED)
        self.assertRegex("\n".join(process.seen), r"FAIL descriptors .* -> raise it: ulimit -n 1024")

    def test_a_server_without_an_account_still_delivers(self):
        self.server("--no-account")
        wait_until(self, lambda: self.ill() == {"server"}, "a delivery")


if __name__ == "__main__":
    main()
