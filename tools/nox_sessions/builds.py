"""Where the distributions stand, and wheels of them for the session's interpreter."""

from __future__ import annotations

import shutil
from pathlib import Path

import nox

ROOT = Path(__file__).resolve().parents[2]
HOST = ROOT / "reference_host"
ROW_KERNELS = ROOT / "row_kernels"
WORKBENCH = ROOT / "workbench"
INTERPRETERS = ["3.10", "3.11", "3.12", "3.13"]

# Fails unless all come from where wheels are installed.
FROM_WHEELS = """
import sys
from quernbrook import reference_host, row_kernels, workbench
from quernbrook.simulator_engine import expression_evaluator

for module in (reference_host, row_kernels, workbench, expression_evaluator):
    assert module.__file__.startswith(sys.prefix), module.__file__
"""

built: dict[str, Path] = {}


def wheel_of(session: nox.Session) -> str:
    """The module's wheel for the session's interpreter, built once in a call of nox."""
    interpreter = str(session.python)
    if interpreter not in built:
        built[interpreter] = build_wheel(session, ROOT)
    return str(built[interpreter])


def row_kernels_wheel_of(session: nox.Session) -> str:
    """The row kernels' wheel for the session's interpreter, from their source distribution."""
    key = f"row kernels {session.python}"
    if key not in built:
        session.install("build")
        folder = empty_folder(session, "row-kernels")
        session.run("python", "-m", "build", "--outdir", str(folder), str(ROW_KERNELS))
        built[key] = only_file(folder, "*.whl")
    return str(built[key])


def build_wheel(session: nox.Session, source: Path) -> Path:
    folder = empty_folder(session, f"wheel-{source.name}")
    options = ["--no-deps", "--wheel-dir", str(folder), str(source)]
    session.run("python", "-m", "pip", "wheel", *options)
    return only_file(folder, "*.whl")


def empty_folder(session: nox.Session, name: str) -> Path:
    folder = Path(session.create_tmp(), name)
    shutil.rmtree(folder, ignore_errors=True)
    folder.mkdir()
    return folder


def only_file(folder: Path, pattern: str) -> Path:
    (found,) = folder.glob(pattern)
    return found
