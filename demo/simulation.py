"""The whole history in one run: the pool's signals, then the strategy over them."""

from __future__ import annotations

import time
from collections.abc import Mapping
from dataclasses import dataclass
from typing import Any

import numpy as np
import pool
from graphs import paths, strategy_graph
from market import Market, Matrix
from quernbrook.reference_host import FunctionRegistry
from quernbrook.simulator_engine.expression_evaluator import evaluate


class NotEnoughDays(Exception):
    """The history ends before signals can be chosen, or before the strategy has weights."""


@dataclass(frozen=True)
class Simulation:
    """selection_days: rows whose signal returns decide which signals the strategy takes.

    pool_weights: what the reduction makes of the signals taken.
    """

    signals: Mapping[str, pool.SignalRun]
    weights: Matrix
    pool_weights: Matrix
    states: Mapping[str, Any]
    seconds: float
    selection_days: int

    @property
    def start(self) -> int:
        """The first row after the selection days that has weights; the row count if none has."""
        held = np.isfinite(self.weights[self.selection_days :]).any(axis=1)
        return self.selection_days + (int(held.argmax()) if held.any() else held.size)


def count_selection_days(days: int) -> int:
    """A third of the history; a filter sees all of a run's signals at once, so it gets no more."""
    return days // 3


def run(market: Market, registry: FunctionRegistry, selection_days: int) -> Simulation:
    """Raises NotEnoughDays when no signal has returns in the selection days."""
    signals = pool.run(market, registry, selection_days)
    if np.isnan([signal.sharpe for signal in signals.values()]).all():
        raise NotEnoughDays
    graph = strategy_graph()
    useful_signals = {name: signal.as_useful() for name, signal in signals.items()}
    context = market.context(slice(None), registry, useful_signals)
    context._collect_node_outputs = True
    begin = time.perf_counter()
    result = evaluate(graph, context)
    seconds = time.perf_counter() - begin
    return Simulation(
        signals=signals,
        weights=result.weights,
        pool_weights=result.node_outputs[_reduction_path(graph)],
        states=result.states,
        seconds=seconds,
        selection_days=selection_days,
    )


def _reduction_path(graph: Any) -> str:
    return next(path for path, node in paths(graph).items() if node.type == "reduction")
