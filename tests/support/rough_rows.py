"""Rows that functions find hard: ties, NaN, infinities, zeros of both signs, very large and small."""

from __future__ import annotations

import numpy as np

NUMBERS = [0.0, -0.0, 1.0, -1.0, 2.0, 0.5, -0.5, 3.0, 0.1, 0.1, 1e300, -1e300, 1e-300, 5e-324]
HARD = np.array([*NUMBERS, np.inf, -np.inf, np.nan])
KINDS = 6


def rough_row(rng: np.random.Generator, columns: int, kind: int) -> np.ndarray:
    if kind % KINDS == 0:
        return rng.choice(HARD, columns)
    if kind % KINDS == 1:
        return rng.normal(size=columns)
    if kind % KINDS == 2:
        return with_holes(rng, rng.lognormal(0.0, 3.0, size=columns), 0.3)
    if kind % KINDS == 3:
        return rng.integers(-3, 4, columns).astype(np.float64)
    if kind % KINDS == 4:
        return with_holes(rng, np.round(rng.normal(size=columns), 1), 0.1)
    return np.full(columns, rng.choice(HARD))


def with_holes(rng: np.random.Generator, row: np.ndarray, share: float) -> np.ndarray:
    row[rng.random(row.size) < share] = np.nan
    return row


def rough_matrix(seed: int, rows: int, columns: int) -> np.ndarray:
    rng = np.random.default_rng(seed)
    kinds = rng.integers(KINDS, size=rows)
    matrix = np.array([rough_row(rng, columns, int(kind)) for kind in kinds])
    return matrix.reshape(rows, columns)


def bits(values: np.ndarray) -> list[int]:
    """What must be equal: the bits of numbers, and that a NaN is one, whichever."""
    return np.where(np.isnan(values), np.nan, values).view(np.int64).ravel().tolist()
