"""Each published formula by itself, and the same in pandas and polars.

Every one is compared with this module's values before it is timed. Those of another library may
differ where its last bits decide about the order of numbers that are equal on paper.
"""

from __future__ import annotations

from collections.abc import Callable

import numpy as np
import pytest
from quernbrook.simulator_engine.expression_evaluator import evaluate

from bench import alphas_in_pandas, alphas_in_polars
from bench.bench_alphas import GRAPHS, SMALL, context_of, panel_of
from bench.evaluators import MODULE

ROWS, COLUMNS = SMALL
UNIT = "ms a run"
EQUAL = 0.95
# These rank sums, products or covariances that are often equal on paper, or stand still there. As
# many agree at least.
EQUAL_ON_PAPER = {13: 0.6, 15: 0.8, 16: 0.6, 45: 0.1}


def workload(number: int) -> str:
    return f"formula {number}"


def assert_same(number: int, found: np.ndarray) -> None:
    expected = evaluate(GRAPHS[number], context_of(COLUMNS, ROWS)).weights
    agree = np.isclose(found, expected, rtol=1e-9, atol=1e-9, equal_nan=True)
    assert agree.mean() > EQUAL_ON_PAPER.get(number, EQUAL)


@pytest.mark.parametrize("number", GRAPHS)
def test_formula(measure: Callable[..., None], number: int) -> None:
    context = context_of(COLUMNS, ROWS)
    measure(
        lambda: evaluate(GRAPHS[number], context),
        workload=workload(number),
        contender=MODULE,
        count=1,
        unit=UNIT,
    )


@pytest.mark.parametrize("number", GRAPHS)
def test_pandas(measure: Callable[..., None], number: int) -> None:
    with alphas_in_pandas.formulas(panel_of(ROWS, COLUMNS)) as formulas:
        compute = formulas[number]
        assert_same(number, compute().to_numpy())
        measure(
            compute,
            workload=workload(number),
            contender="pandas",
            count=1,
            unit=UNIT,
            rounds=3,
        )


@pytest.mark.parametrize("number", alphas_in_polars.FORMULAS)
def test_polars(measure: Callable[..., None], number: int) -> None:
    table = alphas_in_polars.long_table(panel_of(ROWS, COLUMNS))
    result = alphas_in_polars.run(number, table)
    assert_same(number, alphas_in_polars.to_numpy(result, COLUMNS))
    measure(
        lambda: alphas_in_polars.run(number, table),
        workload=workload(number),
        contender="polars",
        count=1,
        unit=UNIT,
        rounds=3,
    )
