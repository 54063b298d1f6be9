"""The pool: simple signals, each evaluated by itself, that the strategy's reduction combines."""

from __future__ import annotations

from collections.abc import Mapping
from dataclasses import dataclass
from typing import Any

import backtest
import numpy as np
from graphs import SHARPE_FIELD, TAKEN_SIGNALS, pool_graphs
from market import Market, Matrix
from quernbrook.functions.filtrations import FiltrationInstance
from quernbrook.functions.filtrations_evaluation import FilterNode
from quernbrook.reference_host import FunctionRegistry
from quernbrook.simulator_engine._types import UsefulSignal
from quernbrook.simulator_engine.expression_evaluator import evaluate


@dataclass(frozen=True)
class SignalRun:
    """A signal's weights, what they earned each day, and the states that its graph ends in.

    sharpe: over the selection days alone; only these may tell which signals are taken.
    """

    weights: Matrix
    returns: backtest.Series
    states: Mapping[str, Any]
    sharpe: float

    def as_useful(self) -> UsefulSignal:
        return useful_signal(self.weights, self.returns, self.sharpe)


def useful_signal(weights: Matrix, returns: backtest.Series, sharpe: float) -> UsefulSignal:
    return UsefulSignal(weights, returns[:, np.newaxis], {SHARPE_FIELD: sharpe})


def run(market: Market, registry: FunctionRegistry, selection_days: int) -> dict[str, SignalRun]:
    """Evaluate every signal over all days."""
    runs = {}
    for name, graph in pool_graphs().items():
        weights, states = evaluate(graph, market.context(slice(None), registry))
        returns = backtest.daily_returns(weights, market.returns)
        sharpe = backtest.sharpe(returns[:selection_days])
        runs[name] = SignalRun(weights, returns, states, sharpe)
    return runs


def taken(runs: Mapping[str, SignalRun]) -> list[str]:
    """The signals that the strategy's filter lets through, sorted."""
    best = FilterNode("top_n", {"field": SHARPE_FIELD, "n": TAKEN_SIGNALS})
    return FiltrationInstance(best, registry=None)(
        {name: run.as_useful() for name, run in runs.items()}
    )
