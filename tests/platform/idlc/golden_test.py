"""Defends the generated code: a change of a template shows as a difference from the files in golden/.

Run with --refresh to write those files anew."""

import sys
import tempfile
import unittest
from pathlib import Path

from compiler import compile_idl

GOLDEN = Path(__file__).resolve().parent / "golden"
ENTITIES = {"sample.Store": "Store.idl", "sample.Bare": "Bare.idl"}


def generate(output):
    for entity, file in ENTITIES.items():
        status, errors = compile_idl(GOLDEN / file, entity, output)
        assert status == 0 and not errors, errors
    return {f"{path.name}.golden": path.read_text(encoding="utf-8") for path in Path(output).iterdir()}


class Golden(unittest.TestCase):
    maxDiff = None

    def test_every_generated_file_equals_its_golden_file(self):
        with tempfile.TemporaryDirectory() as folder:
            generated = generate(folder)
        self.assertEqual(sorted(generated), sorted(path.name for path in GOLDEN.glob("*.golden")))
        for name, text in generated.items():
            with self.subTest(name):
                self.assertEqual((GOLDEN / name).read_text(encoding="utf-8"), text)


def refresh():
    with tempfile.TemporaryDirectory() as folder:
        generated = generate(folder)
    for path in GOLDEN.glob("*.golden"):
        path.unlink()
    for name, text in generated.items():
        (GOLDEN / name).write_text(text, encoding="utf-8")


if __name__ == "__main__":
    if sys.argv[1:] == ["--refresh"]:
        refresh()
    else:
        unittest.main()
