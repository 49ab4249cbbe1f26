"""Runs the compiler in the test's process, as its command line would."""

import contextlib
import importlib.util
import io
import sys
from pathlib import Path

ROOT = Path(__file__).resolve().parents[3]
COMPILER = ROOT / "platform" / "idlc"
BUS_IDL = ROOT / "idl"

sys.path.insert(0, str(COMPILER))
spec = importlib.util.spec_from_file_location("idlc_main", COMPILER / "__main__.py")
idlc = importlib.util.module_from_spec(spec)
spec.loader.exec_module(idlc)


def compile_idl(file, entity, output):
    """Returns: the exit status and the lines on the standard error stream."""
    errors = io.StringIO()
    with contextlib.redirect_stderr(errors):
        status = idlc.main([str(file), "--entity", entity, "--output", str(output)])
    return status, errors.getvalue().splitlines()
