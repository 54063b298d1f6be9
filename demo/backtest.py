"""What weights earn: the weights of a day earn the return of the next."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
from market import Matrix
from numpy.typing import NDArray

DAYS_A_YEAR = 252
# Fewer tell nothing: a standard deviation needs two.
FEWEST_RETURNS = 2

Series = NDArray[np.float64]


def earned(weights: Matrix, next_returns: Matrix) -> Series:
    """The return of each row of weights, held over the next day; NaN for a row of NaN alone."""
    total: Series = np.nansum(weights * next_returns, axis=1)
    return np.where(np.isnan(weights).all(axis=1), np.nan, total)


def daily_returns(weights: Matrix, returns: Matrix) -> Series:
    """What came in on each day, from the weights of the day before; NaN where there were none."""
    return np.concatenate(([np.nan], earned(weights[:-1], returns[1:])))


def equal_weights(universe: Matrix) -> Matrix:
    count = universe.sum(axis=1, keepdims=True)
    return np.divide(universe, count, out=np.full(universe.shape, np.nan), where=count > 0.0)


def growth(returns: Series) -> Series:
    """What one dollar becomes; a day without return leaves it as it is."""
    grown: Series = np.cumprod(1.0 + np.nan_to_num(returns), dtype=np.float64)
    return grown


def sharpe(returns: Series) -> float:
    """Mean over standard deviation, a year; NaN for less than two returns or none that differ."""
    known = returns[~np.isnan(returns)]
    if known.size < FEWEST_RETURNS or known.std() == 0.0:
        return float("nan")
    return float(known.mean() / known.std() * np.sqrt(DAYS_A_YEAR))


@dataclass(frozen=True)
class Performance:
    """Figures a year, save `drawdown` (the deepest fall from a height) and `turnover` (a day)."""

    growth: float
    volatility: float
    sharpe: float
    drawdown: float
    turnover: float


def measure(weights: Matrix, returns: Matrix) -> Performance:
    """Measure the rows given, the first of which earns on the second day."""
    daily = daily_returns(weights, returns)[1:]
    value = np.concatenate(([1.0], growth(daily)))
    changes = np.abs(np.diff(np.nan_to_num(weights), axis=0)).sum(axis=1)
    return Performance(
        growth=value[-1] ** (DAYS_A_YEAR / daily.size) - 1.0,
        volatility=float(np.nanstd(daily) * np.sqrt(DAYS_A_YEAR)),
        sharpe=sharpe(daily),
        drawdown=float((value / np.maximum.accumulate(value) - 1.0).min()),
        turnover=float(changes.mean()),
    )


def largest_difference(expected: Matrix, weights: Matrix) -> float | None:
    """None where the two have NaN in different places."""
    unknown = np.isnan(expected)
    if not np.array_equal(unknown, np.isnan(weights)):
        return None
    return float(np.abs(expected - weights).max(initial=0.0, where=~unknown))
