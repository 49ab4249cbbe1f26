"""`msgbus top` on a terminal: its page fits and follows the size, keys sort and quit, and whatever ends it leaves the terminal
as it was.
"""

import fcntl
import os
import pty
import re
import select
import signal
import struct
import subprocess
import termios
import time

from harness import BIN, DONE, PATIENCE, BusTest, main

ENTER, LEAVE = b"\x1b[?1049h", b"\x1b[?1049l"
CODES = re.compile(rb"\x1b\[[0-9;?]*[A-Za-z]")


class Terminal:
    """A terminal with `msgbus top` on it, and what has been drawn."""

    def __init__(self, test, *options, columns=80, rows=24, **variables):
        self.test = test
        self.master, self.slave = pty.openpty()
        self.resize(columns, rows)
        self.before = termios.tcgetattr(self.slave)
        environment = {**test.environment, "TERM": "xterm", **variables}
        self.popen = subprocess.Popen([f"{BIN}/msgbus", "top", *options], stdin=self.slave, stdout=self.slave,
                                      stderr=subprocess.PIPE, env=environment, start_new_session=True)
        self.drawn = b""
        test.addCleanup(self.close)

    def resize(self, columns, rows):
        fcntl.ioctl(self.master, termios.TIOCSWINSZ, struct.pack("HHHH", rows, columns, 0, 0))

    def type(self, keys):
        os.write(self.master, keys)

    def read_until(self, condition, what):
        deadline = time.monotonic() + PATIENCE
        while not condition():
            self.test.assertLess(time.monotonic(), deadline, f"no {what}: {self.drawn[-3000:]!r}")
            if select.select([self.master], [], [], 0.1)[0]:
                self.drawn += os.read(self.master, 65536)

    def pages(self):
        """Returns: the complete pages, each as lines."""
        return [CODES.sub(b"", page).decode().split("\r\n") for page in self.drawn.split(b"\x1b[H")[1:]
                if page.endswith(b"\x1b[J")]

    def expect_page(self, condition, what):
        """Waits for a page of which `condition` is true. Returns: it."""
        self.read_until(lambda: any(condition(page) for page in self.pages()), what)
        return next(page for page in reversed(self.pages()) if condition(page))

    def expect_end(self, status=DONE):
        self.test.assertEqual(self.popen.wait(PATIENCE), status)
        self.read_until(lambda: self.drawn.count(LEAVE) == self.drawn.count(ENTER) > 0, "end of the screen")
        self.test.assertIn(b"\x1b[?25h", self.drawn)
        self.test.assertEqual(termios.tcgetattr(self.slave), self.before, "the terminal was not restored")

    def close(self):
        if self.popen.poll() is None:
            self.popen.kill()
            self.popen.wait()
        self.popen.stderr.close()
        os.close(self.master)
        os.close(self.slave)


def column(page, heading):
    """Returns: the last words of the lines below the heading that ends in `heading`, up to the next title."""
    names = []
    for line in page[next(i for i, line in enumerate(page) if line.endswith(heading)) + 1:]:
        if not line or " of " in line or line.startswith("q quit"):
            break
        names.append(line.split()[-1])
    return names


