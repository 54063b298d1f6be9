"""A run in a few figures."""

from __future__ import annotations

import numpy as np
from quernbrook.workbench.seeing.measures import coverage, holdings, turnover
from quernbrook.workbench.sweeps.work import Matrix


def summary(weights: Matrix) -> dict[str, float]:
    """The share of cells with a value, the mean, standard deviation and extremes of those, and the
    daily turnover if they are held as a portfolio (see `quernbrook.workbench.seeing.measures`).

    NaN where there is no value.
    """
    values = weights[np.isfinite(weights)]
    if not values.size:
        values = np.array([np.nan])
    return {
        "coverage": coverage(weights),
        "mean": float(values.mean()),
        "standard_deviation": float(values.std()),
        "minimum": float(values.min()),
        "maximum": float(values.max()),
        "turnover": turnover(holdings(weights)),
    }
