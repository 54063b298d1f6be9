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
from quernbrook.reference_host import (
    SavedState,
    bind_instances,
    checkpoints,
    default_registry,
)

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
        weights.append(trader.tick(day))
        seconds.append(time.perf_counter() - begin)
    return Ticks(os.getpid(), np.vstack(weights), np.array(seconds))


class Trader:
    """Holds the functions of all graphs, which advance from tick to tick."""

    def __init__(self, whole: market.Market, saved: Mapping[str, Any]) -> None:
        self.market = whole
        self._registry = default_registry()
        states = {name: _of(name, saved) for name in (_STRATEGY, *pool_graphs())}
        held = {name: states[name].pop(_HELD).state_data for name in pool_graphs()}
        self._held = {name: np.array([data["weights"]]) for name, data in held.items()}
        self._sharpe = {name: data["sharpe"] for name, data in held.items()}
        self._signals = {
            name: bind_instances(graph, self._registry, states[name])
            for name, graph in pool_graphs().items()
        }
        self._strategy = bind_instances(strategy_graph(), self._registry, states[_STRATEGY])

    def tick(self, day: int) -> market.Matrix:
        """Evaluate one day's row, (1, shares)."""
        row = slice(day, day + 1)
        useful_signals = {}
        for name, signal in self._signals.items():
            weights = signal.evaluate(self._context(row)).weights
            returns = backtest.earned(self._held[name], self.market.returns[row])
            useful_signals[name] = pool.useful_signal(weights, returns, self._sharpe[name])
            self._held[name] = weights
        return self._strategy.evaluate(self._context(row, useful_signals)).weights

    def _context(self, row: slice, useful_signals: Any = None) -> Any:
        context: Any = self.market.context(row, self._registry, useful_signals)
        # The functions hold their states; a checkpoint would ask them with `states()`.
        context._collect_states = False
        return context


def _keyed(name: str, states: Mapping[str, Any]) -> dict[str, Any]:
    return {f"{name}/{key}": state for key, state in states.items()}


def _of(name: str, saved: Mapping[str, Any]) -> dict[str, Any]:
    prefix = f"{name}/"
    return {
        key.removeprefix(prefix): state for key, state in saved.items() if key.startswith(prefix)
    }
