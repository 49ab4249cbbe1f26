"""The C interface with a real server: each call, and each way in which it fails (tests/client/c_api_test.c)."""

import signal

from harness import BIN, DONE, FAILED, BusTest, main


class CInterface(BusTest):

    def client(self, case):
        return self.start(f"{BIN}/c_api_test", case)

    def expect_done(self, case):
        self.server()
        self.client(case).expect_exit(DONE)
        self.expect_working()

    def test_arguments_that_cannot_be_used_are_refused(self):
        self.expect_done("arguments")

    def test_every_code_has_a_text(self):
        self.client("texts").expect_exit(DONE)

    def test_values_carry_numbers_and_truths(self):
        self.client("codecs").expect_exit(DONE)

    def test_without_a_server_nothing_is_created(self):
        self.client("no_server").expect_exit(DONE)

    def test_values_arrive(self):
        self.expect_done("delivery")

    def test_batches_are_complete_and_in_order(self):
        self.expect_done("take")

    def test_the_descriptor_announces_values(self):
        self.expect_done("descriptor")

    def test_a_cancel_ends_a_wait(self):
        self.expect_done("cancel")

    def test_a_thread_is_not_canceled_within_a_call(self):
        self.expect_done("thread")

    def test_conflicts_and_closed_publishers(self):
        self.expect_done("conflicts")

    def test_stop_signals_end_a_wait(self):
        self.expect_done("stop_signals")

    def test_a_child_leaves_the_registrations_of_its_parent_alone(self):
        self.expect_done("fork")

    def test_a_killed_server_is_reported(self):
        server = self.server()
        client = self.client("server_gone")
        client.expect("kill")
        server.kill()
        client.write("done\n")
        client.expect_exit(DONE)

    def test_a_server_that_does_not_answer_holds_nobody(self):
        server = self.server()
        client = self.client("no_answer")
        client.expect("pause")
        server.pause()
        client.write("done\n")
        client.expect("continue")
        server.signal(signal.SIGCONT)
        client.write("done\n")
        client.expect_exit(DONE)
        self.expect_working()

    def test_a_restarted_server_is_found(self):
        server = self.server()
        client = self.client("reconnect")
        client.expect("restart")
        server.stop()
        self.server()
        client.write("done\n")
        client.expect_exit(DONE)


class CExamples(BusTest):

    def test_publisher_and_subscriber(self):
        server = self.server()
        reader = self.start(f"{BIN}/example_c_subscribe")
        server.expect_error("Wait is called by subscriber")
        self.start(f"{BIN}/example_c_publish").expect_exit(DONE)
        reader.expect("temperature 21")
        self.start(f"{BIN}/example_c_publish", "-3", "4").expect_exit(DONE)
        reader.expect_all(["temperature -3", "temperature 4"])
        reader.signal(signal.SIGTERM)
        reader.expect_exit(DONE)

    def test_the_poll_loop_does_both(self):
        self.server()
        reader = self.sub("setpoint")
        panel = self.start(f"{BIN}/example_c_poll_loop")
        panel.write("5\n")
        reader.expect("setpoint 5")  # so that it is registered
        self.publish("pressure", 1, 2)
        panel.expect_all(["pressure 1", "pressure 2"])
        panel.write("6\n")
        reader.expect("setpoint 6")
        panel.end_input()
        panel.expect_exit(DONE)

    def test_without_a_server_they_fail_with_a_sentence(self):
        for name in ("publish", "subscribe", "poll_loop"):
            program = self.start(f"{BIN}/example_c_{name}")
            program.expect_error("no message bus server is running")
            program.expect_exit(FAILED)


if __name__ == "__main__":
    main()
