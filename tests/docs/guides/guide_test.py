"""Runs what a guide tells its reader to type, as printed, and looks for what it says will appear.

usage: guide_test.py BUILD_DIRECTORY SOURCE_DIRECTORY PAGE

The reader has installed the bus, in a prefix made for the test, and works in an empty folder with a bus of their own. 'build' and
'examples' there are those of the tree.
"""

import glob
import os
import re
import subprocess
import sys
import tempfile

import page
from terminal import Terminal


def find(folder, name):
    return os.path.dirname(glob.glob(f"{folder}/**/{name}", recursive=True)[0])


def environment_of(prefix, home):
    libraries = find(prefix, "libmsgbus.so")
    return {"HOME": home, "USER": os.environ.get("USER", "user"), "LANG": "C.UTF-8",
            "PATH": f"{prefix}/bin:/usr/local/bin:/usr/bin:/bin:/usr/sbin:/sbin",
            "BORVEN_RUNTIME_DIR": f"{home}/runtime",
            "LD_LIBRARY_PATH": libraries, "PKG_CONFIG_PATH": find(prefix, "msgbus.pc"), "CMAKE_PREFIX_PATH": prefix,
            "CPATH": f"{prefix}/include", "PYTHONPATH": find(prefix, "msgbus/__init__.py").rsplit("/", 1)[0],
            "PYTHONDONTWRITEBYTECODE": "1"}


def pattern_of(line):
    return ".*".join(re.escape(piece) for piece in line.rstrip().split("..."))


class Guide:

    def __init__(self, folder, environment):
        self.folder = folder
        self.environment = environment
        self.terminals = {}

    def run(self, guide):
        """Returns: the number of commands."""
        count = 0
        for part in guide.parts:
            if isinstance(part, page.File):
                path = os.path.join(self.folder, part.name)
                os.makedirs(os.path.dirname(path), exist_ok=True)
                with open(path, "w", encoding="utf-8") as file:
                    file.write(part.text)
            elif isinstance(part, page.Appearance):
                self.await_lines(self.terminals[part.terminal], part.lines)
            else:
                count += len(part.lines)
                self.type(part)
        return count

    @staticmethod
    def await_lines(terminal, lines):
        for line in lines:
            if line.strip() not in ("", "..."):
                terminal.await_line(pattern_of(line))

    def type(self, commands):
        print("$", f"[{commands.terminal}]", *commands.lines, sep="\n  ", flush=True)
        if commands.terminal not in self.terminals:
            self.terminals[commands.terminal] = Terminal(self.folder, self.environment)
        terminal = self.terminals[commands.terminal]
        if commands.interrupts:
            terminal.interrupt()
        else:
            terminal.await_end()
        failures = len(terminal.failures())
        terminal.run(commands.lines)
        self.await_lines(terminal, commands.expected)
        if not commands.expected:
            terminal.await_end()
        failed = terminal.failures()[failures:]
        if bool(failed) != commands.may_fail:
            raise AssertionError(f"statuses of commands that failed: {failed}; the terminal shows:\n{terminal.text[-4000:]}")

    def close(self):
        for terminal in self.terminals.values():
            terminal.close()


def main(build, source, name):
    with open(os.path.join(source, name), encoding="utf-8") as file:
        guide = page.read(file.read())
    for reason in guide.skipped:
        print("not run:", reason)
    with tempfile.TemporaryDirectory(prefix="borven-guide-") as folder:
        prefix, home = f"{folder}/prefix", f"{folder}/home"
        subprocess.run(["cmake", "--install", build, "--prefix", prefix], check=True, stdout=subprocess.DEVNULL)
        os.mkdir(home, 0o700)
        os.symlink(build, f"{home}/build")
        os.symlink(f"{source}/examples", f"{home}/examples")
        run = Guide(home, environment_of(prefix, home))
        try:
            count = run.run(guide)
        finally:
            run.close()
    if count == 0:
        raise AssertionError(f"{name} has no command that can be run")
    print(f"{name}: {count} lines were typed")


if __name__ == "__main__":
    main(*(os.path.abspath(path) for path in sys.argv[1:3]), sys.argv[3])
