"""The rows of one day, from a file or a line of JSON."""

from __future__ import annotations

import gzip
import json
import re
import zlib
from collections.abc import Callable, Iterable
from dataclasses import dataclass
from pathlib import Path
from typing import Any

import pandas as pd
import pyarrow as pa
import pyarrow.parquet as pq
from quernbrook.workbench.live.errors import LiveError
from quernbrook.workbench.names import suggestion
from quernbrook.workbench.panels import Panel, PanelError
from quernbrook.workbench.panels.columns import decoded, numbers
from quernbrook.workbench.panels.csv_files import read_header, read_numbers

SYMBOL, DATE = "symbol", "date"
_ENDS = ("parquet", "csv", "csv.gz")
_DAY = re.compile(r"\d{4}-\d\d-\d\d", re.ASCII)
# What the readers raise for files that were cut or altered.
_UNREADABLE = (OSError, EOFError, ValueError, pa.ArrowException, zlib.error)
_RENAME = (
    "if it is still being written, write it under a name that begins with a dot, and rename it then"
)


@dataclass(frozen=True)
class Day:
    """Rows of one date that have not been taken in yet.

    what: how messages call them, a path or "line 3".
    names: the columns, the one of the symbols included.
    """

    what: str
    date: pd.Timestamp
    names: tuple[str, ...]
    _columns: Callable[[list[str]], pa.Table]

    @property
    def fields(self) -> tuple[str, ...]:
        return tuple(name for name in self.names if name != SYMBOL)

    def panel(self, fields: Iterable[str]) -> Panel:
        """Return these fields as a panel of one row.

        Raises LiveError for a field that isn't there, symbols that are no texts, that are missing
        or stand there twice, and values that are no numbers.
        """
        wanted = list(fields)
        for name in (SYMBOL, *wanted):
            count = self.names.count(name)
            if count != 1:
                found = f"{count} columns" if count else "no column"
                near = "" if count else suggestion(name, self.names)
                raise LiveError(f"{self.what} has {found} '{name}'{near}")
        try:
            table = self._columns([SYMBOL, *wanted])
            symbols = _symbols(table.column(SYMBOL))

            def label(row: int) -> str:
                return f"the value of {symbols[row]}"

            matrices = {
                name: numbers(f"field '{name}'", table.column(name), label)[None, :].copy()
                for name in wanted
            }
            return Panel(pd.DatetimeIndex([self.date]), symbols, matrices)
        except PanelError as error:
            raise LiveError(f"{self.what}: {error}") from error
        except _UNREADABLE as error:
            raise _unreadable(self.what, error) from error


def day_of_file(path: Path) -> Day:
    """The rows in a file named after its date; only their names are read now.

    Raises LiveError for a name that is no date, and for a file that can't be read or is cut.
    """
    date = date_of_file(path)
    try:
        if path.suffix == ".parquet":
            return Day(str(path), date, tuple(pq.read_schema(path).names), _of_parquet(path))
        _require_whole(path)
        return Day(str(path), date, tuple(read_header(path)), _of_csv(path))
    except _UNREADABLE as error:
        raise _unreadable(str(path), error) from error


def date_of_file(path: Path) -> pd.Timestamp:
    """The date that a file is named after. Raises LiveError for other names."""
    day, _, end = path.name.partition(".")
    if end not in _ENDS:
        raise LiveError(
            f"{path}: expected a name such as 2024-01-31.parquet or 2024-01-31.csv; names that "
            "begin with a dot or end in .tmp are passed over"
        )
    return _as_day(str(path), day)


def day_of_line(what: str, line: bytes) -> Day:
    """The rows in a line of JSON: {"date": "2024-01-31", "symbol": ["AA"], "close": [9.5]}.

    Null is a missing value. Raises LiveError for anything else.
    """

    def single(pairs: list[tuple[str, Any]]) -> dict[str, Any]:
        document = dict(pairs)
        if len(document) < len(pairs):
            names = [name for name, _ in pairs]
            twice = next(name for name in document if names.count(name) > 1)
            raise LiveError(f"{what}: '{twice}' stands there twice")
        return document

    try:
        document = json.loads(line, object_pairs_hook=single)
    except LiveError:
        raise
    except (ValueError, RecursionError) as error:
        raise LiveError(f"{what} is no JSON, or cut: {error}; send it whole, and again") from error
    if not isinstance(document, dict) or DATE not in document:
        raise LiveError(f"{what} must be an object with a date, symbols and fields")
    date = _as_day(what, document.pop(DATE))
    lengths = {}
    for name, values in document.items():
        if not isinstance(values, list):
            raise LiveError(f"{what}: '{name}' must be a list, with a value for each symbol")
        lengths[name] = len(values)
    expected = lengths.get(SYMBOL, 0)
    for name, length in lengths.items():
        if length != expected:
            raise LiveError(f"{what}: '{name}' has {length} values for {expected} symbols")

    def columns(names: list[str]) -> pa.Table:
        return pa.table({name: _array(name, document[name]) for name in names})

    return Day(what, date, tuple(document), columns)


def _as_day(what: str, text: object) -> pd.Timestamp:
    """Return a date such as 2024-01-31. Raises LiveError for anything else."""
    try:
        if isinstance(text, str) and _DAY.fullmatch(text):
            return pd.Timestamp(text)
    except ValueError:
        pass
    raise LiveError(f"{what}: {text!r} is no day; write days as 2024-01-31")


def _symbols(column: pa.ChunkedArray) -> pd.Index:
    column = decoded(column)
    if not pa.types.is_string(column.type):
        raise PanelError(f"symbols must be texts, not {column.type}")
    return pd.Index(column.to_pylist(), name=SYMBOL, dtype=object)


def _array(name: str, values: list[Any]) -> pa.Array:
    if name == SYMBOL:
        for value in values:
            # Half a character in UTF-16 is a text to Python alone.
            if not isinstance(value, str) or not value.isprintable():
                raise PanelError(f"{value!r} is no symbol; symbols are texts")
        return pa.array(values, pa.string())
    return pa.array([_number(name, value) for value in values], pa.float64())


def _number(name: str, value: Any) -> float | None:
    if value is None:
        return None
    try:
        if isinstance(value, int | float):
            return float(value)
    except OverflowError:
        pass
    raise PanelError(f"field '{name}': {value!r} is no number; a missing value is null")


def _of_parquet(path: Path) -> Callable[[list[str]], pa.Table]:
    def columns(names: list[str]) -> pa.Table:
        with pq.ParquetFile(path) as file:
            return file.read(columns=names)

    return columns


def _of_csv(path: Path) -> Callable[[list[str]], pa.Table]:
    def columns(names: list[str]) -> pa.Table:
        def label(texts: pa.Table, field: str, row: int) -> str:
            return f"field '{field}': the value of {texts.column(SYMBOL)[row].as_py()}"

        return read_numbers(path, names, {SYMBOL}, label)

    return columns


def _require_whole(path: Path) -> None:
    """A text that was cut may end within a number, and still be one."""
    with gzip.open(path) if path.suffix == ".gz" else path.open("rb") as file:
        if not file.read().endswith(b"\n"):
            raise LiveError(f"{path} is cut: its last line has no end; {_RENAME}")


def _unreadable(what: str, error: Exception) -> LiveError:
    if isinstance(error, LiveError):
        return error
    reason = error.strerror if isinstance(error, OSError) and error.strerror else str(error)
    first_line = reason.splitlines()[0] if reason else repr(error)
    return LiveError(f"{what} can't be read: {first_line}; {_RENAME}")
