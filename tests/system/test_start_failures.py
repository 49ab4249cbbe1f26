"""What keeps a server from starting is one line on stderr: which thing, whose, and who else serves."""

import json
import os
import pwd
import signal
import socket
import stat
import tempfile

from harness import BIN, DONE, FAILED, MODE, BusTest, main


class StartFailures(BusTest):

    def setUp(self):
        super().setUp()
        folder = tempfile.TemporaryDirectory(prefix="borven-start-")
        self.addCleanup(folder.cleanup)
        self.folder = folder.name
        self.me = f"{pwd.getpwuid(os.geteuid()).pw_name} (uid {os.geteuid()})"

    def path(self, name, mode=None):
        """Returns: a path in the folder of this test; of a directory with that mode."""
        path = os.path.join(self.folder, name)
        if mode is not None:
            os.mkdir(path)
            os.chmod(path, mode)
        return path

    def refuse(self, directory, *options, limit=None):
        """Returns: the only line that the server prints, without its name."""
        self.environment["BORVEN_RUNTIME_DIR"] = directory
        words = [f"{BIN}/msgbusd", f"--{MODE}", *options]
        if limit is not None:
            words = ["prlimit", f"--nofile={limit}:{limit}", *words]
        process = self.start(*words)
        process.expect_exit(FAILED)
        self.assertEqual(len(process.seen), 1, process.seen)
        self.assertTrue(process.seen[0].startswith("msgbusd: "), process.seen)
        return process.seen[0].removeprefix("msgbusd: ")

    def refuse_directory(self, directory, reason, described, mode):
        self.assertEqual(self.refuse(directory),
                         f"cannot use the runtime directory {directory}: {reason}; {described} belongs to {self.me} and "
                         f"has mode {mode:04o}; BORVEN_RUNTIME_DIR chose it")

    def test_each_directory_that_cannot_be_used(self):
        mode = stat.S_IMODE(os.stat(self.folder).st_mode)
        missing = self.path("missing/runtime")
        self.refuse_directory(missing, "the directory above it cannot be opened: No such file or directory",
                              self.folder, mode)
        is_open = self.path("open", 0o755)
        self.refuse_directory(is_open, "other users may enter it (it must have mode 0700)", is_open, 0o755)
        shared = self.path("shared", 0o777)
        self.refuse_directory(f"{shared}/runtime", "the directory above it is writable by others and not sticky",
                              shared, 0o777)
        file = self.path("file")
        with open(file, "w", encoding="utf-8"):
            os.chmod(file, 0o600)
        self.refuse_directory(file, "it is a symbolic link, or not a directory", file, 0o600)

    def test_a_directory_of_another_user(self):
        if os.geteuid() != 0:
            self.skipTest("only root can give a directory away")
        directory = self.path("foreign", 0o700)
        os.chown(directory, 12345, 12345)
        self.assertEqual(self.refuse(directory),
                         f"cannot use the runtime directory {directory}: it belongs to another user (uid 12345); "
                         f"{directory} belongs to uid 12345 and has mode 0700; this server runs as {self.me}; "
                         "BORVEN_RUNTIME_DIR chose it")

    def test_a_directory_that_cannot_be_written_to(self):
        # A folder of the kernel's, which even root cannot write to.
        self.assertIn("cannot use the runtime directory /proc/runtime: it cannot be created: ", self.refuse("/proc/runtime"))

    def test_a_folder_of_names_that_is_none(self):
        directory = self.path("runtime", 0o700)
        folder = os.path.join(directory, "static" if MODE == "static" else "services")
        with open(folder, "w", encoding="utf-8"):
            pass
        self.assertEqual(self.refuse(directory), f"cannot offer the bus: the file {folder} is not a directory that only "
                                                 "its owner may write to; remove it")

    def test_another_server_is_named_also_when_it_is_stopped(self):
        server = self.server(log_level="info")
        sentence = (f"another msgbusd is already serving in {MODE} mode in {self.runtime}: process {server.popen.pid} "
                    "(msgbusd); BORVEN_RUNTIME_DIR chooses another directory")
        self.assertEqual(self.refuse(self.runtime), sentence)
        server.pause()
        self.assertEqual(self.refuse(self.runtime), sentence)
        server.signal(signal.SIGCONT)
        self.assertEqual(self.refuse(self.runtime, "--no-account", "--log-level=debug"), sentence)
        self.expect_working()
        server.stop()

    def test_too_few_descriptors(self):
        for limit in (30, 79):
            self.assertEqual(self.refuse(self.runtime, limit=limit),
                             f"a server needs at least 80 descriptors, and this one may have {limit}; raise 'ulimit -n', "
                             "or LimitNOFILE= of its unit")
        self.assertEqual(os.listdir(self.runtime), [])

    def test_as_many_descriptors_as_it_asks_for_are_enough(self):
        server = self.start("prlimit", "--nofile=80:80", f"{BIN}/msgbusd", f"--{MODE}", "--monitor=127.0.0.1:0")
        server.expect_error("Serving in")
        self.expect_working()
        server.signal(signal.SIGTERM)
        server.expect_exit(DONE)

    def test_an_address_that_is_taken(self):
        with socket.socket() as other:
            other.bind(("127.0.0.1", 0))
            other.listen()
            address = f"127.0.0.1:{other.getsockname()[1]}"
            self.assertEqual(self.refuse(self.runtime, f"--monitor={address}"),
                             f"the account cannot be served on {address}: Address already in use")

    def test_a_token_file_that_cannot_be_used(self):
        file = self.path("token")
        options = ("--monitor=127.0.0.1:0", f"--monitor-token-file={file}")
        self.assertEqual(self.refuse(self.runtime, *options),
                         f"the token file '{file}' cannot be read: No such file or directory")
        with open(file, "w", encoding="utf-8"):
            os.chmod(file, 0o644)
        self.assertEqual(self.refuse(self.runtime, *options),
                         f"the token file '{file}' is open to other users; its mode must be 0600 or less")

    def test_the_line_has_the_format_of_the_log(self):
        self.environment["BORVEN_RUNTIME_DIR"] = "/proc/runtime"
        for name, check in (("json", lambda line: json.loads(line)["level"] == "error"),
                            ("journal", lambda line: line.startswith("<3>"))):
            process = self.start(f"{BIN}/msgbusd", f"--{MODE}", "--log-format", name, "--log-level=off")
            process.expect_exit(FAILED)
            self.assertEqual(len(process.seen), 1, process.seen)
            self.assertIn("cannot use the runtime directory /proc/runtime", process.seen[0])
            self.assertTrue(check(process.seen[0]), process.seen)


if __name__ == "__main__":
    main()
