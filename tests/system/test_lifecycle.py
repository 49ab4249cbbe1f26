"""Clients and servers exit, are killed and restarted; the other processes go on, or report the loss."""

import os
import signal
import subprocess

from harness import BIN, DONE, FAILED, MODE, NO_SERVER, REFUSED, TIMED_OUT, BusTest, main, wait_until


class Leaving(BusTest):

    def expect_leaving_on(self, number):
        server = self.server()
        reader = self.sub("t")
        reader.signal(number)
        reader.expect_exit(DONE)
        server.expect_error("The subscriber ID (1) has been removed")

    def test_a_blocked_subscriber_leaves_on_sigint_and_unregisters(self):
        self.expect_leaving_on(signal.SIGINT)

    def test_a_blocked_subscriber_leaves_on_sigterm_and_unregisters(self):
        self.expect_leaving_on(signal.SIGTERM)

    def test_a_time_limit_ends_a_subscriber_with_status_124(self):
        server = self.server()
        reader = self.sub("t", options=("-W", "100ms"))
        reader.expect_exit(TIMED_OUT)
        server.expect_error("The subscriber ID (1) has been removed")

    def test_a_count_that_is_reached_in_time_is_no_time_out(self):
        self.server()
        reader = self.sub("t", options=("-n", "1", "-W", "10m"))
        self.publish("t", 1)
        reader.expect_exit(DONE)

    def test_the_watching_thread_of_a_subscriber_has_a_name(self):
        self.server()
        threads = f"/proc/{self.sub('t').popen.pid}/task"

        def has_name(thread):
            with open(f"{threads}/{thread}/comm", encoding="utf-8") as file:
                return file.read() == "msgbus-watch\n"

        wait_until(self, lambda: any(has_name(thread) for thread in os.listdir(threads)), "a thread 'msgbus-watch'")

    def test_a_closed_pipe_ends_a_waiting_subscriber_quietly(self):
        server = self.server()
        output, write_end = os.pipe()
        reader = self.sub("t", stdout=write_end)
        os.close(write_end)
        os.close(output)
        reader.expect_exit(DONE)
        self.assertEqual(reader.seen, ["msgbus: subscribed as 'reader' (id 1)"])
        server.expect_error("The subscriber ID (1) has been removed")

    def test_a_full_disk_fails_a_subscriber(self):
        self.server()
        with open("/dev/full", "w", encoding="utf-8") as full:
            reader = self.sub("t", stdout=full)
        self.publish("t", 1)
        reader.expect_error("cannot write to standard output")
        reader.expect_exit(FAILED)

    def test_a_topic_has_one_publisher_at_a_time(self):
        self.server()
        first = self.pub("t")
        second = self.msgbus("pub", "t", "1")
        second.expect_error("topic 't' already has a publisher")
        second.expect_exit(REFUSED)
        first.end_input()
        first.expect_exit(DONE)
        self.publish("t", 1)

    def test_a_publisher_leaves_on_a_signal_and_frees_its_topic(self):
        self.server()
        publisher = self.pub("t")
        publisher.signal(signal.SIGINT)
        publisher.expect_exit(DONE)
        self.publish("t", 1)

    def test_a_topic_named_twice_is_refused_and_nothing_stays_behind(self):
        server = self.server()
        reader = self.msgbus("sub", "t", "t", "--name", "reader")
        reader.expect_error("topic 't' is named twice")
        reader.expect_exit(REFUSED)
        server.expect_error("The subscriber registration is cancelled")


class Deaths(BusTest):

    def test_a_killed_subscriber_harms_nobody(self):
        self.server()
        victim = self.sub("t", name="victim")
        witness = self.sub("t", name="witness", options=("-n", "50"))
        publisher = self.pub("t")
        publisher.write("0\n")
        witness.expect("t 0")
        victim.kill()
        publisher.write("".join(f"{value}\n" for value in range(1, 50)))
        publisher.end_input()
        publisher.expect_exit(DONE)
        witness.expect_all(f"t {value}" for value in range(1, 50))
        witness.expect_exit(DONE)
        self.expect_working()

    def test_a_killed_publisher_keeps_its_topic_and_harms_nobody(self):
        self.server("--bare")
        reader = self.sub("t", "u", options=("-n", "2"))
        victim = self.pub("t")
        victim.write("1\n")
        reader.expect("t 1")
        victim.kill()
        self.publish("u", 2)
        reader.expect("u 2")
        second = self.msgbus("pub", "t", "3")
        second.expect_error("topic 't' already has a publisher")
        second.expect_exit(REFUSED)

    def test_a_killed_server_is_an_error_to_every_client_at_once(self):
        server = self.server()
        reader = self.sub("t", options=("--reconnect", "0"))
        publisher = self.pub("t", "--reconnect", "0")
        server.kill()
        reader.expect_error("the message bus server is gone")
        reader.expect_exit(NO_SERVER)
        publisher.write("2\n")
        publisher.expect_error("value 2 was not acknowledged")
        publisher.expect_exit(NO_SERVER)

    def test_what_a_killed_server_left_is_replaced(self):
        self.server().kill()
        self.server()
        self.expect_working()

    def test_a_restarted_server_is_found_and_the_loss_is_told(self):
        server = self.server()
        reader = self.sub("t", "u", options=("--reconnect", "1h"))
        publisher = self.pub("t", "--reconnect", "1h")
        self.publish("u", 1)
        reader.expect("u 1")
        server.kill()
        reader.expect_error("looking for a restarted one")
        self.server()
        reader.expect_error("subscribed as 'reader' again with a restarted server")
        publisher.write("2\n")
        publisher.expect_error("value 2 is published again and may arrive twice")
        reader.expect("t 2")
        publisher.write("3\n")
        reader.expect("t 3")

    def test_a_server_that_never_comes_back_ends_the_looking(self):
        server = self.server()
        reader = self.sub("t", options=("--reconnect", "200ms"))
        server.kill()
        reader.expect_error("looking for a restarted one")
        reader.expect_exit(NO_SERVER)

    def test_a_signal_ends_the_looking_for_a_server(self):
        server = self.server()
        reader = self.sub("t", options=("--reconnect", "1h"))
        server.kill()
        reader.expect_error("looking for a restarted one")
        reader.signal(signal.SIGINT)
        reader.expect_exit(DONE)

    def test_a_server_that_does_not_answer_holds_nobody(self):
        server = self.server()
        reader = self.sub("t", options=("-W", "100ms"))
        server.pause()
        reader.expect_error("does not answer")
        reader.expect_exit(TIMED_OUT)
        server.signal(signal.SIGCONT)


