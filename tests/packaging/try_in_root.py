"""The Debian packages in a root of their own: installed, used, upgraded, removed; and under a systemd that has booted there.

    try_in_root.py FOLDER-WITH-DEBS [PART...]

Needs root, mmdebstrap, and for the parts of these names autopkgtest ('tests') and systemd-nspawn ('units').
"""

import contextlib
import glob
import os
import shutil
import subprocess
import sys
import tempfile
import time

SOURCES = os.path.join(os.path.dirname(os.path.abspath(__file__)), "..", "..")
PACKAGES = ("msgbusd", "msgbus", "libmsgbus0", "libmsgbus-dev", "python3-msgbus")
PATIENCE = 600  # seconds; a deadline for hangs only
# Logs, caches and what the package manager itself keeps.
NOT_COMPARED = ("./proc", "./sys", "./dev", "./run", "./tmp", "./var/lib/dpkg", "./var/lib/apt", "./var/cache", "./var/log",
                "./debs")


def run(*command, **options):
    """Returns: what the command prints. Fails with its output when it fails."""
    done = subprocess.run(command, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True, timeout=PATIENCE,
                          check=False, **options)
    if done.returncode != 0:
        sys.exit(f"{' '.join(command)} ended with status {done.returncode}:\n{done.stdout[-8000:]}")
    return done.stdout


def check(holds, what):
    if not holds:
        sys.exit(f"try_in_root: {what}")


def say(text):
    print(f"    {text}", file=sys.stderr, flush=True)


class Root:
    """A Debian in a folder, with the packages to install in /debs."""

    def __init__(self, folder, debs, include):
        self.folder = folder
        apt = glob.glob("/etc/apt/sources.list.d/*.sources") + glob.glob("/etc/apt/sources.list")
        with open("/etc/os-release", encoding="utf-8") as release:
            suite = next(line.split("=")[1].strip() for line in release if line.startswith("VERSION_CODENAME="))
        run("mmdebstrap", "--quiet", "--variant=apt", f"--include={','.join(include)}", suite, folder, *apt)
        os.mkdir(f"{folder}/debs")
        for deb in debs:
            shutil.copy(deb, f"{folder}/debs")
        # Services do not start while packages are installed here, as in any chroot.
        with open(f"{folder}/usr/sbin/policy-rc.d", "w", encoding="utf-8") as policy:
            policy.write("#!/bin/sh\nexit 101\n")
        os.chmod(f"{folder}/usr/sbin/policy-rc.d", 0o755)

    def run(self, *command):
        with mounted(self.folder):
            return run("chroot", self.folder, "env", "-i", "PATH=/usr/sbin:/usr/bin:/sbin:/bin", "DEBIAN_FRONTEND=noninteractive",
                       "LC_ALL=C.UTF-8", *command)

    def apt(self, *arguments):
        return self.run("apt-get", "-q", "-y", "--no-install-recommends", *arguments)

    def install(self, folder="/debs"):
        return self.apt("install", *(f"{folder}/{os.path.basename(deb)}" for deb in glob.glob(f"{self.folder}{folder}/*.deb")))

    def files(self):
        pruned = [word for path in NOT_COMPARED for word in ("-path", path, "-prune", "-o")]
        return set(run("find", ".", *pruned, "-print", cwd=self.folder).splitlines())

    def text(self, path):
        with open(self.folder + path, encoding="utf-8") as file:
            return file.read()


@contextlib.contextmanager
def mounted(folder):
    """What programs expect of a system, while a command runs there."""
    places = [("-t", "proc", "proc", f"{folder}/proc"), ("--bind", "/dev", f"{folder}/dev")]
    done = []
    try:
        for arguments in places:
            run("mount", *arguments)
            done.append(arguments[-1])
        yield
    finally:
        for place in reversed(done):
            run("umount", "--lazy", place)


