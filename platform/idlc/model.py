"""Tree to checked model: follows `use`, resolves names, lays the records out and rejects what cannot be generated."""

from dataclasses import dataclass
from pathlib import Path

import syntax
from diagnostics import IdlError, Position

HEADER_SIZE = 24  # nk_message; method fields begin here
HEADER_ALIGNMENT = 4
RECORD_SIZE = 1056  # every record travels in a buffer of this size
ERROR_REPLY_SIZE = 32  # header and the first eight bytes, of which an error reply uses two
LONGEST_CONNECTION = 255  # bytes; platforms use the name as a file name

# Names that generated code uses beside the fields of a method.
RESERVED_FIELD_NAMES = {"header", "transport", "exchange", "status", "result", "response"}

CPP_KEYWORDS = set(
    """alignas alignof and and_eq asm auto bitand bitor bool break case catch char char8_t char16_t char32_t class
    compl concept const consteval constexpr constinit const_cast continue co_await co_return co_yield decltype default
    delete do double dynamic_cast else enum explicit export extern false float for friend goto if inline int long
    mutable namespace new noexcept not not_eq nullptr operator or or_eq private protected public register
    reinterpret_cast requires return short signed sizeof static static_assert static_cast struct switch template this
    thread_local throw true try typedef typeid typename union unsigned using virtual void volatile wchar_t while xor
    xor_eq""".split()
)
CPP_KEYWORDS.add("errno")  # a macro wherever <string> is


@dataclass(frozen=True)
class Field:
    name: str
    direction: str
    cpp_type: str  # of an integer; empty for a string
    length: int  # of a string's array; 0 for an integer
    size: int
    alignment: int
    offset: int


@dataclass(frozen=True)
class Record:
    name: str
    fields: list
    size: int


@dataclass(frozen=True)
class Method:
    doc: list
    name: str
    index: int
    fields: list  # of both records, in the order of the declaration
    request: Record
    response: Record


@dataclass(frozen=True)
class Interface:
    doc: list
    type_name: str  # "br.MessageBusCtl"
    cpp_name: str  # "br_MessageBusCtl"
    methods: list

    @property
    def cleared_size(self):
        """Bytes of a response that are cleared before a handler runs: any response of the interface or an error."""
        return max([ERROR_REPLY_SIZE] + [method.response.size for method in self.methods])


@dataclass(frozen=True)
class Member:
    doc: list
    name: str
    index: int
    service_name: str
    interface: Interface


@dataclass(frozen=True)
class Component:
    doc: list
    cpp_name: str
    members: list


@dataclass(frozen=True)
class Connection:
    doc: list
    name: str


@dataclass(frozen=True)
class Entity:
    doc: list
    cpp_name: str
    member_name: str
    component: Component
    connection: Connection | None  # the static connection that serves every interface


def cpp_name_of(qualified_name):
    return qualified_name.replace(".", "_")


def round_up(value, alignment):
    return (value + alignment - 1) // alignment * alignment


def read_text(path, position):
    """Reads a file; `position` is that of its `use`."""
    try:
        if Path(path).exists() and not Path(path).is_file():  # a pipe would never end
            raise ValueError
        data = Path(path).read_bytes()
    except (OSError, ValueError) as error:
        reason = getattr(error, "strerror", None) or "not a file"
        raise IdlError(position, f"expected a readable file, but {syntax.quoted(str(path))}: {reason}") from None
    try:
        return data.decode("utf-8")
    except UnicodeDecodeError as error:
        before = data[: error.start].decode("utf-8")
        position = syntax.end_of(str(path), before)
        raise IdlError(position, f"expected UTF-8 text, found the byte 0x{data[error.start]:02x}") from None


def load(path):
    """Returns: the files that `path` uses, itself first, and all their definitions."""
    files = [Path(path)]
    definitions = []
    asked_from = {files[0].resolve(): Position(str(path), 1, 1)}
    for file in files:  # grows while it is walked
        for definition in syntax.parse(str(file), read_text(file, asked_from[file.resolve()])):
            if not isinstance(definition, syntax.Use):
                definitions.append(definition)
                continue
            try:
                used = file.parent / definition.file.text
                identity = used.resolve()
            except (OSError, ValueError, RuntimeError):
                raise IdlError(definition.file.position, "expected a file name") from None
            if identity not in asked_from:
                asked_from[identity] = definition.file.position
                files.append(used)
    return files, definitions


