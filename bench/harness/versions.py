"""The versions of the systems measured, from the programs and packages that take part."""

import email.utils
import gzip
import os
import re
import subprocess

from .systems import FETCHED


def output(*command, directory=None):
    """What a command prints, or nothing when it cannot run."""
    try:
        done = subprocess.run(command, stdin=subprocess.DEVNULL, stdout=subprocess.PIPE, stderr=subprocess.STDOUT, cwd=directory,
                              text=True, errors="replace", check=False, timeout=20)
    except OSError:
        return ""
    return done.stdout.strip()


def of_system(system, bin_directory, root):
    """Returns: {"version": ..., "date": YYYY-MM-DD, "packages": [...]}; a fact that the machine does not know is "".

    The version is the one that the program prints, or else that of its package. The date is that of the package, or of
    the commit for the bus itself.
    """
    found = {"version": "", "date": "", "packages": output(
        "dpkg-query", "-W", "-f", "${Package} ${Version}\n", *system.packages.split()).splitlines() if system.packages else []}
    program = system.program(bin_directory)
    if system.version_option:
        number = re.search(r"\d+(\.\d+)+", output(program, system.version_option))
        found["version"] = number.group() if number else ""
    if system.ours:
        commit, found["date"] = (output("git", "log", "-1", "--format=%h %cs", directory=root) + " ").split(" ")[:2]
        changed = "+changes" if output("git", "status", "--porcelain", "-uno", directory=root) else ""
        found["version"] = f"{found['version']} ({commit}{changed})" if commit else found["version"]
        return found
    package = system.packages.split()[0]
    if program and os.path.dirname(program) == FETCHED:
        found["date"] = _date_of_package(os.path.join(os.path.dirname(FETCHED), "share", "doc", system.server))
    else:
        found["date"] = _date_of_package(os.path.join("/usr/share/doc", package))
    if not found["version"]:
        packaged = dict(line.split() for line in found["packages"] if " " in line).get(package, "")
        found["version"] = re.sub(r"^\d+:", "", packaged).rsplit("-", 1)[0]
    return found


def _date_of_package(folder):
    """The date of the last entry in the package's changelog."""
    try:
        with gzip.open(os.path.join(folder, "changelog.Debian.gz"), "rt", encoding="utf-8", errors="replace") as file:
            for line in file:
                if line.startswith(" -- "):
                    return email.utils.parsedate_to_datetime(line.rsplit(">", 1)[1].strip()).strftime("%Y-%m-%d")
    except (OSError, ValueError, IndexError):
        pass
    return ""
