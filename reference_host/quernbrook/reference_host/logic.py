"""Comparisons and truth, cell by cell.

Results are 1 and 0, and NaN where the truth is not known. Any number but zero is true.
"""

from __future__ import annotations

from collections.abc import Callable
from functools import partial

import numpy as np
from quernbrook.reference_host.arrays import Row
from quernbrook.reference_host.entries import FunctionEntry, Parameter
from quernbrook.reference_host.rotations import StatelessRotation


def compare(x: Row, y: Row, *, relation: np.ufunc, ieee: bool) -> Row:
    """NaN beside a NaN; with `ieee`, what IEEE 754 says: false, and inequality true."""
    holds = relation(x, y).astype(np.float64)
    return holds if ieee else np.where(np.isnan(x) | np.isnan(y), np.nan, holds)


def both(x: Row, y: Row) -> Row:
    """0 beside a zero, even if the other is NaN (Kleene's three-valued logic)."""
    unknown = np.isnan(x) | np.isnan(y)
    return np.where((x == 0.0) | (y == 0.0), 0.0, np.where(unknown, np.nan, 1.0))


def either(x: Row, y: Row) -> Row:
    """1 beside a true one, even if the other is NaN (Kleene's three-valued logic)."""
    holds = (np.abs(x) > 0.0) | (np.abs(y) > 0.0)
    return np.where(holds, 1.0, np.where(np.isnan(x) | np.isnan(y), np.nan, 0.0))


def negation(x: Row) -> Row:
    return np.where(np.isnan(x), np.nan, np.where(x == 0.0, 1.0, 0.0))


def where(condition: Row, x: Row, y: Row) -> Row:
    """x where the condition is true, y where it is zero, NaN where it is NaN."""
    return np.where(np.isnan(condition), np.nan, np.where(condition == 0.0, y, x))


def _build_comparison(name: str, relation: np.ufunc, ieee: bool) -> StatelessRotation:
    return StatelessRotation(name, 2, partial(compare, relation=relation, ieee=ieee))


_RELATIONS = {
    "numerical_less": np.less,
    "numerical_less_equal": np.less_equal,
    "numerical_greater": np.greater,
    "numerical_greater_equal": np.greater_equal,
    "numerical_equal": np.equal,
    "numerical_not_equal": np.not_equal,
}

_OPERATIONS: dict[str, tuple[int, Callable[..., Row]]] = {
    "numerical_and": (2, both),
    "numerical_or": (2, either),
    "numerical_not": (1, negation),
    "numerical_where": (3, where),
}

FUNCTIONS = (
    *(
        FunctionEntry(
            name,
            "numerical",
            build=partial(_build_comparison, name, relation),
            param_schema={"ieee": Parameter("flag", False)},
            library=True,
        )
        for name, relation in _RELATIONS.items()
    ),
    *(
        FunctionEntry(
            name, "numerical", build=partial(StatelessRotation, name, arity, compute), library=True
        )
        for name, (arity, compute) in _OPERATIONS.items()
    ),
)
