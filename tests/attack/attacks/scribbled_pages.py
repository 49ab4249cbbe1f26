"""Clients that overwrite every word of the pages which they share with the server, while their calls are under way.

The server ends such a connection, or answers what it finds; it stays within its own memory and serves all others.
"""

from attack import BIN, LIMIT_OF_HANGS, SECONDS, Attack, main


class ScribbledPages(Attack):
    log_level = "off"

    def attack(self):
        scribbler = self.start(f"{BIN}/scribbling_client", str(int(SECONDS * 1000)))
        words, answered, ended = map(int, scribbler.next_line().split())
        scribbler.expect_exit(0, LIMIT_OF_HANGS)
        self.assertGreater(answered, 0)
        self.load(f"{words / 1e6:,.0f} million words, {answered:,} calls answered, {ended:,} connections ended")


if __name__ == "__main__":
    main(ScribbledPages)
