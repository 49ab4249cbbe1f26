"""Checked model to C++: renders the templates."""

from pathlib import Path

import jinja2

import model

TEMPLATES = {
    "{}.h": "records.h.j2",
    "{}_dispatch.cpp": "dispatch.cpp.j2",
    "{}_client.h": "client.h.j2",
    "{}_client.cpp": "client.cpp.j2",
}


def Declaration(field):
    """A field as a member of its record."""
    return f"char {field.name}[{field.length}];" if field.length else f"{field.cppType} {field.name};"


def Parameter(field):
    """A field as a parameter of a client stub."""
    if field.direction == "in":
        return f"std::string_view {field.name}" if field.length else f"{field.cppType} {field.name}"
    return f"std::string& {field.name}" if field.length else f"{field.cppType}& {field.name}"


def Render(entity, files):
    """Returns: the text of each output file by its name."""
    environment = jinja2.Environment(
        loader=jinja2.FileSystemLoader(Path(__file__).parent / "templates"),
        undefined=jinja2.StrictUndefined,
        trim_blocks=True,
        lstrip_blocks=True,
        keep_trailing_newline=True,
        autoescape=False,
    )
    environment.filters["declaration"] = Declaration
    environment.filters["parameter"] = Parameter
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
        name.format(entity.cppName): environment.get_template(template).render(context)
        for name, template in TEMPLATES.items()
    }
