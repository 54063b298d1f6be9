"""The numbers of a report, as text."""

from __future__ import annotations

import math
from collections.abc import Mapping, Sequence
from dataclasses import dataclass

import numpy as np
import pandas as pd
from quernbrook.workbench.panels.panel import Vector
from quernbrook.workbench.report.evaluated_run import EvaluatedRun
from quernbrook.workbench.seeing import measures, series
from quernbrook.workbench.seeing.causes import Cause

# More would make the page slow and large.
LISTED_SYMBOLS = 1000


@dataclass(frozen=True)
class SymbolTable:
    """A row for each symbol: what stands there, and the numbers to sort by.

    note: which symbols are listed, "" if all are.
    """

    heads: Sequence[str]
    rows: Sequence[tuple[str, Sequence[tuple[str, float | None]]]]
    note: str


def data_facts(run: EvaluatedRun) -> Mapping[str, str]:
    dates = run.panel.dates
    facts = {
        "days": f"{len(dates):,}, {day(dates[0])} to {day(dates[-1])}",
        "symbols": f"{len(run.panel.symbols):,}",
    }
    if run.universe is not None:
        values = run.panel.fields[run.universe]
        inside = ~(np.isnan(values) | (values == 0.0))
        facts["universe"] = f"{run.universe}, {inside.mean():.1%} of cells inside"
    return facts


def field_coverage(run: EvaluatedRun) -> Mapping[str, str]:
    return {name: f"{measures.coverage(values):.1%}" for name, values in run.panel.fields.items()}


def run_facts(run: EvaluatedRun) -> Mapping[str, str]:
    values = run.weights.to_numpy()
    index = measures.concentration(values)
    return {
        "evaluated in": f"{run.seconds:.3f} s",
        "warm-up": f"{run.warmup_rows:,} days",
        "coverage": f"{measures.coverage(values):.1%} of cells have a weight",
        "gross exposure": _mean(measures.gross_exposure(values), "{:,.4g} on average"),
        "net exposure": _mean(measures.net_exposure(values), "{:,.4g} on average"),
        "turnover": _mean(
            measures.turnover_by_day(measures.unit_gross(values)),
            "{:.1%} of the gross exposure a day",
        ),
        "concentration": _mean(1.0 / index, "as {:,.1f} positions of one size"),
    }


def pnl_facts(earned: pd.DataFrame) -> Mapping[str, str]:
    ends, falls = series.cumulative(earned).iloc[-1], series.drawdown(earned).min()
    return {
        str(name): f"{end:.1%} in all, deepest drawdown {abs(fall):.1%}"
        for (name, end), fall in zip(ends.items(), falls, strict=True)
    }


def cause_facts(run: EvaluatedRun) -> Mapping[str, str]:
    return {cause.label: f"{(run.causes == cause).mean():.1%}" for cause in Cause}


def symbol_table(run: EvaluatedRun) -> SymbolTable:
    """The symbols with the largest mean share in the gross exposure first."""
    values = run.weights.to_numpy()
    scaled = measures.unit_gross(values)
    columns: dict[str, tuple[Vector, str]] = {
        "share of gross": (np.abs(scaled).mean(axis=0), "{:.2%}"),
        "coverage": (np.isfinite(values).mean(axis=0), "{:.1%}"),
        "mean weight": (_mean_by_symbol(run), "{:.4g}"),
        "last weight": (values[-1], "{:.4g}"),
    }
    if run.returns is not None:
        earned = measures.pnl_by_symbol(scaled, run.returns.to_numpy()).sum(axis=0)
        columns["PnL"] = (earned, "{:.2%}")
    order = np.argsort(-columns["share of gross"][0], kind="stable")[:LISTED_SYMBOLS]
    rows = [
        (
            str(run.panel.symbols[place]),
            [_cell(float(numbers[place]), form) for numbers, form in columns.values()],
        )
        for place in order
    ]
    count = len(run.panel.symbols)
    note = (
        f"The {LISTED_SYMBOLS:,} of {count:,} symbols with the largest share of the gross exposure."
        if count > LISTED_SYMBOLS
        else ""
    )
    return SymbolTable(list(columns), rows, note)


def day(date: pd.Timestamp) -> str:
    return date.date().isoformat()


def _mean_by_symbol(run: EvaluatedRun) -> Vector:
    values = run.weights.to_numpy()
    known = np.isfinite(values)
    counts = known.sum(axis=0)
    sums = np.where(known, values, 0.0).sum(axis=0)
    return np.divide(sums, counts, out=np.full(len(sums), np.nan), where=counts > 0)


def _mean(by_day: Vector, form: str) -> str:
    known = by_day[np.isfinite(by_day)]
    return form.format(known.mean()) if known.size else "none"


def _cell(number: float, form: str) -> tuple[str, float | None]:
    """The text, and the number where JSON and HTML have one."""
    return ("", None) if math.isnan(number) else (form.format(number), number)
