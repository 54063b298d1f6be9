"""What of a large table a picture shows, and what it says of the rest."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
import pandas as pd
from quernbrook.workbench.panels.panel import Matrix

# The middle of the scale has to stay apart from the few largest values.
_SHOWN_QUANTILE = 0.99


@dataclass(frozen=True)
class Shown:
    """The part of a table that is shown.

    note: which part it is, as text, "" for all of it.
    """

    frame: pd.DataFrame
    note: str


def thinned(frame: pd.DataFrame, rows: int, columns: int | None = None) -> Shown:
    """Return every k-th row, counted from the last, and every k-th column, counted from the first.

    rows, columns: how many are shown at most; None shows all columns.
    """
    row_step = _step(len(frame), rows)
    column_step = 1 if columns is None else _step(frame.shape[1], columns)
    notes = [
        f"every {_ordinal(step)} of {count:,} {what}"
        for step, count, what in (
            (row_step, len(frame), "days"),
            (column_step, frame.shape[1], "symbols"),
        )
        if step > 1
    ]
    first = (len(frame) - 1) % row_step
    part = frame if not notes else frame.iloc[first::row_step, ::column_step]
    return Shown(part, f"shows {' and '.join(notes)}" if notes else "")


@dataclass(frozen=True)
class Scale:
    """The values at the ends of a scale of colours.

    is_signed: from -high to high, with 0 in the middle.
    is_clipped: some values lie beyond an end, and have its colour.
    """

    low: float
    high: float
    is_signed: bool
    is_clipped: bool


def scale_of(values: Matrix) -> Scale:
    """Return the scale for values, whose NaN and infinities don't count.

    Values of both signs, and zeros alone, have a signed one. Its end is the 99th percentile of the
    absolute values; that of other values goes from their first to their 99th percentile.
    """
    known = values[np.isfinite(values)]
    if not known.size or not known.any():
        return Scale(-1.0, 1.0, True, False)
    least, greatest = float(known.min()), float(known.max())
    if least >= 0.0 or greatest <= 0.0:
        low, high = map(float, np.quantile(known, [1.0 - _SHOWN_QUANTILE, _SHOWN_QUANTILE]))
        if low == high:
            low, high = least, greatest
        if low == high:
            low, high = sorted((0.0, low))
        return Scale(low, high, False, least < low or greatest > high)
    end = float(np.quantile(np.abs(known), _SHOWN_QUANTILE)) or max(-least, greatest)
    return Scale(-end, end, True, max(-least, greatest) > end)


def _step(count: int, shown: int) -> int:
    return max(1, -(-count // shown))


def _ordinal(number: int) -> str:
    if number % 100 in (11, 12, 13):
        return f"{number}th"
    return f"{number}{ {1: 'st', 2: 'nd', 3: 'rd'}.get(number % 10, 'th') }"
