"""Matrices, signals and contexts that several benchmarks share."""

from __future__ import annotations

from collections.abc import Callable, Mapping
from functools import lru_cache
from types import ModuleType
from typing import Any

import numpy as np
from quernbrook.simulator_engine._types import UsefulSignal
from support.graphs import feature, rotation
from support.runs import make_context

from bench.evaluators import MODULE, load
from bench.functions import Registry

COLUMNS = 500


RANK = rotation("latitudinal_rank", feature("a"))
PRODUCT_OF_RANKS = rotation("numerical_multiply", RANK, rotation("latitudinal_rank", feature("b")))


def random_matrix(rows: int, columns: int = COLUMNS, seed: int = 0) -> np.ndarray:
    return np.random.default_rng(seed).standard_normal((rows, columns))


@lru_cache(maxsize=1)
def feature_matrix(rows: int, columns: int) -> np.ndarray:
    """The same matrix for all contenders that follow each other: the largest take a second."""
    return random_matrix(rows, columns)


def context_of(evaluator: ModuleType, rows: int, columns: int = COLUMNS, **options: Any) -> Any:
    """A context over one matrix, the feature "a"."""
    return make_context(evaluator, {"a": feature_matrix(rows, columns)}, **options)


def masks(rows: int, columns: int = COLUMNS) -> np.ndarray:
    """A universe with one cell in ten inactive."""
    return (np.random.default_rng(1).random((rows, columns)) < 0.9).astype(np.float64)


def signal_pool(signals: int, rows: int) -> dict[str, UsefulSignal]:
    """Each signal has matrices of its own, as a host's signals have."""
    random = np.random.default_rng(0)
    return {
        f"signal {k:04d}": UsefulSignal(
            random.standard_normal((rows, COLUMNS)),
            random.standard_normal((rows, 1)),
            {"quality": 1.0},
        )
        for k in range(signals)
    }


def pool_context(evaluator: ModuleType, pool: Mapping[str, UsefulSignal], rows: int) -> Any:
    """A context over a pool of signals."""
    return context_of(
        evaluator,
        rows,
        useful_signals=pool,
        registry=Registry(),
        column_labels=["gross_returns"],
    )


def gather_rows(pool: Mapping[str, UsefulSignal], rows: int) -> Callable[[], None]:
    """The signals' rows alone, gathered by one call of NumPy for each time row."""
    return gather([[signal.weights[t] for signal in pool.values()] for t in range(rows)])


def gather(rows: list[list[np.ndarray]]) -> Callable[[], None]:
    """One block after the other put together from its rows."""
    block = np.empty(sum(map(len, rows[0])))

    def copy() -> None:
        for parts in rows:
            np.concatenate(parts, out=block)

    return copy


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


def evaluate_product_of_ranks(
    left: np.ndarray, right: np.ndarray, evaluator: str = MODULE
) -> np.ndarray:
    module = load(evaluator)
    context = module.EvaluationContext((left, right), {"a": 0, "b": 1})
    return module._evaluate_rank_multiply_fast(PRODUCT_OF_RANKS, context)


def evaluate_rolling(
    data: np.ndarray, window: int, statistic: str, evaluator: str = MODULE
) -> np.ndarray:
    return load(evaluator)._rolling_longitudinal_fast(data, window, f"longitudinal_{statistic}")
