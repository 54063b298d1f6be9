"""Runs in files.

A file is a ZIP archive of NumPy arrays, as `numpy.savez` writes it, without pickled objects:
"header", the UTF-8 bytes of a JSON document, and "0", "1", ..., the outputs in its order.
"""

from __future__ import annotations

import json
import os
import secrets
import struct
import zipfile
import zlib
from contextlib import suppress
from pathlib import Path
from typing import Any

import numpy as np
from quernbrook.workbench.panels import read_panel
from quernbrook.workbench.tracing.errors import TraceError
from quernbrook.workbench.tracing.runs import Run
from quernbrook.workbench.tracing.subject import column_labels, row_labels

_FORMAT = "quernbrook run"
_VERSION = 1
# What ZIP and array files make of altered bytes.
_DAMAGE = (
    zipfile.BadZipFile,
    zlib.error,
    struct.error,
    AttributeError,
    EOFError,
    LookupError,
    MemoryError,
    OverflowError,
    RuntimeError,
    SyntaxError,
    TypeError,
    ValueError,
)
_SUFFIXES = (".parquet", ".csv", ".csv.gz")


def save_run(run: Run, path: str | os.PathLike[str]) -> None:
    """Write a run to a file, which replaces one of that name as a whole.

    Every bit is kept. Raises OSError where the file can't be made.
    """
    header = {
        "format": _FORMAT,
        "version": _VERSION,
        "rows": run.rows,
        "columns": run.columns,
        "names": run.names,
        "outputs": list(run.outputs),
    }
    arrays = {
        "header": np.frombuffer(json.dumps(header).encode(), np.uint8),
        **{str(place): matrix for place, matrix in enumerate(run.outputs.values())},
    }
    target = Path(path)
    temporary = target.with_name(f".{secrets.token_hex(8)}{target.name}")
    try:
        with temporary.open("xb") as file:
            np.savez(file, **arrays)  # type: ignore[arg-type]
        os.replace(temporary, target)
    finally:
        with suppress(OSError):
            temporary.unlink()


def load_run(path: str | os.PathLike[str]) -> Run:
    """Read a run that `save_run` wrote.

    Raises TraceError for a file that is none, is damaged or of a later version.
    """
    try:
        with zipfile.ZipFile(path) as archive:
            if "header.npy" not in archive.namelist():
                raise ValueError("there is no header")
        with np.load(path, allow_pickle=False) as arrays:
            return _run(arrays)
    except FileNotFoundError:
        raise TraceError(f"there is no file {path}") from None
    except OSError as error:
        raise TraceError(f"{path} can't be read: {error.strerror or error}") from None
    except _DAMAGE as error:
        raise TraceError(f"{path} is no saved run, or a damaged one: {error}") from None


def load_weights(folder: str | os.PathLike[str]) -> Run:
    """Read the wide tables of a folder, dates by symbols, as the outputs of one run, by file name.

    Raises PanelError for a file that is no such table, or one of other dates or symbols than the
    rest, and TraceError for a folder without any or that can't be read.
    """
    try:
        files = sorted(path.name for path in Path(folder).iterdir() if path.is_file())
    except OSError as error:
        raise TraceError(f"{folder} can't be read: {error.strerror or error}") from None
    names = [name[: -len(end)] for name in files for end in _SUFFIXES if name.endswith(end)]
    shown = dict.fromkeys(name for name in names if not name.startswith("."))
    if not shown:
        raise TraceError(f"{folder} holds no weights: expected files such as NAME.parquet")
    panel = read_panel(Path(folder), shown)
    return Run(
        row_labels(panel.dates),
        column_labels(panel.symbols),
        dict.fromkeys(panel.fields, "weights"),
        dict(panel.fields),
    )


def _run(arrays: Any) -> Run:
    header = json.loads(bytes(arrays["header"]))
    if not isinstance(header, dict) or header.get("format") != _FORMAT:
        raise ValueError("its header is another one")
    if header["version"] != _VERSION:
        raise ValueError(
            f"it was saved in version {header['version']} and this program knows {_VERSION}; "
            "update it"
        )
    rows, columns = _labels(header["rows"]), _labels(header["columns"])
    names = {str(path): str(name) for path, name in header["names"].items()}
    outputs = {name: arrays[str(place)] for place, name in enumerate(header["outputs"])}
    for name, matrix in outputs.items():
        if matrix.dtype != np.float64 or matrix.shape != (len(rows), len(columns)):
            raise ValueError(
                f"the output '{name}' is {matrix.dtype} of shape {matrix.shape}; expected float64 "
                f"of {(len(rows), len(columns))}"
            )
    return Run(rows, columns, names, outputs)


def _labels(labels: Any) -> tuple[str | int, ...]:
    if not all(isinstance(label, str | int) for label in labels):
        raise ValueError("its labels are neither texts nor numbers")
    if len(set(labels)) != len(labels):
        raise ValueError("a label stands there twice")
    return tuple(labels)
