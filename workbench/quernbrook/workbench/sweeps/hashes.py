"""What a result depends on, as hashes, so that a change of it is noticed."""

from __future__ import annotations

import hashlib
import json
from importlib import metadata, util
from pathlib import Path
from typing import Any

import numpy as np
from quernbrook.workbench.panels import Panel
from quernbrook.workbench.panels.columns import Matrix

_DISTRIBUTIONS = (
    "quernbrook-expression-evaluator",
    "quernbrook-reference-host",
    "quernbrook-row-kernels",
    "quernbrook-workbench",
    "numpy",
)


def of_text(*parts: str) -> str:
    # Half a character in UTF-16 is a text to Python alone.
    return hashlib.sha256("\0".join(parts).encode(errors="surrogatepass")).hexdigest()


def of_document(document: Any) -> str:
    return of_text(json.dumps(document, sort_keys=True, default=_whole))


def _whole(value: Any) -> Any:
    # The text of a large array leaves out most of it.
    return value.tolist() if isinstance(value, np.ndarray | np.generic) else str(value)


def of_panel(panel: Panel) -> str:
    """Of labels, fields and universe, bit for bit."""
    digest = hashlib.sha256()
    labels = [str(panel.dates.tz), [str(symbol) for symbol in panel.symbols], list(panel.fields)]
    digest.update(json.dumps(labels).encode())
    digest.update(panel.dates.to_numpy(dtype="datetime64[ns]").view(np.uint8).data)
    for values in panel.fields.values():
        digest.update(_bytes(values))
    if panel.universe is not None:
        digest.update(b"universe")
        digest.update(_bytes(panel.universe))
    return digest.hexdigest()


def of_code(registry: str) -> str:
    """Of the versions of what computes, and of the file that the registry comes from."""
    versions = {name: _version(name) for name in _DISTRIBUTIONS}
    found = util.find_spec(registry.partition(":")[0])
    source = b""
    if found is not None and found.has_location and found.origin is not None:
        source = Path(found.origin).read_bytes()
    return of_text(json.dumps(versions), registry, hashlib.sha256(source).hexdigest())


def _version(distribution: str) -> str | None:
    try:
        return metadata.version(distribution)
    except metadata.PackageNotFoundError:
        return None


def _bytes(values: Matrix) -> memoryview:
    return values.reshape(-1).view("B").data
