"""Contexts made from plain matrices, and exact checks of what a run gives, raises and leaves."""

from __future__ import annotations

from collections.abc import Callable, Iterator
from contextlib import contextmanager
from types import ModuleType
from typing import Any

import numpy as np
import pytest
from quernbrook.reference_host import functions_by_path
from support.functions import RecordingFunction


def make_context(
    evaluator: ModuleType, features: dict[str, Any], *, as_list: bool = False, **options: Any
) -> Any:
    """An evaluation context whose features stand in the order of `features`."""
    matrices = list(features.values()) if as_list else tuple(features.values())
    index = {name: position for position, name in enumerate(features)}
    return evaluator.EvaluationContext(matrices, index, **options)


def counting_matrix(rows: int, columns: int = 3, start: float = 1.0) -> np.ndarray:
    """The numbers from `start` on, row by row."""
    return np.arange(start, start + rows * columns, dtype=np.float64).reshape(rows, columns)


def bind_all(graph: Any, make: Callable[[], Any] = RecordingFunction) -> dict[str, Any]:
    """A mapping that binds every function node of `graph` to an instance of its own."""
    return {path: make() for path in functions_by_path(graph)}


def collected_tables(evaluator: ModuleType, graph: Any, **options: Any) -> dict[str, Any]:
    """The tables that a run with bound functions leaves on `graph`, over matrices without rows."""
    bound = options.pop("bound", None)
    context = make_context(evaluator, {name: np.zeros((0, 2)) for name in "ab"}, **options)
    evaluator.evaluate(
        graph,
        context,
        bound_function_instances=bind_all(graph) if bound is None else bound,
        data_nan_features=["unused, but it closes the fast paths"],
    )
    return graph._collect_nodes_cache


def same_bits(actual: Any, expected: Any) -> None:
    """Both are float64 arrays of one shape, equal to the last bit (NaN payloads, signed zeros)."""
    actual, expected = np.asarray(actual), np.asarray(expected)
    assert actual.dtype == expected.dtype == np.float64
    assert actual.shape == expected.shape
    left = np.ascontiguousarray(actual).view(np.uint64)
    right = np.ascontiguousarray(expected).view(np.uint64)
    assert left.tolist() == right.tolist(), f"{actual!r} is not {expected!r}"


@contextmanager
def fails(
    kind: type[BaseException], text: str, *, cause: BaseException | None = None
) -> Iterator[None]:
    """The block raises exactly this type and text, with `cause` as cause and as context."""
    with pytest.raises(BaseException) as caught:
        yield
    error = caught.value
    assert (type(error), str(error)) == (kind, text)
    assert error.__cause__ is cause
    assert error.__context__ is cause


@contextmanager
def lets_through(fault: BaseException) -> Iterator[None]:
    """The block lets this very exception out, neither wrapped nor chained."""
    with pytest.raises(BaseException) as caught:
        yield
    assert caught.value is fault
    assert fault.__cause__ is None
    assert fault.__context__ is None
