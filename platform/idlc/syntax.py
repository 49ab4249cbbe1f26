"""Text to tree: parses one IDL file. Checks the grammar only; model.py resolves names and checks their meaning."""

from dataclasses import dataclass
from pathlib import Path

import lark

from diagnostics import IdlError, Position

LONGEST_NUMBER = 9  # digits; far beyond any size that fits a record

# The name of each terminal in an error, in the order in which an error lists alternatives.
DESCRIPTIONS = {
    "_USE": "'use'",
    "_INTERFACE": "'interface'",
    "_COMPONENT": "'component'",
    "_ENTITY": "'entity'",
    "_CONNECTION": "'connection'",
    "IN": "'in'",
    "OUT": "'out'",
    "QUALIFIED_NAME": "a qualified name such as br.MessageBus",
    "METHOD_NAME": "a method name that begins with a capital letter",
    "FIELD_NAME": "a field name that begins with a small letter",
    "MEMBER_NAME": "a member name that begins with a small letter",
    "INTEGER_TYPE": "an integer type (int8 to int64, uint8 to uint64)",
    "STRING_TYPE": "string<SIZE>",
    "NUMBER": "a number",
    "FILE_NAME": "a file name in double quotes",
    "CONNECTION_NAME": "a connection name in double quotes",
    "LBRACE": "'{'",
    "RBRACE": "'}'",
    "LPAR": "'('",
    "RPAR": "')'",
    "LESSTHAN": "'<'",
    "MORETHAN": "'>'",
    "COMMA": "','",
    "COLON": "':'",
    "SEMICOLON": "';'",
}


@dataclass(frozen=True)
class Name:
    text: str
    position: Position


@dataclass(frozen=True)
class Type:
    name: str  # "int64", ..., "string"
    length: int  # of a string's array, the NUL included; 0 for integers
    position: Position


@dataclass(frozen=True)
class Field:
    direction: str  # "in" or "out"
    name: Name
    type: Type


@dataclass(frozen=True)
class Method:
    doc: list
    name: Name
    fields: list


@dataclass(frozen=True)
class Member:
    doc: list
    name: Name
    type: Name


@dataclass(frozen=True)
class Use:
    file: Name


@dataclass(frozen=True)
class Interface:
    doc: list
    name: Name
    methods: list


@dataclass(frozen=True)
class Component:
    doc: list
    name: Name
    members: list


@dataclass(frozen=True)
class Connection:
    doc: list
    name: Name


@dataclass(frozen=True)
class Entity:
    doc: list
    name: Name
    member: Member
    connections: list  # the grammar allows any number, the model one


@lark.v_args(inline=True)
class TreeBuilder(lark.Transformer_NonRecursive):
    def __init__(self, file):
        super().__init__()
        self.file = file

    def plain_name(self, token):
        return Name(str(token), Position(self.file, token.line, token.column))

    QUALIFIED_NAME = METHOD_NAME = FIELD_NAME = MEMBER_NAME = plain_name

    def quoted_name(self, token):
        return Name(str(token)[1:-1], Position(self.file, token.line, token.column))

    FILE_NAME = CONNECTION_NAME = quoted_name

    def start(self, *definitions):
        return list(definitions)

    def doc(self, lines=None, comment=None):
        if comment is None:
            return []
        # The text becomes a C++ comment, where a control character or a trailing backslash would have an effect.
        lines.append("".join(c if c.isprintable() else " " for c in comment[3:]).strip(" \\"))
        return lines

    item_doc = connection_doc = doc

    def direction(self, token):
        return str(token)

    def integer(self, token):
        return Type(str(token), 0, Position(self.file, token.line, token.column))

    def string(self, token, number):
        # A number that is too long to convert is out of range too, which the model reports.
        length = int(number) if len(number) <= LONGEST_NUMBER else 10**LONGEST_NUMBER
        return Type(str(token), length, Position(self.file, number.line, number.column))

    def method(self, doc, name, *fields):
        return Method(doc, name, [field for field in fields if field is not None])

    def interface(self, doc, name, *methods):
        return Interface(doc, name, list(methods))

    def component(self, doc, name, *members):
        return Component(doc, name, list(members))

    def entity(self, doc, name, member, *connections):
        return Entity(doc, name, member, list(connections))

    use = Use
    field = Field
    member = Member
    connection = Connection


PARSER = lark.Lark(
    (Path(__file__).parent / "grammar.lark").read_text(encoding="utf-8"),
    parser="lalr",
    lexer="contextual",
    maybe_placeholders=False,
)


def alternatives_text(terminals):
    known = [text for terminal, text in DESCRIPTIONS.items() if terminal in terminals]
    if len(known) < 2:
        return "".join(known)
    return ", ".join(known[:-1]) + " or " + known[-1]


def quoted(text):
    return "'" + "".join(c if c.isprintable() else c.encode("unicode_escape").decode() for c in text) + "'"


def found_text(text):
    return quoted(text if len(text) <= 40 else text[:40] + "...")


def end_of(file, text):
    lines = text.split("\n")
    return Position(file, len(lines), len(lines[-1]) + 1)


def parse(file, text):
    """Returns: the definitions of `text` in their order. Raises IdlError at the first character that does not fit."""
    try:
        tree = PARSER.parse(text)
    except lark.UnexpectedToken as error:
        expected = alternatives_text(error.accepts or error.expected)
        if error.token.type == "$END":
            raise IdlError(end_of(file, text), f"expected {expected}, found the end of the file") from None
        position = Position(file, error.token.line, error.token.column)
        raise IdlError(position, f"expected {expected}, found {found_text(str(error.token))}") from None
    except lark.UnexpectedCharacters as error:
        position = Position(file, error.line, error.column)
        found = found_text(text[error.pos_in_stream])
        raise IdlError(position, f"expected {alternatives_text(error.allowed)}, found {found}") from None
    return TreeBuilder(file).transform(tree)
