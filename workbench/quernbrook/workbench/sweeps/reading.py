"""What a sweep has left in its folder."""

from __future__ import annotations

import os
from collections.abc import Iterable
from pathlib import Path
from typing import Any

import pandas as pd
import pyarrow as pa
import pyarrow.dataset as ds
from quernbrook.workbench.names import suggestion
from quernbrook.workbench.sweeps.errors import SweepError
from quernbrook.workbench.sweeps.manifest import NAME, read_rows
from quernbrook.workbench.sweeps.output import WEIGHTS
from quernbrook.workbench.sweeps.runs import folder_name


def read_manifest(out: str | os.PathLike[str]) -> pd.DataFrame:
    """Return a row for each run that has ended, by its name, parameters in columns of their own
    ("parameters.days"), and figures of summaries, too.

    Raises SweepError for a folder without a manifest.
    """
    rows = _rows(out)
    spread = ("parameters", "summary")
    flat = [
        {
            **{name: value for name, value in row.items() if name not in spread},
            **{
                f"{name}.{key}": value
                for name in spread
                for key, value in (row[name] or {}).items()
            },
        }
        for row in rows.values()
    ]
    return (
        pd.DataFrame(flat).set_index("run")
        if flat
        else pd.DataFrame(index=pd.Index([], name="run"))
    )


def read_weights(out: str | os.PathLike[str], runs: Iterable[str] | None = None) -> pa.Table:
    """Return the columns run, date, symbol and weight of these runs, or of all that have any.

    Raises SweepError for a folder without a manifest and a run that has no weights there.
    """
    rows = _rows(out)
    there = [name for name, row in rows.items() if row["bytes"]]
    chosen = there if runs is None else list(runs)
    for name in chosen:
        if name not in rows or not rows[name]["bytes"]:
            raise SweepError(f"{out} has no weights of the run '{name}'{suggestion(name, there)}")
    folder = Path(out) / WEIGHTS
    # Told what they are, names such as 001 stay texts.
    partitions = ds.partitioning(pa.schema([("run", pa.string())]), flavor="hive")
    files = [str(folder / folder_name(name) / "weights.parquet") for name in chosen]
    if not files:
        raise SweepError(f"{out} has no weights")
    found = ds.dataset(files, partitioning=partitions, partition_base_dir=str(folder))
    return found.to_table(columns=["run", "date", "symbol", "weight"])


def _rows(out: str | os.PathLike[str]) -> dict[str, dict[str, Any]]:
    if not (Path(out) / NAME).is_file():
        raise SweepError(f"{out} has no {NAME}: no sweep has written there")
    return read_rows(Path(out))
