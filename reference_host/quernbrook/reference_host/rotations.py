"""What the stateless rotations have in common."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import numpy as np
from quernbrook.reference_host.arrays import Row


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
        """Raises TypeError for another number of rows than `arity`."""
        # A ufunc would take a surplus row for its output and overwrite it.
        if len(rows) != self.arity:
            raise TypeError(f"{self.name} takes {self.arity} input(s); got {len(rows)}")
        with np.errstate(all="ignore"):
            return self._compute(*rows)
