"""The sockets by which clients find a living server are removed: it puts them back, or ends and says why."""

import os
import shutil
import signal

from harness import BIN, DONE, FAILED, MODE, NO_SERVER, BusTest, main, wait_until


class Names(BusTest):

    def sockets(self):
        return [os.path.join(folder, name) for folder, _, names in os.walk(self.runtime) for name in names]

    def remove_names(self, and_directory=False):
        """Removes every socket. The server may put one back before its folder is removed."""
        for path in self.sockets():
            os.unlink(path)
        if and_directory:
            shutil.rmtree(self.runtime, ignore_errors=True)

    def expect_restored(self, server):
        for _ in range(1 if MODE == "static" else 3):
            server.expect_error("was removed; it is restored")

    def test_removed_sockets_are_back_and_no_client_notices(self):
        server = self.server(log_level="info")
        reader = self.sub("t", options=("-n", "3"))
        publisher = self.pub("t")
        for value in range(3):
            self.remove_names(and_directory=value == 2)
            publisher.write(f"{value}\n")
            reader.expect(f"t {value}")
            self.expect_restored(server)
            self.expect_working()
        publisher.end_input()
        publisher.expect_exit(DONE)
        reader.expect_exit(DONE)
        server.stop()

    def test_a_second_server_does_not_start_when_the_sockets_were_removed(self):
        server = self.server(log_level="info")
        self.remove_names(and_directory=True)
        self.expect_restored(server)
        second = self.start(f"{BIN}/msgbusd", f"--{MODE}")
        second.expect_error("another msgbusd is already serving")
        second.expect_exit(FAILED)
        self.expect_working()
        server.stop()

    def test_a_server_whose_names_another_one_has_claimed_ends_and_says_so(self):
        first = self.server(log_level="info")
        first.pause()
        self.remove_names()
        second = self.server(log_level="info")
        first.signal(signal.SIGCONT)
        first.expect_error("was removed, and another server has it now")
        first.expect_error("Clients no longer find the bus")
        first.expect_exit(FAILED)
        self.expect_working()
        second.stop()

    def test_a_server_whose_directory_cannot_be_used_any_more_ends_and_says_so(self):
        server = self.server(log_level="info")
        moved = self.runtime + "-moved"
        server.pause()
        os.rename(self.runtime, moved)
        os.symlink(moved, self.runtime)
        server.signal(signal.SIGCONT)
        server.expect_error("it is a symbolic link, or not a directory")
        server.expect_exit(FAILED)

    def test_an_option_leaves_removed_sockets_alone(self):
        server = self.server("--no-name-watch", log_level="info")
        self.remove_names()
        publisher = self.msgbus("pub", "t", "1")
        publisher.expect_exit(NO_SERVER)
        self.assertEqual(self.sockets(), [])
        server.stop()

    def test_an_idle_server_spends_no_time_on_its_names(self):
        server = self.server(log_level="info")

        def switches():
            """How often the thread that watches has run."""
            for thread in os.listdir(f"/proc/{server.popen.pid}/task"):
                try:
                    with open(f"/proc/{server.popen.pid}/task/{thread}/status", encoding="utf-8") as file:
                        lines = dict(line.rstrip("\n").split(":\t", 1) for line in file if ":\t" in line)
                except (FileNotFoundError, ProcessLookupError):
                    continue  # the thread has ended meanwhile
                if lines["Name"] == "borven-house":
                    return int(lines["voluntary_ctxt_switches"])
            return -1

        self.expect_working()
        self.remove_names()
        self.expect_restored(server)
        # It is at rest when it has not run between two looks; a thread that polls never is.
        seen = []
        wait_until(self, lambda: seen.append(switches()) or len(seen) > 50 and len(set(seen[-50:])) == 1, "rest")
        self.assertGreater(seen[-1], 0)


if __name__ == "__main__":
    main()
