"""The evaluators that are compared: the module, its plain-Python reference, and that compiled.

Or, to find what a change costs, the module and another revision of it.
"""

from __future__ import annotations

import hashlib
import importlib
import importlib.util
import os
import shutil
import subprocess
import sys
from functools import cache
from pathlib import Path
from types import ModuleType

MODULE = "this module"
PLAIN = "plain-Python evaluator"
COMPILED = "the same, by Cython"

# ./run bench --compare sets these to another revision of the module, its file and its name.
OTHER_FILE = os.environ.get("OTHER_MODULE_FILE", "")
OTHER = os.environ.get("OTHER_MODULE_NAME", "")
NAMES = [MODULE, OTHER] if OTHER else [MODULE, PLAIN, COMPILED]

ROOT = Path(__file__).resolve().parents[1]
SOURCE = ROOT / "tests" / "reference_evaluator"
COMPILED_PACKAGE = "compiled_reference_evaluator"


@cache
def load(name: str) -> ModuleType:
    if name == MODULE:
        return importlib.import_module("quernbrook.simulator_engine.expression_evaluator")
    if name == OTHER:
        return load_file(OTHER_FILE)
    if name == PLAIN:
        return importlib.import_module(SOURCE.name)
    sys.path.append(str(compile_reference()))
    return importlib.import_module(COMPILED_PACKAGE)


def load_file(file: str) -> ModuleType:
    # The name's last part is that of the initialising function in the file.
    spec = importlib.util.spec_from_file_location("other_revision.expression_evaluator", file)
    assert spec is not None and spec.loader is not None
    module = importlib.util.module_from_spec(spec)
    spec.loader.exec_module(module)
    return module


def compile_reference() -> Path:
    """The folder with the reference evaluator's rooms as extension modules; takes a minute once."""
    sources = sorted(SOURCE.rglob("*.py"))
    digest = hashlib.sha256(b"".join(path.read_bytes() for path in sources)).hexdigest()[:12]
    folder = ROOT / "build" / f"bench-{sys.implementation.cache_tag}-{digest}"
    if folder.exists():
        return folder
    unfinished = folder.with_name(f"{folder.name}-unfinished")
    shutil.rmtree(unfinished, ignore_errors=True)
    compiled: list[str] = []
    for path in sources:
        copy = unfinished / COMPILED_PACKAGE / path.relative_to(SOURCE)
        copy.parent.mkdir(parents=True, exist_ok=True)
        copy.write_text(path.read_text().replace(SOURCE.name, COMPILED_PACKAGE))
        # The packages themselves are only imports.
        if copy.name != "__init__.py":
            compiled.append(str(copy.relative_to(unfinished)))
    command = [sys.executable, "-m", "Cython.Build.Cythonize", "-3", "-i", *compiled]
    subprocess.run(command, cwd=unfinished, check=True, capture_output=True)
    return unfinished.rename(folder)
