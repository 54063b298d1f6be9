"""Operations across the columns of one row. NaN cells stay NaN and count for nothing."""

from __future__ import annotations

from functools import partial

import numpy as np
from quernbrook.reference_host.arrays import Row
from quernbrook.reference_host.entries import FunctionEntry, Parameter
from quernbrook.reference_host.rotations import StatelessRotation


def rank(row: Row) -> Row:
    """Rank from 0 (smallest) to 1 (largest), ties sharing their average; 0.5 for a lone value."""
    result = np.full(row.shape, np.nan)
    valid = ~np.isnan(row)
    values = row[valid]
    if values.size == 1:
        result[valid] = 0.5
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
    return (row - values[0]) - (values - values[0]).mean()


def zscore(row: Row) -> Row:
    """The row less its mean, in population standard deviations; 0 where all values are equal."""
    centred = demean(row)
    values = centred[~np.isnan(row)]
    if values.size == 0:
        return centred
    deviation = np.sqrt(np.mean(values * values))
    return centred if deviation == 0.0 else centred / deviation


def scale(row: Row, total: float) -> Row:
    """The row times a factor, so that its absolute values sum to `total`; a zero row as it is."""
    size = np.nansum(np.abs(row))
    return row.copy() if size == 0.0 else row * (total / size)


def _build_scale(total: float) -> StatelessRotation:
    return StatelessRotation("latitudinal_scale", 1, partial(scale, total=total))


FUNCTIONS = (
    *(
        FunctionEntry(
            name, "latitudinal", build=partial(StatelessRotation, name, 1, compute), library=True
        )
        for name, compute in (
            ("latitudinal_rank", rank),
            ("latitudinal_demean", demean),
            ("latitudinal_zscore", zscore),
        )
    ),
    FunctionEntry(
        "latitudinal_scale",
        "latitudinal",
        build=_build_scale,
        param_schema={"total": Parameter("float", 1.0)},
        library=True,
    ),
)
