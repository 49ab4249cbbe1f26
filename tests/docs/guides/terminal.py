"""A terminal with a shell, into which commands are typed and from which lines are read."""

import os
import pty
import re
import select
import signal
import time

PATIENCE = float(os.environ.get("BORVEN_TEST_PATIENCE", "120"))  # seconds; a deadline for hangs only
CONTROL_C = b"\x03"


class Terminal:

    def __init__(self, folder, environment):
        self.text = ""  # everything that was printed
        self.read_to = 0
        self.blocks = 0
        self.pid, self.fd = pty.fork()
        if self.pid == 0:
            os.chdir(folder)
            os.execvpe("bash", ["bash", "--norc", "--noprofile", "--noediting", "-i"],
                       {**environment, "PS1": "", "PS2": "", "TERM": "dumb", "COLUMNS": "100"})
        self.run(["stty -echo columns 200; trap 'echo __failed_$?__' ERR; PROMPT_COMMAND=; set +H"])
        self.await_end()

    def _type(self, line):
        os.write(self.fd, line.encode() + b"\n")

    def _read(self, deadline):
        """Reads what comes. Returns: False when nothing came until the deadline, or the shell has ended."""
        ready, _, _ = select.select([self.fd], [], [], max(0, deadline - time.monotonic()))
        if not ready:
            return False
        try:
            data = os.read(self.fd, 65536)
        except OSError:
            return False
        self.text += data.decode(errors="replace").replace("\r\n", "\n")
        return bool(data)

    def await_line(self, pattern):
        """Waits for a line that matches the regular expression, behind the last one that was waited for."""
        deadline = time.monotonic() + PATIENCE
        while True:
            found = re.compile(rf"^{pattern}$", re.MULTILINE).search(self.text, self.read_to)
            if found:
                self.read_to = found.end()
                return
            has_ended = f"\n__block_{self.blocks}__\n" in self.text[max(self.read_to - 1, 0):]
            if has_ended or not self._read(deadline):
                raise AssertionError(f"no line matches {pattern!r}; the terminal shows:\n{self.text[-4000:]}")

    def run(self, lines):
        """Types the lines, and a mark behind them that shows when they are done."""
        for line in lines:
            self._type(line)
        self.blocks += 1
        self._type(f"echo __block_{self.blocks}__")

    def await_end(self):
        """Waits until all that was typed is done."""
        if f"__block_{self.blocks}__\n" not in self.text[:self.read_to + 1]:
            self.await_line(f"__block_{self.blocks}__")

    def interrupt(self):
        """Presses Ctrl-C."""
        os.write(self.fd, CONTROL_C)
        self.run([])
        self.await_end()

    def failures(self):
        return re.findall(r"__failed_(\d+)__", self.text)

    def close(self):
        """Ends the shell and all that it has started."""
        for process in self._session():
            try:
                os.kill(process, signal.SIGKILL)
            except ProcessLookupError:
                pass
        os.close(self.fd)
        os.waitpid(self.pid, 0)

    def _session(self):
        """Returns: the processes of this terminal."""
        found = []
        for name in filter(str.isdigit, os.listdir("/proc")):
            try:
                if os.getsid(int(name)) == self.pid:
                    found.append(int(name))
            except ProcessLookupError:
                pass  # it has ended meanwhile
        return found
