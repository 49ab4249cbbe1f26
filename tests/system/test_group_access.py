"""Who may use a bus: its user; with --group also root and the group's members, who trust nobody but the directory's owner."""

import os
import socket
import unittest

from harness import BIN, DONE, FAILED, MODE, NO_SERVER, BusTest, Process, Server, main, wait_until

OWNER, BY_PRIMARY, BY_SUPPLEMENT, FOREIGN, GROUP = 61001, 61002, 61003, 61004, 61500
# uid: gid, supplementary groups
USERS = {OWNER: (OWNER, (OWNER,)), BY_PRIMARY: (GROUP, (BY_PRIMARY,)), BY_SUPPLEMENT: (BY_SUPPLEMENT, (61499, GROUP)),
         FOREIGN: (FOREIGN, (FOREIGN,)), 0: (0, (0,))}


# Runs the words behind it without the right to change the owner or the group of a file: its system call answers EPERM.
WITHOUT_CHOWN = """
import ctypes, os, platform, struct, sys
fchownat = {"x86_64": 260, "aarch64": 54}[platform.machine()]
load, equal, answer = 0x20, 0x15, 0x06
steps = [(load, 0, 0, 0), (equal, 0, 1, fchownat), (answer, 0, 0, 0x00050001), (answer, 0, 0, 0x7FFF0000)]
program = b"".join(struct.pack("<HBBI", *step) for step in steps)
buffer = ctypes.create_string_buffer(program)
class Filter(ctypes.Structure):
    _fields_ = [("length", ctypes.c_ushort), ("steps", ctypes.c_void_p)]
libc = ctypes.CDLL(None, use_errno=True)
filter = Filter(len(steps), ctypes.addressof(buffer))
if libc.prctl(22, 2, ctypes.byref(filter), 0, 0) != 0:
    sys.exit(f"no filter: {os.strerror(ctypes.get_errno())}")
os.execvp(sys.argv[1], sys.argv[1:])
"""

# Tries to change each entry that is named, and prints what succeeds.
CHANGES = """
import os, socket, sys
for path in sys.argv[1:]:
    for name, attempt in (("unlink", lambda: os.unlink(path)), ("rename", lambda: os.rename(path, path + "-away")),
                          ("chmod", lambda: os.chmod(path, 0o777)), ("open", lambda: os.open(path, os.O_RDONLY)),
                          ("write", lambda: os.open(path, os.O_WRONLY)), ("mkdir", lambda: os.mkdir(path + "/new")),
                          ("list", lambda: os.listdir(path)), ("link", lambda: os.symlink("/tmp", path + "-new")),
                          ("bind", lambda: socket.socket(socket.AF_UNIX).bind(path + "/new"))):
        try:
            attempt()
        except OSError:
            continue
        print(f"{name} {path}")
"""


def as_user(uid, *words, groups=None):
    gid, others = USERS[uid]
    return ["setpriv", f"--reuid={uid}", f"--regid={gid}", f"--groups={','.join(map(str, groups or others))}", *words]


class ServerOf(Server):
    """A server of the user OWNER, who is in the group."""

    def __init__(self, test, *options):
        ready, write_end = os.pipe()
        Process.__init__(self, test, as_user(OWNER, f"{BIN}/msgbusd", f"--{MODE}", "--ready-fd", str(write_end), *options,
                                             groups=(OWNER, GROUP)), test.environment, pass_fds=(write_end,))
        os.close(write_end)
        with os.fdopen(ready, "rb") as pipe:
            test.assertEqual(pipe.read(), b"READY\n", self.seen)


