"""The weights of passing signals at one time step, for outside callers."""

import operator
from typing import Any

import numpy as np


def extract_filtration_weights(useful_signals: Any, passing_ids: Any, t: Any) -> np.ndarray:
    """Extract weight rows for all passing signals at timestep t.

    Returns ndarray of shape (A, N_alloc) with rows ordered by passing_ids.
    """
    t = _int32(t)
    if passing_ids is None or len(passing_ids) == 0:
        N_alloc_c = 0
        if useful_signals is not None and len(useful_signals) > 0:
            N_alloc_c = next(iter(useful_signals.values())).weights.shape[1]
        return np.empty((0, N_alloc_c), dtype=np.float64)

    first_sig = useful_signals[passing_ids[0]]
    T_c = first_sig.weights.shape[0]
    N_alloc_c = first_sig.weights.shape[1]
    if t < 0 or t >= T_c:
        raise IndexError(f"t={t} out of bounds for weights array with valid range [0, {T_c})")
    for sid in passing_ids:
        if sid is not None and not isinstance(sid, str):
            raise TypeError(f"Expected str, got {type(sid).__name__}")
        if sid not in useful_signals:
            raise KeyError(sid)

    n_passing = len(passing_ids)
    result = np.empty((n_passing, N_alloc_c), dtype=np.float64)
    for i in range(n_passing):
        sid = passing_ids[i]
        src = useful_signals[sid].weights
        result[i, :] = src[t, :]
    return result


def _int32(value: Any) -> int:
    number = operator.index(value)
    if number > 2**31 - 1:
        raise OverflowError("signed integer is greater than maximum")
    if number < -(2**31):
        raise OverflowError("signed integer is less than minimum")
    return number
