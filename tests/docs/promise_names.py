"""Defends docs/promises.md: every test that it names exists.

Usage: promise_names.py BUILD_DIRECTORY DOCUMENT"""

import json
import re
import subprocess
import sys

MINIMUM = 100  # a document with fewer names was not read right


def main(build, document):
    listing = subprocess.run(["ctest", "--test-dir", build, "--show-only=json-v1"], check=True, capture_output=True,
                             text=True).stdout
    existing = {test["name"] for test in json.loads(listing[listing.index("{"):])["tests"]}
    with open(document, encoding="utf-8") as text:
        named = set(re.findall(r"`((?:system\.\w+\.\w+|(?:\w+/)?\w+Test)\.\w+(?:/\w+)?)`", text.read()))
    missing = sorted(named - existing)
    for name in missing:
        print(f"{document} names a test that does not exist: {name}")
    print(f"{len(named)} tests named, {len(missing)} missing")
    return 1 if missing or len(named) < MINIMUM else 0


if __name__ == "__main__":
    sys.exit(main(*sys.argv[1:]))
