"""The table and the picture of a run over all formulas."""

from __future__ import annotations

import math
from collections.abc import Sequence
from pathlib import Path

import matplotlib
from matplotlib.figure import Figure
from quernbrook.workbench.alphas import measures
from quernbrook.workbench.alphas.summaries import Summary
from quernbrook.workbench.panels.panel import Matrix
from rich.table import Table


def table(summaries: Sequence[Summary], correlations: Matrix) -> Table:
    """A row for each formula with its mean absolute correlation, and one for all."""
    milliseconds = [1e3 * summary.seconds for summary in summaries]
    columns: dict[str, Sequence[float]] = {
        "coverage": [summary.coverage for summary in summaries],
        "turnover": [summary.turnover for summary in summaries],
        "correlation": measures.mean_absolute_correlations(correlations).tolist(),
    }
    made = Table(show_footer=True)
    made.add_column("formula", footer="all", justify="right")
    made.add_column("ms", footer=f"{sum(milliseconds):,.0f}", justify="right")
    for name, values in columns.items():
        made.add_column(name, footer=_mean(values), justify="right")
    for summary, took, *numbers in zip(summaries, milliseconds, *columns.values(), strict=True):
        made.add_row(str(summary.number), f"{took:,.1f}", *map(_number, numbers))
    return made


def _mean(values: Sequence[float]) -> str:
    known = [value for value in values if not math.isnan(value)]
    return _number(sum(known) / len(known)) if known else "-"


def _number(value: float) -> str:
    return "-" if math.isnan(value) else f"{value:.3f}"


def draw(summaries: Sequence[Summary], correlations: Matrix, path: Path) -> None:
    """Draw the correlations, and coverage, turnover and time by formula, to a PNG file."""
    # Apart from the user's own settings.
    with matplotlib.rc_context():
        matplotlib.rcdefaults()
        figure = Figure(figsize=(15.0, 8.0), layout="constrained")
        left, right = figure.subfigures(1, 2, width_ratios=(1.15, 1.0))
        numbers = [summary.number for summary in summaries]
        heat = left.subplots()
        edges = (numbers[0] - 0.5, numbers[-1] + 0.5)
        image = heat.imshow(
            correlations, cmap="RdBu_r", vmin=-1.0, vmax=1.0, extent=(*edges, *reversed(edges))
        )
        heat.set(title="Correlation of holdings", xlabel="formula", ylabel="formula")
        left.colorbar(image, ax=heat, shrink=0.8)
        above, middle, below = right.subplots(3, sharex=True)
        above.bar(numbers, [summary.coverage for summary in summaries])
        above.set(title="Coverage", ylabel="share of cells", ylim=(0.0, 1.0))
        middle.bar(numbers, [summary.turnover for summary in summaries])
        middle.set(title="Turnover", ylabel="a day")
        below.bar(numbers, [1e3 * summary.seconds for summary in summaries])
        below.set(title="Time", ylabel="ms", xlabel="formula")
        figure.savefig(path, dpi=110)
