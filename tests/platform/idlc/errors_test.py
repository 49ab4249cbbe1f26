"""Defends the compiler's errors for bad input: position, what was expected there, exit status 1, no output.

Each case is a text and the one error that it must give, without the name of the file."""

import subprocess
import sys
import tempfile
import unittest
from pathlib import Path

from compiler import COMPILER, compile_idl

GOOD_INTERFACE = "interface br.A { M(); }\n"
GOOD_COMPONENT = "component br.C { a: br.A; }\n"
GOOD_ENTITY = "entity br.E { c: br.C; }\n"
GOOD = GOOD_INTERFACE + GOOD_COMPONENT + GOOD_ENTITY

ITEM = "'in' or 'out'"
TYPE = "an integer type (int8 to int64, uint8 to uint64) or string<SIZE>"
DEFINITION = "'use', 'interface', 'component' or 'entity'"
QUALIFIED = "a qualified name such as br.MessageBus"
METHOD = "a method name that begins with a capital letter"
FIELD = "a field name that begins with a small letter"
MEMBER = "a member name that begins with a small letter"
CONNECTION = "a connection name in double quotes"
PLAIN = "a connection name of 1 to 255 bytes: printable, without '/' or '\\', other than '.' and '..'"


def connected(name):
    """A text that is good up to the name of its connection, which begins at 3:35."""
    return GOOD_INTERFACE + GOOD_COMPONENT + f"entity br.E {{ c: br.C; connection {name}; }}\n"


SYNTAX = {
    # Definitions
    "banana": f"1:1: expected {DEFINITION}, found 'banana'",
    "\n\n  @": f"3:3: expected {DEFINITION}, found '@'",
    ";": f"1:1: expected {DEFINITION}, found ';'",
    "interfaces br.A {}": f"1:1: expected {DEFINITION}, found 'interfaces'",
    "/// text\nuse \"x\";": "2:1: expected 'interface', 'component' or 'entity', found 'use'",
    "/// text": "1:9: expected 'interface', 'component' or 'entity', found the end of the file",
    "/* no */": f"1:1: expected {DEFINITION}, found '/'",
    "\0": f"1:1: expected {DEFINITION}, found '\\x00'",
    "\ufeffinterface": f"1:1: expected {DEFINITION}, found '\\ufeff'",
    "é": f"1:1: expected {DEFINITION}, found 'é'",
    # use
    "use x;": "1:5: expected a file name in double quotes, found 'x'",
    'use "x"': "1:8: expected ';', found the end of the file",
    'use "x\n";': "1:5: expected a file name in double quotes, found '\"'",
    'use "";': "1:5: expected a file name in double quotes, found '\"'",
    "use": "1:4: expected a file name in double quotes, found the end of the file",
    # Names
    "interface A {}": f"1:11: expected {QUALIFIED}, found 'A'",
    "interface br.a {}": f"1:11: expected {QUALIFIED}, found 'br'",
    "interface Br.A {}": f"1:11: expected {QUALIFIED}, found 'Br'",
    "interface br..A {}": f"1:11: expected {QUALIFIED}, found 'br'",
    "interface br.A_B {}": "1:15: expected '{', found '_'",
    "interface {}": f"1:11: expected {QUALIFIED}, found '{{'",
    # Interfaces
    "interface br.A": "1:15: expected '{', found the end of the file",
    "interface br.A {\n": f"2:1: expected {METHOD} or '}}', found the end of the file",
    "interface br.A { m(); }": f"1:18: expected {METHOD} or '}}', found 'm'",
    "interface br.A { M; }": "1:19: expected '(', found ';'",
    "interface br.A { M() }": "1:22: expected ';', found '}'",
    "interface br.A { M(; }": "1:20: expected 'in', 'out' or ')', found ';'",
    "interface br.A { M(int8); }": "1:20: expected 'in', 'out' or ')', found 'int8'",
    "interface br.A { M(inout x: int8); }": "1:20: expected 'in', 'out' or ')', found 'inout'",
    "interface br.A { M(inx: int8); }": "1:20: expected 'in', 'out' or ')', found 'inx'",
    "interface br.A { M(in x: int8,); }": f"1:31: expected {ITEM}, found ')'",
    "interface br.A { M(in x: int8 in y: int8); }": "1:31: expected ')' or ',', found 'in'",
    "interface br.A { M(in X: int8); }": f"1:23: expected {FIELD}, found 'X'",
    "interface br.A { M(in 3: int8); }": f"1:23: expected {FIELD}, found '3'",
    "interface br.A { M(in x int8); }": "1:25: expected ':', found 'int8'",
    "interface br.A { M(in x: int); }": f"1:26: expected {TYPE}, found 'int'",
    "interface br.A { M(in x: int65); }": f"1:26: expected {TYPE}, found 'int65'",
    "interface br.A { M(in x: float); }": f"1:26: expected {TYPE}, found 'float'",
    "interface br.A { M(in x: string); }": "1:32: expected '<', found ')'",
    "interface br.A { M(in x: string<>); }": "1:33: expected a number, found '>'",
    "interface br.A { M(in x: string<-5>); }": "1:33: expected a number, found '-'",
    "interface br.A { M(in x: string<5); }": "1:34: expected '>', found ')'",
    "interface br.A { M(in x: string<5x>); }": "1:34: expected '>', found 'x'",
    "interface br.A { M(in x: string<0x10>); }": "1:34: expected '>', found 'x10'",
    # Components and entities
    "component br.C { A: br.A; }": f"1:18: expected {MEMBER} or '}}', found 'A'",
    "component br.C { a br.A; }": "1:20: expected ':', found 'br.A'",
    "component br.C { a: A; }": f"1:21: expected {QUALIFIED}, found 'A'",
    "component br.C { a: br.A }": "1:26: expected ';', found '}'",
    "entity br.E {}": f"1:14: expected {MEMBER}, found '}}'",
    "entity br.E { a: br.C; b: br.C; }": "1:24: expected 'connection' or '}', found 'b'",
    "entity br.E { a: br.C;": "1:23: expected 'connection' or '}', found the end of the file",
    # Connections
    'entity br.E { connection "x"; a: br.C; }': "1:26: expected ':', found '\"x\"'",
    "entity br.E { a: br.C; connection: br.C; }": f"1:34: expected {CONNECTION}, found ':'",
    "entity br.E { a: br.C; connection x; }": f"1:35: expected {CONNECTION}, found 'x'",
    'entity br.E { a: br.C; connection ""; }': f"1:35: expected {CONNECTION}, found '\"'",
    'entity br.E { a: br.C; connection "x\n"; }': f"1:35: expected {CONNECTION}, found '\"'",
    'entity br.E { a: br.C; connection "x" }': "1:39: expected ';', found '}'",
    "entity br.E { a: br.C; /// text\n}": "2:1: expected 'connection', found '}'",
    'component br.C { a: br.A; connection "x"; }': "1:38: expected ':', found '\"x\"'",
    "interface br.A { M(); } " + "x" * 100: f"1:25: expected {DEFINITION}, found '{'x' * 40}...'",
}

