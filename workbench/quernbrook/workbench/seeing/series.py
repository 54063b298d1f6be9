"""The curves that pictures draw, by their names, from tables of weights."""

from __future__ import annotations

from collections.abc import Callable, Mapping

import numpy as np
import pandas as pd
from quernbrook.workbench.panels.panel import Matrix, Vector
from quernbrook.workbench.seeing import measures
from quernbrook.workbench.seeing.causes import Cause, Causes, causes_by_day


def exposures(weights: pd.DataFrame) -> pd.DataFrame:
    """Gross and net exposure by day, in the weights' units."""
    values = _matrix(weights)
    return pd.DataFrame(
        {"gross": measures.gross_exposure(values), "net": measures.net_exposure(values)},
        index=weights.index,
    )


def turnover(weights: pd.DataFrame) -> pd.DataFrame:
    """Turnover by day, of weights scaled to a gross exposure of 1: from 0 to 2."""
    changes = measures.turnover_by_day(measures.unit_gross(_matrix(weights)))
    return pd.DataFrame({"turnover": changes}, index=weights.index)


def concentration(weights: pd.DataFrame) -> pd.DataFrame:
    """Herfindahl's index by day: 1 / n for n weights of one size, 1 for a single one."""
    index = measures.concentration(_matrix(weights))
    return pd.DataFrame({"concentration": index}, index=weights.index)


def pnl(
    weights: pd.DataFrame, returns: pd.DataFrame, benchmark: pd.Series | None = None
) -> pd.DataFrame:
    """PnL by day of weights scaled to a gross exposure of 1, as a fraction of it.

    returns: of the same dates and symbols, as fractions, from the day before to the day.
    benchmark: daily returns, by date, of what stands in the column "benchmark"; dates that it
        lacks, and infinite returns, are NaN.

    A day's weights earn the next day's returns.

    Raises ValueError for returns of other dates or symbols.
    """
    if not (returns.index.equals(weights.index) and returns.columns.equals(weights.columns)):
        raise ValueError("returns must have the dates and symbols of the weights, in their order")
    earned = measures.pnl(_nan_where_none(weights), _matrix(returns))
    found = pd.DataFrame({"weights": earned}, index=weights.index)
    if benchmark is not None:
        compared = benchmark.reindex(weights.index).astype(np.float64)
        found["benchmark"] = compared.where(np.isfinite(compared))
    return found


def cumulative(earned: pd.DataFrame) -> pd.DataFrame:
    """The running sums of columns, 0 for NaN."""
    return _by_column(earned, measures.cumulative)


def drawdown(earned: pd.DataFrame) -> pd.DataFrame:
    """The running sums of columns less the highest that they have been."""
    return _by_column(earned, measures.drawdown)


def nan_causes(causes: Causes, dates: pd.DatetimeIndex) -> pd.DataFrame:
    """The share of each day's cells by cause of NaN, and of those with a value."""
    shares = causes_by_day(causes)
    return pd.DataFrame({cause.label: shares[cause] for cause in Cause}, index=dates)


def correlations(weights: Mapping[str, pd.DataFrame]) -> pd.DataFrame:
    """The correlations of signals by their names, of weights less each day's mean, scaled.

    Raises ValueError for signals of different dates or symbols.
    """
    (name, first), *others = weights.items()
    for other, frame in others:
        if not (frame.index.equals(first.index) and frame.columns.equals(first.columns)):
            raise ValueError(f"'{other}' has other dates or symbols than '{name}'")
    held = [measures.holdings(_matrix(frame)) for frame in weights.values()]
    names = list(weights)
    return pd.DataFrame(measures.correlations(held), index=names, columns=names)


def _by_column(earned: pd.DataFrame, measure: Callable[[Vector], Vector]) -> pd.DataFrame:
    made = {name: measure(column.to_numpy()) for name, column in earned.items()}
    return pd.DataFrame(made, index=earned.index)


def _matrix(frame: pd.DataFrame) -> Matrix:
    return frame.to_numpy(dtype=np.float64)


def _nan_where_none(weights: pd.DataFrame) -> Matrix:
    """Scaled to a gross exposure of 1; still NaN where there is no weight."""
    values = _matrix(weights)
    return np.where(np.isfinite(values), measures.unit_gross(values), np.nan)
