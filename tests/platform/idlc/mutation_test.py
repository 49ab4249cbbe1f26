"""Defends the compiler against any text: random edits of good texts compile or give errors with a position, never a
traceback.

The edits come from a fixed seed; IDLC_MUTATIONS sets how many there are."""

import os
import random
import re
import shutil
import tempfile
import unittest
from pathlib import Path

from compiler import BUS_IDL, compile_idl
from golden_test import GOLDEN

SEED = 20240607
ERROR = re.compile(r"[^\0]+:[1-9][0-9]*:[1-9][0-9]*: expected \S.*")
STARTS = [(BUS_IDL, "MessageBus.idl", "br.MessageBus"), (GOLDEN, "Store.idl", "sample.Store")]
WORDS = [b"interface", b"component", b"entity", b"connection", b"use", b"in ", b"out ", b"string<", b">",
         b"int64", b"{", b"}", b"(", b")", b";", b":", b",", b"///", b"//", b'"', b"\0", b"\xff", b"\r",
         b"\n", b"\xef\xbb\xbf", b"99999999999", b"."]


def edit(dice, data):
    """Returns: `data` with one random edit."""
    begin = dice.randrange(len(data) + 1)
    end = min(len(data), begin + dice.randrange(1, 40))
    choice = dice.randrange(6)
    if choice == 0:  # change a byte
        return data[:begin] + bytes([dice.randrange(256)]) + data[begin + 1:]
    if choice == 1:  # drop some
        return data[:begin] + data[end:]
    if choice == 2:  # repeat some
        return data[:end] + data[begin:]
    if choice == 3:  # move some
        target = dice.randrange(len(data) + 1)
        return data[:target] + data[begin:end] + data[target:]
    if choice == 4:  # cut the rest off
        return data[:begin]
    return data[:begin] + dice.choice(WORDS) + data[begin:]


class Mutation(unittest.TestCase):
    def test_any_text_compiles_or_gives_placed_errors(self):
        dice = random.Random(SEED)
        outcomes = {0: 0, 1: 0}
        with tempfile.TemporaryDirectory() as name:
            folder = Path(name)
            for round in range(int(os.environ.get("IDLC_MUTATIONS", "1500"))):
                source, top, entity = dice.choice(STARTS)
                originals = sorted(source.glob("*.idl"))
                for original in originals:
                    shutil.copy(original, folder)
                victim = folder / dice.choice(originals).name
                data = victim.read_bytes()
                for _ in range(dice.randrange(1, 4)):
                    data = edit(dice, data)
                victim.write_bytes(data)
                with self.subTest(round=round, file=victim.name, text=data):
                    status, errors = compile_idl(folder / top, entity, folder / "output")
                    outcomes[status] += 1
                    self.assertEqual(status == 1, bool(errors))
                    for error in errors:
                        self.assertRegex(error, ERROR)
        # Both must happen often: edits that are too wild or too tame test nothing.
        self.assertGreater(min(outcomes.values()), sum(outcomes.values()) // 20, outcomes)


if __name__ == "__main__":
    unittest.main()