class Stopping(BusTest):

    def test_sigterm_ends_an_idle_server(self):
        self.server().stop()

    def test_sigint_ends_a_server_with_blocked_subscribers_and_they_are_told(self):
        server = self.server()
        readers = [self.sub("t", name=f"r{number}", options=("--reconnect", "0")) for number in range(5)]
        publisher = self.pub("u", "--reconnect", "0")
        server.signal(signal.SIGINT)
        for reader in readers:
            reader.expect_error("the message bus server is gone")
            reader.expect_exit(NO_SERVER)
        publisher.write("1\n")
        publisher.expect_exit(NO_SERVER)
        server.expect_exit(0)
        self.expect_clean_runtime()

    def test_a_stop_is_in_time_and_quiet(self):
        def attempt():
            server = self.server(log_level="warning")
            for number in range(5):
                self.sub("t", name=f"r{number}", options=("--reconnect", "0"))
            in_time = server.stops_in_time()
            self.assertEqual(server.seen, [])
            return in_time

        self.expect_once(attempt)

    def test_a_stop_says_what_it_does(self):
        server = self.server(log_level="server=info")
        for number in range(3):
            self.sub("t", name=f"r{number}", options=("--reconnect", "0"))
        server.stop()
        lines = [line.partition(": ")[2] for line in server.seen]
        self.assertEqual(lines[-3:-1], ["Stopping (SIGTERM); another signal more than 1 s from now ends the server at once",
                                        "Released subscribers: 3"], lines)
        self.assertRegex(lines[-1], r"^Ended, served for \d+ s: 0 values accepted, 0 delivered, 0 lost$")

    def test_the_log_of_a_quiet_day_is_its_start_and_its_end(self):
        server = self.start(f"{BIN}/msgbusd", f"--{MODE}")
        server.expect_error(f"Serving in {MODE} mode in {self.runtime}: msgbusd ")
        reader = self.sub("t", options=("-n", "3"))
        self.publish("t", 1, 2, 3)
        reader.expect_exit(DONE)
        server.signal(signal.SIGTERM)
        server.expect_exit(DONE)
        self.assertEqual(len(server.seen), 3, server.seen)
        self.assertIn(": 3 values accepted, 3 delivered, 0 lost", server.seen[-1])

    def test_a_second_server_says_that_there_is_one_and_harms_nobody(self):
        self.server()
        second = self.start(f"{BIN}/msgbusd", f"--{MODE}", "--log-level", "off")
        second.expect_error(f"another msgbusd is already serving in {MODE} mode")
        second.expect_exit(FAILED)
        self.expect_working()

    def test_servers_of_both_modes_stand_side_by_side(self):
        self.server()
        other = "dynamic" if MODE == "static" else "static"
        ready, write_end = os.pipe()
        self.start(f"{BIN}/msgbusd", f"--{other}", "--ready-fd", str(write_end), pass_fds=(write_end,))
        os.close(write_end)
        with os.fdopen(ready, "rb") as pipe:
            self.assertEqual(pipe.read(), b"READY\n")
        self.expect_working()
        self.environment["BORVEN_BUS"] = other
        self.expect_working()

    def test_a_server_with_closed_standard_descriptors_serves(self):
        command = f'exec "{BIN}/msgbusd" --{MODE} <&- >&- 2>&-'
        with subprocess.Popen(["/bin/sh", "-c", command], env=self.environment) as server:
            try:
                wait_until(self, lambda: self.msgbus("pub", "t", "1").wait() == DONE, "the server to answer")
                self.expect_working()
            finally:
                server.kill()


if __name__ == "__main__":
    main()
