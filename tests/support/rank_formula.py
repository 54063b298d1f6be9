"""The ranks of a whole matrix as NumPy operations, to compare the fast road with."""

from __future__ import annotations

from typing import Any

import numpy as np


def masked_matrix(data: Any, universe: Any) -> np.ndarray:
    """A float64 copy of the matrix, NaN where the universe is 0 or NaN."""
    converted = np.asarray(data, dtype=np.float64)
    if universe is None:
        return converted.copy()
    return np.where((universe == 0.0) | np.isnan(universe), np.nan, converted)


def rank_matrix(data: Any, universe: Any = None) -> Any:
    """The ranks along the rows from 0.0 to 1.0, or None when two finite cells of a row are equal.

    Infinite cells of a row sort stably, and a positive one has the key of an empty cell.
    """
    masked = masked_matrix(data, universe)
    valid = ~np.isnan(masked)
    counts = valid.sum(axis=1)
    keys = np.where(valid, masked, np.inf)
    order = np.argsort(keys, axis=1, kind="mergesort")
    ordered = np.take_along_axis(keys, order, axis=1)
    finite = np.isfinite(ordered)
    if np.any((ordered[:, 1:] == ordered[:, :-1]) & finite[:, 1:] & finite[:, :-1]):
        return None
    rows, columns = masked.shape
    ranks = np.empty((rows, columns), dtype=np.float64)
    places = np.arange(columns, dtype=np.float64)
    ranks[np.arange(rows)[:, None], order] = np.broadcast_to(places, (rows, columns))
    ranks[~valid] = np.nan
    many, single = counts > 1, counts == 1
    ranks[many] = ranks[many] / (counts[many] - 1)[:, None]
    ranks[single] = np.where(valid[single], 0.5, np.nan)
    ranks[counts == 0] = np.nan
    return ranks
