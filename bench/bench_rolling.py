"""Rolling mean, standard deviation and z-score of whole matrices along time."""

from __future__ import annotations

from collections.abc import Callable
from functools import partial

import pytest

from bench import memory
from bench.functions import native
from bench.peers import ROLLING, ROLLING_FORMULATION, agrees
from bench.workloads import matrix_with_late_starts

SHAPES = [
    (100_000, 100),
    pytest.param(1_000_000, 20, marks=pytest.mark.slow),
]
WINDOWS = [5, 20, 250, 5000]
# Of extended precision, for each cell; all but the mean take a square root, too.
DIVISIONS = {"mean": 1, "std": 2, "zscore": 3}
UNIT = "ns a cell"
# Memory depends on the shape alone, and reading it takes a process each time.
WINDOW_OF_MEMORY = 20


def workload(rows: int, columns: int, statistic: str, window: int) -> str:
    return f"rolling {statistic} of {rows:,} x {columns}, window {window:,}"


def prepared(name: str, columns: int, rows: int) -> object:
    return ROLLING[name].prepare(matrix_with_late_starts(rows, columns))


@pytest.mark.parametrize("name", ROLLING)
@pytest.mark.parametrize("window", WINDOWS)
@pytest.mark.parametrize("statistic", DIVISIONS)
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
        workload=workload(rows, columns, statistic, window),
        contender=name,
        count=rows * columns,
        unit=UNIT,
        rounds=3,
        memory=used,
    )


@pytest.mark.parametrize("window", WINDOWS)
@pytest.mark.parametrize("statistic", DIVISIONS)
@pytest.mark.parametrize(("rows", "columns"), SHAPES)
def test_limit(
    measure: Callable[..., None], rows: int, columns: int, statistic: str, window: int
) -> None:
    divisions = DIVISIONS[statistic]
    divide_and_root = native().divide_and_root
    measure(
        lambda: divide_and_root(rows * columns, window, divisions, divisions > 1),
        workload=workload(rows, columns, statistic, window),
        contender="divisions and roots",
        count=rows * columns,
        unit=UNIT,
        rounds=3,
        floor=True,
    )
