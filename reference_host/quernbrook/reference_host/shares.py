"""The lowest and highest numbers of one row. NaN cells stay NaN and count for nothing."""

from __future__ import annotations

import math
from functools import partial

import numpy as np
from quernbrook.reference_host.arrays import Row
from quernbrook.reference_host.entries import FunctionEntry, Parameter
from quernbrook.reference_host.rotations import StatelessRotation

# A share of a number of cells that is whole but for rounding counts as whole.
_SLACK = 1e-9


def winsorize(row: Row, share: float) -> Row:
    """The lowest and highest `share` of the numbers, rounded down, become the nearest others."""
    values = np.sort(row[~np.isnan(row)])
    cut = math.floor(share * values.size + _SLACK)
    if cut == 0:
        return row.copy()
    # A share near a half leaves the middle.
    cut = min(cut, (values.size - 1) // 2)
    # A zero is positive.
    low, high = values[cut] + 0.0, values[-1 - cut] + 0.0
    return np.where(row < low, low, np.where(row > high, high, row))


def top_share(row: Row, share: float) -> Row:
    """1 for the highest `share` of the numbers, rounded up, and all that equal one of them."""
    values = np.sort(row[~np.isnan(row)])
    if values.size == 0:
        return row.copy()
    marks = (row >= values[-_size(share, values)]).astype(np.float64)
    return np.where(np.isnan(row), np.nan, marks)


def bottom_share(row: Row, share: float) -> Row:
    """1 for the lowest `share` of the numbers, rounded up, and all that equal one of them."""
    values = np.sort(row[~np.isnan(row)])
    if values.size == 0:
        return row.copy()
    marks = (row <= values[_size(share, values) - 1]).astype(np.float64)
    return np.where(np.isnan(row), np.nan, marks)


def _size(share: float, values: Row) -> int:
    return max(math.ceil(share * values.size - _SLACK), 1)


def _build_winsorize(share: float) -> StatelessRotation:
    if not 0.0 <= share < 0.5:
        raise ValueError(f"share must be at least 0 and below 0.5; got {share:g}")
    return StatelessRotation("latitudinal_winsorize", 1, partial(winsorize, share=share))


def _build_top_share(share: float) -> StatelessRotation:
    _require_share(share)
    return StatelessRotation("latitudinal_top_share", 1, partial(top_share, share=share))


def _build_bottom_share(share: float) -> StatelessRotation:
    _require_share(share)
    return StatelessRotation("latitudinal_bottom_share", 1, partial(bottom_share, share=share))


def _require_share(share: float) -> None:
    if not 0.0 < share <= 1.0:
        raise ValueError(f"share must be above 0 and at most 1; got {share:g}")


FUNCTIONS = tuple(
    FunctionEntry(
        name,
        "latitudinal",
        build=build,
        param_schema={"share": Parameter("float", default)},
        library=True,
    )
    for name, build, default in (
        ("latitudinal_winsorize", _build_winsorize, 0.05),
        ("latitudinal_top_share", _build_top_share, 0.2),
        ("latitudinal_bottom_share", _build_bottom_share, 0.2),
    )
)
