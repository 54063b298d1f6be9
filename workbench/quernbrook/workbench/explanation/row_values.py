"""What each node gives for one row, and the time that it takes."""

from __future__ import annotations

import copy
from collections.abc import Mapping
from time import perf_counter
from typing import Any

import numpy as np
from quernbrook.workbench.explanation.inputs import ExplanationError, Inputs, evaluator
from quernbrook.workbench.explanation.records import RowValue
from quernbrook.workbench.graphs import FILTERS, FUNCTIONS


def row_values(run: Inputs | None, row: int | str) -> Mapping[str, RowValue]:
    """Evaluate the rows up to the one that is wanted, each function by calls with one row.

    Neither the context nor states nor bound instances are touched: all are copies. The functions
    are the registry's, so that what they keep elsewhere, they keep there, too.

    Raises ExplanationError, and what `evaluate` raises.
    """
    if run is None:
        raise ExplanationError("a graph or data that can't be read have no values")
    number = _number(run, row)
    context = _shortened(run, number)
    timed: list[_Timed] = []
    bound = None
    if run.bound is not None:
        bound = {path: _Timed(_copied(path, one)) for path, one in run.bound.items()}
    elif run.registry is not None:
        context.registry = _timing_registry(run.registry, timed)
    evaluator.evaluate(
        run.graph,
        context,
        copy.deepcopy(run.states),
        run.cold,
        bound_function_instances=bound,
        data_nan_features=run.missing,
    )
    functions = [path for path, node in run.nodes.items() if node.type in FUNCTIONS]
    instances = bound if bound is not None else dict(zip(functions, timed, strict=True))
    # The registers hold the last row of every node, in the order of the nodes.
    rows = zip(run.nodes.items(), context.registers, strict=True)
    return {
        path: _row_value(values, instances.get(path))
        for (path, node), values in rows
        if node.type not in FILTERS
    }


def _number(run: Inputs, row: int | str) -> int:
    rows = run.shape[0]
    if isinstance(row, str):
        return _number_of_date(run, row)
    if not 0 <= row < rows:
        raise ExplanationError(f"there is no row {row}: they go from 0 to {rows - 1}")
    if run.cold and row != rows - 1:
        # Which rows a reduction is shown first depends on how many there are.
        raise ExplanationError(f"a cold start can be shown at its last row alone, {rows - 1}")
    return row


def _number_of_date(run: Inputs, text: str) -> int:
    import pandas as pd

    if run.dates is None:
        raise ExplanationError(f"a context has no dates: give the number of a row, not {text!r}")
    try:
        date = pd.Timestamp(text)
    except ValueError:
        raise ExplanationError(f"{text!r} is no date: write 2024-01-31") from None
    number = int(run.dates.searchsorted(date))
    if number < len(run.dates) and run.dates[number] == date:
        return _number(run, number)
    first, last = (one.date().isoformat() for one in (run.dates[0], run.dates[-1]))
    raise ExplanationError(f"the data have no row for {text}; they go from {first} to {last}")


def _shortened(run: Inputs, row: int) -> Any:
    """A context of the rows up to this one; universe and signals may go on."""
    context = copy.copy(run.context)
    context.features = tuple(feature[: row + 1] for feature in run.context.features)
    context._skip_evaluation_shape_validation = True
    context._collect_node_outputs = context._collect_states = False
    return context


def _copied(path: str, instance: Any) -> Any:
    try:
        return copy.deepcopy(instance)
    except Exception as error:
        text = f"the instance bound to {path} can't be copied: {type(error).__name__}: {error}"
        raise ExplanationError(text) from error


class _Timed:
    """An instance without its kernel, and the seconds of its last call."""

    def __init__(self, instance: Any) -> None:
        self._instance = instance
        self.seconds: float | None = None

    def __getattr__(self, name: str) -> Any:
        return getattr(self._instance, name)

    def __call__(self, *rows: Any, **keywords: Any) -> Any:
        start = perf_counter()
        result = self._instance(*rows, **keywords)
        self.seconds = perf_counter() - start
        return result


class _TimingRegistry:
    def __init__(self, registry: Any, made: list[_Timed]) -> None:
        self._registry = registry
        self._made = made

    def __getattr__(self, name: str) -> Any:
        return getattr(self._registry, name)

    def has_factory(self, name: str) -> bool:
        # Otherwise a fast road may do without instances.
        return True

    def create_instance(self, name: str, /, **config: Any) -> Any:
        return self._timed(self._registry.create_instance(name, **config))

    def create_instance_from_state(self, name: str, state: Any, /, **config: Any) -> Any:
        return self._timed(self._registry.create_instance_from_state(name, state, **config))

    def _timed(self, instance: Any) -> _Timed:
        self._made.append(_Timed(instance))
        return self._made[-1]


def _timing_registry(registry: Any, made: list[_Timed]) -> Any:
    # A registry's typed states are looked up in the module of its class.
    module = type(registry).__module__
    return type("TimingRegistry", (_TimingRegistry,), {"__module__": module})(registry, made)


def _row_value(values: Any, timed: _Timed | None) -> RowValue:
    share = float(np.isnan(values).mean()) if values.size else 0.0
    return RowValue(tuple(map(float, values)), share, None if timed is None else timed.seconds)
