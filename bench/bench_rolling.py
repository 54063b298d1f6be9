"""Rolling mean, standard deviation and z-score of whole matrices along time."""

from __future__ import annotations

from collections.abc import Callable
from functools import partial

import pytest

from bench import memory
from bench.peers import ROLLING, ROLLING_FORMULATION, agrees
from bench.workloads import matrix_with_late_starts

SHAPES = [
    (100_000, 100),
    pytest.param(1_000_000, 20, marks=pytest.mark.slow),
]
WINDOWS = [5, 20, 250, 5000]
# Memory depends on the shape alone, and reading it takes a process each time.
WINDOW_OF_MEMORY = 20


def prepared(name: str, columns: int, rows: int) -> object:
    return ROLLING[name].prepare(matrix_with_late_starts(rows, columns))


@pytest.mark.parametrize("name", ROLLING)
@pytest.mark.parametrize("window", WINDOWS)
@pytest.mark.parametrize("statistic", ["mean", "std", "zscore"])
@pytest.mark.parametrize(("rows", "columns"), SHAPES)
def test_rolling(
    measure: Callable[..., None], name: str, rows: int, columns: int, statistic: str, window: int
) -> None:
    contender = ROLLING[name]
    sample = matrix_with_late_starts(3 * window + 100, 3)
    assert agrees(contender, ROLLING_FORMULATION, sample, window=window, statistic=statistic)
    compute = partial(contender.compute, window=window, statistic=statistic)
    matrix = prepared(name, columns, rows)
    used = ""
    if window == WINDOW_OF_MEMORY:
        used = memory.beyond_result(
            partial(prepared, name, columns), rows, compute, 8 * rows * columns
        )
    measure(
        lambda: compute(matrix),
        workload=f"rolling {statistic} of {rows:,} x {columns}, window {window:,}",
        contender=name,
        count=rows * columns,
        unit="ns a cell",
        rounds=3,
        memory=used,
    )