SEMANTICS = {
    # Names
    GOOD + "interface br.A { M(); }": "4:11: expected a new name, but 'br.A' is already defined at {file}:1:11",
    GOOD + "entity br.C { c: br.C; }": "4:8: expected a new name, but 'br.C' is already defined at {file}:2:11",
    "interface br.A { M(); M(); }": "1:23: expected a new name, but 'M' is already defined at {file}:1:18",
    "interface br.A { M(in x: int8, out x: int8); }":
        "1:36: expected a new name, but 'x' is already defined at {file}:1:23",
    GOOD_INTERFACE + "interface br.B { M(); }\ncomponent br.C { a: br.A; a: br.B; }":
        "3:27: expected a new name, but 'a' is already defined at {file}:3:18",
    "interface br.A { M(in class: int8); }": "1:23: expected a name that is not a word of C++, found 'class'",
    "interface br.A { M(in errno: int8); }": "1:23: expected a name that is not a word of C++, found 'errno'",
    "interface br.A { M(in header: int8); }": "1:23: expected another name: generated code uses 'header' itself",
    "interface br.A { M(out transport: int8); }": "1:24: expected another name: generated code uses 'transport' itself",
    "interface br.A { M(out exchange: int8); }": "1:24: expected another name: generated code uses 'exchange' itself",
    "interface br.A { M(out status: int8); }": "1:24: expected another name: generated code uses 'status' itself",
    "interface br.A { M(out result: int8); }": "1:24: expected another name: generated code uses 'result' itself",
    "interface br.A { M(in response: int8); }": "1:23: expected another name: generated code uses 'response' itself",
    GOOD_INTERFACE + "component br.C { int: br.A; }": "2:18: expected a name that is not a word of C++, found 'int'",
    GOOD_INTERFACE + GOOD_COMPONENT + "entity br.E { new: br.C; }":
        "3:15: expected a name that is not a word of C++, found 'new'",
    # Contents
    "interface br.A {}": "1:11: expected at least one method in 'br.A'",
    "component br.C {}": "1:11: expected at least one member in 'br.C'",
    "component br.C { a: br.A; }": "1:21: expected an interface, but nothing defines 'br.A'",
    "entity br.E { c: br.C; }": "1:18: expected a component, but nothing defines 'br.C'",
    GOOD_INTERFACE + "entity br.E { c: br.A; }":
        "2:18: expected a component, but 'br.A' is defined at {file}:1:11 as interface",
    GOOD + "component br.D { e: br.E; }":
        "4:21: expected an interface, but 'br.E' is defined at {file}:3:8 as entity",
    GOOD_INTERFACE + "component br.C { a: br.A; b: br.A; }":
        "2:30: expected each interface once, but 'br.A' is already the type of 'a'",
    # Connections
    connected('"x"; connection "y"'):
        "3:51: expected one connection for each entity, but 'br.E' has one at {file}:3:35",
    connected('"a/b"'): f"3:35: expected {PLAIN}",
    connected('"a\\b"'): f"3:35: expected {PLAIN}",
    connected('"a\tb"'): f"3:35: expected {PLAIN}",
    connected('"a\u202eb"'): f"3:35: expected {PLAIN}",
    connected('"."'): f"3:35: expected {PLAIN}",
    connected('".."'): f"3:35: expected {PLAIN}",
    connected(f'"{"x" * 256}"'): f"3:35: expected {PLAIN}",
    connected(f'"{"é" * 128}"'): f"3:35: expected {PLAIN}",
    # Sizes
    "interface br.A { M(in x: string<0>); }": "1:33: expected a string size from 2 to 1032, its NUL included",
    "interface br.A { M(in x: string<1>); }": "1:33: expected a string size from 2 to 1032, its NUL included",
    "interface br.A { M(in x: string<1033>); }": "1:33: expected a string size from 2 to 1032, its NUL included",
    "interface br.A { M(in x: string<" + "9" * 5000 + ">); }":
        "1:33: expected a string size from 2 to 1032, its NUL included",
    "interface br.A { M(in x: string<1032>, in y: uint8); }":
        "1:43: expected a record of at most 1056 bytes, but 'y' ends at byte 1057",
    "interface br.A { M(out x: string<1025>, out y: int64); }":
        "1:45: expected a record of at most 1056 bytes, but 'y' ends at byte 1064",
    # Files
    'use "missing.idl";': "1:5: expected a readable file, but '{folder}/missing.idl': No such file or directory",
    'use ".";': "1:5: expected a readable file, but '{folder}': not a file",
    'use "/dev/zero";': "1:5: expected a readable file, but '/dev/zero': not a file",
    'use "a\0b";': "1:5: expected a file name",
    'use "' + "x" * 300 + '";': "1:5: expected a readable file, but '{folder}/{xs}': File name too long",
    # No entity of that name
    "": "1:1: expected the definition of the entity 'br.E'",
    "// nothing but a comment": "1:1: expected the definition of the entity 'br.E'",
    GOOD_INTERFACE + GOOD_COMPONENT: "1:1: expected the definition of the entity 'br.E'",
}


