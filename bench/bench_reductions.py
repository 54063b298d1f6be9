"""Reductions of a pool of signals to a row, and the copy that each of them begins with."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import pytest
from quernbrook.functions._typed_shapes import FunctionGraphNode
from quernbrook.simulator_engine._types import UsefulSignal
from support.graphs import filtration, node, number, reduction, string

from bench import evaluators
from bench.workloads import gather_rows, pool_context, signal_pool

# Signals to rows: the larger the pool, the fewer.
ROWS = {50: 400, 500: 40, 5000: 8}
UNIT = "ns a signal and row"
ALL_PASS = filtration("filtration", node("gt", "gt", [string("quality"), number(0.0)]))

sizes = pytest.mark.parametrize("signals", ROWS)
filters = pytest.mark.parametrize("filtered", [False, True], ids=["free", "filtered"])
functions = pytest.mark.parametrize("function", ["mean", "stateful"])


@pytest.fixture(scope="module")
def pools() -> dict[int, dict[str, UsefulSignal]]:
    return {signals: signal_pool(signals, rows) for signals, rows in ROWS.items()}


def workload(signals: int, function: str, filtered: bool) -> str:
    kind = "filtered" if filtered else "free"
    return f"{function} reduction of {signals:,} signals, {kind}"


def graph_of(function: str, filtered: bool) -> FunctionGraphNode:
    return reduction(function, *([ALL_PASS] if filtered else []))


@pytest.mark.parametrize("contender", evaluators.NAMES)
@sizes
@filters
@functions
def test_evaluation(
    measure: Callable[..., None],
    pools: dict[int, Any],
    signals: int,
    filtered: bool,
    function: str,
    contender: str,
) -> None:
    evaluator, rows = evaluators.load(contender), ROWS[signals]
    context = pool_context(evaluator, pools[signals], rows)
    graph = graph_of(function, filtered)
    measure(
        lambda: evaluator.evaluate(graph, context),
        workload=workload(signals, function, filtered),
        contender=contender,
        count=signals * rows,
        unit=UNIT,
        rounds=5,
    )


@sizes
@filters
@functions
def test_copy(
    measure: Callable[..., None],
    pools: dict[int, Any],
    signals: int,
    filtered: bool,
    function: str,
) -> None:
    """The rows alone, gathered by one call of NumPy for each time row."""
    measure(
        gather_rows(pools[signals], ROWS[signals]),
        workload=workload(signals, function, filtered),
        contender="copy of the rows",
        floor=True,
        count=signals * ROWS[signals],
        unit=UNIT,
        rounds=5,
    )
