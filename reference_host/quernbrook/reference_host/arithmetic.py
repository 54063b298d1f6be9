"""Arithmetic, cell by cell. NaN in any input gives NaN, but where told otherwise."""

from __future__ import annotations

import math
from collections.abc import Callable
from functools import partial

import numpy as np
from quernbrook.reference_host.arrays import Row
from quernbrook.reference_host.entries import FunctionEntry, Parameter
from quernbrook.reference_host.rotations import StatelessRotation


def divide(x: Row, y: Row, *, infinities_as_nan: bool) -> Row:
    """The quotient as IEEE 754 has it; with `infinities_as_nan`, an infinite one is NaN."""
    quotient = x / y
    return np.where(np.isfinite(quotient), quotient, np.nan) if infinities_as_nan else quotient


def minimum(x: Row, y: Row, *, skip_nan: bool) -> Row:
    """The lesser, of equal ones x; with `skip_nan`, a NaN counts only beside another."""
    chosen = np.where((x <= y) | np.isnan(y), x, y)
    return chosen if skip_nan else np.where(np.isnan(x) | np.isnan(y), np.nan, chosen)


def maximum(x: Row, y: Row, *, skip_nan: bool) -> Row:
    """The greater, of equal ones x; with `skip_nan`, a NaN counts only beside another."""
    chosen = np.where((x >= y) | np.isnan(y), x, y)
    return chosen if skip_nan else np.where(np.isnan(x) | np.isnan(y), np.nan, chosen)


# NumPy has logarithms and powers of its own, which differ in the last bits from one processor to
# the next. The C library's, which math has, are those of the functions in machine code.


def logarithm(row: Row) -> Row:
    """The natural logarithm; NaN for zero and less."""
    return np.array([math.log(x) if x > 0.0 else math.nan for x in row.tolist()], dtype=np.float64)


def power(base: Row, exponent: Row) -> Row:
    """A negative base keeps its sign for odd whole exponents, and is NaN for broken ones."""
    pairs = zip(base.tolist(), exponent.tolist(), strict=True)
    return np.array([_power(x, y) for x, y in pairs], dtype=np.float64)


def signed_power(base: Row, exponent: Row) -> Row:
    """The sign of the base times the power of its absolute value."""
    return np.sign(base) * power(np.abs(base), exponent)


def _power(base: float, exponent: float) -> float:
    if math.isnan(base) or math.isnan(exponent):
        return math.nan
    if exponent == 2.0:
        return base * base
    if exponent == 0.5 and base >= 0.0:
        return math.sqrt(base + 0.0)  # -0.0 has the root 0.0
    try:
        return math.pow(base, exponent)
    except (OverflowError, ValueError):
        if base < 0.0 and not exponent.is_integer():
            return math.nan
        # Too large, or zero to a negative power.
        return math.copysign(math.inf, base) if exponent % 2.0 == 1.0 else math.inf


def _build_divide(infinities_as_nan: bool) -> StatelessRotation:
    compute = partial(divide, infinities_as_nan=infinities_as_nan)
    return StatelessRotation("numerical_divide", 2, compute)


def _build_minimum(skip_nan: bool) -> StatelessRotation:
    return StatelessRotation("numerical_minimum", 2, partial(minimum, skip_nan=skip_nan))


def _build_maximum(skip_nan: bool) -> StatelessRotation:
    return StatelessRotation("numerical_maximum", 2, partial(maximum, skip_nan=skip_nan))


_OPERATIONS: dict[str, tuple[int, Callable[..., Row]]] = {
    "numerical_add": (2, np.add),
    "numerical_subtract": (2, np.subtract),
    "numerical_multiply": (2, np.multiply),
    "numerical_negate": (1, np.negative),
    "numerical_absolute": (1, np.abs),
    "numerical_sign": (1, np.sign),
    "numerical_logarithm": (1, logarithm),
    "numerical_power": (2, power),
    "numerical_signed_power": (2, signed_power),
}

FUNCTIONS = (
    *(
        FunctionEntry(
            name, "numerical", build=partial(StatelessRotation, name, arity, compute), library=True
        )
        for name, (arity, compute) in _OPERATIONS.items()
    ),
    FunctionEntry(
        "numerical_divide",
        "numerical",
        build=_build_divide,
        param_schema={"infinities_as_nan": Parameter("flag", False)},
        library=True,
    ),
    FunctionEntry(
        "numerical_minimum",
        "numerical",
        build=_build_minimum,
        param_schema={"skip_nan": Parameter("flag", True)},
        library=True,
    ),
    FunctionEntry(
        "numerical_maximum",
        "numerical",
        build=_build_maximum,
        param_schema={"skip_nan": Parameter("flag", True)},
        library=True,
    ),
)
