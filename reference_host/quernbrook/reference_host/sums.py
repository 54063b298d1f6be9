"""Sums in one order, whatever the release of NumPy."""

from __future__ import annotations

import numpy as np
from quernbrook.reference_host.arrays import Block, Row

# Some releases take a longer vector in pieces of this length, and add those in order; others don't.
_PIECE = 8192


def sum_of(values: Row) -> float:
    """The sum in NumPy's order: pairwise, pieces of a long vector one after the other."""
    result = 0.0
    for start in range(0, values.size, _PIECE):
        result += float(np.add.reduce(values[start : start + _PIECE]))
    return result


def sum_of_rows(block: Block) -> Row:
    """The sum of each column: row after row, or as `sum_of` where there is but one column."""
    if block.shape[1] == 1:
        return np.array([sum_of(block[:, 0])])
    return np.add.reduce(block, axis=0)
