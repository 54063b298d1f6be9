"""One picture: the weights, what they earned, and the pool of signals behind them."""

from __future__ import annotations

from collections.abc import Collection
from pathlib import Path

import backtest
import numpy as np
from graphs import TAKEN_SIGNALS
from market import Market
from matplotlib.axes import Axes
from matplotlib.dates import AutoDateLocator, ConciseDateFormatter
from matplotlib.figure import Figure
from matplotlib.ticker import LogLocator, NullFormatter, StrMethodFormatter
from simulation import Simulation

_TAKEN_COLOURS = ("tab:green", "tab:purple", "tab:red")
_LEFT_OUT_COLOUR = "#b5b5b5"
_UNKNOWN_COLOUR = "#dddddd"


def draw(market: Market, simulation: Simulation, taken: Collection[str], output: Path) -> None:
    """Write a PNG of 1400 by 900. Raises OSError."""
    figure = Figure(figsize=(14, 9), dpi=100, layout="constrained")
    weights, earnings, signals = figure.subplots(
        3, 1, sharex=True, gridspec_kw={"height_ratios": (5, 4, 4)}
    )
    _draw_weights(weights, market, simulation)
    _draw_earnings(earnings, market, simulation)
    _draw_signals(signals, market, simulation, taken)
    signals.set_xlim(market.dates[0], market.dates[-1])
    locator = AutoDateLocator(maxticks=14)
    signals.xaxis.set_major_locator(locator)
    signals.xaxis.set_major_formatter(ConciseDateFormatter(locator))
    signals.set_xlabel("date")
    figure.savefig(output, format="png")


def _draw_weights(axes: Axes, market: Market, simulation: Simulation) -> None:
    shares = np.arange(len(market.tickers))
    axes.set_facecolor(_UNKNOWN_COLOUR)
    mesh = axes.pcolormesh(market.dates, shares, simulation.weights.T * 100.0, cmap="viridis")
    axes.set_yticks(shares, market.tickers, fontsize=8)
    axes.invert_yaxis()
    axes.set_ylabel("share")
    axes.set_title(
        "Weights of the strategy (grey: too little history yet)", loc="left", fontsize=11
    )
    bar = axes.inset_axes((1.012, 0.0, 0.014, 1.0))
    axes.figure.colorbar(mesh, cax=bar, label="weight in %")


def _draw_earnings(axes: Axes, market: Market, simulation: Simulation) -> None:
    counted = slice(simulation.start, None)
    for label, weights, colour in (
        ("strategy", simulation.weights, "tab:blue"),
        ("equal weights", backtest.equal_weights(market.universe), "tab:orange"),
    ):
        daily = backtest.daily_returns(weights[counted], market.returns[counted])
        axes.plot(market.dates[counted], backtest.growth(daily), colour, lw=1.3, label=label)
    axes.set_title(
        "What 1 dollar becomes: the weights of a day earn the next day's return, no trading costs",
        loc="left",
        fontsize=11,
    )
    _finish_growth(axes, market, simulation, "not counted: the signals are chosen on these days")


def _draw_signals(
    axes: Axes, market: Market, simulation: Simulation, taken: Collection[str]
) -> None:
    colours = dict(zip(sorted(taken), _TAKEN_COLOURS, strict=False))
    by_sharpe = sorted(
        simulation.signals.items(), key=lambda item: (item[0] not in taken, -item[1].sharpe)
    )
    for name, signal in by_sharpe:
        axes.plot(
            market.dates,
            backtest.growth(signal.returns),
            colours.get(name, _LEFT_OUT_COLOUR),
            lw=1.1,
            label=f"{name} ({signal.sharpe:+.2f}{'' if name in taken else ', left out'})",
        )
    combined = backtest.daily_returns(simulation.pool_weights, market.returns)
    axes.plot(
        market.dates, backtest.growth(combined), "black", lw=1.6, label="reduction of the taken"
    )
    axes.set_title(
        f"The pool: 1 dollar in each long-short signal; the filter takes the best {TAKEN_SIGNALS} "
        "by Sharpe ratio (in brackets) over the shaded days",
        loc="left",
        fontsize=11,
    )
    _finish_growth(axes, market, simulation, "chosen on these days")


def _finish_growth(axes: Axes, market: Market, simulation: Simulation, shaded: str) -> None:
    chosen_until = market.dates[simulation.selection_days]
    axes.axvspan(market.dates[0], chosen_until, color="tab:blue", alpha=0.08, lw=0)
    axes.text(0.008, 0.94, shaded, transform=axes.transAxes, va="top", fontsize=9, color="#555555")
    axes.set_yscale("log")
    axes.yaxis.set_major_locator(LogLocator(subs=(1.0, 2.0, 5.0)))
    axes.yaxis.set_major_formatter(StrMethodFormatter("{x:g}"))
    axes.yaxis.set_minor_formatter(NullFormatter())
    axes.set_ylabel("dollars (log scale)")
    axes.grid(alpha=0.3)
    axes.legend(loc="center left", bbox_to_anchor=(1.0, 0.5), fontsize=9, frameon=False)
