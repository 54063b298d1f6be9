"""The evaluators that are compared: the module, its plain-Python reference, and that compiled.

Or, to find what a change costs, the module, a copy of it and another revision.
"""

from __future__ import annotations

import importlib
import importlib.util
import os
import shutil
import sys
import tempfile
from functools import cache
from pathlib import Path
from types import ModuleType

from bench.compiling import compiled

MODULE = "this module"
PLAIN = "plain-Python evaluator"
COMPILED = "the same, by Cython"

# ./run bench --compare sets these to another revision of the module, its file and its name.
OTHER_FILE = os.environ.get("OTHER_MODULE_FILE", "")
OTHER = os.environ.get("OTHER_MODULE_NAME", "")
# The same code at other addresses: what it and the module differ by is chance.
COPY = "a copy of it"
NAMES = [MODULE, COPY, OTHER] if OTHER else [MODULE, PLAIN, COMPILED]

ROOT = Path(__file__).resolve().parents[1]
SOURCE = ROOT / "tests" / "reference_evaluator"
COMPILED_PACKAGE = Path("compiled_reference_evaluator")


@cache
def load(name: str) -> ModuleType:
    if name == MODULE:
        return importlib.import_module("quernbrook.simulator_engine.expression_evaluator")
    if name == OTHER:
        return load_file(OTHER_FILE, "other_revision")
    if name == COPY:
        return load_copy(load(MODULE))
    if name == PLAIN:
        return importlib.import_module(SOURCE.name)
    sys.path.append(str(compile_reference()))
    return importlib.import_module(COMPILED_PACKAGE.name)


def load_file(file: str, package: str) -> ModuleType:
    # The name's last part is that of the initialising function in the file.
    spec = importlib.util.spec_from_file_location(f"{package}.expression_evaluator", file)
    assert spec is not None and spec.loader is not None
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


def load_copy(module: ModuleType) -> ModuleType:
    assert module.__file__ is not None
    # A file that is loaded may be taken away.
    with tempfile.TemporaryDirectory() as folder:
        return load_file(shutil.copy(module.__file__, folder), "copy")


def compile_reference() -> Path:
    """The folder with the reference evaluator's rooms as extension modules; takes a minute once."""
    return compiled(
        {
            COMPILED_PACKAGE / path.relative_to(SOURCE): path.read_text().replace(
                SOURCE.name, COMPILED_PACKAGE.name
            )
            for path in sorted(SOURCE.rglob("*.py"))
        }
    )
