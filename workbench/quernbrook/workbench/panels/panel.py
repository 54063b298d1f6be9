"""Fields over dates and symbols, in memory."""

from __future__ import annotations

from collections.abc import Mapping
from dataclasses import dataclass

import numpy as np
import pandas as pd
from numpy.typing import NDArray
from quernbrook.reference_host import FunctionRegistry
from quernbrook.simulator_engine.expression_evaluator import EvaluationContext

Matrix = NDArray[np.float64]
Vector = NDArray[np.float64]


class PanelError(ValueError):
    """Data that make no panel; the message names the field, and the date or symbol at fault."""


@dataclass(frozen=True)
class Panel:
    """Matrices of one shape, (dates, symbols), by the names of their fields.

    fields: float64 and C-contiguous, in the order in which contexts hold them.
    dates: increasing, none twice.
    """

    dates: pd.DatetimeIndex
    symbols: pd.Index
    fields: Mapping[str, Matrix]

    @classmethod
    def from_frames(cls, frames: Mapping[str, pd.DataFrame]) -> Panel:
        """Take a frame of numbers for each field, with dates as its index and symbols as columns.

        All frames must have the same dates and the same symbols, the latter in any order: that of
        the first frame is taken. A frame of float64 in one C-ordered block is not copied.

        Raises PanelError for other dates or symbols, for dates that don't increase, for a date or
        symbol that stands twice and for values that are no numbers.
        """
        if not frames:
            raise PanelError("a panel needs one field at least")
        (first_name, first), *others = frames.items()
        for name, frame in frames.items():
            _require_dates(name, frame.index)
            _require_single(name, "symbol", frame.columns)
        for name, frame in others:
            _require_same("date", name, frame.index, first_name, first.index)
            _require_same("symbol", name, frame.columns, first_name, first.columns)
        fields = {name: _matrix(name, frame, first.columns) for name, frame in frames.items()}
        return cls(pd.DatetimeIndex(first.index), first.columns, fields)

    def context(self, registry: FunctionRegistry) -> EvaluationContext:
        """Return a new context over the fields, which are not copied."""
        index = {name: place for place, name in enumerate(self.fields)}
        return EvaluationContext(tuple(self.fields.values()), index, registry=registry)

    def frame(self, values: Matrix) -> pd.DataFrame:
        """Return values of shape (dates, symbols) with their labels; they are not copied."""
        return pd.DataFrame(values, index=self.dates, columns=self.symbols, copy=False)


def _require_dates(name: str, dates: pd.Index) -> None:
    if not isinstance(dates, pd.DatetimeIndex):
        raise PanelError(f"field '{name}': the index must hold dates; it holds {dates.dtype}")
    if dates.hasnans:
        raise PanelError(f"field '{name}': row {int(np.argmax(dates.isna()))} has no date")
    _require_single(name, "date", dates)
    if not dates.is_monotonic_increasing:
        place = int(np.argmax(dates[1:] < dates[:-1])) + 1
        raise PanelError(
            f"field '{name}': the dates must increase; {dates[place]} follows {dates[place - 1]}"
        )


def _require_single(name: str, what: str, labels: pd.Index) -> None:
    if not labels.is_unique:
        twice = labels[labels.duplicated()][0]
        raise PanelError(f"field '{name}': the {what} {twice} stands there twice")


def _require_same(what: str, name: str, labels: pd.Index, first: str, expected: pd.Index) -> None:
    for have, lack, missing in (
        (first, name, expected.difference(labels)),
        (name, first, labels.difference(expected)),
    ):
        if len(missing):
            raise PanelError(f"field '{lack}' lacks the {what} {missing[0]}, which '{have}' has")


def _matrix(name: str, frame: pd.DataFrame, symbols: pd.Index) -> Matrix:
    if not frame.columns.equals(symbols):
        frame = frame[symbols]
    for symbol, dtype in frame.dtypes.items():
        if not pd.api.types.is_numeric_dtype(dtype) or pd.api.types.is_complex_dtype(dtype):
            raise PanelError(f"field '{name}': '{symbol}' holds no numbers but {dtype}")
    return np.ascontiguousarray(frame.to_numpy(dtype=np.float64, na_value=np.nan))
