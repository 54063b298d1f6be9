"""A run in a few figures."""

from __future__ import annotations

import numpy as np
from quernbrook.workbench.seeing.measures import (
    coverage,
    holdings,
    mean_of_days,
    turnover_by_day,
)
from quernbrook.workbench.sweeps.work import Matrix

_CELLS_AT_ONCE = 2**17


def summary(weights: Matrix) -> dict[str, float]:
    """The share of cells with a value, the mean, standard deviation and extremes of those, and the
    daily turnover if they are held as a portfolio (see `quernbrook.workbench.seeing.measures`).

    NaN where there is no value.
    """
    return {"coverage": coverage(weights)} | _statistics(weights) | {"turnover": _turnover(weights)}


def _statistics(weights: Matrix) -> dict[str, float]:
    values = weights[np.isfinite(weights)]
    if not values.size:
        values = np.array([np.nan])
    return {
        "mean": float(values.mean()),
        "standard_deviation": float(values.std()),
        "minimum": float(values.min()),
        "maximum": float(values.max()),
    }


def _turnover(weights: Matrix) -> float:
    """In parts, each with the row before it: a worker's memory is for matrices of features."""
    count = max(1, _CELLS_AT_ONCE // max(1, weights.shape[1]))
    changes = [
        turnover_by_day(holdings(weights[max(first - 1, 0) : first + count]))[min(first, 1) :]
        for first in range(0, len(weights), count)
    ]
    return mean_of_days(np.concatenate(changes))
