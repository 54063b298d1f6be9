"""The same simulation live: stopped, saved to one file, and gone on with a day at a time."""

from __future__ import annotations

import os
import time
from collections.abc import Callable, Mapping
from concurrent.futures import ProcessPoolExecutor
from dataclasses import dataclass
from multiprocessing import get_context
from pathlib import Path
from typing import Any, TypeVar

import backtest
import market
import numpy as np
import pool
import prices
import simulation
from graphs import pool_graphs, strategy_graph
from quernbrook.reference_host import SavedState, checkpoints, default_registry
from quernbrook.simulator_engine.expression_evaluator import evaluate

Result = TypeVar("Result")

_STRATEGY = "strategy"
# What a signal's last weights earn, and its Sharpe, belong to no function of a graph.
_HELD = "held"


@dataclass(frozen=True)
class History:
    """What the process that ran the history tells before it ends."""

    process: int
    states: int


@dataclass(frozen=True)
class Ticks:
    """What the process that went on tells: one row of weights and one time for each day."""

    process: int
    weights: market.Matrix
    seconds: backtest.Series


def run(file: Path, cut: int, selection_days: int, checkpoint: Path) -> tuple[History, Ticks]:
    """Run the rows before `cut` in one process and the others in the next."""
    history = _in_fresh_process(run_history, file, cut, selection_days, checkpoint)
    return history, _in_fresh_process(run_ticks, file, cut, checkpoint)


def _in_fresh_process(function: Callable[..., Result], *arguments: Any) -> Result:
    with ProcessPoolExecutor(1, mp_context=get_context("spawn")) as executor:
        return executor.submit(function, *arguments).result()


def run_history(file: Path, cut: int, selection_days: int, checkpoint: Path) -> History:
    """Run the first `cut` days, which are all this process sees, and save what it ends in."""
    known = prices.load(file).first(cut)
    ended = simulation.run(market.build(known), default_registry(), selection_days)
    saved: dict[str, Any] = _keyed(_STRATEGY, ended.states)
    for name, signal in ended.signals.items():
        held = {"weights": signal.weights[-1].tolist(), "sharpe": signal.sharpe}
        saved |= _keyed(name, {**signal.states, _HELD: SavedState(_HELD, held)})
    checkpoints.save(checkpoint, saved)
    return History(os.getpid(), len(saved))


def run_ticks(file: Path, cut: int, checkpoint: Path) -> Ticks:
    """Go on from the file with day `cut`, and to the end."""
    trader = Trader(market.build(prices.load(file)), checkpoints.load(checkpoint))
    weights, seconds = [], []
    for day in range(cut, len(trader.market.dates)):
        begin = time.perf_counter()
        weights.append(trader.tick(day, is_cold_start=day == cut))
        seconds.append(time.perf_counter() - begin)
    return Ticks(os.getpid(), np.vstack(weights), np.array(seconds))


class Trader:
    """Holds the states of all graphs between ticks."""

    def __init__(self, whole: market.Market, saved: Mapping[str, Any]) -> None:
        self.market = whole
        self._registry = default_registry()
        self._graphs = pool_graphs()
        self._strategy = strategy_graph()
        self._states = {name: _of(name, saved) for name in (_STRATEGY, *self._graphs)}
        held = {name: self._states[name].pop(_HELD).state_data for name in self._graphs}
        self._held = {name: np.array([data["weights"]]) for name, data in held.items()}
        self._sharpe = {name: data["sharpe"] for name, data in held.items()}

    def tick(self, day: int, is_cold_start: bool) -> market.Matrix:
        """Evaluate one day's row, (1, shares), and keep the states that it ends in."""
        row = slice(day, day + 1)
        useful_signals = {}
        for name, graph in self._graphs.items():
            weights = self._evaluate(name, graph, row, is_cold_start)
            returns = backtest.earned(self._held[name], self.market.returns[row])
            useful_signals[name] = pool.useful_signal(weights, returns, self._sharpe[name])
            self._held[name] = weights
        return self._evaluate(_STRATEGY, self._strategy, row, is_cold_start, useful_signals)

    def _evaluate(
        self, name: str, graph: Any, row: slice, is_cold_start: bool, useful_signals: Any = None
    ) -> market.Matrix:
        context = self.market.context(row, self._registry, useful_signals)
        weights, self._states[name] = evaluate(graph, context, self._states[name], is_cold_start)
        return weights


def _keyed(name: str, states: Mapping[str, Any]) -> dict[str, Any]:
    return {f"{name}/{key}": state for key, state in states.items()}


def _of(name: str, saved: Mapping[str, Any]) -> dict[str, Any]:
    prefix = f"{name}/"
    return {
        key.removeprefix(prefix): state for key, state in saved.items() if key.startswith(prefix)
    }
