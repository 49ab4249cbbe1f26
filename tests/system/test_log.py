"""What a bad day leaves in the server's log: one line for what is refused, and never as many as a client wants."""

import os
import re
import socket

from harness import BusTest, main


class Log(BusTest):

    def refuse_greetings(self, count):
        """Sends `count` greetings that are none, one after the other, and waits until each is refused."""
        folder = os.path.join(self.runtime, os.listdir(self.runtime)[0])
        address = os.path.join(folder, os.listdir(folder)[0])
        for _ in range(count):
            with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as stranger:
                stranger.connect(address)
                stranger.send(b"no greeting")
                self.assertEqual(len(stranger.recv(100)), 16)

    @staticmethod
    def refusals(server):
        return [line for line in server.seen if "it sent no valid greeting" in line and "suppressed" not in line]

    @staticmethod
    def suppressed(server):
        return sum(int(number) for number in re.findall(r"\b(\d+) more suppressed; the last: refused ", "\n".join(server.seen)))

    def test_a_refused_greeting_is_a_line_with_process_and_program(self):
        server = self.server(log_level="info")
        self.refuse_greetings(1)
        line = server.expect_error("it sent no valid greeting")
        self.assertRegex(line, rf" WARN .* refused process {os.getpid()} \(\w+\) of user {os.geteuid()}: ")

    def test_a_flood_of_refusals_is_few_lines_and_every_one_is_counted(self):
        server = self.server(log_level="info")
        self.refuse_greetings(2000)
        server.stop()
        self.assertEqual(len(self.refusals(server)) + self.suppressed(server), 2000, server)
        self.assertLess(len(server.seen), 500)

    def test_a_flood_hides_no_line_of_another_kind(self):
        server = self.server(log_level="info")
        self.refuse_greetings(200)
        first = self.pub("t")
        self.msgbus("pub", "t", "1").wait()
        server.expect_error("the topic (t) is already")
        first.end_input()

    def test_an_option_switches_the_limit_off(self):
        server = self.server("--no-log-limit", log_level="info")
        self.refuse_greetings(200)
        server.stop()
        self.assertEqual((len(self.refusals(server)), self.suppressed(server)), (200, 0))

    def test_the_environment_switches_the_limit_off(self):
        self.environment["BORVEN_LOG_LIMIT"] = "off"
        server = self.server(log_level="info")
        self.refuse_greetings(200)
        server.stop()
        self.assertEqual((len(self.refusals(server)), self.suppressed(server)), (200, 0))

    def test_an_option_overrides_the_environment(self):
        self.environment["BORVEN_LOG_LIMIT"] = "off"
        server = self.server("--no-log-limit=false", log_level="info")
        self.refuse_greetings(200)
        server.stop()
        self.assertEqual(len(self.refusals(server)) + self.suppressed(server), 200, server)
        self.assertLess(len(self.refusals(server)), 200)

    def test_a_log_of_every_step_has_every_line(self):
        server = self.server(log_level="debug")
        self.refuse_greetings(200)
        server.stop()
        self.assertEqual((len(self.refusals(server)), self.suppressed(server)), (200, 0))


if __name__ == "__main__":
    main()
