"""Wide tables, dates by symbols: their labels, and their values as a matrix."""

from __future__ import annotations

from collections.abc import Iterable, Mapping
from dataclasses import dataclass
from typing import Any, Protocol, TypeAlias

import numpy as np
import pandas as pd
import pyarrow as pa
from quernbrook.workbench.panels.columns import Matrix, dates_of, is_plain_number, numbers
from quernbrook.workbench.panels.labels import (
    PanelError,
    as_dates,
    require_increasing,
    require_same_dates,
    require_same_symbols,
    require_symbols,
)


class ArrowStream(Protocol):
    """What hands itself over as Arrow columns: tables of Arrow and polars, and others."""

    def __arrow_c_stream__(self, requested_schema: object | None = None) -> object: ...


Table: TypeAlias = pd.DataFrame | ArrowStream


@dataclass(frozen=True)
class Wide:
    """A wide table whose labels have been checked.

    what: how messages call it, "field 'close'".
    body: the columns of the symbols, without the dates.
    """

    what: str
    dates: pd.DatetimeIndex
    symbols: pd.Index
    body: Any

    @classmethod
    def of(cls, what: str, given: Table) -> Wide:
        """Raises PanelError for what is no table and for labels that make no panel."""
        table = as_table(what, given)
        if isinstance(table, pd.DataFrame):
            wide = cls(what, as_dates(what, "the index", table.index), table.columns, table)
        else:
            wide = _of_arrow(what, table)
        require_increasing(what, wide.dates)
        require_symbols(what, wide.symbols)
        return wide

    def require_labels(self, other: str, dates: pd.DatetimeIndex, symbols: pd.Index) -> None:
        """Raise PanelError for other dates or symbols; the latter may stand in any order."""
        require_same_dates(self.what, self.dates, other, dates)
        require_same_symbols(self.what, self.symbols, other, symbols)

    def matrix(self, symbols: pd.Index) -> Matrix:
        """Return the values, float64 of shape (dates, symbols) and C-contiguous.

        A pandas frame of float64 in one C-ordered block is not copied.

        Raises PanelError for values that are no numbers.
        """
        places = None if self.symbols.equals(symbols) else self.symbols.get_indexer(symbols)
        if isinstance(self.body, pd.DataFrame):
            frame = self.body if places is None else self.body.iloc[:, places]
            if all(is_plain_number(dtype) for dtype in frame.dtypes):
                return np.ascontiguousarray(frame.to_numpy(dtype=np.float64, na_value=np.nan))
            return self._by_column(symbols, [frame.iloc[:, k] for k in range(len(symbols))])
        table = self.body if places is None else self.body.select(places.tolist())
        if all(kind == pa.float64() for kind in table.schema.types):
            return _transposed(table)
        return self._by_column(symbols, table.columns)

    def _by_column(self, symbols: pd.Index, columns: list[Any]) -> Matrix:
        matrix = np.empty((len(self.dates), len(symbols)))
        for place, (symbol, column) in enumerate(zip(symbols, columns, strict=True)):
            what = f"{self.what}: '{symbol}'"
            matrix[:, place] = numbers(what, column, lambda row: f"its value on {self.dates[row]}")
        return matrix


def collect(
    tables: Iterable[tuple[str, Table]],
) -> tuple[pd.DatetimeIndex, pd.Index, dict[str, Matrix]]:
    """Return the dates, the symbols and the matrices of tables with the same labels.

    Tables are asked for one by one and not kept.
    """
    fields: dict[str, Matrix] = {}
    first: Wide | None = None
    for name, table in tables:
        wide = Wide.of(f"field '{name}'", table)
        if first is None:
            first = Wide(wide.what, wide.dates, wide.symbols, None)
        wide.require_labels(first.what, first.dates, first.symbols)
        fields[name] = wide.matrix(first.symbols)
    if first is None:
        raise PanelError("a panel needs one field at least")
    return first.dates, first.symbols, fields


def as_table(what: str, given: Table) -> Any:
    """Return a pandas DataFrame as it is, and any other table as one of Arrow, without a copy."""
    if isinstance(given, pd.DataFrame | pa.Table):
        return given
    if hasattr(given, "__arrow_c_stream__"):
        try:
            return pa.table(given)
        except (pa.ArrowException, TypeError, ValueError) as error:
            raise PanelError(f"{what} is a table that Arrow can't read: {error}") from error
    if isinstance(given, pa.RecordBatch):
        return pa.Table.from_batches([given])
    kind = f"{type(given).__module__}.{type(given).__qualname__}"
    raise PanelError(
        f"{what} must be a DataFrame of pandas or polars or an Arrow table, not {kind}"
    )


def index_columns(metadata: Mapping[str, Any] | None) -> list[str]:
    """The columns that were a frame's index when pandas made the table of these metadata."""
    # A range of numbers stands there as a dict, and has no column.
    found = (metadata or {}).get("index_columns", [])
    return [name for name in found if isinstance(name, str)]


def _of_arrow(what: str, table: pa.Table) -> Wide:
    # Each of these is made anew whenever it is asked for.
    schema = table.schema
    metadata, names = schema.pandas_metadata, schema.names
    index = {p for name in index_columns(metadata) for p in schema.get_all_field_indices(name)}
    others = [place for place in range(len(names)) if place not in index]
    if len(index) == 1 and _is_temporal(schema.field(min(index)).type):
        place, noun = min(index), "the index"
    elif others:
        place, noun = others.pop(0), "the first column"
    else:
        raise PanelError(f"{what} has no columns")
    dates = dates_of(what, noun, table.column(place))
    levels = (metadata or {}).get("column_indexes") or [{}]
    symbols = pd.Index([names[k] for k in others], name=levels[0].get("name"))
    # What pandas calls an index without a name.
    name = None if names[place].startswith("__index_level_") else names[place] or None
    return Wide(what, dates.rename(name), symbols, table.select(others))


def _is_temporal(kind: pa.DataType) -> bool:
    return pa.types.is_timestamp(kind) or pa.types.is_date(kind)


def _transposed(table: pa.Table) -> Matrix:
    """The values of float64 columns, C-contiguous, with NaN for null."""
    if table.num_rows == 0 or table.num_columns == 0:
        return np.empty((table.num_rows, table.num_columns))
    parts = [batch.to_tensor(null_to_nan=True).to_numpy() for batch in table.to_batches()]
    return parts[0] if len(parts) == 1 else np.concatenate(parts)
