"""Long tables: a row for each date and symbol, a column for each field."""

from __future__ import annotations

from collections.abc import Callable, Iterable
from typing import Any

import numpy as np
import pandas as pd
import pyarrow as pa
import pyarrow.compute as pc
from numpy.typing import NDArray
from quernbrook.workbench.names import suggestion
from quernbrook.workbench.panels.columns import Column, Matrix, dates_of, decoded, numbers
from quernbrook.workbench.panels.labels import PanelError
from quernbrook.workbench.panels.wide import Table, as_table, index_columns

_WHAT = "the long table"


def collect_long(
    given: Table, date: str, symbol: str, fields: Iterable[str] | None
) -> tuple[pd.DatetimeIndex, pd.Index, dict[str, Matrix]]:
    """Return the dates and the symbols, both sorted, and the matrices of the fields.

    Rows may stand in any order; a cell without a row is NaN. Float64 columns with a row for every
    cell, sorted by date and then by symbol, are not copied.
    """
    table = as_table(_WHAT, given)
    if isinstance(table, pd.DataFrame):
        in_index = [name for name in (date, symbol) if name in table.index.names]
        table = table.reset_index(in_index) if in_index else table
    is_pandas = isinstance(table, pd.DataFrame)
    present = [*table.columns] if is_pandas else table.schema.names
    no_fields = {date, symbol, *([] if is_pandas else index_columns(table.schema.pandas_metadata))}
    if fields is None:
        fields = [name for name in present if name not in no_fields]
    names = list(fields)
    for name in (date, symbol, *names):
        _require_column(name, present)
    if not names:
        raise PanelError(f"{_WHAT} has no columns beside '{date}' and '{symbol}'")
    of_rows = dates_of(_WHAT, f"the column '{date}'", _column(table, date))
    date_codes, unique_dates = pd.factorize(of_rows, sort=True)
    dates = pd.DatetimeIndex(unique_dates, name=date)
    symbol_codes, symbols = _encoded(symbol, _column(table, symbol))
    shape = len(dates), len(symbols)
    cells = date_codes * len(symbols) + symbol_codes
    is_in_order = len(cells) == shape[0] * shape[1] and bool((np.diff(cells) == 1).all())

    def label(row: int) -> str:
        return f"the value of {symbols[symbol_codes[row]]} on {of_rows[row]}"

    if not is_in_order:
        _require_single_rows(cells, label)
    matrices = {}
    for name in names:
        values = numbers(f"field '{name}'", _column(table, name), label)
        matrices[name] = _matrix(values, shape, None if is_in_order else cells)
    return dates, symbols, matrices


def _require_column(name: str, present: list[Any]) -> None:
    count = present.count(name)
    if count == 0:
        near = suggestion(name, [text for text in present if isinstance(text, str)])
        raise PanelError(f"{_WHAT} has no column '{name}'{near}")
    if count > 1:
        raise PanelError(f"{_WHAT} has {count} columns '{name}'")


def _column(table: Any, name: str) -> Column:
    return table[name] if isinstance(table, pd.DataFrame) else table.column(name)


def _encoded(name: str, column: Column) -> tuple[NDArray[np.intp], pd.Index]:
    """For each row the place of its symbol, and the symbols that occur, sorted."""
    if isinstance(column, pd.Series):
        try:
            column = pa.chunked_array([pa.array(column, from_pandas=True)])
        except (pa.ArrowException, TypeError) as error:
            raise PanelError(f"{_WHAT}: the column '{name}' mixes types: {error}") from error
    column = decoded(column)
    if not (pa.types.is_string(column.type) or pa.types.is_integer(column.type)):
        raise PanelError(
            f"{_WHAT}: the column '{name}' must hold symbols, texts or integers; "
            f"it holds {column.type}"
        )
    if column.null_count:
        row = pc.index(column.is_null(), True).as_py()
        raise PanelError(f"{_WHAT}: row {row} has no symbol")
    encoded = column.dictionary_encode().unify_dictionaries().combine_chunks()
    order = pc.array_sort_indices(encoded.dictionary).to_numpy()
    places = np.empty(len(order), dtype=np.intp)
    places[order] = np.arange(len(order))
    symbols = pd.Index(encoded.dictionary.take(order).to_pylist(), name=name)
    return places[encoded.indices.to_numpy()], symbols


def _require_single_rows(cells: NDArray[np.intp], label: Callable[[int], str]) -> None:
    is_again = pd.Series(cells).duplicated().to_numpy()
    if is_again.any():
        row = int(np.argmax(is_again))
        first = int(np.argmax(cells == cells[row]))
        raise PanelError(f"{_WHAT}: {label(row)} stands there twice, in rows {first} and {row}")


def _matrix(values: Matrix, shape: tuple[int, int], cells: NDArray[np.intp] | None) -> Matrix:
    if cells is None:
        return np.ascontiguousarray(values).reshape(shape)
    matrix = np.full(shape, np.nan)
    matrix.reshape(-1)[cells] = values
    return matrix