class Errors(unittest.TestCase):
    def setUp(self):
        folder = tempfile.TemporaryDirectory()
        self.addCleanup(folder.cleanup)
        self.folder = Path(folder.name)
        self.file = self.folder / "bad.idl"
        self.output = self.folder / "output"

    def fail(self, data):
        self.file.write_bytes(data if isinstance(data, bytes) else data.encode("utf-8"))
        status, errors = compile_idl(self.file, "br.E", self.output)
        self.assertEqual(status, 1, data)
        self.assertFalse(self.output.exists(), "nothing is written for bad input")
        return errors

    def expand(self, text):
        for name, value in {"{file}": self.file, "{folder}": self.folder, "{xs}": "x" * 300}.items():
            text = text.replace(name, str(value))
        return text

    def test_the_good_text_compiles(self):
        self.file.write_text(GOOD, encoding="utf-8")
        self.assertEqual(compile_idl(self.file, "br.E", self.output), (0, []))

    def test_a_connection_name_may_have_255_bytes_and_every_printable_character_but_two(self):
        for name in ["x" * 255, "é" * 127 + "x", "a", "...", "entity", "a b", "".join(chr(c) for c in range(32, 127))]:
            with self.subTest(name):
                name = name.translate({ord(c): None for c in '"/\\'})
                self.file.write_text(connected(f'"{name}"'), encoding="utf-8")
                self.assertEqual(compile_idl(self.file, "br.E", self.output), (0, []))
                self.assertIn(f'br_E_connection = "{name}";', (self.output / "br_E.h").read_text(encoding="utf-8"))

    def test_an_entity_without_a_connection_has_no_constant_for_one(self):
        self.file.write_text(GOOD, encoding="utf-8")
        self.assertEqual(compile_idl(self.file, "br.E", self.output), (0, []))
        self.assertNotIn("br_E_connection", (self.output / "br_E.h").read_text(encoding="utf-8"))

    def test_a_member_may_be_called_connection(self):
        self.file.write_text(GOOD_INTERFACE + "component br.C { connection: br.A; }\n"
                             + 'entity br.E { connection: br.C; connection "x"; }', encoding="utf-8")
        self.assertEqual(compile_idl(self.file, "br.E", self.output), (0, []))

    def test_each_fault_is_reported_once_where_it_stands(self):
        for text, expected in {**SYNTAX, **SEMANTICS}.items():
            with self.subTest(text[:60]):
                self.assertEqual(self.fail(text), [f"{self.file}:{self.expand(expected)}"])

    def test_every_fault_of_a_model_is_reported_in_the_order_of_the_text(self):
        errors = self.fail("interface br.A { M(in x: string<1>); M(); }\nentity br.E { c: br.C; }\ninterface br.B {}\n")
        self.assertEqual([error[len(str(self.file)) + 1:].split(": ")[0] for error in errors],
                         ["1:33", "1:38", "2:18", "3:11"])

    def test_a_fault_in_a_used_file_names_that_file(self):
        (self.folder / "used.idl").write_text("interface br.A {\n  M(\n", encoding="utf-8")
        self.assertEqual(self.fail('use "used.idl";'),
                         [f"{self.folder}/used.idl:3:1: expected 'in', 'out' or ')', found the end of the file"])

    def test_bytes_that_are_no_text_are_placed(self):
        self.assertEqual(self.fail(b"// fine\n  \xff"),
                         [f"{self.file}:2:3: expected UTF-8 text, found the byte 0xff"])

    def test_a_missing_input_file_is_an_error(self):
        missing = self.folder / "missing.idl"
        status, errors = compile_idl(missing, "br.E", self.output)
        self.assertEqual((status, len(errors)), (1, 1))
        self.assertTrue(errors[0].startswith(f"{missing}:1:1: expected a readable file"), errors)

    def test_a_very_long_text_compiles(self):
        comments = "/// line\n" * 5000
        methods = "".join(f"M{i}();\n" for i in range(2000))
        self.file.write_text(f"{comments}interface br.A {{ {comments}{methods} }}\n{GOOD_COMPONENT}{GOOD_ENTITY}")
        self.assertEqual(compile_idl(self.file, "br.E", self.output), (0, []))

    def test_the_program_exits_with_1_and_prints_the_error_alone(self):
        self.file.write_text("banana", encoding="utf-8")
        command = [sys.executable, "-B", COMPILER, self.file, "--entity", "br.E", "--output", self.output]
        done = subprocess.run(command, capture_output=True, text=True, check=False)
        self.assertEqual((done.returncode, done.stdout), (1, ""))
        self.assertEqual(done.stderr, f"{self.file}:1:1: expected {DEFINITION}, found 'banana'\n")

    def test_an_output_folder_that_cannot_be_made_is_an_error(self):
        self.file.write_text(GOOD, encoding="utf-8")
        status, errors = compile_idl(self.file, "br.E", self.file / "output")
        self.assertEqual((status, len(errors)), (1, 1))
        self.assertTrue(errors[0].startswith("idlc: cannot write "), errors)


if __name__ == "__main__":
    unittest.main()
