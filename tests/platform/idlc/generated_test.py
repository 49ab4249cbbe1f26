"""Defends the compiler with generated texts: right ones compile, with every record laid out as docs/idl.md says and a
reply function and a begun call for every method; those that break one rule give the error at its place.

IDLC_SEED repeats a run, which prints it; IDLC_GENERATED sets how many texts are tried."""

import os
import random
import re
import tempfile
import unittest
from pathlib import Path

from compiler import compile_idl
from mutation_test import ERROR, edit

SEED = int(os.environ.get("IDLC_SEED", "20240811"))
ROUNDS = int(os.environ.get("IDLC_GENERATED", "120"))
HEADER, RECORD = 24, 1056
SMALL = ["a", "in", "out", "use", "string", "int8", "component", "connection", "x1", "self", "request", "record",
         "size", "ops", "std"]
INTEGERS = [f"{sign}int{bits}" for sign in ("", "u") for bits in (8, 16, 32, 64)]


def round_up(value, alignment):
    return -(-value // alignment) * alignment


class Source:
    """A set of files that define the entity gen.E, and the expected output."""

    def __init__(self, dice):
        self.dice = dice
        self.files = {}  # name to lines
        self.sizes = {}  # record to bytes
        self.outputs = {}  # method to the parameters of its reply function between the first and the last
        self.steps = {}  # function of a begun call to its parameters between the first and the last
        interfaces = [self.interface(number) for number in range(dice.randrange(1, 5))]
        names = [f"File{number}.idl" for number in range(len(interfaces))]
        for number, (name, lines) in enumerate(zip(names, interfaces)):
            # Any others, or itself: each is read once.
            self.files[name] = [f'use "{dice.choice(names)}";' for _ in range(dice.randrange(3))] + lines
        members = [f"    {member}: gen.I{number};"
                   for number, member in enumerate(dice.sample(SMALL, len(interfaces)))]
        dice.shuffle(members)
        self.connection = dice.choice((None, "a", "x" * dice.randrange(1, 256)))
        line = f'connection "{self.connection}"; ' if self.connection else ""
        self.files["Top.idl"] = ([f'use "{name}";' for name in names] + ["component gen.C {"] + members
                                 + ["}", f"entity gen.E {{ {dice.choice(SMALL)}: gen.C; {line}}}"])

    def interface(self, number):
        lines = [f"interface gen.I{number} {{"]
        for method in range(self.dice.randrange(1, 6)):
            end = {"in": HEADER, "out": HEADER}
            alignment = {"in": 4, "out": 4}
            fields = []
            outputs = []
            inputs = []
            references = []
            for name in self.dice.sample(SMALL, self.dice.randrange(0, 8)):
                direction = self.dice.choice(("in", "out"))
                if self.dice.randrange(3) == 0:
                    room = RECORD - end[direction]
                    if room < 2:
                        continue
                    size = self.dice.choice((2, room, self.dice.randrange(2, room + 1)))
                    kind, aligned = f"string<{size}>", 1
                else:
                    kind = self.dice.choice(INTEGERS)
                    size = aligned = int(kind.lstrip("uint")) // 8
                place = round_up(end[direction], aligned)
                if place + size > RECORD:
                    continue
                end[direction] = place + size
                alignment[direction] = max(alignment[direction], aligned)
                fields.append(f"{direction} {name}: {kind}")
                value = f"std::{'string_view' if 'string' in kind else kind + '_t'} {name}"
                if direction == "out":
                    outputs.append(value)
                    references.append(f"std::{'string' if 'string' in kind else kind + '_t'}& {name}")
                else:
                    inputs.append(value)
            lines.append(f"    M{method}({', '.join(fields)});")
            self.outputs[f"gen_I{number}_M{method}"] = outputs
            self.steps[f"gen_I{number}_M{method}_begin"] = inputs
            self.steps[f"gen_I{number}_M{method}_finish"] = references
            for direction, suffix in (("in", "req"), ("out", "res")):
                self.sizes[f"gen_I{number}_M{method}_{suffix}"] = round_up(end[direction], alignment[direction])
        return lines + ["}"]

    def write(self, folder):
        for name, lines in self.files.items():
            (folder / name).write_text("\n".join(lines) + "\n")

    def break_one_rule(self):
        """Breaks one rule. Returns: the file and the line of the fault."""
        name = self.dice.choice([name for name in self.files if name != "Top.idl"])
        lines = self.files[name]
        last = len(lines) - 1  # closes the interface
        number = re.search(r"gen\.I(\d)", "\n".join(lines)).group(1)
        choice = self.dice.randrange(7)
        if choice == 0:
            lines[last:last] = ["    M0();"]
        elif choice == 1:
            lines[last:last] = ["    Long(in a: string<1032>, in b: uint8);"]
        elif choice == 2:
            lines[last:last] = ["    Short(out a: string<1>);"]
        elif choice == 3:
            lines[last:last] = ["    Words(in class: int8);"]
        elif choice == 4:
            lines[last:last] = ["    Twice(in a: int8, out a: int8);"]
        elif choice == 5:
            lines[last:last] = ["    Unended()"]
            last += 1
        else:
            lines.append(f"interface gen.I{number} {{ Again(); }}")
            last += 1
        return name, last + 1


class Generated(unittest.TestCase):
    def setUp(self):
        print(f"IDLC_SEED={SEED}")
        self.dice = random.Random(SEED)
        temporary = tempfile.TemporaryDirectory()
        self.addCleanup(temporary.cleanup)
        self.root = Path(temporary.name)

    def make_round(self, number):
        folder = self.root / str(number)
        folder.mkdir()
        return folder, Source(self.dice)

    def test_a_text_that_is_right_compiles_to_its_connection_its_replies_and_to_records_of_their_sizes(self):
        for number in range(ROUNDS):
            folder, source = self.make_round(number)
            source.write(folder)
            with self.subTest(round=number, files=source.files):
                self.assertEqual((0, []), compile_idl(folder / "Top.idl", "gen.E", folder / "output"))
                records = (folder / "output" / "gen_E.h").read_text()
                sizes = re.findall(r"static_assert\(sizeof\((gen_I\d_M\d_re[qs])\) == (\d+)\)", records)
                self.assertEqual(source.sizes, {name: int(size) for name, size in sizes})
                self.assertEqual(
                    {method: ["std::int32_t result", *outputs, "nk_message* response"]
                     for method, outputs in source.outputs.items()},
                    {method: re.split(r",\s+", parameters) for method, parameters
                     in re.findall(r"^void (gen_I\d_M\d)_reply\(\s*([^)]*)\) noexcept;", records, re.MULTILINE)})
                begun = (folder / "output" / "gen_E_begun.h").read_text()
                self.assertEqual(
                    {step: ["NkBosTransport* transport", *parameters, "std::uint32_t timeout_ms"]
                     for step, parameters in source.steps.items()},
                    {step: re.split(r",\s+", parameters) for step, parameters
                     in re.findall(r"int32_t (gen_I\d_M\d_(?:begin|finish))\(\s*([^)]*)\);", begun)})
                self.assertEqual([source.connection] if source.connection else [],
                                 re.findall(r'gen_E_connection = "(\w+)";', records))

    def test_a_text_that_breaks_one_rule_gives_the_error_at_its_place(self):
        for number in range(ROUNDS):
            folder, source = self.make_round(number)
            name, line = source.break_one_rule()
            source.write(folder)
            with self.subTest(round=number, files=source.files):
                status, errors = compile_idl(folder / "Top.idl", "gen.E", folder / "output")
                self.assertEqual((1, 1), (status, len(errors)), errors)
                self.assertTrue(errors[0].startswith(f"{folder / name}:{line}:"), errors)
                self.assertFalse((folder / "output").exists())

    def test_a_text_after_random_edits_compiles_or_gives_placed_errors(self):
        for number in range(ROUNDS):
            folder, source = self.make_round(number)
            source.write(folder)
            victim = folder / self.dice.choice(sorted(source.files))
            victim.write_bytes(edit(self.dice, victim.read_bytes()))
            with self.subTest(round=number, file=victim.name, text=victim.read_bytes()):
                status, errors = compile_idl(folder / "Top.idl", "gen.E", folder / "output")
                self.assertEqual(status == 1, bool(errors))
                for error in errors:
                    self.assertRegex(error, ERROR)


if __name__ == "__main__":
    unittest.main()