class Checker:
    """Builds the model from the definitions and collects every error."""

    def __init__(self, definitions):
        self.errors = []
        self.definitions = {}
        for definition in definitions:
            self.expect_new(definition.name, self.definitions, definition)

    def fault(self, position, message):
        self.errors.append(IdlError(position, message))

    def expect_new(self, name, known, value):
        if name.text in known:
            first = known[name.text].name.position
            self.fault(name.position, f"expected a new name, but '{name.text}' is already defined at {first}")
        else:
            known[name.text] = value

    def expect_usable(self, name, reserved):
        if name.text in CPP_KEYWORDS:
            self.fault(name.position, f"expected a name that is not a word of C++, found '{name.text}'")
        elif name.text in reserved:
            self.fault(name.position, f"expected another name: generated code uses '{name.text}' itself")

    def resolve(self, name, kind):
        found = self.definitions.get(name.text)
        if isinstance(found, kind):
            return found
        what = f"an {kind.__name__.lower()}" if kind.__name__[0] in "IE" else f"a {kind.__name__.lower()}"
        if found is None:
            self.fault(name.position, f"expected {what}, but nothing defines '{name.text}'")
        else:
            self.fault(name.position, f"expected {what}, but '{name.text}' is defined at {found.name.position} "
                                      f"as {type(found).__name__.lower()}")
        return None

    def build_record(self, name, fields):
        placed = []
        end = HEADER_SIZE
        alignment = HEADER_ALIGNMENT
        for field in fields:
            if field.type.name == "string":
                largest = RECORD_SIZE - HEADER_SIZE
                if not 2 <= field.type.length <= largest:
                    self.fault(field.type.position, f"expected a string size from 2 to {largest}, its NUL included")
                    continue
                size, field_alignment, cpp_type = field.type.length, 1, ""
            else:
                size = int(field.type.name.lstrip("uint")) // 8
                field_alignment, cpp_type = size, f"std::{field.type.name}_t"
            offset = round_up(end, field_alignment)
            if end <= RECORD_SIZE < offset + size:
                self.fault(field.name.position, f"expected a record of at most {RECORD_SIZE} bytes, but "
                                                f"'{field.name.text}' ends at byte {offset + size}")
            end = offset + size
            alignment = max(alignment, field_alignment)
            placed.append(Field(field.name.text, field.direction, cpp_type, field.type.length, size, field_alignment,
                                offset))
        return Record(name, placed, round_up(end, alignment))

    def build_method(self, interface_name, index, method):
        known = {}
        for field in method.fields:
            self.expect_new(field.name, known, field)
            self.expect_usable(field.name, RESERVED_FIELD_NAMES)
        base = f"{interface_name}_{method.name.text}"
        request = self.build_record(f"{base}_req", [field for field in method.fields if field.direction == "in"])
        response = self.build_record(f"{base}_res", [field for field in method.fields if field.direction == "out"])
        in_records = {field.name: field for field in request.fields + response.fields}
        in_order = [in_records[name] for name in known if name in in_records]
        return Method(method.doc, method.name.text, index, in_order, request, response)

    def build_interface(self, interface):
        if not interface.methods:
            self.fault(interface.name.position, f"expected at least one method in '{interface.name.text}'")
        known = {}
        for method in interface.methods:
            self.expect_new(method.name, known, method)
        cpp_name = cpp_name_of(interface.name.text)
        methods = [self.build_method(cpp_name, index, method) for index, method in enumerate(interface.methods)]
        return Interface(interface.doc, interface.name.text, cpp_name, methods)

    def build_component(self, component, interfaces):
        if not component.members:
            self.fault(component.name.position, f"expected at least one member in '{component.name.text}'")
        known = {}
        used_by = {}
        members = []
        for index, member in enumerate(component.members):
            self.expect_new(member.name, known, member)
            self.expect_usable(member.name, set())
            if self.resolve(member.type, syntax.Interface) is None:
                continue
            if member.type.text in used_by:
                self.fault(member.type.position, f"expected each interface once, but '{member.type.text}' is already "
                                                 f"the type of '{used_by[member.type.text]}'")
            used_by[member.type.text] = member.name.text
            service = f"{component.name.text}.{member.name.text}"
            members.append(Member(member.doc, member.name.text, index, service, interfaces[member.type.text]))
        return Component(component.doc, cpp_name_of(component.name.text), members)

    def build_connection(self, entity):
        """Returns: the entity's static connection, None when it has none."""
        for repeated in entity.connections[1:]:
            self.fault(repeated.name.position, f"expected one connection for each entity, but '{entity.name.text}' has "
                                               f"one at {entity.connections[0].name.position}")
        for connection in entity.connections[:1]:
            name = connection.name.text
            # Generated code quotes the name as it is, so it must need no escapes.
            is_plain = name.isprintable() and "/" not in name and "\\" not in name and name not in (".", "..")
            if not is_plain or len(name.encode("utf-8")) > LONGEST_CONNECTION:
                self.fault(connection.name.position,
                           f"expected a connection name of 1 to {LONGEST_CONNECTION} bytes: printable, without '/' or "
                           f"'\\', other than '.' and '..'")
            return Connection(connection.doc, name)
        return None

    def build(self):
        """Returns: the entities by their qualified name. Raises a group of all errors."""
        of = {kind: {name: value for name, value in self.definitions.items() if isinstance(value, kind)}
              for kind in (syntax.Interface, syntax.Component, syntax.Entity)}
        interfaces = {name: self.build_interface(value) for name, value in of[syntax.Interface].items()}
        components = {name: self.build_component(value, interfaces) for name, value in of[syntax.Component].items()}
        entities = {}
        for name, entity in of[syntax.Entity].items():
            self.expect_usable(entity.member.name, set())
            connection = self.build_connection(entity)
            if self.resolve(entity.member.type, syntax.Component) is not None:
                entities[name] = Entity(entity.doc, cpp_name_of(name), entity.member.name.text,
                                        components[entity.member.type.text], connection)
        if self.errors:
            raise ExceptionGroup("faults of the input", sorted(self.errors, key=lambda error: error.position))
        return entities


def build(path, entity_name):
    """Returns: the checked entity and the files that it was read from. Raises IdlError or a group of them."""
    files, definitions = load(path)
    entities = Checker(definitions).build()
    if entity_name not in entities:
        raise IdlError(Position(str(path), 1, 1), f"expected the definition of the entity '{entity_name}'")
    return entities[entity_name], files
