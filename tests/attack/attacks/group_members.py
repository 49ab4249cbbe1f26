"""Another user and a member of the admitted group attack a server with --group: its directory, its lock and its sockets.

A member joins, and may do there what any client may; it creates, replaces, removes and locks nothing, however fast it
tries. Who is not a member is kept out by the kernel, and refused by the server after the permissions were opened by
mistake. Needs root, to become other users.
"""

import fcntl
import os
import signal
import socket
import stat

from attack import Attack, main
from raw_client import CTL, DENIED, PROVIDER, SUBS, UNREGISTER_SUBSCRIBER, greeting, int64

GROUP = 23456
MEMBER = (12346, GROUP, [])
FURTHER_MEMBER = (12347, 12347, [7, GROUP])
STRANGER = (12348, 12348, [7])


class GroupMembers(Attack):
    server_options = ("--group", str(GROUP))

    def prepare(self):
        if os.geteuid() != 0:
            self.skipTest("needs root, to become other users")
        os.chmod(os.path.dirname(self.runtime), 0o711)
        super().prepare()

    def attack(self):
        attempts = 0
        for number in self.rounds():
            service = (PROVIDER, CTL, SUBS)[number % 3]
            member = (MEMBER, FURTHER_MEMBER)[number % 2]
            self.expect_done(member, lambda: self.join_and_misbehave(service))
            entries = self.entries()
            self.expect_done(member, lambda: self.expect_unchangeable(entries))
            self.expect_done(STRANGER, lambda: self.expect_kept_out(service))
            modes = self.open_for_all()
            self.expect_done(STRANGER, lambda: self.expect_refused(service))
            for path, mode in modes.items():
                os.chmod(path, mode)
            attempts += 1
        self.load(f"{attempts} attempts each of a member and of another user")

    def conclude(self):
        """The member holds every lock that it can get while the server stops and the next one starts."""
        ready, write_end = os.pipe()
        entries = self.entries()
        member = self.fork(lambda: self.become(MEMBER, lambda: self.lock_all(entries, write_end)))
        os.read(ready, 1)
        super().conclude()
        self.served = self.server(*self.server_options, log_level=self.log_level)
        self.expect_working()
        self.timed_stop(self.served)
        self.end_child(member)
        os.close(ready)
        os.close(write_end)

    def expect_done(self, who, body):
        self.assertEqual(self.await_child(self.fork(lambda: self.become(who, body))), 0)

    def become(self, who, body):
        user, group, further = who
        os.setgroups(further)
        os.setresgid(group, group, group)
        os.setresuid(user, user, user)
        body()

    def entries(self):
        """Returns: all that is in the directory, and the directory: members cannot list it."""
        return [path for folder, _, names in os.walk(self.runtime)
                for path in (folder, *(os.path.join(folder, name) for name in names))]

    def join_and_misbehave(self, service):
        client = self.joined(CTL)
        client.call(CTL, UNREGISTER_SUBSCRIBER, int64(-1))
        client.publish(b"\xff" * 64)
        silent = self.client(service).connect()
        silent.send(b"no greeting")

    def expect_unchangeable(self, entries):
        for path in entries:
            for attempt in (lambda: os.unlink(path), lambda: os.rename(path, path + "-away"), lambda: os.chmod(path, 0o777),
                            lambda: os.mkdir(os.path.join(path, "new")), lambda: os.symlink("/tmp", path + "-new"),
                            lambda: socket.socket(socket.AF_UNIX).bind(os.path.join(path, "new")),
                            lambda: os.close(os.open(path, os.O_WRONLY))):
                try:
                    attempt()
                except OSError:
                    continue
                raise AssertionError(f"{path} was changed")

    def lock_all(self, entries, write_end):
        os.dup2(write_end, 3)
        os.closerange(4, os.sysconf("SC_OPEN_MAX"))  # the checked pair ends when the last copy of its pipe closes
        held = []
        for path in entries:
            try:
                held.append(os.open(path, os.O_RDONLY))
                fcntl.flock(held[-1], fcntl.LOCK_EX)
            except OSError:
                pass
        os.write(3, b"x")
        signal.pause()

    def expect_kept_out(self, service):
        try:
            self.client(service).connect()
        except PermissionError:
            return
        raise AssertionError("connected")

    def open_for_all(self):
        """Returns: the permissions before."""
        modes = {path: stat.S_IMODE(os.stat(path).st_mode) for path in self.entries()}
        for path in modes:
            os.chmod(path, 0o777)
        return modes

    def expect_refused(self, service):
        client = self.client(service).connect()
        client.send(greeting())
        if (status := client.answer()) != DENIED:
            raise AssertionError(f"the answer was {status}")


if __name__ == "__main__":
    main(GroupMembers)
