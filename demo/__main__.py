"""Evaluate a strategy over daily share prices, report on it and draw it."""

from __future__ import annotations

import argparse
import os
import sys
import tempfile
from collections.abc import Sequence
from datetime import date
from pathlib import Path

import backtest
import graphs
import live
import market
import numpy as np
import picture
import pool
import prices
import report
import simulation
import stages
from quernbrook.reference_host import default_registry

_FOLDER = Path(os.path.relpath(Path(__file__).parent))


class Unusable(Exception):
    """The user's options or file don't do; the message is one sentence."""


def main(arguments: Sequence[str] | None = None) -> int:
    options = _read_options(arguments)
    try:
        return _run(options)
    except (Unusable, prices.PriceFileError) as error:
        print(f"demo: {error}", file=sys.stderr)
        return 2


def _read_options(arguments: Sequence[str] | None) -> argparse.Namespace:
    parser = argparse.ArgumentParser(prog="demo", description=__doc__)
    parser.add_argument(
        "--prices",
        type=Path,
        metavar="FILE",
        default=_FOLDER / "data" / "sp500_prices.csv.gz",
        help="a CSV file, plain or .gz, with the column Date and one column of prices for each "
        "share (default: twenty shares of the S&P 500, 1990 to 2022)",
    )
    parser.add_argument(
        "--output",
        type=Path,
        metavar="FILE",
        default=_FOLDER / "output" / "weights.png",
        help="where the picture goes, a PNG (default: demo/output/weights.png)",
    )
    parser.add_argument(
        "--live",
        type=_read_day,
        metavar="DATE",
        help="also stop after DATE, save all states to a file beside the picture, go on from it "
        "in a new process a day at a time, and compare (for example 2021-12-30)",
    )
    return parser.parse_args(arguments)


def _read_day(text: str) -> date:
    try:
        return date.fromisoformat(text)
    except ValueError:
        raise argparse.ArgumentTypeError(f"'{text}' is no date like 2021-12-30") from None


def _run(options: argparse.Namespace) -> int:
    loaded = prices.load(options.prices)
    _require_writable(options.output)
    whole = market.build(loaded)
    report.prices(options.prices, whole)
    selection_days = simulation.count_selection_days(len(whole.dates))
    try:
        simulated = simulation.run(whole, default_registry(), selection_days)
        if len(whole.dates) - simulated.start <= backtest.FEWEST_RETURNS:
            raise simulation.NotEnoughDays
    except simulation.NotEnoughDays:
        raise Unusable(
            f"{options.prices} has {len(whole.dates)} days, too few to fill every window and "
            "choose signals: some 600 will do."
        ) from None
    cut = None if options.live is None else _cut(whole, simulated, options.live)
    taken = pool.taken(simulated.signals)
    report.pool(whole, simulated, taken)
    report.graph(graphs.strategy_graph(), simulated.states)
    report.run(simulated)
    staged = stages.run(whole, simulated.signals)
    report.stages(simulated, staged)
    report.last_weights(whole, simulated)
    report.performance(whole, simulated, staged)
    try:
        picture.draw(whole, simulated, taken, options.output)
        report.picture(options.output)
        if cut is not None:
            return _run_live(options, whole, simulated, cut)
    except OSError as error:
        raise Unusable(_cannot_write(options.output, error)) from error
    return 0


def _run_live(
    options: argparse.Namespace, whole: market.Market, simulated: simulation.Simulation, cut: int
) -> int:
    checkpoint = options.output.with_suffix(".checkpoint")
    history, ticks = live.run(options.prices, cut, simulated.selection_days, checkpoint)
    expected = simulated.weights[cut:]
    difference = backtest.largest_difference(expected, ticks.weights)
    report.live(whole, cut, history, ticks, checkpoint)
    report.live_difference(difference)
    return 0 if difference == 0.0 else 1


def _cut(whole: market.Market, simulated: simulation.Simulation, last_day: date) -> int:
    """The number of days up to `last_day`. Raises Unusable."""
    cut = int(np.searchsorted(whole.dates, np.datetime64(last_day), side="right"))
    first, last = whole.dates[simulated.start], whole.dates[-2]
    if not simulated.start < cut < len(whole.dates):
        raise Unusable(
            f"--live {last_day}: name a day from {first}, when the windows are full and the "
            f"signals chosen, to {last}, which leaves one day to go on with."
        )
    return cut


def _require_writable(output: Path) -> None:
    try:
        output.parent.mkdir(parents=True, exist_ok=True)
        with tempfile.TemporaryFile(dir=output.parent):
            pass
    except FileExistsError as error:
        raise Unusable(f"{output} can't be written: {output.parent} is no folder.") from error
    except OSError as error:
        raise Unusable(_cannot_write(output, error)) from error
    if output.is_dir():
        raise Unusable(f"{output} can't be written: it is a folder.")


def _cannot_write(output: Path, error: OSError) -> str:
    return f"{output} can't be written: {error.strerror}."


if __name__ == "__main__":
    sys.exit(main())
