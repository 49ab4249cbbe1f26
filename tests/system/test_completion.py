"""Completion in the three shells: what each offers for a command line, on a bus with two topics and a subscriber."""

import os
import subprocess

from harness import BIN, DONE, BusTest, main

# Each prints the candidates for the line in its first argument, one per line.
BASH = """
source <(msgbus completion bash)
COMP_LINE=$1 COMP_POINT=${#1} COMPREPLY=()
_msgbus
printf '%s\\n' "${COMPREPLY[@]}"
"""

ZSH = """
compdef() { :; }
source <(msgbus completion zsh)
compadd() { print -rl -- "${(@P)@[-1]}"; }
words=("${(z)1}") CURRENT=${#words}
[[ $1 == *' ' ]] && words+=('') CURRENT=${#words}
_msgbus
"""

FISH = """
msgbus completion fish | source
complete -C $argv[1] | string replace -r '\\t.*' ''
true
"""


class Completion(BusTest):

    def candidates(self, command, line):
        path = f"{BIN}:{os.environ['PATH']}"
        result = subprocess.run([*command, line], env={**self.environment, "PATH": path}, capture_output=True, text=True,
                                timeout=60, check=False)
        self.assertEqual((result.returncode, result.stderr), (DONE, ""), result)
        return [word for word in result.stdout.split("\n") if word]

    def offers(self, command, quoted):
        self.server()
        self.sub("inside", "a b", "c:d", name="reader")
        for line, expected in (("msgbus su", {"sub"}), ("msgbus sub --js", {"--json"}), ("msgbus sub ins", {"inside"}),
                               ("msgbus sub ", {"inside", quoted, "c:d"}), ("msgbus get -t in", {"inside"}),
                               ("msgbus info re", {"reader"}), ("msgbus bench p", {"pub"}), ("msgbus sub -n ", set())):
            with self.subTest(line=line):
                self.assertEqual(set(self.candidates(command, line)), expected)

    def test_bash(self):
        self.offers(["bash", "--norc", "-c", BASH, "bash"], r"a\ b")

    def test_bash_replaces_only_what_is_behind_a_break(self):
        self.server()
        self.sub("c:d", "c:e")
        command = ["bash", "--norc", "-c", BASH, "bash"]
        self.assertEqual(self.candidates(command, "msgbus sub c:"), ["d", "e"])
        self.assertEqual(self.candidates(command, "msgbus sub --ts=r"), ["rel"])

    def test_zsh(self):
        self.offers(["zsh", "-f", "-c", ZSH, "zsh"], "a b")

    def test_fish(self):
        self.environment["HOME"] = self.runtime
        self.offers(["fish", "--no-config", "-c", FISH], "a b")

    def test_without_a_server_commands_are_offered_and_nothing_is_printed(self):
        self.assertEqual(self.candidates(["bash", "--norc", "-c", BASH, "bash"], "msgbus sub "), [])
        self.assertEqual(self.candidates(["bash", "--norc", "-c", BASH, "bash"], "msgbus su"), ["sub"])


if __name__ == "__main__":
    main()