def predecessor(folder):
    """Builds the one package of 0.1, as far as its successors meet it: the same paths, names and relations."""
    root = f"{folder}/borven-message-bus"
    for path in ("usr/bin/msgbusd", "usr/bin/msgbus", "usr/lib/x86_64-linux-gnu/libmsgbus.so.0", "usr/include/msgbus/msgbus.h",
                 "usr/lib/x86_64-linux-gnu/libmessagebus.so.0", "usr/lib/x86_64-linux-gnu/libborven_host.so.0",
                 "usr/lib/python3/dist-packages/msgbus/__init__.py", "usr/lib/systemd/user/msgbusd.service",
                 "usr/lib/tmpfiles.d/borven-message-bus.conf"):
        os.makedirs(os.path.dirname(f"{root}/{path}"), exist_ok=True)
        with open(f"{root}/{path}", "w", encoding="utf-8") as file:
            file.write("of 0.1\n")
    os.makedirs(f"{root}/DEBIAN")
    with open(f"{root}/DEBIAN/control", "w", encoding="utf-8") as control:
        control.write("Package: borven-message-bus\nVersion: 0.1.0\nArchitecture: amd64\n"
                      "Maintainer: BorvenOS <bus@borven.invalid>\nDescription: the release before\n")
    run("dpkg-deb", "--root-owner-group", "-b", root, f"{folder}/borven-message-bus_0.1.0_amd64.deb")


def successors(debs, folder):
    """Builds the packages again as those of a later release."""
    for deb in debs:
        root = f"{folder}/unpacked"
        run("dpkg-deb", "-R", deb, root)
        with open(f"{root}/DEBIAN/control", encoding="utf-8") as control:
            text = control.read()
        version = next(line.split()[1] for line in text.splitlines() if line.startswith("Version: "))
        with open(f"{root}/DEBIAN/control", "w", encoding="utf-8") as control:
            control.write(text.replace(f"Version: {version}", "Version: 99").replace(f"(= {version})", "(= 99)"))
        run("dpkg-deb", "--root-owner-group", "-b", root, folder)
        shutil.rmtree(root)


def installed(root):
    shown = root.run("dpkg-query", "-W", "-f", "${Package} ${db:Status-Status}\\n")
    return {line.split()[0] for line in shown.splitlines() if line.endswith(" installed")}


def try_packages(debs, folder):
    """Installs, upgrades and purges; nothing may be left."""
    root = Root(f"{folder}/root", debs, ["adduser", "python3-minimal"])
    root.apt("update")
    # What the packages need is no part of what they leave.
    depends = set()
    for deb in debs:
        for name in run("dpkg-deb", "-f", deb, "Depends").replace(" ", "").split(","):
            depends.add(name.split("(")[0].strip())
    root.apt("install", *sorted(depends - set(PACKAGES) - {""}))
    before = root.files()

    os.mkdir(f"{root.folder}/debs/old")
    os.mkdir(f"{root.folder}/debs/new")
    predecessor(f"{root.folder}/debs/old")
    successors(debs, f"{root.folder}/debs/new")
    say("upgrade from the one package of 0.1")
    root.install("/debs/old")
    root.install()
    check(set(PACKAGES) <= installed(root), "not every package is installed")
    check("borven-message-bus" not in installed(root), "the package of 0.1 is still there")
    check(root.run("msgbusd", "--version").startswith("msgbusd "), "the server does not start")
    check(not os.path.exists(f"{root.folder}/usr/lib/tmpfiles.d/borven-message-bus.conf"), "a file of 0.1 is still there")
    check("msgbus:" in root.text("/etc/group"), "there is no group msgbus")

    say("upgrade to a later release")
    root.install("/debs/new")
    check("99" in root.run("dpkg-query", "-W", "-f", "${Version}", "msgbusd"), "the upgrade did nothing")
    check(root.run("msgbus", "--version").startswith("msgbus "), "the command line does not start")

    say("use, as a user without rights")
    root.run("useradd", "--create-home", "alice")
    shutil.copy(f"{SOURCES}/packaging/debian/tests/smoke", f"{root.folder}/debs/smoke")
    root.run("setpriv", "--reuid=alice", "--regid=alice", "--clear-groups", "env", "HOME=/home/alice", "/debs/smoke")
    root.run("userdel", "--remove", "alice")

    say("purge")
    root.apt("purge", *PACKAGES)
    left = {path for path in root.files() - before if not path.startswith("./etc/") or not path.endswith("-")}
    check(not left, f"left behind: {sorted(left)}")
    check("msgbus:" not in root.text("/etc/group"), "the group msgbus is left behind")


