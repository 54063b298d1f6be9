"""Reading a panel from files, beside Arrow's own reading of the same files.

All read in as many threads as Arrow takes; the clock counts the processor's time of all of them.
"""

from __future__ import annotations

from collections.abc import Callable
from functools import partial
from pathlib import Path
from typing import Any

import numpy as np
import pandas as pd
import pyarrow as pa
import pyarrow.parquet as pq
import pytest
from quernbrook.workbench.panels import Panel, read_long, read_panel, synthetic_panel, write_panel

DATES, SYMBOLS = 2000, 500
FIELDS = ["open", "high", "low", "close", "volume", "vwap", "cap", "sector"]
UNIT = "ns a cell"
CELLS = DATES * SYMBOLS * len(FIELDS)


@pytest.fixture(scope="module")
def panel() -> Panel:
    return synthetic_panel(SYMBOLS, DATES)


@pytest.fixture(scope="module")
def wide(panel: Panel, tmp_path_factory: pytest.TempPathFactory) -> Path:
    folder = tmp_path_factory.mktemp("wide")
    write_panel(Panel(panel.dates, panel.symbols, {n: panel.fields[n] for n in FIELDS}), folder)
    return folder


@pytest.fixture(scope="module")
def long(panel: Panel, tmp_path_factory: pytest.TempPathFactory) -> Path:
    path = tmp_path_factory.mktemp("long") / "prices.parquet"
    columns: dict[str, Any] = {
        "date": np.repeat(panel.dates, SYMBOLS),
        "symbol": np.tile(panel.symbols, DATES),
    }
    columns |= {name: panel.fields[name].ravel() for name in FIELDS}
    pq.write_table(pa.table(columns), path)
    return path


def read_wide_with_pandas(folder: Path) -> Panel:
    frames = {name: pd.read_parquet(folder / f"{name}.parquet") for name in FIELDS}
    return Panel.from_frames(frames)


CONTENDERS: dict[str, Callable[[Path], Any]] = {
    "read_panel": partial(read_panel, fields=FIELDS),
    "Arrow, bare tables": lambda folder: [pq.read_table(folder / f"{n}.parquet") for n in FIELDS],
    "pandas, then from_frames": read_wide_with_pandas,
}


@pytest.mark.parametrize("contender", CONTENDERS)
def test_wide_files(measure: Callable[..., None], wide: Path, contender: str) -> None:
    measure(
        partial(CONTENDERS[contender], wide),
        workload=f"{len(FIELDS)} wide Parquet files of {DATES:,} x {SYMBOLS}",
        contender=contender,
        floor=contender.startswith("Arrow"),
        count=CELLS,
        unit=UNIT,
    )


LONG_CONTENDERS: dict[str, Callable[[Path], Any]] = {
    "read_long": partial(read_long, date="date", symbol="symbol"),
    "Arrow, the bare table": pq.read_table,
}


@pytest.mark.parametrize("contender", LONG_CONTENDERS)
def test_a_long_file(measure: Callable[..., None], long: Path, contender: str) -> None:
    measure(
        partial(LONG_CONTENDERS[contender], long),
        workload=f"a long Parquet file of {len(FIELDS)} fields, {DATES:,} x {SYMBOLS}",
        contender=contender,
        floor=contender.startswith("Arrow"),
        count=CELLS,
        unit=UNIT,
    )
