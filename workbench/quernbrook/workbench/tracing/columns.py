"""What is odd in the values of one node in one column: NaNs, infinities and jumps."""

from __future__ import annotations

from dataclasses import dataclass

import numpy as np
from numpy.typing import NDArray

Column = NDArray[np.float64]
Flags = NDArray[np.bool_]

# A change is a jump if it is beyond so many median changes ...
JUMP_FACTOR = 10.0
# ... of so many rows before it ...
JUMP_ROWS = 60
# ... of which so many at least must be changes between numbers.
JUMP_LEAST = 20


@dataclass(frozen=True)
class Oddities:
    """Flags of a column, row by row."""

    nan: Flags
    infinity: Flags
    jump: Flags

    @classmethod
    def of(cls, values: Column, jump_factor: float) -> Oddities:
        return cls(np.isnan(values), np.isinf(values), jumps(values, jump_factor))


def jumps(values: Column, factor: float = JUMP_FACTOR) -> Flags:
    """Where a value differs from that of the row before by more than `factor` times the median of
    the absolute changes in the JUMP_ROWS rows before.

    Changes from or to NaN or infinity are none; where fewer than JUMP_LEAST others came before,
    nothing is a jump. A median of 0 makes any change one.
    """
    found = np.zeros(len(values), dtype=bool)
    with np.errstate(all="ignore"):
        changes = np.abs(np.diff(values))
    if len(changes) <= JUMP_LEAST:
        return found
    changes[~np.isfinite(changes)] = np.nan
    lead = np.concatenate([np.full(JUMP_ROWS, np.nan), changes[:-1]])
    before = np.lib.stride_tricks.sliding_window_view(lead, JUMP_ROWS)
    enough = np.count_nonzero(~np.isnan(before), axis=1) >= JUMP_LEAST
    medians = np.full(len(changes), np.nan)
    if enough.any():
        medians[enough] = np.nanmedian(before[enough], axis=1)
    with np.errstate(invalid="ignore"):
        found[1:] = changes > factor * medians
    return found
