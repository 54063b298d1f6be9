"""The report on the terminal: the graph as a tree, figures as tables."""

from __future__ import annotations

from collections.abc import Iterable, Mapping
from pathlib import Path
from typing import Any

import backtest
import numpy as np
from graphs import SHARPE_FIELD, TAKEN_SIGNALS
from live import History, Ticks
from market import NEEDED_RETURNS, Market
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host import draw_tree, nodes_by_path
from rich.box import SIMPLE_HEAD
from rich.console import Console
from rich.table import Table
from simulation import Simulation
from stages import StagedRun

_console = Console(highlight=False, markup=False, soft_wrap=True)


def prices(file: Path, market: Market) -> None:
    first, last = market.dates[[0, -1]]
    _heading("Prices")
    _console.print(
        f"{file}: {len(market.tickers)} shares, {len(market.dates)} days, {first} to {last}."
    )
    _console.print(
        f"A share is in the universe once it has {NEEDED_RETURNS} daily returns; before that it "
        "reads as missing."
    )


def pool(market: Market, simulation: Simulation, taken: Iterable[str]) -> None:
    _heading("Pool of signals")
    last = market.dates[simulation.selection_days - 1]
    _console.print(
        f"The filter takes the best {TAKEN_SIGNALS} by {SHARPE_FIELD}, the Sharpe ratio up to "
        f"{last}. Only later days count below."
    )
    passing = set(taken)
    _table(
        ("signal", SHARPE_FIELD, "Sharpe afterwards", "passes"),
        (
            (
                name,
                f"{signal.sharpe:.2f}",
                f"{backtest.sharpe(signal.returns[simulation.selection_days :]):.2f}",
                "yes" if name in passing else "",
            )
            for name, signal in simulation.signals.items()
        ),
    )


def graph(root: Node, states: Mapping[str, Any]) -> None:
    notes = {path: f"state {number}" for number, path in enumerate(states, start=1)}
    _heading(f"Graph of {len(nodes_by_path(root))} nodes, {len(states)} of them with a state")
    _console.print(draw_tree(root, notes))


def run(simulation: Simulation) -> None:
    rows, columns = simulation.weights.shape
    _heading("Run")
    _console.print(
        f"T {rows:,}, N_alloc {columns}: {simulation.seconds:.3f} s, "
        f"{rows / simulation.seconds:,.0f} rows a second."
    )
    _table(
        ("state", "key", "function", "window", "rows seen"),
        (
            (
                str(number),
                key,
                state.name,
                str(state.state_data["window"]),
                f"{state.state_data['count']:,}",
            )
            for number, (key, state) in enumerate(simulation.states.items(), start=1)
        ),
        left=3,
    )


def last_weights(market: Market, simulation: Simulation) -> None:
    _heading(f"Weights of {market.dates[-1]}")
    weights = simulation.weights[-1]
    equal = backtest.equal_weights(market.universe[-1:])[0]
    _table(
        ("share", "weight", "beside equal"),
        (
            (market.tickers[i], f"{weights[i]:.2%}", f"{weights[i] - equal[i]:+.2%}")
            for i in np.argsort(-weights)
        ),
    )


def performance(market: Market, simulation: Simulation, staged: Mapping[str, StagedRun]) -> None:
    counted = slice(simulation.start, None)
    compared = {
        "strategy": simulation.weights,
        **{f"{name} pool": run.weights for name, run in staged.items()},
        "equal weights": backtest.equal_weights(market.universe),
    }
    _heading(f"Returns from {market.dates[simulation.start]}")
    _console.print(
        "The weights of a day earn the return of the next day. No trading costs; turnover is the "
        "change of the weights themselves.\nAll shares still existed at the end, so every line "
        "looks better than what could have been had."
    )
    measured = {
        name: backtest.measure(weights[counted], market.returns[counted])
        for name, weights in compared.items()
    }
    _table(
        ("", "a year", "volatility", "Sharpe", "worst fall", "turnover a day"),
        (
            (
                name,
                f"{figures.growth:.1%}",
                f"{figures.volatility:.1%}",
                f"{figures.sharpe:.2f}",
                f"{figures.drawdown:.1%}",
                f"{figures.turnover:.1%}",
            )
            for name, figures in measured.items()
        ),
    )


def stages(simulation: Simulation, staged: Mapping[str, StagedRun]) -> None:
    _heading("Stages around the same graph")
    bare = set(simulation.states)
    _table(
        ("pool", "scaling", "turnover", "states of the bare graph", "added"),
        (
            (
                name,
                *map(str, run.options),
                f"{len(bare & set(run.states))} of {len(bare)} under their keys",
                ", ".join(sorted(set(run.states) - bare)) or "none",
            )
            for name, run in staged.items()
        ),
        left=5,
    )


def live(market: Market, cut: int, history: History, ticks: Ticks, checkpoint: Path) -> None:
    _heading("Live")
    _console.print(
        f"Process {history.process} ran {cut:,} days to {market.dates[cut - 1]}, saved "
        f"{history.states} states in {checkpoint} ({checkpoint.stat().st_size / 1000:,.0f} kB) "
        "and ended."
    )
    _console.print(
        f"Process {ticks.process} went on from there, {len(ticks.weights)} days one at a time: "
        f"median {np.median(ticks.seconds) * 1000:.1f} ms a day, "
        f"at most {ticks.seconds.max() * 1000:.1f} ms."
    )


def live_difference(difference: float | None) -> None:
    if difference is None:
        _console.print("The two runs have NaN in different places.")
    else:
        _console.print(
            f"Largest difference to the weights of the whole run: {difference!r}; NaN in the same "
            "places."
        )


def picture(output: Path) -> None:
    _console.print(f"\nPicture: {output}")


def _heading(text: str) -> None:
    _console.print(f"\n{text}", style="bold")


def _table(header: tuple[str, ...], rows: Iterable[tuple[str, ...]], left: int = 1) -> None:
    """Print columns, the first `left` of them flush left."""
    table = Table(box=SIMPLE_HEAD)
    for i, name in enumerate(header):
        table.add_column(name, justify="left" if i < left else "right", no_wrap=True)
    for row in rows:
        table.add_row(*row)
    _console.print(table)
