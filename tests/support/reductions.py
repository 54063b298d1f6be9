"""Reductions for the tests, and runs of them."""

from __future__ import annotations

from types import ModuleType
from typing import Any

import numpy as np
from support.functions import RecordingFunction
from support.pools import make_pool
from support.registries import RecordingRegistry
from support.runs import counting_matrix, make_context


def total(signals: Any, **_: Any) -> np.ndarray:
    """The sum over the signals."""
    return np.add.reduce(np.asarray(signals, dtype=np.float64), axis=0)


def stateful(result: Any = total, **options: Any) -> RecordingFunction:
    """A stateful reduction that records its calls."""
    return RecordingFunction(result, stateful=True, **options)


def registry_of(functions: dict[str, Any], entries: Any = None) -> RecordingRegistry:
    """Serves these very instances, reading none of their attributes."""
    factories = {name: lambda made=made, **_: made for name, made in functions.items()}
    return RecordingRegistry(entries=entries, factories=factories)


def reduction_context(
    evaluator: ModuleType,
    functions: dict[str, Any],
    *,
    pool: Any = None,
    rows: int = 4,
    columns: int = 3,
    entries: Any = None,
    **options: Any,
) -> Any:
    """A context over a feature "a" and, when none is given, the signals "a", "b" and "c"."""
    return make_context(
        evaluator,
        {"a": counting_matrix(rows, columns)},
        useful_signals=make_pool(rows=rows, columns=columns) if pool is None else pool,
        registry=registry_of(functions, entries),
        **options,
    )


def run_reductions(
    evaluator: ModuleType, graph: Any, functions: dict[str, Any], **options: Any
) -> tuple[Any, Any]:
    """The context and the result of one run; `functions` maps names to instances."""
    context = reduction_context(evaluator, functions, **options)
    return context, evaluator.evaluate(graph, context)


class Scripted:
    """A reduction whose `stateful` gives one of `reads` after the other, then the last for ever.

    An exception among them is raised.
    """

    def __init__(self, *reads: Any, result: Any = total) -> None:
        self.reads = list(reads)
        self.result = result
        self.calls: list[dict[str, Any]] = []

    @property
    def stateful(self) -> Any:
        read = self.reads.pop(0) if len(self.reads) > 1 else self.reads[0]
        if isinstance(read, BaseException):
            raise read
        return read

    def __call__(self, signals: Any, **kwargs: Any) -> Any:
        self.calls.append(kwargs)
        return self.result(signals)

    def get_state(self) -> Any:
        return None
