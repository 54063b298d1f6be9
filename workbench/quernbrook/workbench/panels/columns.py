"""Columns of pandas and Arrow tables as float64 and as dates."""

from __future__ import annotations

from collections.abc import Callable
from decimal import Decimal
from numbers import Real
from typing import TypeAlias

import numpy as np
import pandas as pd
import pyarrow as pa
from numpy.typing import NDArray
from pandas.api.extensions import ExtensionDtype
from quernbrook.workbench.panels.labels import PanelError, as_dates

Matrix: TypeAlias = NDArray[np.float64]
Vector: TypeAlias = NDArray[np.float64]
Column: TypeAlias = pd.Series | pa.ChunkedArray


def numbers(what: str, column: Column, label: Callable[[int], str]) -> Matrix:
    """Return a column as float64 of shape (rows,), where missing values are NaN.

    Floats, integers, truth values and decimals are numbers, the nearest float64 each. A float64
    column with nothing missing is not copied where it lies in one piece.

    `what` begins a message, "field 'close': 'AA'"; `label` names a row's cell.

    Raises PanelError for any other type, and for a cell of an object column that is no number.
    """
    if isinstance(column, pd.Series):
        return _series_numbers(what, column, label)
    column = decoded(column)
    if not _is_number(column.type):
        raise PanelError(f"{what} holds no numbers but {column.type}")
    return _one_piece(column.cast(pa.float64(), safe=False)).to_numpy(zero_copy_only=False)


def dates_of(what: str, place: str, column: Column) -> pd.DatetimeIndex:
    """Return a column as dates, as `as_dates` takes them."""
    if isinstance(column, pd.Series):
        return as_dates(what, place, pd.Index(column))
    column = decoded(column)
    if pa.types.is_date(column.type):
        # As datetimes: pandas would make an object of each date.
        column = column.cast(pa.timestamp("ms"))
    elif not (pa.types.is_string(column.type) or pa.types.is_timestamp(column.type)):
        raise PanelError(f"{what}: {place} must hold dates; it holds {column.type}")
    return as_dates(what, place, pd.Index(column.to_pandas()))


def decoded(column: pa.ChunkedArray) -> pa.ChunkedArray:
    """Return the column without a dictionary, and texts of all kinds as strings."""
    if pa.types.is_dictionary(column.type):
        kind = _plain(column.type.value_type)
        # The values first: not every kind of text can be taken from a dictionary.
        chunks = [part.dictionary.cast(kind).take(part.indices) for part in column.chunks]
        return pa.chunked_array(chunks, kind)
    kind = _plain(column.type)
    return column if kind == column.type else column.cast(kind)


def _plain(kind: pa.DataType) -> pa.DataType:
    tests = (pa.types.is_large_string, pa.types.is_string_view)
    return pa.string() if any(test(kind) for test in tests) else kind


def is_plain_number(dtype: np.dtype | ExtensionDtype) -> bool:
    """Whether pandas converts a column of this type as a whole."""
    types = pd.api.types
    # Truth values of Arrow are no numbers to pandas, those of NumPy are.
    is_number = types.is_numeric_dtype(dtype) or types.is_bool_dtype(dtype)
    return is_number and not types.is_complex_dtype(dtype)


def _is_number(kind: pa.DataType) -> bool:
    tests = (
        pa.types.is_floating,
        pa.types.is_integer,
        pa.types.is_boolean,
        pa.types.is_decimal,
        pa.types.is_null,
    )
    return any(test(kind) for test in tests)


def _one_piece(column: pa.ChunkedArray) -> pa.Array:
    return column.chunk(0) if column.num_chunks == 1 else column.combine_chunks()


def _series_numbers(what: str, series: pd.Series, label: Callable[[int], str]) -> Matrix:
    if is_plain_number(series.dtype):
        return series.to_numpy(dtype=np.float64, na_value=np.nan)
    if series.dtype != object:
        raise PanelError(f"{what} holds no numbers but {series.dtype}")
    return np.array([_number(what, value, row, label) for row, value in enumerate(series)])


def _number(what: str, value: object, row: int, label: Callable[[int], str]) -> float:
    if value is None or value is pd.NA:
        return np.nan
    if isinstance(value, Real | Decimal | np.bool_):
        try:
            return float(value)
        except (OverflowError, ValueError):
            pass
    raise PanelError(f"{what} holds no numbers but object: {label(row)} is {value!r}")
