"""What weights amount to when they are held as a portfolio.

Matrices are float64 of shape (T, N): days by symbols. A weight that is NaN or infinite holds
nothing. Measures by day are float64 of shape (T,), NaN on days that the measure isn't defined for.
"""

from __future__ import annotations

from collections.abc import Sequence
from typing import TYPE_CHECKING

import numpy as np
from numpy.typing import NDArray

if TYPE_CHECKING:
    # Workers of sweeps take measures without pandas.
    from quernbrook.workbench.panels.panel import Matrix, Vector


def coverage(values: Matrix) -> float:
    """The share of cells that have a value, from 0 to 1."""
    return float(np.isfinite(values).mean())


def coverage_by_day(values: Matrix) -> Vector:
    """The share of each day's cells that have a value, from 0 to 1."""
    return np.isfinite(values).mean(axis=1)


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


def unit_gross(weights: Matrix) -> Matrix:
    """Each row divided by its gross exposure, so that this is 1; 0 where nothing is held.

    A row of zeros, or without any weight, holds nothing.
    """
    held = _held(weights)
    sizes = np.abs(held).sum(axis=1, keepdims=True)
    return np.divide(held, sizes, out=np.zeros_like(held), where=sizes > 0.0)


def gross_exposure(weights: Matrix) -> Vector:
    """The sum of each day's absolute weights, in the weights' units; NaN without any weight."""
    return _where_any(weights, np.abs(_held(weights)).sum(axis=1))


def net_exposure(weights: Matrix) -> Vector:
    """The sum of each day's weights, in the weights' units; NaN without any weight."""
    return _where_any(weights, _held(weights).sum(axis=1))


def concentration(weights: Matrix) -> Vector:
    """Herfindahl's index of each day: the sum of the squared shares in the gross exposure.

    From 1 / n, for n weights of one size, to 1, for a single one. NaN where nothing is held.
    """
    index = np.square(unit_gross(weights)).sum(axis=1)
    return np.where(index > 0.0, index, np.nan)


def turnover_by_day(weights: Matrix) -> Vector:
    """The sum of the absolute changes of weights since the day before, in the weights' units.

    With a gross exposure of 1 it goes from 0 to 2. NaN on the first day, and on days that hold
    nothing or follow one that holds nothing.
    """
    held = _held(weights)
    has_any = np.any(held != 0.0, axis=1)
    result = np.full(len(held), np.nan)
    changes = np.abs(np.diff(held, axis=0)).sum(axis=1)
    result[1:] = np.where(has_any[1:] & has_any[:-1], changes, np.nan)
    return result


def turnover(weights: Matrix) -> float:
    """The mean of `turnover_by_day` over the days that have one; NaN if there is none."""
    return mean_of_days(turnover_by_day(weights))


def mean_of_days(values: Vector) -> float:
    """The mean over the days that have a value; NaN if there is none."""
    counted = values[~np.isnan(values)]
    return float(counted.mean()) if counted.size else float("nan")


def returns_of(prices: Matrix) -> Matrix:
    """The relative change of prices since the day before, as a fraction: 0.01 is one percent.

    NaN on the first day, beside a missing price, after a price of 0 and between infinite ones.
    """
    result = np.full(prices.shape, np.nan)
    before, now = prices[:-1], prices[1:]
    with np.errstate(invalid="ignore", over="ignore"):
        np.divide(now, before, out=result[1:], where=before != 0.0)
    return result - 1.0


def pnl_by_symbol(weights: Matrix, returns: Matrix) -> Matrix:
    """What each symbol earned on each day, (T, N): the weight of the day before times the return.

    In the weights' units. 0 where nothing was held or the return is NaN or infinite, so on all of
    the first day.
    """
    result = np.zeros(weights.shape)
    np.multiply(_held(weights)[:-1], _held(returns)[1:], out=result[1:])
    return result


def pnl(weights: Matrix, returns: Matrix) -> Vector:
    """What was earned on each day: the weights of the day before times the day's returns.

    weights: known at the close of their day, from which on they are held for a day.
    returns: from the close before to the close of their day, as fractions.

    In the weights' units: with a gross exposure of 1, a fraction of it. A return that is missing
    counts as 0. NaN on the first day and on days after one without any weight.
    """
    result = pnl_by_symbol(weights, returns).sum(axis=1)
    result[:1] = np.nan
    result[1:][~np.isfinite(weights[:-1]).any(axis=1)] = np.nan
    return result


def cumulative(earned: Vector) -> Vector:
    """The running sum, with 0 for NaN: nothing is put back in."""
    return np.cumsum(np.where(np.isnan(earned), 0.0, earned))


def drawdown(earned: Vector) -> Vector:
    """The running sum less the highest that it has been, 0 before the first day included.

    In the units of `earned`: 0 at a height, below 0 otherwise.
    """
    sums = cumulative(earned)
    return sums - np.maximum(np.maximum.accumulate(sums), 0.0)


def correlations(held: Sequence[Matrix]) -> Matrix:
    """The correlations of holdings of several signals, cell by cell, over the same days.

    held: as `holdings` makes them, so that rows have the mean 0. Returns a square matrix; NaN for
    a signal that holds nothing.
    """
    cells = np.stack([matrix.ravel() for matrix in held])
    products = cells @ cells.T
    sizes = np.sqrt(np.diag(products))
    with np.errstate(invalid="ignore", divide="ignore"):
        result: Matrix = products / np.outer(sizes, sizes)
    return result


def _held(values: Matrix) -> Matrix:
    return np.where(np.isfinite(values), values, 0.0)


def _where_any(weights: Matrix, by_day: Vector) -> Vector:
    return np.where(np.isfinite(weights).any(axis=1), by_day, np.nan)
