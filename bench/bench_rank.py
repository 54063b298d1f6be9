"""Ranks of whole matrices along their rows, and products of two of them."""

from __future__ import annotations

from collections.abc import Callable, Sequence
from functools import partial
from typing import Any

import numpy as np
import pytest

from bench import memory
from bench.evaluators import COPY, MODULE, OTHER
from bench.functions import native
from bench.peers import RANK, RANK_FORMULATION, agrees
from bench.workloads import evaluate_product_of_ranks, matrix_with_missing, price_matrix

EVALUATORS = {MODULE, COPY, OTHER}
SHAPES = [(5000, 500), (2000, 3000)]
# The bits of a column's number, and those of each of the two digits above it, as in the module.
KEY_BITS = {500: (10, 9), 3000: (12, 10)}
UNIT = "ns a cell"
DATA = {"random numbers": matrix_with_missing, "prices": price_matrix}


def workload(rows: int, columns: int, data: str) -> str:
    return f"rank of {data}, {rows:,} x {columns:,}"


def prepared(name: str, data: str, columns: int, rows: int) -> object:
    return RANK[name].prepare(DATA[data](rows, columns))


@pytest.mark.parametrize("name", RANK)
@pytest.mark.parametrize("data", DATA)
@pytest.mark.parametrize(("rows", "columns"), SHAPES)
def test_rank(measure: Callable[..., None], name: str, rows: int, columns: int, data: str) -> None:
    contender = RANK[name]
    assert agrees(contender, RANK_FORMULATION, DATA[data](50, columns))
    matrix = prepared(name, data, columns, rows)
    measure(
        lambda: contender.compute(matrix),
        workload=workload(rows, columns, data),
        contender=name,
        count=rows * columns,
        unit=UNIT,
        rounds=5,
        memory=memory.beyond_result(
            partial(prepared, name, data, columns), rows, contender.compute, 8 * rows * columns
        ),
    )


@pytest.mark.parametrize("data", DATA)
@pytest.mark.parametrize(("rows", "columns"), SHAPES)
def test_limit(measure: Callable[..., None], rows: int, columns: int, data: str) -> None:
    keys = np.random.default_rng(0).integers(2**32, size=columns, dtype=np.uint32)
    bits = KEY_BITS[columns]
    radix_passes = native().radix_passes
    measure(
        lambda: radix_passes(keys, rows, *bits),
        workload=workload(rows, columns, data),
        contender="radix passes",
        count=rows * columns,
        unit=UNIT,
        rounds=5,
        floor=True,
    )


@pytest.mark.parametrize("name", RANK)
@pytest.mark.parametrize(
    ("rows", "columns"), [SHAPES[0], pytest.param(*SHAPES[1], marks=pytest.mark.slow)]
)
def test_product_of_ranks(measure: Callable[..., None], name: str, rows: int, columns: int) -> None:
    """The module in one call, the others by two ranks and a product in their own form."""
    assert_product_agrees(name, columns)
    matrices = [prepared(name, data, columns, rows) for data in DATA]
    measure(
        lambda: product(name, matrices),
        workload=f"product of two ranks, {rows:,} x {columns:,}",
        contender=name,
        count=rows * columns,
        unit=UNIT,
        rounds=3,
    )


def product(name: str, matrices: Sequence[Any]) -> Any:
    if name in EVALUATORS:
        return evaluate_product_of_ranks(*matrices, evaluator=name)
    left, right = map(RANK[name].compute, matrices)
    return left * right


def assert_product_agrees(name: str, columns: int) -> None:
    samples = [prepared(name, data, columns, 50) for data in DATA]
    left, right = (RANK_FORMULATION.compute(DATA[data](50, columns)) for data in DATA)
    given = RANK[name].to_numpy(product(name, samples))
    assert np.allclose(given, left * right, rtol=1e-6, atol=1e-6, equal_nan=True)
