"""Arithmetic, cell by cell. NaN in any input gives NaN, and division follows IEEE 754."""

from __future__ import annotations

from functools import partial

import numpy as np
from quernbrook.reference_host.entries import FunctionEntry
from quernbrook.reference_host.rotations import StatelessRotation

_OPERATIONS = {
    "numerical_add": (2, np.add),
    "numerical_subtract": (2, np.subtract),
    "numerical_multiply": (2, np.multiply),
    "numerical_divide": (2, np.divide),
    "numerical_negate": (1, np.negative),
}

FUNCTIONS = tuple(
    FunctionEntry(
        name, "numerical", build=partial(StatelessRotation, name, arity, compute), library=True
    )
    for name, (arity, compute) in _OPERATIONS.items()
)
