"""Graphs, functions and contexts that several benchmarks share."""

from __future__ import annotations

from collections import deque
from collections.abc import Callable, Iterable, Sequence
from dataclasses import dataclass
from itertools import repeat
from types import ModuleType
from typing import Any

import numpy as np
from quernbrook.functions._typed_shapes import FunctionGraphNode
from support.graphs import feature, rotation
from support.runs import bind_all, make_context

from bench.evaluators import MODULE, load

COLUMNS = 500
BARE = "bare calls"


class Passing:
    """A function that does nothing: what a run with it costs is the run's own."""

    stateful = False

    def __call__(self, row: Any, context: Any = None) -> Any:
        return row


class PassingFirst:
    """The same for any number of arguments."""

    stateful = False

    def __call__(self, *rows: Any, context: Any = None) -> Any:
        return rows[0]


class Reducing:
    """A reduction that only hands back a signal of its block."""

    stateful = True

    def __call__(self, block: Any, signal_pnl: Any) -> Any:
        return block[0]

    def get_state(self) -> None:
        return None


class Mean:
    """Never called: the mean over the signals is what every stateless reduction is."""

    stateful = False


RANK = rotation("latitudinal_rank", feature("a"))
FUNCTIONS = {"pass": Passing, "first": PassingFirst, "stateful": Reducing, "mean": Mean}


@dataclass(frozen=True)
class Entry:
    """What a registry tells of a function."""

    stateful: bool
    family: str = "rotation"
    param_schema: tuple[()] = ()


ENTRIES = {name: Entry(function.stateful) for name, function in FUNCTIONS.items()}


class Registry:
    """Knows the functions above."""

    def has(self, name: str) -> bool:
        return name in FUNCTIONS

    def has_factory(self, name: str) -> bool:
        return name in FUNCTIONS

    def get_entry(self, name: str) -> Any:
        return ENTRIES[name]

    def create_instance(self, name: str, **config: Any) -> Any:
        return FUNCTIONS[name]()


def chain(functions: int) -> FunctionGraphNode:
    """Functions on top of each other over one feature."""
    graph = feature("a")
    for _ in range(functions):
        graph = rotation("pass", graph)
    return graph


def bush(functions: int) -> FunctionGraphNode:
    """One function over all others, each of which has the feature for itself."""
    return rotation("first", *(rotation("pass", feature("a")) for _ in range(functions - 1)))


def bound(graph: FunctionGraphNode) -> dict[str, Any]:
    """An instance for every function node of a chain or a bush."""
    instances = bind_all(graph, Passing)
    if graph.node == "first":
        instances["root"] = PassingFirst()
    return instances


def random_matrix(rows: int, columns: int = COLUMNS, seed: int = 0) -> np.ndarray:
    return np.random.default_rng(seed).standard_normal((rows, columns))


def context_of(evaluator: ModuleType, rows: int, columns: int = COLUMNS, **options: Any) -> Any:
    """A context over one matrix, the feature "a"."""
    return make_context(evaluator, {"a": random_matrix(rows, columns)}, **options)


def repeat_calls(call: Callable[..., Any], arguments: Sequence[Any], times: int) -> None:
    """Calls in a row with no interpreted code between them."""
    deque(map(call, *(repeat(argument, times) for argument in arguments)), maxlen=0)


def argument_counts(graph: FunctionGraphNode) -> Iterable[int]:
    """How many arguments each function of a chain or a bush takes."""
    if graph.type == "rotation":
        yield len(graph.children)
        for child in graph.children:
            yield from argument_counts(child)


def with_missing(matrix: np.ndarray) -> np.ndarray:
    """Puts NaN into 3 % of the cells, in place."""
    matrix[np.random.default_rng(2).random(matrix.shape) < 0.03] = np.nan
    return matrix


def matrix_with_late_starts(rows: int, columns: int) -> np.ndarray:
    """Columns that begin with NaN, up to 6 % of their rows, and the first with a hole besides.

    Scattered holes would leave no long window without one, and nothing to compute.
    """
    matrix = random_matrix(rows, columns)
    starts = np.linspace(0, 0.06 * rows, columns).astype(int)
    for column, start in enumerate(starts):
        matrix[:start, column] = np.nan
    matrix[rows // 2, 0] = np.nan
    return matrix


def matrix_with_missing(rows: int, columns: int) -> np.ndarray:
    return with_missing(random_matrix(rows, columns))


def price_matrix(rows: int, columns: int) -> np.ndarray:
    """Random walks of a price each, 1 % a row, from prices between 5 and 500."""
    walks = random_matrix(rows, columns) * 0.01
    np.cumsum(walks, axis=0, out=walks)
    np.exp(walks, out=walks)
    walks *= np.random.default_rng(3).uniform(5.0, 500.0, columns)
    return with_missing(walks)


def evaluate_rank(data: np.ndarray, evaluator: str = MODULE) -> np.ndarray:
    module = load(evaluator)
    context = module.EvaluationContext((data,), {"a": 0})
    return module._evaluate_simple_rank_fast(RANK, context)


def evaluate_rolling(
    data: np.ndarray, window: int, statistic: str, evaluator: str = MODULE
) -> np.ndarray:
    return load(evaluator)._rolling_longitudinal_fast(data, window, f"longitudinal_{statistic}")
