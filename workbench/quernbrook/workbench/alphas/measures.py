"""What a formula's values amount to when they are held as a portfolio."""

from __future__ import annotations

from collections.abc import Sequence

import numpy as np
from numpy.typing import NDArray
from quernbrook.workbench.panels.panel import Matrix

# Correlations are taken over so many days at most, evenly spread.
_CORRELATED_DAYS = 250


def coverage(values: Matrix) -> float:
    """The share of cells that have a value, from 0 to 1."""
    return float(np.isfinite(values).mean())


def holdings(values: Matrix) -> Matrix:
    """Each row less its mean, scaled to 1 in absolute values; 0 where there is no value.

    A row without two different values holds nothing.
    """
    is_held: NDArray[np.bool_] = np.isfinite(values)
    held = np.where(is_held, values, 0.0)
    counts = np.maximum(is_held.sum(axis=1, keepdims=True), 1)
    centred = np.where(is_held, held - held.sum(axis=1, keepdims=True) / counts, 0.0)
    sizes = np.abs(centred).sum(axis=1, keepdims=True)
    return np.divide(centred, sizes, out=np.zeros_like(centred), where=sizes > 0.0)


def turnover(held: Matrix) -> float:
    """The mean sum of absolute changes of holdings from day to day, from 0 to 2.

    Over the days that hold something and follow one that does; NaN if there is none.
    """
    has_any = np.any(held != 0.0, axis=1)
    counted = has_any[1:] & has_any[:-1]
    changes = np.abs(np.diff(held, axis=0)).sum(axis=1)[counted]
    return float(changes.mean()) if changes.size else float("nan")


def correlated_days(day_count: int) -> slice:
    """The days over which holdings of different formulas are compared."""
    return slice(None, None, -(-day_count // _CORRELATED_DAYS))


def correlations(held: Sequence[Matrix]) -> Matrix:
    """The correlations of holdings of several formulas, cell by cell, over the same days.

    Rows of holdings have the mean 0. NaN for a formula that holds nothing.
    """
    cells = np.stack([matrix.ravel() for matrix in held])
    products = cells @ cells.T
    sizes = np.sqrt(np.diag(products))
    with np.errstate(invalid="ignore", divide="ignore"):
        result: Matrix = products / np.outer(sizes, sizes)
    return result


def mean_absolute_correlations(matrix: Matrix) -> Matrix:
    """Of each formula with all others that hold something; NaN where there are none."""
    others = np.abs(matrix)
    np.fill_diagonal(others, np.nan)
    counts = (~np.isnan(others)).sum(axis=1)
    sums = np.nansum(others, axis=1)
    return np.divide(sums, counts, out=np.full(len(sums), np.nan), where=counts > 0)