@unittest.skipUnless(os.geteuid() == 0, "needs root, to become other users")
class GroupAccess(BusTest):

    def setUp(self):
        super().setUp()
        os.chmod(os.path.dirname(self.runtime), 0o755)
        os.chown(self.runtime, OWNER, OWNER)
        self.environment["BORVEN_NAME_WATCH"] = "off"  # what these tests do to entries stays

    def serve(self, *options):
        server = ServerOf(self, *options)
        self.processes.append(server)
        return server

    def run_as(self, uid, *words):
        """Returns: the status of a command of the command line, and what it prints."""
        process = self.start(*as_user(uid, f"{BIN}/msgbus", *words))
        status = process.wait()
        return status, "\n".join(process.seen)

    def expect_use(self, uid):
        """Fails unless a value goes from one process of the user to another."""
        subscriber = self.start(*as_user(uid, f"{BIN}/msgbus", "sub", "trial", "-n", "1", "--name", "trial"))
        subscriber.expect_error("subscribed as")
        self.assertEqual(self.run_as(uid, "pub", "trial", "42"), (DONE, ""))
        subscriber.expect("trial 42")
        subscriber.expect_exit(DONE)

    def expect_refused(self, uid, *reasons):
        status, text = self.run_as(uid, "pub", "trial", "42")
        self.assertNotEqual(status, DONE)
        for reason in reasons:
            self.assertIn(reason, text)

    def test_a_member_cannot_lock_the_directory(self):
        self.serve("--group", str(GROUP))
        reader = self.start(*as_user(BY_SUPPLEMENT, "flock", "--nonblock", self.runtime, "true"))
        reader.expect_error("Permission denied")
        self.assertNotEqual(reader.wait(), DONE)

    def test_without_a_group_only_the_owner_is_let_in(self):
        self.serve()
        self.expect_use(OWNER)
        for uid in (BY_PRIMARY, BY_SUPPLEMENT, FOREIGN, 0):
            self.expect_refused(uid, f"cannot use the runtime directory {self.runtime}: it belongs to another user (uid {OWNER})")

    def test_with_a_group_its_members_and_root_are_let_in(self):
        server = self.serve("--group", str(GROUP))
        for uid in (OWNER, BY_PRIMARY, BY_SUPPLEMENT, 0):
            self.expect_use(uid)
        self.expect_refused(FOREIGN, "it is closed to this user")
        for path, mode in ((self.runtime, 0o710), (os.path.dirname(self.address()), 0o710), (self.address(), 0o660)):
            found = os.stat(path)
            self.assertEqual((found.st_uid, found.st_gid, found.st_mode & 0o7777), (OWNER, GROUP, mode), path)
        server.stop()

    def test_a_member_that_dies_is_noticed(self):
        self.serve("--group", str(GROUP))
        holder = self.start(*as_user(BY_SUPPLEMENT, f"{BIN}/msgbus", "pub", "--wait-topic", "20s", "--repeat", "forever",
                                     "-r", "10", "held", "1"))
        wait_until(self, lambda: self.run_as(BY_PRIMARY, "pub", "held", "2")[0] == 3, "the topic to have a publisher")
        holder.kill()
        wait_until(self, lambda: self.run_as(BY_PRIMARY, "pub", "held", "2")[0] == DONE, "the topic to be free again")

    def test_what_is_inside_is_shown_to_the_owner_and_root_only(self):
        self.serve("--group", str(GROUP))
        for uid in (OWNER, 0):
            self.assertEqual(self.run_as(uid, "list")[0], DONE)
        status, text = self.run_as(BY_SUPPLEMENT, "list")
        self.assertNotEqual(status, DONE)
        self.assertIn("only its user and root may look into this bus", text)
        status, text = self.run_as(BY_SUPPLEMENT, "doctor")
        self.assertEqual(status, DONE, text)

    def address(self):
        folder = os.path.join(self.runtime, "static" if MODE == "static" else "services")
        return os.path.join(folder, sorted(os.listdir(folder))[0])

    def test_the_server_asks_the_kernel_and_not_the_directory(self):
        server = self.serve("--group", str(GROUP))
        os.chmod(self.runtime, 0o755)
        for folder, _, files in os.walk(self.runtime):
            os.chmod(folder, 0o755)
            for name in files:
                os.chmod(os.path.join(folder, name), 0o666)
        client = self.start(*as_user(FOREIGN, "/usr/bin/python3", "-c", "import socket, sys\n"
                                     "client = socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET)\n"
                                     "client.connect(sys.argv[1])\n"
                                     "client.recv(64)", self.address()))
        client.expect_exit(DONE)
        server.expect_error(f"refused process {client.popen.pid} (python3) of user {FOREIGN}: the peer is not permitted")

    def test_a_client_trusts_no_directory_that_others_may_change(self):
        self.serve("--group", str(GROUP))
        os.chmod(self.runtime, 0o770)
        self.expect_refused(BY_SUPPLEMENT, "its group may do more than enter it (it must have mode 0710 or 0700)")
        os.chmod(self.runtime, 0o755)
        self.expect_refused(BY_SUPPLEMENT, "other users may enter it (it must have mode 0700)")
        os.chmod(self.runtime, 0o710)
        self.expect_use(BY_SUPPLEMENT)

    def test_a_client_trusts_nobody_but_the_owner_of_the_directory(self):
        self.serve("--group", str(GROUP))
        path = self.address()
        name = os.path.basename(path)
        os.rename(path, path + ".away")
        with socket.socket(socket.AF_UNIX, socket.SOCK_SEQPACKET) as impostor:  # of root, who is not the owner
            impostor.bind(path)
            impostor.listen()
            os.chmod(path, 0o666)
            self.expect_refused(BY_SUPPLEMENT, f"{name} is not a socket of the directory's owner")
            os.chown(path, OWNER, GROUP)
            self.expect_refused(BY_SUPPLEMENT, f"the server at the name {name} belongs to another user")
        os.remove(path)
        os.rename(path + ".away", path)
        self.expect_use(BY_SUPPLEMENT)

    def test_only_a_directory_that_the_user_has_named_may_be_of_another_user(self):
        self.serve("--group", str(GROUP))
        del self.environment["BORVEN_RUNTIME_DIR"]
        session = os.path.dirname(self.runtime)
        os.rename(self.runtime, os.path.join(session, "borven"))
        self.environment["XDG_RUNTIME_DIR"] = session
        self.expect_refused(BY_SUPPLEMENT, f"it belongs to another user (uid {OWNER})")

    def test_a_directory_that_another_user_may_have_put_there_is_not_trusted(self):
        self.serve("--group", str(GROUP))
        folder = os.path.dirname(self.runtime)
        for owner, mode in ((0, 0o1777), (0, 0o775), (FOREIGN, 0o755)):
            os.chown(folder, owner, owner)
            os.chmod(folder, mode)
            status, text = self.run_as(BY_SUPPLEMENT, "pub", "trial", "1")
            self.assertEqual(status, FAILED, text)
            self.assertRegex(text, "a third one may have put it where it is|the directory above it (is writable|belongs)")
        os.chown(folder, 0, 0)
        os.chmod(folder, 0o755)
        self.expect_use(BY_SUPPLEMENT)

    def test_groups_that_cannot_be_let_in(self):
        process = self.start(*as_user(OWNER, f"{BIN}/msgbusd", f"--{MODE}", "--group", str(GROUP)))
        process.expect_error(f"the group {GROUP} cannot be let in: this server's user is not one of its members")
        process.expect_exit(FAILED)
        with open("/proc/sys/kernel/overflowgid", encoding="ascii") as file:
            unmapped = file.read().strip()
        process = self.start(*as_user(OWNER, f"{BIN}/msgbusd", f"--{MODE}", "--group", unmapped, groups=(OWNER, unmapped)))
        process.expect_error(f"the group {unmapped} cannot be let in: it stands for all groups that are not known here")
        process.expect_exit(FAILED)
        for name in ("no-such-group", "-1", "4294967295", "12x"):
            process = self.start(*as_user(OWNER, f"{BIN}/msgbusd", f"--{MODE}", f"--group={name}"))
            process.expect_error(f"there is no group '{name}'")
            process.expect_exit(2)

    def test_a_server_that_may_not_change_owners_needs_not_do_so(self):
        """As in the unit of the system, whose sandbox forbids that: its directory and its own group are the right ones."""
        os.chown(self.runtime, OWNER, GROUP)
        os.chmod(self.runtime, 0o710)
        process = self.start("/usr/bin/python3", "-c", WITHOUT_CHOWN, "setpriv", f"--reuid={OWNER}", f"--regid={GROUP}",
                             "--clear-groups", f"{BIN}/msgbusd", f"--{MODE}", "--group", str(GROUP))
        process.expect_error("Serving in")
        self.assertEqual(os.stat(self.address()).st_gid, GROUP)
        self.expect_use(BY_SUPPLEMENT)

    def test_what_stands_in_the_place_of_the_folder_keeps_its_mode(self):
        path = os.path.join(self.runtime, "static" if MODE == "static" else "services")
        with open(path, "w", encoding="utf-8"):
            os.chmod(path, 0o600)
        os.chown(path, OWNER, OWNER)
        process = self.start(*as_user(OWNER, f"{BIN}/msgbusd", f"--{MODE}", "--group", str(GROUP), groups=(OWNER, GROUP)))
        process.expect_error("is not a directory that only its owner may write to")
        process.expect_exit(FAILED)
        self.assertEqual(os.stat(path).st_mode & 0o777, 0o600)

    def test_a_member_can_change_nothing_there(self):
        self.serve("--group", str(GROUP))
        entries = [self.runtime, os.path.dirname(self.address()), self.address(), os.path.join(self.runtime, "account")]
        for uid in (BY_PRIMARY, BY_SUPPLEMENT):
            client = self.start(*as_user(uid, "/usr/bin/python3", "-c", CHANGES, *entries))
            client.expect_end()
            client.expect_exit(DONE)
        self.expect_use(OWNER)

    def test_a_member_cannot_serve_there(self):
        self.serve("--group", str(GROUP))
        process = self.start(*as_user(BY_PRIMARY, f"{BIN}/msgbusd", f"--{MODE}", "--group", str(GROUP)))
        process.expect_error(f"it belongs to another user (uid {OWNER})")
        process.expect_exit(FAILED)

    def test_the_limits_of_a_process_hold_for_members(self):
        self.serve("--group", str(GROUP), "--limit", "handshakes-per-process=1")
        calls = self.start(*as_user(BY_SUPPLEMENT, f"{BIN}/bus_calls"))
        calls.expect("connected")
        for name, code in (("one", "0"), ("two", "4")):
            calls.write(f"start {name}\n")
            self.assertEqual(calls.next_line().split()[0], code)

    def test_the_processes_of_a_member_have_half_of_the_connections(self):
        server = self.serve("--group", str(GROUP), "--limit", "connections=60", "--limit", "connections-per-process=15")
        clients = as_user(BY_SUPPLEMENT, f"{BIN}/bus_calls", "5")  # 15 connections to the one channel, or 5 to each of three
        crowd = [self.start(*clients) for _ in range(2 if MODE == "static" else 6)]
        for process in crowd:
            process.expect("connected")
        self.start(*clients).expect_error("cannot connect: -7")
        server.expect_error(f"gets no more connections to one channel: those of user {BY_SUPPLEMENT} have 30, the share")
        self.expect_refused(BY_SUPPLEMENT, "takes no more connections of this process, its user or of all")
        for uid in (OWNER, BY_PRIMARY, 0):
            self.expect_use(uid)
        for process in crowd:
            process.kill()
        wait_until(self, lambda: self.run_as(BY_SUPPLEMENT, "pub", "trial", "42")[0] == DONE, "the places to be free")
        self.expect_use(BY_SUPPLEMENT)

    def test_the_processes_of_a_member_have_half_of_the_registrations(self):
        server = self.serve("--group", str(GROUP), "--limit", "publishers=8", "--limit", "publishers-per-process=3")
        first, second, other = (self.start(*as_user(uid, f"{BIN}/bus_calls")) for uid in (BY_PRIMARY, BY_PRIMARY, OWNER))
        for process in (first, second, other):
            process.expect("connected")
        codes = []
        for number, process in enumerate((first, first, first, second, second, other)):
            process.write(f"publisher p{number}\n")
            codes.append(process.next_line().split()[0])
        self.assertEqual(codes, ["0", "0", "0", "0", "3", "0"])
        server.expect_error(f"is refused more publishers: those of user {BY_PRIMARY} have 4, the share of a user is 4")

    def test_without_limits_a_member_has_no_share(self):
        self.serve("--group", str(GROUP), "--no-limits")
        process = self.start(*as_user(BY_PRIMARY, f"{BIN}/bus_calls", "500"))  # 1,500 connections in static mode, of 2,048
        process.expect("connected")

    def test_a_directory_that_members_may_have_opened_is_not_used(self):
        os.chown(self.runtime, OWNER, GROUP)
        os.chmod(self.runtime, 0o750)  # a lock that a member has taken would outlive a change of the mode
        process = self.start(*as_user(OWNER, f"{BIN}/msgbusd", f"--{MODE}", "--group", str(GROUP), groups=(OWNER, GROUP)))
        process.expect_error("its group may do more than enter it (it must have mode 0710 or 0700)")
        process.expect_exit(FAILED)

    def test_a_directory_of_another_group_is_not_used(self):
        os.chown(self.runtime, OWNER, FOREIGN)
        os.chmod(self.runtime, 0o750)
        process = self.start(*as_user(OWNER, f"{BIN}/msgbusd", f"--{MODE}", "--group", str(GROUP), groups=(OWNER, GROUP)))
        process.expect_error("other users may enter it (it must have mode 0700)")
        process.expect_exit(FAILED)

    def test_no_server_is_told_from_no_access(self):
        os.chown(self.runtime, OWNER, GROUP)
        os.chmod(self.runtime, 0o710)
        self.assertEqual(self.run_as(BY_SUPPLEMENT, "pub", "trial", "1")[0], NO_SERVER)


if __name__ == "__main__":
    main()
