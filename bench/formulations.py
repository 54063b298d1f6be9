"""Ranks and rolling statistics written with whole-matrix NumPy operations.

The module's kernels give these results to the last bit; what they save is time and temporaries.
"""

from __future__ import annotations

import numpy as np
from numpy.typing import NDArray

Matrix = NDArray[np.float64]


def rank(data: Matrix) -> Matrix | None:
    """Ranks along each row, from 0 to 1; NaN is not ranked. None if finite values of a row tie."""
    columns = data.shape[1]
    valid = ~np.isnan(data)
    counts = np.sum(valid, axis=1)
    filled = np.where(valid, data, np.inf)
    order = np.argsort(filled, axis=1, kind="mergesort")
    ascending = np.take_along_axis(filled, order, axis=1)
    finite = np.isfinite(ascending)
    if np.any((ascending[:, 1:] == ascending[:, :-1]) & finite[:, 1:] & finite[:, :-1]):
        return None

    result = np.empty(data.shape)
    places = np.broadcast_to(np.arange(columns, dtype=np.float64), data.shape)
    result[np.arange(len(data))[:, np.newaxis], order] = places
    result[~valid] = np.nan
    many, one, none = counts > 1, counts == 1, counts == 0
    if np.any(many):
        result[many] = result[many] / (counts[many] - 1)[:, np.newaxis]
    if np.any(one):
        result[one] = np.where(valid[one], 0.5, np.nan)
    if np.any(none):
        result[none] = np.nan
    return result


def rolling(data: Matrix, window: int, statistic: str) -> Matrix:
    """The mean, std (population) or zscore of each column's last `window` rows.

    NaN where the window isn't full or holds one. Sums are differences of running totals in
    extended precision, so that the cost doesn't depend on the window.
    """
    result = np.full(data.shape, np.nan)
    if len(data) < window:
        return result
    valid = ~np.isnan(data)
    values = np.where(valid, data, 0.0).astype(np.longdouble, copy=False)
    complete = valid[window - 1 :] & (_window_sums((~valid).astype(np.int32), window) == 0)
    if not np.any(complete):
        return result

    target = result[window - 1 :]
    mean = _window_sums(values, window) / window
    if statistic == "mean":
        target[complete] = mean[complete].astype(np.float64)
        return result
    mean_square = _window_sums(values * values, window) / window
    std = np.sqrt(np.maximum(0.0, mean_square - mean * mean))
    if statistic == "std":
        target[complete] = std[complete].astype(np.float64)
        return result
    latest = data[window - 1 :].astype(np.longdouble, copy=False)
    zscore = np.zeros_like(std)
    spread = complete & (std != 0.0)
    zscore[spread] = (latest[spread] - mean[spread]) / std[spread]
    target[complete] = zscore[complete].astype(np.float64)
    return result


def _window_sums(values: NDArray, window: int) -> NDArray:
    totals = np.vstack([np.zeros((1, values.shape[1]), values.dtype), np.cumsum(values, axis=0)])
    return totals[window:] - totals[:-window]
