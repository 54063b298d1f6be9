"""Ranks of whole matrices along their rows."""

from __future__ import annotations

from collections.abc import Callable
from functools import partial

import pytest

from bench import memory
from bench.peers import RANK, RANK_FORMULATION, agrees
from bench.workloads import matrix_with_missing, price_matrix

SHAPES = [(5000, 500), (2000, 3000)]
DATA = {"random numbers": matrix_with_missing, "prices": price_matrix}


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
        workload=f"rank of {data}, {rows:,} x {columns:,}",
        contender=name,
        count=rows * columns,
        unit="ns a cell",
        rounds=5,
        memory=memory.beyond_result(
            partial(prepared, name, data, columns), rows, contender.compute, 8 * rows * columns
        ),
    )