def try_tests(debs, folder):
    """The tests that come with the packages, by the program that Debian runs them with."""
    root = Root(f"{folder}/root", (), ["apt-utils"])
    root.apt("update")
    tree = f"{folder}/tree"
    shutil.copytree(f"{SOURCES}/packaging/debian", f"{tree}/debian")
    with open(f"{tree}/debian/control", "w", encoding="utf-8") as control:
        control.write("Source: borven-message-bus\nMaintainer: BorvenOS <bus@borven.invalid>\n")
        for package in PACKAGES:
            control.write(f"\nPackage: {package}\nArchitecture: any\nDescription: {package}\n")
    os.remove(f"{root.folder}/usr/sbin/policy-rc.d")
    with mounted(root.folder):
        shown = run("autopkgtest", "--no-built-binaries", *debs, f"{tree}/", "--", "chroot", root.folder)
    for test in ("smoke", "build"):
        check(f"{test:20} PASS" in shown, f"{test} did not pass:\n{shown[-6000:]}")
        say(f"{test} passed")


def try_units(debs, folder):
    """The units for the system and for users, under a systemd that has booted."""
    root = Root(f"{folder}/root", debs, ["systemd", "systemd-sysv", "dbus", "dbus-user-session", "libpam-systemd", "adduser",
                                         "python3-minimal"])
    root.apt("update")
    root.install()
    os.remove(f"{root.folder}/usr/sbin/policy-rc.d")
    for user in ("alice", "bob", "eve"):
        root.run("useradd", "--create-home", user)
    root.run("adduser", "--quiet", "alice", "msgbus")
    root.run("adduser", "--quiet", "bob", "msgbus")
    with contextlib.suppress(FileNotFoundError):
        os.remove(f"{root.folder}/etc/machine-id")
    shutil.copy(os.path.join(os.path.dirname(__file__), "try_units"), f"{root.folder}/debs/try_units")
    with open(f"{root.folder}/etc/systemd/system/try-units.service", "w", encoding="utf-8") as unit:
        unit.write("[Unit]\nAfter=multi-user.target\n[Service]\nType=oneshot\nStandardOutput=file:/debs/shown\n"
                   "StandardError=inherit\nExecStart=/debs/try_units\nExecStopPost=/bin/systemctl --no-block poweroff\n"
                   "[Install]\nWantedBy=graphical.target\n")
    root.run("systemctl", "enable", "try-units.service")
    boot = ["systemd-nspawn", "--quiet", "--register=no", "--keep-unit", "--directory", root.folder, "--boot"]
    done = subprocess.run(boot, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, text=True,
                          timeout=PATIENCE, check=False)
    shown = root.text("/debs/shown") if os.path.exists(f"{root.folder}/debs/shown") else done.stdout
    check(shown.endswith("the units work\n"), f"the units do not work:\n{shown[-8000:]}")
    for line in shown.splitlines():
        if line.startswith("== "):
            say(line[3:])


def main(folder, *parts):
    debs = [os.path.abspath(deb) for deb in glob.glob(f"{folder}/*.deb")]
    check(len(debs) == len(PACKAGES), f"expected {len(PACKAGES)} packages in {folder}, found {debs}")
    check(os.geteuid() == 0, "needs root")
    for part in parts or ("packages", "tests", "units"):
        begin = time.monotonic()
        with tempfile.TemporaryDirectory(prefix="borven-root-", dir="/var/tmp") as place:
            {"packages": try_packages, "tests": try_tests, "units": try_units}[part](debs, place)
        say(f"{part}: {time.monotonic() - begin:.0f} s")


if __name__ == "__main__":
    main(*sys.argv[1:])