class Top(BusTest):

    def setUp(self):
        super().setUp()
        self.bus_server = self.server(log_level="off")

    def fill(self):
        """Puts topics a and b on the bus, of which b has a subscriber that is behind."""
        reader = self.sub("b", name="zebra")
        reader.pause()
        self.sub("a", name="ant")
        self.publish("b", *range(600))
        self.publish("a", 1)

    def test_q_quits(self):
        terminal = Terminal(self)
        page = terminal.expect_page(lambda page: page[0].startswith("msgbusd "), "page")
        self.assertEqual(len(page), 24)
        self.assertLessEqual(max(map(len, page)), 80)
        terminal.type(b"q")
        terminal.expect_end()

    def test_signals_end_it_in_order(self):
        for number in (signal.SIGINT, signal.SIGTERM, signal.SIGHUP, signal.SIGQUIT):
            terminal = Terminal(self)
            terminal.expect_page(lambda page: page[0].startswith("msgbusd "), "page")
            terminal.popen.send_signal(number)
            terminal.expect_end()

    def test_keys_sort_and_choose(self):
        self.fill()
        terminal = Terminal(self, "-d", "10m")
        terminal.expect_page(lambda page: column(page, "  TOPIC"), "page")
        terminal.type(b"n")
        page = terminal.expect_page(lambda page: any(line.startswith("topics: 2 of 2, by name") for line in page), "order")
        self.assertEqual((column(page, "  TOPIC"), column(page, "  NAME")), (["a", "b"], ["ant", "zebra"]))
        terminal.type(b"l")
        page = terminal.expect_page(lambda page: any(line.endswith(", by lag") for line in page), "order")
        self.assertEqual((column(page, "  TOPIC"), column(page, "  NAME")), (["b", "a"], ["zebra", "ant"]))
        terminal.type(b"o")
        page = terminal.expect_page(lambda page: any(line.endswith("by lag reversed") for line in page), "order")
        self.assertEqual(column(page, "  NAME"), ["ant", "zebra"])
        terminal.type(b"t")
        terminal.expect_page(lambda page: not any("NAME" in line for line in page), "only topics")
        terminal.type(b"s")
        terminal.expect_page(lambda page: not any("TOPIC" in line for line in page), "only subscribers")
        terminal.type(b"q")
        terminal.expect_end()

    def test_a_resized_terminal_is_filled(self):
        terminal = Terminal(self, "-d", "10m")
        terminal.expect_page(lambda page: len(page) == 24, "page")
        terminal.resize(100, 30)
        terminal.popen.send_signal(signal.SIGWINCH)
        terminal.expect_page(lambda page: len(page) == 30, "larger page")
        terminal.resize(20, 5)
        terminal.popen.send_signal(signal.SIGWINCH)
        page = terminal.expect_page(lambda page: len(page) == 5, "smaller page")
        self.assertLessEqual(max(map(len, page)), 20)
        terminal.type(b"q")
        terminal.expect_end()

    def test_the_page_refreshes(self):
        terminal = Terminal(self, "-d", "20ms")
        terminal.expect_page(lambda page: page[0].startswith("msgbusd "), "page")
        self.publish("fresh", 1)
        terminal.expect_page(lambda page: "fresh" in column(page, "  TOPIC"), "the new topic")
        self.bus_server.kill()
        terminal.expect_page(lambda page: "is gone" in page[1], "the end of the server")
        self.server()
        terminal.expect_page(lambda page: "fresh" not in "".join(page) and "is gone" not in page[1], "the next server")
        terminal.type(b"q")
        terminal.expect_end()

    def test_a_suspended_top_gives_the_terminal_back(self):
        terminal = Terminal(self)
        terminal.expect_page(lambda page: page[0].startswith("msgbusd "), "page")
        terminal.popen.send_signal(signal.SIGTSTP)
        os.waitpid(terminal.popen.pid, os.WUNTRACED)
        terminal.read_until(lambda: LEAVE in terminal.drawn, "end of the screen")
        self.assertEqual(termios.tcgetattr(terminal.slave), terminal.before)
        terminal.drawn = b""
        terminal.popen.send_signal(signal.SIGCONT)
        terminal.expect_page(lambda page: page[0].startswith("msgbusd "), "page")
        terminal.drawn = ENTER
        terminal.type(b"q")
        terminal.expect_end()

    def test_colours_are_used_only_where_they_are_wanted(self):
        for variables, is_coloured in (({}, True), ({"NO_COLOR": "1"}, False)):
            terminal = Terminal(self, **variables)
            terminal.expect_page(lambda page: page[0].startswith("msgbusd "), "page")
            self.assertEqual(re.search(rb"\x1b\[[0-9;]*m", terminal.drawn) is not None, is_coloured)
            terminal.type(b"q")
            terminal.expect_end()

    def test_a_dumb_terminal_gets_no_codes(self):
        terminal = Terminal(self, "-d", "10ms", TERM="dumb")
        terminal.read_until(lambda: terminal.drawn.count(b"msgbusd ") > 2, "pages")
        terminal.type(b"q")
        self.assertEqual(terminal.popen.wait(PATIENCE), DONE)
        self.assertNotIn(b"\x1b", terminal.drawn)
        self.assertEqual(termios.tcgetattr(terminal.slave), terminal.before)

    def test_a_terminal_that_hangs_up_ends_it(self):
        read_end, write_end = os.pipe()
        top = subprocess.Popen([f"{BIN}/msgbus", "top", "-d", "10ms"], stdin=subprocess.DEVNULL, stdout=write_end,
                               env=self.environment)
        self.addCleanup(top.kill)
        os.close(write_end)
        self.assertTrue(os.read(read_end, 1))
        os.close(read_end)
        self.assertEqual(top.wait(PATIENCE), DONE)

    def test_once_prints_everything(self):
        self.fill()
        top = self.msgbus("top", "--once", "--sort", "lag")
        top.expect_exit(DONE)
        self.assertEqual((column(top.seen, "  TOPIC"), column(top.seen, "  NAME")), (["b", "a"], ["zebra", "ant"]))


if __name__ == "__main__":
    main()
