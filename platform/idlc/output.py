"""Checked model to C++: renders the templates."""

import textwrap
from pathlib import Path

import jinja2

import model

TEMPLATES = {
    "{}.h": "records.h.j2",
    "{}_dispatch.cpp": "dispatch.cpp.j2",
    "{}_client.h": "client.h.j2",
    "{}_client.cpp": "client.cpp.j2",
    "{}_begun.h": "begun.h.j2",
    "{}_begun.cpp": "begun.cpp.j2",
}


LINE_WIDTH = 120


def declarations(fields):
    """Fields as members of their record, each with its offset in a comment."""
    members = [f"char {field.name}[{field.length}];" if field.length else f"{field.cpp_type} {field.name};"
               for field in fields]
    width = max((len(member) for member in members), default=0)
    return [f"{member.ljust(width)} // offset {field.offset}" for member, field in zip(members, fields)]


def value_parameter(field):
    return f"std::string_view {field.name}" if field.length else f"{field.cpp_type} {field.name}"


def parameter(field):
    if field.direction == "in":
        return value_parameter(field)
    return f"std::string& {field.name}" if field.length else f"{field.cpp_type}& {field.name}"


def wrapped(parameters, end):
    """Parameters on as many lines as they need; `end` follows the last one."""
    glued = [parameter.replace(" ", "\0") for parameter in parameters]
    lines = textwrap.wrap(", ".join(glued), LINE_WIDTH - len("    " + end), break_long_words=False)
    return "\n    ".join(lines).replace("\0", " ")


def parameters(method):
    """The parameters of a client stub."""
    return wrapped(["NkBosTransport* transport", *map(parameter, method.fields)], ") {")


def step_parameters(fields):
    """The parameters of one step of a begun call. The underscore keeps the last one apart from every field."""
    return wrapped(["NkBosTransport* transport", *map(parameter, fields), "std::uint32_t timeout_ms"], ") {")


def begin_parameters(method):
    return step_parameters(method.request.fields)


def finish_parameters(method):
    return step_parameters(method.response.fields)


def reply_parameters(method):
    """The parameters of the function that writes a reply."""
    values = map(value_parameter, method.response.fields)
    return wrapped(["std::int32_t result", *values, "nk_message* response"], ") noexcept {")


ENVIRONMENT = jinja2.Environment(
    loader=jinja2.FileSystemLoader(Path(__file__).parent / "templates"),
    undefined=jinja2.StrictUndefined,
    trim_blocks=True,
    lstrip_blocks=True,
    keep_trailing_newline=True,
    autoescape=False,
)
ENVIRONMENT.filters.update(declarations=declarations, parameters=parameters, reply_parameters=reply_parameters,
                           begin_parameters=begin_parameters, finish_parameters=finish_parameters)


def render(entity, files):
    """Returns: the text of each output file by its name."""
    methods = [(member, method) for member in entity.component.members for method in member.interface.methods]
    context = {
        "entity": entity,
        "component": entity.component,
        "members": entity.component.members,
        "methods": methods,
        "sources": ", ".join(file.name for file in files),
        "headerSize": model.HEADER_SIZE,
        "recordSize": model.RECORD_SIZE,
        "errorReplySize": model.ERROR_REPLY_SIZE,
        "sendsText": any(field.length for _, method in methods for field in method.request.fields),
        "returnsText": any(field.length for _, method in methods for field in method.response.fields),
    }
    return {
        name.format(entity.cpp_name): ENVIRONMENT.get_template(template).render(context)
        for name, template in TEMPLATES.items()
    }
