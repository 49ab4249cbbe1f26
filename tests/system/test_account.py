"""The account of a running, stopped and killed server: it adds up at every moment, and what it says is what happened.
"""

import json
import os
import signal
import subprocess
import threading

from harness import BIN, DONE, FAILED, MODE, PATIENCE, SANITIZED, SERVER_OPTIONS, BusTest, Calls, main, wait_until

READS = 2000 if SANITIZED else 10000


class Account(BusTest):

    def check(self, reads, servers=1):
        """Starts a program that reads the account so many times, and until it has read that of so many servers."""
        return self.start(f"{BIN}/account_check", os.path.join(self.runtime, "account"), str(reads), str(servers))

    def expect_to_add_up(self, check):
        """Returns: what it has seen."""
        words = check.next_line().split()
        self.assertEqual(words[:2], ["adds", "up;"], words)
        check.expect_exit(DONE)
        return {name: int(number) for name, number in zip(words[2::2], words[3::2])}

    def state(self, *options):
        autopsy = subprocess.run([f"{BIN}/msgbus", "autopsy", "--json", *options], env=self.environment, check=True,
                                 stdout=subprocess.PIPE, timeout=PATIENCE)
        return json.loads(autopsy.stdout)

    def pour(self, topic, ending, pause=0):
        """Publishes values from a thread until `ending`. Returns: the thread."""
        publisher = self.pub(topic, "--reconnect", "1h")

        def count_up():
            number = 0
            while not ending.wait(pause):
                publisher.write("".join(f"{number + each}\n" for each in range(100)))
                number += 100
            publisher.end_input()

        thread = threading.Thread(target=count_up)
        thread.start()
        return thread

    def churn(self, ending):
        """Kills subscribers in the middle of everything, until `ending`."""
        while not ending.is_set():
            readers = [self.msgbus("sub", "t", "u", "--name", "short-lived", stdout=subprocess.DEVNULL)
                       for _ in range(3)]
            for reader in readers:
                reader.expect_error("subscribed as")
            for reader in readers:
                reader.kill()
                self.processes.remove(reader)
                reader.close()

    def test_it_adds_up_under_load_with_deaths_cuts_and_drops(self):
        policies = ["cut=cut:2000", "full=drop-newest:50", "dropping=drop-oldest:50"]
        if "--no-parked-waits" in SERVER_OPTIONS:
            policies = policies[:1]  # the others need parked waits
        server = self.server(*(f"--slow-subscriber={policy}" for policy in policies), log_level="off")
        ending = threading.Event()
        readers = [self.sub("t", "u", name=name, stdout=subprocess.DEVNULL)
                   for name in ("dropping", "full", "cut", "fast", "fast")]
        for reader in readers[:3]:
            reader.pause()
        threads = [self.pour("t", ending), self.pour("u", ending, 0.001), self.pour("nobody", ending, 0.001),
                   threading.Thread(target=self.churn, args=(ending,))]
        threads[-1].start()
        try:
            seen = self.expect_to_add_up(self.check(READS))
        finally:
            ending.set()
            for thread in threads:
                thread.join()
        self.assertGreater(seen["changes"], 100)
        self.assertGreater(seen["dropped"], 100)
        self.assertGreaterEqual(seen["subscribers"], 4)
        for reader in readers:
            reader.kill()
        server.stop()
        self.expect_to_add_up(self.check(1))

    def test_it_adds_up_over_restarts(self):
        server = self.server(log_level="off")
        ending = threading.Event()
        self.sub("t", options=("--reconnect", "1h"), stdout=subprocess.DEVNULL)
        threads = [self.pour("t", ending), self.pour("nobody", ending, 0.001)]
        restarts = 5
        check = self.check(10 * READS, restarts + 1)
        try:
            for _ in range(restarts):
                wait_until(self, lambda: self.expect_to_add_up(self.check(20))["changes"] > 1, "values to flow")
                server.kill()
                self.expect_to_add_up(self.check(10))
                server = self.server(log_level="off")
            self.assertEqual(self.expect_to_add_up(check)["servers"], restarts + 1)
        finally:
            ending.set()
            for thread in threads:
                thread.join()
        self.assertTrue(os.path.exists(os.path.join(self.runtime, "account.previous")))
        server.stop()

    def test_it_adds_up_wherever_the_server_is_stopped(self):
        server = self.server(log_level="off")
        ending = threading.Event()
        self.sub("t", options=("--reconnect", "1h"), stdout=subprocess.DEVNULL)
        thread = self.pour("t", ending)
        try:
            for _ in range(20 if SANITIZED else 200):
                server.pause()
                self.expect_to_add_up(self.check(1))
                server.signal(signal.SIGCONT)
        finally:
            ending.set()
            thread.join()
        server.stop()

    def test_a_start_that_fails_leaves_the_evidence_of_a_crash(self):
        server = self.server(log_level="off")
        server.kill()
        crashed = server.popen.pid
        for _ in range(2):
            process = self.start(f"{BIN}/msgbusd", "--monitor", "127.0.0.1:0", "--monitor-token-file", "/nonexistent")
            process.expect_error("the token file")
            process.expect_exit(FAILED)
        self.assertEqual(self.state()["server"]["pid"], crashed)
        self.assertEqual(os.listdir(self.runtime).count("account"), 1)
        server = self.server(log_level="off")
        for _ in range(2):
            process = self.start(f"{BIN}/msgbusd", f"--{MODE}")
            process.expect_error("another msgbusd is already serving")
            process.expect_exit(FAILED)
        self.assertEqual(self.state()["server"]["pid"], server.popen.pid)
        self.assertEqual(self.state("--previous")["server"]["pid"], crashed)
        server.stop()

    def test_what_a_server_that_was_killed_at_its_start_has_left_is_removed(self):
        left = os.path.join(self.runtime, "account.new.abcdef")
        with open(left, "wb") as file:
            file.truncate(1 << 20)
        server = self.server(log_level="off")
        self.assertFalse(os.path.exists(left))
        server.stop()

    def test_the_silent_mistakes_are_counted(self):
        server = self.server()
        clumsy = Calls(self)
        self.assertEqual(clumsy.call("push 77 1"), ["0"])
        self.assertEqual(clumsy.call("push 77 1"), ["0"])
        self.assertEqual(clumsy.call("wait 78"), ["1"])
        clumsy.publisher("t")
        self.assertEqual(clumsy.call("publisher t")[0], "8")
        state = self.state()
        own = [client for client in state["clients"] if client["pid"] == clumsy.process.popen.pid]
        self.assertEqual([(each["unknown_pushes"], each["unknown_waits"], each["refused_registrations"])
                          for each in own], [(2, 1, 1)])
        clumsy.process.kill()
        wait_until(self, lambda: not self.state()["clients"], "the client to be forgotten")
        bus = self.state()["bus"]
        self.assertEqual((bus["unknown_pushes"], bus["unknown_waits"], bus["refused_registrations"]), (2, 1, 1))
        server.stop()


if __name__ == "__main__":
    main()
