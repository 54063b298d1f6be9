"""Cold starts: reductions that were saved short are first shown rows that fill their windows."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import pytest
from support.graphs import reduction

from bench import evaluators
from bench.workloads import gather_rows, pool_context, signal_pool

# Signals to rows: the larger the pool, the fewer.
ROWS = {50: 400, 500: 40}
UNIT = "ns a signal and row"

sizes = pytest.mark.parametrize("signals", ROWS)
starts = pytest.mark.parametrize("cold", [True, False], ids=["pre-fill", "no pre-fill"])


@pytest.fixture(scope="module")
def pools() -> dict[int, Any]:
    return {signals: signal_pool(signals, rows) for signals, rows in ROWS.items()}


def workload(signals: int, cold: bool) -> str:
    kind = "pre-fill and run" if cold else "run without pre-fill"
    return f"start over {signals} signals, {kind}"


def rows_seen(signals: int, cold: bool) -> int:
    """The window lacks as many rows as there are, so that a pre-fill sees all of them, too."""
    return ROWS[signals] * (2 if cold else 1)


@pytest.mark.parametrize("contender", evaluators.NAMES)
@starts
@sizes
def test_start(
    measure: Callable[..., None],
    pools: dict[int, Any],
    signals: int,
    cold: bool,
    contender: str,
) -> None:
    evaluator, rows = evaluators.load(contender), ROWS[signals]
    context = pool_context(evaluator, pools[signals], rows)
    graph, states = reduction("stateful"), {"root": {"count": 1, "window": rows + 1}}
    measure(
        lambda: evaluator.evaluate(graph, context, states, cold),
        workload=workload(signals, cold),
        contender=contender,
        count=signals * rows_seen(signals, cold),
        unit=UNIT,
        rounds=5,
    )


@starts
@sizes
def test_copy(
    measure: Callable[..., None], pools: dict[int, Any], signals: int, cold: bool
) -> None:
    measure(
        gather_rows(pools[signals], ROWS[signals]),
        workload=workload(signals, cold),
        contender="copy of the rows",
        floor=True,
        count=signals * ROWS[signals],
        unit=UNIT,
        rounds=5,
    )
