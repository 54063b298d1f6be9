"""Small sweeps, and what tests ask of their folders."""

from __future__ import annotations

import contextlib
import os
import re
import signal
from pathlib import Path
from typing import Any

import numpy as np
import pandas as pd
from quernbrook.workbench.panels import Panel
from quernbrook.workbench.sweeps import Run, read_manifest, runs_from_grid

REGISTRY = "support.sweep_registry:make"
# Facts of a row that are the same wherever and whenever the run went.
LASTING = ["status", "first_date", "last_date", "key", "graph", "data", "code", "rows", "bytes"]


FORMULA = "rank(delta(close, $days)) * ts_rank(volume, 5)"
#: Takes some 50 ms, so that there is time for faults; of the registry above.
SLOW_FORMULA = f"rests({FORMULA})"


def make_panel(days: int = 150, symbols: int = 6) -> Panel:
    rng = np.random.default_rng(5)
    fields = {name: rng.normal(100.0, 5.0, (days, symbols)) for name in ("open", "close", "volume")}
    fields["inside"] = (rng.random((days, symbols)) > 0.1).astype(float)
    dates = pd.bdate_range("2020-01-01", periods=days)
    return Panel(dates, pd.Index([f"S{number}" for number in range(symbols)]), fields)


def make_runs(count: int = 12, formula: str = FORMULA) -> list[Run]:
    return runs_from_grid("delta-$days", formula, {"days": range(1, count + 1)})


def files(out: Path) -> dict[str, bytes]:
    """The whole data set, by paths."""
    found = sorted((out / "weights").rglob("*"))
    return {str(path.relative_to(out)): path.read_bytes() for path in found if path.is_file()}


def lasting(out: Path) -> dict[str, Any]:
    """The manifest without times, by run; a run that stands there twice fails."""
    table = read_manifest(out)
    if table.empty:
        return {}
    assert table.index.is_unique
    lines = (out / "manifest.jsonl").read_text().splitlines()
    assert len(lines) == len(table)
    found: dict[Any, Any] = table[LASTING].sort_index().to_dict("index")
    return found


def assert_equal(out: Path, serial: Path) -> None:
    assert files(out) == files(serial)
    assert lasting(out) == lasting(serial)


def assert_tidy(out: Path) -> None:
    """Nothing is left but what stays."""
    assert {path.name for path in out.iterdir()} == {"weights", "manifest.jsonl", ".lock"}


def worker_ids(driver: int) -> list[int]:
    """The worker processes of a driver, Linux only."""
    found = []
    for folder in Path("/proc").iterdir():
        try:
            parent = re.search(r"^PPid:\s+(\d+)", (folder / "status").read_text(), re.MULTILINE)
            command = (folder / "cmdline").read_bytes()
        except (OSError, ValueError):
            continue
        if parent and int(parent[1]) == driver and b"popen_loky" in command:
            found.append(int(folder.name))
    return found


def kill(process: int) -> None:
    with contextlib.suppress(ProcessLookupError):
        os.kill(process, signal.SIGKILL)
