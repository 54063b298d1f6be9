"""Operations across the columns of one row. NaN cells stay NaN and count for nothing."""

from __future__ import annotations

from collections.abc import Callable
from functools import partial

import numpy as np
from quernbrook.reference_host.arrays import Row
from quernbrook.reference_host.entries import FunctionEntry, Parameter
from quernbrook.reference_host.rotations import StatelessRotation
from quernbrook.reference_host.sums import sum_of


def rank(row: Row, lone: float) -> Row:
    """Rank from 0 (smallest) to 1 (largest), ties sharing their average; `lone` if there is one."""
    result = np.full(row.shape, np.nan)
    valid = ~np.isnan(row)
    values = row[valid]
    if values.size == 1:
        result[valid] = lone
    elif values.size > 1:
        result[valid] = _positions(values) / (values.size - 1)
    return result


def _positions(values: Row) -> Row:
    """The place of each value in the sorted row, from 0, ties sharing their average."""
    order = values.argsort(kind="stable")
    in_order = values[order]
    places: Row = np.arange(values.size, dtype=np.float64)
    is_tied = in_order[1:] == in_order[:-1]
    if is_tied.any():
        first_of_run = np.flatnonzero(np.concatenate(([True], ~is_tied)))
        lengths = np.diff(first_of_run, append=values.size)
        places = np.repeat(first_of_run + (lengths - 1) / 2, lengths)
    positions = np.empty(values.size)
    positions[order] = places
    return positions


def demean(row: Row) -> Row:
    """The row less its mean."""
    values = row[~np.isnan(row)]
    if values.size == 0:
        return row.copy()
    # Measured from one of its own values, a constant row comes out as exact zeros.
    return (row - values[0]) - sum_of(values - values[0]) / values.size


def zscore(row: Row) -> Row:
    """The row less its mean, in population standard deviations; 0 where all values are equal."""
    centred = demean(row)
    values = centred[~np.isnan(row)]
    if values.size == 0:
        return centred
    deviation = np.sqrt(sum_of(values * values) / values.size)
    return centred if deviation == 0.0 else centred / deviation


def demean_within_groups(row: Row, group: Row) -> Row:
    """The row less the mean of each column's group; NaN where the group is."""
    result = np.full(row.shape, np.nan)
    valid = ~(np.isnan(row) | np.isnan(group))
    for number in np.unique(group[valid]):
        members = valid & (group == number)
        result[members] = demean(row[members])
    return result


def scale(row: Row, total: float, infinities_as_nan: bool) -> Row:
    """The row times a factor, so that its absolute values sum to `total`; a zero row as it is.

    With `infinities_as_nan`, an infinity is NaN, and a zero row, whose factor would be infinite.
    """
    if infinities_as_nan:
        row = np.where(np.isfinite(row), row, np.nan)
    size = sum_of(np.where(np.isnan(row), 0.0, np.abs(row)))
    if size == 0.0:
        return np.full(row.shape, np.nan) if infinities_as_nan else row.copy()
    return row * (total / size)


def _build_relative_rank(lone: float) -> StatelessRotation:
    return StatelessRotation("latitudinal_relative_rank", 1, partial(rank, lone=lone))


def _build_scale(total: float, infinities_as_nan: bool) -> StatelessRotation:
    compute = partial(scale, total=total, infinities_as_nan=infinities_as_nan)
    return StatelessRotation("latitudinal_scale", 1, compute)


_OPERATIONS: dict[str, tuple[int, Callable[..., Row]]] = {
    "latitudinal_rank": (1, partial(rank, lone=0.5)),
    "latitudinal_demean": (1, demean),
    "latitudinal_zscore": (1, zscore),
    "latitudinal_demean_within_groups": (2, demean_within_groups),
}

FUNCTIONS = (
    *(
        FunctionEntry(
            name,
            "latitudinal",
            build=partial(StatelessRotation, name, arity, compute),
            library=True,
        )
        for name, (arity, compute) in _OPERATIONS.items()
    ),
    # A name of its own: the evaluator computes latitudinal_rank on whole matrices, without a look
    # at its configuration.
    FunctionEntry(
        "latitudinal_relative_rank",
        "latitudinal",
        build=_build_relative_rank,
        param_schema={"lone": Parameter("number", np.nan)},
        library=True,
    ),
    FunctionEntry(
        "latitudinal_scale",
        "latitudinal",
        build=_build_scale,
        param_schema={
            "total": Parameter("float", 1.0),
            "infinities_as_nan": Parameter("flag", False),
        },
        library=True,
    ),
)
