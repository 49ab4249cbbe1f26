"""The IDL compiler: `python3 platform/idlc FILE --entity NAME --output FOLDER [--depfile FILE]`."""

import argparse
import sys
from pathlib import Path

try:
    import jinja2  # noqa: F401
    import lark  # noqa: F401
except ImportError as error:
    sys.exit(f"idlc: {sys.executable} has no module '{error.name}' (Debian: python3-lark, python3-jinja2)")

import model
import output
from diagnostics import IdlError


def escaped_for_make(path):
    return str(path).replace("\\", "\\\\").replace(" ", "\\ ").replace("#", "\\#").replace("$", "$$")


def own_files():
    """The compiler's own files, on which the output depends too."""
    folder = Path(__file__).resolve().parent
    return sorted(file for pattern in ("*.py", "*.lark", "templates/*.j2") for file in folder.glob(pattern))


def main(argv=None):
    parser = argparse.ArgumentParser(prog="idlc", description="Generates records, dispatch, replies and client stubs.")
    parser.add_argument("file", help="IDL file that defines the entity or uses the file that does")
    parser.add_argument("--entity", required=True, help="qualified name of the entity, such as br.MessageBus")
    parser.add_argument("--output", required=True, type=Path, help="folder for the generated files")
    parser.add_argument("--depfile", type=Path, help="write the files that the output depends on, as a makefile rule")
    arguments = parser.parse_args(argv)

    try:
        entity, files = model.build(arguments.file, arguments.entity)
    except IdlError as error:
        print(error, file=sys.stderr)
        return 1
    except ExceptionGroup as group:
        for error in group.exceptions:
            print(error, file=sys.stderr)
        return 1

    texts = output.render(entity, files)
    try:
        arguments.output.mkdir(parents=True, exist_ok=True)
        for name, text in texts.items():
            (arguments.output / name).write_text(text, encoding="utf-8")
        if arguments.depfile:
            target = escaped_for_make(arguments.output / next(iter(texts)))
            sources = " ".join(escaped_for_make(file) for file in files + own_files())
            arguments.depfile.write_text(f"{target}: {sources}\n", encoding="utf-8")
    except OSError as error:
        print(f"idlc: cannot write {error.filename}: {error.strerror}", file=sys.stderr)
        return 1
    return 0


if __name__ == "__main__":
    sys.exit(main())
