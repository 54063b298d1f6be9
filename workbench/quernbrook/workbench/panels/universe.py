"""Which symbols are in a panel's universe on which dates: 1.0 inside, 0.0 outside."""

from __future__ import annotations

from collections.abc import Hashable, Mapping
from typing import Any

import numpy as np
import pandas as pd
import pyarrow as pa
from quernbrook.workbench.panels.columns import Matrix
from quernbrook.workbench.panels.labels import Date, PanelError, as_date
from quernbrook.workbench.panels.wide import Table, Wide

_WHAT = "the universe"


def from_booleans(table: Table, dates: pd.DatetimeIndex, symbols: pd.Index) -> Matrix:
    """Return the matrix of a wide table of truth values with the panel's dates and symbols."""
    wide = Wide.of(_WHAT, table)
    wide.require_labels("the panel", dates, symbols)
    for symbol, kind, is_boolean in _types(wide):
        if not is_boolean:
            raise PanelError(f"{_WHAT}: '{symbol}' must hold True and False; it holds {kind}")
    matrix = wide.matrix(symbols)
    missing = np.isnan(matrix)
    if missing.any():
        row, column = np.argwhere(missing)[0]
        raise PanelError(f"{_WHAT} has no value for {symbols[column]} on {dates[row]}")
    return matrix


def from_listings(
    first: Mapping[Any, Date],
    last: Mapping[Any, Date | None],
    dates: pd.DatetimeIndex,
    symbols: pd.Index,
) -> Matrix:
    """Return the matrix of symbols that are inside from their first to their last date."""
    matrix = np.zeros((len(dates), len(symbols)))
    for place, symbol in enumerate(symbols):
        if symbol not in first:
            raise PanelError(f"the symbol {symbol} has no first date")
        begin = _listing_date(symbol, "first", first[symbol], dates)
        start, stop = int(dates.searchsorted(begin, side="left")), len(dates)
        given = last.get(symbol)
        if not pd.isna(given):
            end = _listing_date(symbol, "last", given, dates)
            if end < begin:
                raise PanelError(
                    f"the symbol {symbol}: its last date {end} comes before its first {begin}"
                )
            stop = int(dates.searchsorted(end, side="right"))
        matrix[start:stop, place] = 1.0
    return matrix


def _types(wide: Wide) -> list[tuple[Hashable, object, bool]]:
    if isinstance(wide.body, pd.DataFrame):
        return [
            (symbol, dtype, pd.api.types.is_bool_dtype(dtype))
            for symbol, dtype in wide.body.dtypes.items()
        ]
    kinds = wide.body.schema.types
    return [
        (symbol, kind, pa.types.is_boolean(kind))
        for symbol, kind in zip(wide.symbols, kinds, strict=True)
    ]


def _listing_date(
    symbol: Hashable, which: str, value: Date, dates: pd.DatetimeIndex
) -> pd.Timestamp:
    try:
        return as_date(value, dates.tz)
    except PanelError as error:
        raise PanelError(f"the symbol {symbol}, {which} date: {error}") from error
