"""Bad input is answered with a clear sentence on stderr and the right exit status, and nothing on stdout."""

import os
import socket
import tempfile

from harness import BIN, DONE, FAILED, MODE, NO_SERVER, USAGE, BusTest, main


class BadInput(BusTest):

    def refuse(self, arguments, status, sentence, program="msgbus"):
        process = self.start(f"{BIN}/{program}", *arguments)
        process.expect_exit(status)
        self.assertIn(sentence, "\n".join(process.seen))
        process.expect_end()

    def test_unknown_options(self):
        self.refuse(["--frobnicate"], USAGE, "--frobnicate", "msgbusd")
        self.refuse(["pub", "t", "1", "--frobnicate"], USAGE, "--frobnicate")
        self.refuse(["sub", "t", "--name", "n", "-x"], USAGE, "-x")
        self.refuse(["frobnicate"], USAGE, "unknown command 'frobnicate'")
        self.refuse(["--frobnicate"], USAGE, "unknown option '--frobnicate'")

    def test_unknown_options_are_named_before_missing_arguments_with_the_nearest_one(self):
        self.refuse(["sub", "--nmae=x"], USAGE, "unknown option '--nmae' of 'msgbus sub'; did you mean '--name'?")
        self.refuse(["--wiat", "pub"], USAGE, "unknown option '--wiat' of 'msgbus pub'; did you mean '--wait'?")
        self.refuse(["sbu", "t"], USAGE, "unknown command 'sbu'; did you mean 'sub'?")
        self.refuse(["help", "gte"], USAGE, "unknown command 'gte'; did you mean 'get'?")

    def test_missing_arguments(self):
        self.refuse([], USAGE, "no command given")
        self.refuse(["pub"], USAGE, "TOPIC is required")
        self.refuse(["pub", "t"], USAGE, "nothing to publish")
        self.refuse(["sub", "--name", "n"], USAGE, "TOPIC is required")
        self.refuse(["sub", "t", "--name"], USAGE, "option '--name' needs a value")
        self.refuse(["get"], USAGE, "TOPIC is required")

    def test_both_modes_at_once(self):
        self.refuse(["--static", "--dynamic"], USAGE, "excludes", "msgbusd")
        self.refuse(["pub", "t", "1", "--static", "--dynamic"], USAGE, "excludes")

    def test_values_and_lines_at_once(self):
        self.refuse(["pub", "t", "1", "-l"], USAGE, "excludes")

    def test_topics_that_are_too_long(self):
        self.server()
        for length in (1024, 1025, 5000):
            self.refuse(["pub", "x" * length, "1"], USAGE, f"the topic has {length} bytes; at most 1023")
            self.refuse(["sub", "x" * length, "--name", "n"], USAGE, f"the topic has {length} bytes; at most 1023")
        self.refuse(["sub", "t", "--name", "x" * 1024], USAGE, "the name has 1024 bytes; at most 1023")

    def test_empty_topics_and_names(self):
        self.server()
        self.refuse(["pub", "", "1"], USAGE, "the topic is empty")
        self.refuse(["sub", "", "--name", "n"], USAGE, "the topic is empty")
        self.refuse(["sub", "t", "", "--name", "n"], USAGE, "the topic is empty")
        self.refuse(["sub", "t", "--name", ""], USAGE, "the name is empty")

    def test_values_that_are_no_64_bit_integers(self):
        self.server()
        for text in ("x", "", "1.5", "1e3", "0x", "0xg", "-0x1", " 1", "1 ", "+", "--5"):
            self.refuse(["pub", "t", "--", text], USAGE, f"'{text}' is not a 64-bit integer")
        for text in (str(2**63), str(-2**63 - 1), "9" * 100, "0x1" + 16 * "0"):
            self.refuse(["pub", "t", "--", text], USAGE, f"'{text}' does not fit into 64 bits")

    def test_one_bad_value_among_good_ones_publishes_none(self):
        self.server()
        reader = self.sub("t", options=("-n", "1"))
        self.refuse(["pub", "t", "1", "2", "three"], USAGE, "'three' is not a 64-bit integer")
        self.publish("t", 4)
        reader.expect("t 4")

    def test_a_bad_line_is_named_and_the_lines_before_it_are_published(self):
        self.server()
        reader = self.sub("t", options=("-n", "2"))
        publisher = self.pub("t")
        publisher.write("1\n2\nthree\n4\n")
        publisher.expect_error("line 3: 'three' is not a 64-bit integer; values published before it: 2")
        publisher.expect_exit(USAGE)
        reader.expect_all(["t 1", "t 2"])

    def test_a_line_without_end(self):
        self.server()
        publisher = self.pub("t")
        publisher.write("1" * 100000)
        publisher.expect_error("line 1: ")
        publisher.expect_exit(USAGE)

    def test_counts_and_durations(self):
        for count in ("0", "-1", "x", "1.5"):
            self.refuse(["sub", "t", "--name", "n", "-n", count], USAGE, f"'{count}' is not a count")
        for duration in ("0", "-1", "x", "5parsecs", "", "nan", "inf", "1e300"):
            self.refuse(["sub", "t", "--name", "n", "-W", duration], USAGE, f"'{duration}' is not a duration")

    def test_no_server(self):
        self.refuse(["pub", "t", "1"], NO_SERVER, f"no message bus server is running in {MODE} mode")
        self.refuse(["sub", "t", "--name", "n"], NO_SERVER, "no message bus server is running")
        del self.environment["BORVEN_BUS"]
        self.refuse(["pub", "t", "1"], NO_SERVER, "no message bus server is running")

    def test_a_server_of_the_other_mode_only(self):
        self.server()
        other = "dynamic" if MODE == "static" else "static"
        self.refuse(["pub", "t", "1", f"--{other}"], NO_SERVER, f"no message bus server is running in {other} mode")

    def test_an_environment_that_names_no_mode(self):
        self.environment["BORVEN_BUS"] = "quantum"
        self.refuse(["pub", "t", "1"], USAGE, "BORVEN_BUS is 'quantum'; it must be 'static' or 'dynamic'")

    def test_options_of_the_server(self):
        self.refuse(["--log-level", "loud"], USAGE, "--log-level", "msgbusd")
        self.refuse(["--log-level", "0"], USAGE, "--log-level", "msgbusd")
        for descriptor in ("x", "-1", "1.5", "9999999999"):
            self.refuse(["--ready-fd", descriptor], USAGE, "--ready-fd", "msgbusd")
        self.refuse(["--ready-fd", "77"], USAGE, "--ready-fd 77: Bad file descriptor", "msgbusd")
        self.refuse(["surplus"], USAGE, "surplus", "msgbusd")

    def test_a_runtime_directory_that_cannot_be_used(self):
        self.environment["BORVEN_RUNTIME_DIR"] = "/proc/nowhere"
        self.refuse([f"--{MODE}", "--log-level", "off"], FAILED, "cannot use the runtime directory /proc/nowhere", "msgbusd")
        self.refuse(["pub", "t", "1"], NO_SERVER if self.is_missing_server() else FAILED, "msgbus: ")

    def refuse_directory(self, directory, reason):
        """Server and client refuse `directory` with a sentence that names it and the reason."""
        self.environment["BORVEN_RUNTIME_DIR"] = directory
        for program, arguments, status in (("msgbusd", [f"--{MODE}"], FAILED), ("msgbus", ["pub", "t", "1"], FAILED)):
            self.refuse(arguments, status, f"cannot use the runtime directory {directory}: {reason}", program)

    def test_a_runtime_directory_that_another_user_may_prepare(self):
        above = os.path.join(self.runtime, "above")
        directory = os.path.join(above, "runtime")
        os.mkdir(above)
        os.chmod(above, 0o777)
        self.refuse_directory(directory, "the directory above it is writable by others and not sticky")
        self.assertEqual(os.listdir(above), [])
        os.chmod(above, 0o700)
        os.mkdir(directory, 0o755)
        self.refuse_directory(directory, "other users may enter it")
        os.rename(directory, directory + "-target")
        os.chmod(directory + "-target", 0o700)
        os.symlink(directory + "-target", directory)
        self.refuse_directory(directory, "it is a symbolic link, or not a directory")

    def test_a_runtime_directory_of_another_user(self):
        if os.geteuid() != 0:
            self.skipTest("only root can give a directory away")
        with tempfile.TemporaryDirectory(prefix="borven-system-") as theirs:  # in the system's temporary directory
            os.chown(theirs, 65534, 65534)
            self.refuse_directory(theirs, "it belongs to another user (uid 65534)")
            self.refuse_directory(os.path.join(theirs, "runtime"), "the directory above it belongs to another user")

    def test_a_runtime_directory_that_is_missing_is_not_created_in_the_root_directory(self):
        missing = f"/borven-test-{os.getpid()}"
        for directory, reason in ((missing, "it does not exist, and nothing is created in the root directory"),
                                  (f"{missing}/runtime", "the directory above it cannot be opened")):
            self.environment["BORVEN_RUNTIME_DIR"] = directory
            self.refuse([f"--{MODE}"], FAILED, f"cannot use the runtime directory {directory}: {reason}", "msgbusd")
            self.refuse(["pub", "t", "1"], NO_SERVER, f"looked in {directory}, which does not exist (BORVEN_RUNTIME_DIR)")
            self.assertFalse(os.path.exists(missing))

    def test_a_file_in_the_place_of_a_socket(self):
        folder, *names = (["static", "msgbus_connection_id"] if MODE == "static" else
                          ["services", *(f"br.MessageBusComponent.{name}" for name in ("ctl", "provider", "subs"))])
        os.mkdir(os.path.join(self.runtime, folder))
        for name in names:
            os.mkfifo(os.path.join(self.runtime, folder, name))
        for program, arguments in (("msgbusd", [f"--{MODE}"]), ("msgbus", ["pub", "t", "1"])):
            process = self.start(f"{BIN}/{program}", *arguments)
            process.expect_exit(FAILED)
            self.assertRegex("\n".join(process.seen),
                             f"the file {self.runtime}/{folder}/.* is not a socket of the directory's owner")

    def is_missing_server(self):
        return self.msgbus("pub", "t", "1").wait() == NO_SERVER

    def test_help_and_version_are_no_errors(self):
        for program in ("msgbus", "msgbusd"):
            for option in ("--help", "--version"):
                process = self.start(f"{BIN}/{program}", option)
                process.expect_exit(DONE)
                self.assertIn(program, "\n".join(process.seen))

    def test_strangers_at_the_sockets_harm_nobody(self):
        self.server()
        held = []
        for root, _, names in os.walk(self.runtime):
            for name in names:
                for junk in (b"", b"x", b"\xff" * 1056, b"\0" * 65536):
                    stranger = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)
                    held.append(stranger)
                    try:
                        stranger.connect(os.path.join(root, name))
                        if junk:
                            stranger.send(junk)
                    except OSError:
                        pass  # the server may refuse it
        self.expect_working()
        for stranger in held:
            stranger.close()
        self.expect_working()


if __name__ == "__main__":
    main()
