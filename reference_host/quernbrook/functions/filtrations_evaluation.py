"""Filter trees over a pool of signals: their records, their errors and their evaluation."""

from __future__ import annotations

import math
import numbers
import operator
from collections.abc import Callable, Iterator, Mapping, Sequence
from dataclasses import dataclass, field
from typing import Any

from quernbrook.simulator_engine._types import UsefulSignal

Pool = Mapping[str, UsefulSignal]


class InvalidFilterError(ValueError):
    """A filter tree that can't be evaluated: wrong arity, missing parameter or field."""


class _EmptyError(Exception):
    def __init__(self, message: str, filter_diagnostics: dict[str, Any] | None = None) -> None:
        super().__init__(message)
        self.filter_diagnostics = {} if filter_diagnostics is None else filter_diagnostics


class EmptyPoolError(_EmptyError):
    """There was no signal to filter. ``filter_diagnostics`` tells the sizes."""


class EmptyFiltrationError(_EmptyError):
    """No signal passed. ``filter_diagnostics`` tells how many passed each filter of the tree."""


@dataclass
class FilterNode:
    """One filter: its operator, its parameters and the filters that it combines."""

    function_name: str
    params: dict[str, Any] = field(default_factory=dict)
    children: list[FilterNode] = field(default_factory=list)


@dataclass
class FiltrationResult:
    """The ids that passed, out of a pool of ``total_pool_size`` signals."""

    passing_ids: Sequence[str]
    signal_count: int
    total_pool_size: int
    filter_diagnostics: Any = field(default_factory=list)


_COMPARISONS: dict[str, Callable[[Any, Any], bool]] = {
    "gt": operator.gt,
    "lt": operator.lt,
    "gte": operator.ge,
    "lte": operator.le,
    "eq": operator.eq,
    "neq": operator.ne,
}

# Name of each operator to the parameters that it must have.
_FIELD_OPERATORS: dict[str, tuple[str, ...]] = {
    **dict.fromkeys(_COMPARISONS, ("field", "value")),
    "between": ("field", "low", "high"),
    "in_": ("field", "values"),
    "top_pct": ("field", "pct"),
    "bottom_pct": ("field", "pct"),
    "top_n": ("field", "n"),
    "bottom_n": ("field", "n"),
}

# Name of each combining operator to the least and the largest number of filters under it.
_COMBINING_OPERATORS: dict[str, tuple[int, float]] = {
    "filtration": (0, math.inf),
    "and_": (1, math.inf),
    "or_": (1, math.inf),
    "not_": (1, 1),
}

OPERATORS = frozenset({*_FIELD_OPERATORS, *_COMBINING_OPERATORS})


def describe(node: FilterNode) -> str:
    """Return the filter as text, with its parameters: "and_(gt(momentum, 0.5), not_(...))"."""
    operands = [str(value) for value in node.params.values()]
    operands += [describe(child) for child in node.children]
    return f"{node.function_name}({', '.join(operands)})"


def require_valid(node: FilterNode) -> None:
    """Raise InvalidFilterError unless every filter of the tree has what its operator needs."""
    for fault in faults_of(node):
        raise InvalidFilterError(fault)
    for child in node.children:
        require_valid(child)


def faults_of(node: FilterNode) -> Iterator[str]:
    """Yield what this filter lacks or has too much of, apart from the filters under it."""
    name, params, count = node.function_name, node.params, len(node.children)
    if name in _COMBINING_OPERATORS:
        least, largest = _COMBINING_OPERATORS[name]
        if not least <= count <= largest:
            wanted = "exactly one filter" if largest == 1 else "at least one filter"
            yield f"filter '{name}' takes {wanted}; got {count}"
        return
    if name not in _FIELD_OPERATORS:
        yield f"unknown filter '{name}'"
        return
    missing = [key for key in _FIELD_OPERATORS[name] if key not in params]
    if missing:
        yield f"filter '{name}' lacks {', '.join(missing)}"
    if count:
        yield f"filter '{name}' compares a field and takes no filters"
    if missing:
        return
    if name == "between" and not params["low"] <= params["high"]:
        yield f"filter 'between' needs low <= high; got {params['low']} and {params['high']}"
    if name in ("top_pct", "bottom_pct") and not 0.0 < params["pct"] <= 1.0:
        yield f"filter '{name}' needs 0 < pct <= 1; got {params['pct']}"
    if name in ("top_n", "bottom_n") and params["n"] < 1:
        yield f"filter '{name}' needs n >= 1; got {params['n']}"


def passing_ids(node: FilterNode, pool: Pool) -> set[str]:
    """Return the ids of the signals of `pool` that pass the filter.

    Every filter sees the whole pool: `and_` (and `filtration`) intersects what its filters pass,
    `or_` unites it and `not_` takes the rest of the pool. Of the rankings, `top_pct` and
    `bottom_pct` round the number of signals up; a signal with a NaN field is not ranked, and
    among equals the id decides. NaN passes no comparison but `neq`.

    Raises InvalidFilterError for a field that a signal doesn't have or that can't be compared.
    """
    name = node.function_name
    if name == "or_":
        return set().union(*(passing_ids(child, pool) for child in node.children))
    if name == "not_":
        return set(pool) - passing_ids(node.children[0], pool)
    if name in _COMBINING_OPERATORS:
        return set(pool).intersection(*(passing_ids(child, pool) for child in node.children))
    values = {sid: _field_value(sid, signal, node) for sid, signal in pool.items()}
    try:
        return _passing_field(node, values)
    except TypeError as error:
        raise InvalidFilterError(f"filter {describe(node)}: {error}") from error


def _field_value(sid: str, signal: UsefulSignal, node: FilterNode) -> Any:
    name = node.params["field"]
    if name not in signal.fields:
        raise InvalidFilterError(f"filter {describe(node)}: signal '{sid}' has no field '{name}'")
    return signal.fields[name]


def _passing_field(node: FilterNode, values: dict[str, Any]) -> set[str]:
    name, params = node.function_name, node.params
    if name in _COMPARISONS:
        compare = _COMPARISONS[name]
        return {sid for sid, value in values.items() if compare(value, params["value"])}
    if name == "between":
        low, high = params["low"], params["high"]
        return {sid for sid, value in values.items() if low <= value <= high}
    if name == "in_":
        return {sid for sid, value in values.items() if value in params["values"]}
    ranked = sorted(sid for sid, value in values.items() if not _is_nan(value))
    ranked.sort(key=values.__getitem__, reverse=name.startswith("top_"))
    return set(ranked[: _ranked_count(node, len(ranked))])


def _is_nan(value: Any) -> bool:
    return isinstance(value, numbers.Real) and math.isnan(value)


def _ranked_count(node: FilterNode, size: int) -> int:
    if "n" in node.params:
        return node.params["n"]
    # The allowance keeps 0.07 of 100 at 7, though the product is 7.000000000000001.
    return math.ceil(node.params["pct"] * size - 1e-9)
