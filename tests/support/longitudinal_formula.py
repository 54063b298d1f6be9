"""Rolling statistics of a whole matrix as NumPy operations, to compare the fast road with."""

from __future__ import annotations

from typing import Any

import numpy as np

EXTENDED = np.longdouble


def totals(steps: np.ndarray, dtype: Any = None) -> np.ndarray:
    """Row k is the sum of the first k rows."""
    start = np.zeros((1, steps.shape[1]), dtype=steps.dtype)
    return np.vstack([start, np.cumsum(steps, axis=0, dtype=dtype)])


def rolling_matrix(data: Any, window: Any, name: str) -> np.ndarray:
    """The statistic `name` of every window that holds no NaN, in the window's last row.

    The order of the operations decides the last bits, and what a window below 1 raises.
    """
    data = np.asarray(data, dtype=np.float64)
    rows, columns = data.shape
    result = np.full((rows, columns), np.nan)
    if rows < window:
        return result
    valid = ~np.isnan(data)
    filled = np.where(valid, data, 0.0).astype(EXTENDED, copy=False)
    sums = totals(filled, EXTENDED)
    holes = totals((~valid).astype(np.int32))
    window_sum = sums[window:] - sums[:-window]
    window_holes = holes[window:] - holes[:-window]
    computable = valid[window - 1 :] & (window_holes == 0)
    if not np.any(computable):
        return result
    tail = result[window - 1 :]
    if name == "longitudinal_mean":
        values = window_sum / window
    else:
        squares = totals(filled * filled, EXTENDED)
        window_squares = squares[window:] - squares[:-window]
        mean = window_sum / window
        variance = np.maximum(0.0, (window_squares / window) - (mean * mean))
        values = std = np.sqrt(variance, dtype=EXTENDED)
        if name != "longitudinal_std":
            latest = data[window - 1 :].astype(EXTENDED, copy=False)
            values = np.zeros_like(std, dtype=EXTENDED)
            spread = computable & (std != 0.0)
            values[spread] = (latest[spread] - mean[spread]) / std[spread]
    tail[computable] = np.asarray(values[computable], dtype=np.float64)
    return result
