"""What the stateless rotations have in common."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import numpy as np
from quernbrook.reference_host.arrays import Row


def as_rows(name: str, arity: int, rows: tuple[Any, ...]) -> list[Row]:
    """The arguments of a call as float64 rows.

    Raises TypeError for another number of them than `arity`, ValueError for other dimensions and
    for different widths.
    """
    if len(rows) != arity:
        raise TypeError(f"{name} takes {arity} input(s); got {len(rows)}")
    arrays = [np.asarray(row, dtype=np.float64) for row in rows]
    for array in arrays:
        if array.ndim != 1:
            raise ValueError(f"{name}: a row must have 1 dimension(s); got {array.ndim}")
    widths = [array.size for array in arrays]
    if len(set(widths)) > 1:
        text = ", ".join(str(width) for width in widths)
        raise ValueError(f"{name}: rows have different widths: {text}")
    return arrays


class StatelessRotation:
    """A rotation that is a plain function of the rows of one time step.

    `compute` takes `arity` float64 vectors of N_alloc and returns a new one. It runs with
    NumPy's floating-point warnings off, for infinities and NaN are data here like any other.
    """

    stateful = False

    def __init__(self, name: str, arity: int, compute: Callable[..., Row]) -> None:
        self.name = name
        self.arity = arity
        self._compute = compute

    def __call__(self, *rows: Row, context: Any = None) -> Row:
        """Take array-likes of one width and return a new row. Raises as `as_rows` does."""
        arrays = as_rows(self.name, self.arity, rows)
        with np.errstate(all="ignore"):
            return self._compute(*arrays)
