"""The runtime directory of a living server is removed, or what is in it.

Within a few seconds the sockets are back and clients connect; or the server ends with an error line, so that a service
manager can start it again. What is connected stays connected.
"""

import os
import shutil

from attack import LIMIT_OF_HANGS, Attack, main, wait_until
from raw_client import CTL


class RemovedDirectories(Attack):
    def attack(self):
        removals = 0
        for _ in self.rounds():
            for entry in os.listdir(self.runtime):
                shutil.rmtree(os.path.join(self.runtime, entry), ignore_errors=True)
            removals += 1
            wait_until(self, lambda: self.is_gone() or self.can_join(), "the sockets to come back")
            if self.is_gone():
                break
        self.load(f"{removals} removals; the server " + ("ended" if self.is_gone() else "went on"))

    def conclude(self):
        if not self.is_gone():
            super().conclude()
            return
        self.assertGreater(self.served.wait(LIMIT_OF_HANGS), 0)
        self.assertIn("ERROR", "\n".join(self.served.seen))

    def is_gone(self):
        return self.served.popen.poll() is not None

    def can_join(self):
        try:
            self.joined(CTL).close()
            return True
        except OSError:
            return False


if __name__ == "__main__":
    main(RemovedDirectories)
