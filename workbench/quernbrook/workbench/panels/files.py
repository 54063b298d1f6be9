"""Panels and results in files: a wide table a field, dates by symbols, or one long table."""

from __future__ import annotations

import os
from collections.abc import Iterable, Iterator
from pathlib import Path
from typing import Any

import pandas as pd
import pyarrow as pa
import pyarrow.parquet as pq
from quernbrook.workbench.names import suggestion
from quernbrook.workbench.panels.csv_files import read_header, read_numbers
from quernbrook.workbench.panels.panel import Panel, PanelError
from quernbrook.workbench.panels.wide import collect

_SUFFIXES = (".parquet", ".csv", ".csv.gz")


def read_panel(folder: str | os.PathLike[str], fields: Iterable[str]) -> Panel:
    """Read a field each from `folder`/NAME.parquet, NAME.csv or NAME.csv.gz, the first that exists.

    The first column of a CSV file holds the dates, in ISO 8601, and so does the index of a Parquet
    file or, if it has none, its first column. The other columns are one symbol each, with its name
    at the top. Symbols are texts.

    Raises PanelError for a folder or a field that isn't there, for a file that can't be read and
    for what `Panel.from_frames` refuses.
    """
    folder = Path(folder)
    if not folder.is_dir():
        raise PanelError(f"there is no folder {folder}")
    return Panel(*collect(_tables(folder, fields)))


def read_long(
    path: str | os.PathLike[str], *, date: str, symbol: str, fields: Iterable[str] | None = None
) -> Panel:
    """Read a long table from a Parquet file, or a CSV file (.csv, .csv.gz): see `Panel.from_long`.

    The symbols of a CSV file are texts, so that 000001 keeps its zeros; its dates are in ISO 8601.

    Raises PanelError for a file that can't be read and for what `Panel.from_long` refuses.
    """
    path = Path(path)
    chosen = None if fields is None else list(fields)
    try:
        table = _read_long(path, date, symbol, chosen)
    except (OSError, ValueError) as error:
        raise _unreadable(path, error) from error
    return Panel.from_long(table, date=date, symbol=symbol, fields=chosen)


def write_panel(panel: Panel, folder: Path) -> None:
    """Write every field to `folder`/NAME.parquet, as `read_panel` reads it."""
    folder.mkdir(parents=True, exist_ok=True)
    for name, values in panel.fields.items():
        write_frame(panel.frame(values), folder / f"{name}.parquet")


def write_frame(frame: pd.DataFrame, path: Path) -> None:
    """Write a wide table with its dates to a Parquet file, where symbols are texts."""
    frame.rename(columns=str).to_parquet(path, engine="pyarrow")


def _tables(folder: Path, names: Iterable[str]) -> Iterator[tuple[str, Any]]:
    for name in names:
        path = next((p for s in _SUFFIXES if (p := folder / f"{name}{s}").is_file()), None)
        if path is None:
            present = {file.name.split(".")[0] for file in folder.iterdir()}
            raise PanelError(
                f"{folder} has no file for the field '{name}': expected {name}.parquet or "
                f"{name}.csv{suggestion(name, present)}"
            )
        try:
            table = _read_parquet(path) if path.suffix == ".parquet" else _read_csv(path, name)
        except (OSError, ValueError) as error:
            raise _unreadable(path, error) from error
        yield name, table


def _read_parquet(path: Path, columns: list[str] | None = None) -> pa.Table:
    # Several times fewer steps than the reader of whole data sets takes for a wide table.
    with pq.ParquetFile(path) as file:
        return file.read(columns=columns)


def _read_csv(path: Path, name: str) -> pa.Table:
    names = read_header(path)

    def label(texts: pa.Table, symbol: str, row: int) -> str:
        return f"field '{name}': the value of {symbol} on {texts.column(0)[row].as_py()}"

    return read_numbers(path, names, {names[0]}, label)


def _read_long(path: Path, date: str, symbol: str, fields: list[str] | None) -> pa.Table:
    is_parquet = path.suffix == ".parquet"
    names = pq.read_schema(path).names if is_parquet else read_header(path)
    wanted = [date, symbol, *(names if fields is None else fields)]
    if not {*wanted} <= {*names}:
        # Without rows, but with all names, for the message on the one that lacks.
        return pa.table({name: pa.array([], pa.string()) for name in names})
    if is_parquet:
        return _read_parquet(path, wanted)

    def label(texts: pa.Table, field: str, row: int) -> str:
        of, on = (texts.column(name)[row].as_py() for name in (symbol, date))
        return f"field '{field}': the value of {of} on {on}"

    return read_numbers(path, wanted, {date, symbol}, label)


def _unreadable(path: Path, error: OSError | ValueError) -> PanelError:
    if isinstance(error, PanelError):
        return error
    reason = error.strerror if isinstance(error, OSError) and error.strerror else str(error)
    return PanelError(f"{path} can't be read: {reason.splitlines()[0]}")
