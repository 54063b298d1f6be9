"""The demonstration's strategy, filter and reduction included, and the signals of its pool.

Once in machine code and once by the plain definitions of the same functions.
"""

from __future__ import annotations

import sys
from collections.abc import Callable
from functools import cache
from typing import Any

import numpy as np
import pytest
from quernbrook.reference_host import default_registry
from quernbrook.simulator_engine.expression_evaluator import evaluate

from bench.evaluators import MODULE, ROOT

# The demonstration's modules import each other as `python demo` lets them.
sys.path.append(str(ROOT / "demo"))

import graphs
import market
import pool
import prices
import simulation

UNIT = "µs a row"
# In machine code or plain.
contenders = pytest.mark.parametrize(
    ("contender", "compiled"), [(MODULE, True), ("plain functions", False)]
)


@cache
def whole_market() -> market.Market:
    return market.build(prices.load(ROOT / "demo" / "data" / "sp500_prices.csv.gz"))


@cache
def signals() -> dict[str, pool.SignalRun]:
    return run_pool(compiled=True)


def run_pool(*, compiled: bool) -> dict[str, pool.SignalRun]:
    whole = whole_market()
    selection_days = simulation.count_selection_days(len(whole.dates))
    return pool.run(whole, default_registry(compiled=compiled), selection_days)


def run_strategy(*, compiled: bool) -> np.ndarray:
    useful_signals = {name: signal.as_useful() for name, signal in signals().items()}
    context: Any = whole_market().context(
        slice(None), default_registry(compiled=compiled), useful_signals
    )
    return evaluate(graphs.strategy_graph(), context).weights


@contenders
def test_strategy(measure: Callable[..., None], contender: str, compiled: bool) -> None:
    weights = run_strategy(compiled=compiled)
    expected = run_strategy(compiled=True)
    np.testing.assert_allclose(weights, expected, rtol=1e-9, atol=1e-12)
    measure(
        lambda: run_strategy(compiled=compiled),
        workload=f"strategy over {' x '.join(map(str, weights.shape))}",
        contender=contender,
        count=len(weights),
        unit=UNIT,
        rounds=5,
    )


@contenders
def test_pool(measure: Callable[..., None], contender: str, compiled: bool) -> None:
    runs = run_pool(compiled=compiled)
    for name, run in runs.items():
        np.testing.assert_allclose(run.weights, signals()[name].weights, rtol=1e-9, atol=1e-12)
    rows, shares = whole_market().returns.shape
    measure(
        lambda: run_pool(compiled=compiled),
        workload=f"{len(runs)} signals over {rows} x {shares}, their returns included",
        contender=contender,
        count=rows,
        unit=UNIT,
        rounds=3,
    )
