"""Another user of the system connects: as the runtime directory stands, and after its permissions were opened by mistake.

The kernel keeps that user out first; then the server refuses each connection. Needs root, to become another user.
"""

import os
import stat

from attack import Attack, main
from raw_client import DENIED, CTL, PROVIDER, SUBS, greeting

NOBODY = 65534


class AnotherUser(Attack):

    def prepare(self):
        if os.geteuid() != 0:
            self.skipTest("needs root, to become another user")
        super().prepare()

    def attack(self):
        attempts = 0
        for number in self.rounds():
            service = (PROVIDER, CTL, SUBS)[number % 3]
            self.assertEqual(self.await_child(self.fork(lambda: self.as_nobody(service, self.expect_kept_out))), 0)
            modes = self.open_for_all()
            self.assertEqual(self.await_child(self.fork(lambda: self.as_nobody(service, self.expect_refused))), 0)
            for path, mode in modes.items():
                os.chmod(path, mode)
            attempts += 2
        self.load(f"{attempts} connections of another user")

    def open_for_all(self):
        """Returns: the permissions before."""
        paths = [os.path.dirname(self.runtime)]
        for folder, _, names in os.walk(self.runtime):
            paths += [folder] + [os.path.join(folder, name) for name in names]
        modes = {path: stat.S_IMODE(os.stat(path).st_mode) for path in paths}
        for path in paths:
            os.chmod(path, 0o777)
        return modes

    def as_nobody(self, service, expectation):
        os.setgroups([])
        os.setresgid(NOBODY, NOBODY, NOBODY)
        os.setresuid(NOBODY, NOBODY, NOBODY)
        expectation(self.client(service))

    def expect_kept_out(self, client):
        with self.assertRaises(PermissionError):
            client.connect()

    def expect_refused(self, client):
        client.connect().send(greeting())
        self.assertEqual(client.answer(), DENIED)


if __name__ == "__main__":
    main(AnotherUser)
