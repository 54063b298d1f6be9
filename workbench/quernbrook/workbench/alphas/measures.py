"""How formulas are compared with each other."""

from __future__ import annotations

import numpy as np
from quernbrook.workbench.panels.panel import Matrix

# Correlations are taken over so many days at most, evenly spread.
_CORRELATED_DAYS = 250


def correlated_days(day_count: int) -> slice:
    """The days over which holdings of different formulas are compared."""
    return slice(None, None, -(-day_count // _CORRELATED_DAYS))


def mean_absolute_correlations(matrix: Matrix) -> Matrix:
    """Of each formula with all others that hold something; NaN where there are none."""
    others = np.abs(matrix)
    np.fill_diagonal(others, np.nan)
    counts = (~np.isnan(others)).sum(axis=1)
    sums = np.nansum(others, axis=1)
    return np.divide(sums, counts, out=np.full(len(sums), np.nan), where=counts > 0)
