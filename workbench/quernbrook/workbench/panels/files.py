"""Panels and results in files: a wide table a field, dates by symbols."""

from __future__ import annotations

from collections.abc import Iterable
from pathlib import Path

import pandas as pd
from quernbrook.workbench.names import suggestion
from quernbrook.workbench.panels.panel import Panel, PanelError

_SUFFIXES = (".parquet", ".csv", ".csv.gz")


def read_panel(folder: Path, fields: Iterable[str]) -> Panel:
    """Read a field each from `folder`/NAME.parquet, NAME.csv or NAME.csv.gz, the first that exists.

    The first column of a CSV file holds the dates, and so does the index of a Parquet file or, if
    it has none, its first column. The other columns are one symbol each, with its name at the top.

    Raises PanelError for a folder or a field that isn't there and for what `Panel.from_frames`
    refuses.
    """
    if not folder.is_dir():
        raise PanelError(f"there is no folder {folder}")
    return Panel.from_frames({name: _read(folder, name) for name in fields})


def write_panel(panel: Panel, folder: Path) -> None:
    """Write every field to `folder`/NAME.parquet, as `read_panel` reads it."""
    folder.mkdir(parents=True, exist_ok=True)
    for name, values in panel.fields.items():
        write_frame(panel.frame(values), folder / f"{name}.parquet")


def write_frame(frame: pd.DataFrame, path: Path) -> None:
    """Write a wide table with its dates to a Parquet file, where symbols are texts."""
    frame.rename(columns=str).to_parquet(path, engine="pyarrow")


def _read(folder: Path, name: str) -> pd.DataFrame:
    path = next((p for s in _SUFFIXES if (p := folder / f"{name}{s}").is_file()), None)
    if path is None:
        present = {file.name.split(".")[0] for file in folder.iterdir()}
        raise PanelError(
            f"{folder} has no file for the field '{name}': expected {name}.parquet or {name}.csv"
            f"{suggestion(name, present)}"
        )
    try:
        frame = pd.read_parquet(path) if path.suffix == ".parquet" else pd.read_csv(path)
    except (OSError, ValueError) as error:
        raise PanelError(f"{path} can't be read: {error}") from error
    return _with_dates(path, name, frame)


def _with_dates(path: Path, name: str, frame: pd.DataFrame) -> pd.DataFrame:
    if not isinstance(frame.index, pd.DatetimeIndex):
        if frame.columns.empty:
            raise PanelError(f"{path} has no columns")
        frame = frame.set_index(frame.columns[0])
    if pd.api.types.is_numeric_dtype(frame.index.dtype):
        raise PanelError(f"field '{name}': the first column must hold dates; it holds numbers")
    try:
        frame.index = pd.DatetimeIndex(frame.index)
    except (TypeError, ValueError) as error:
        raise PanelError(f"field '{name}': the first column must hold dates: {error}") from error
    return frame
