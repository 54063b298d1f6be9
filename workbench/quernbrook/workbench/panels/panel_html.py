"""A panel as a notebook shows it: its labels and what its fields hold, not the matrices."""

from __future__ import annotations

from collections.abc import Mapping

import numpy as np
import pandas as pd
from quernbrook.workbench.html_tables import html_table, html_text
from quernbrook.workbench.panels.columns import Matrix

_HEADER = ("field", "missing", "least", "largest")
_FEW_SYMBOLS = 6


def html(
    dates: pd.DatetimeIndex,
    symbols: pd.Index,
    fields: Mapping[str, Matrix],
    universe: Matrix | None,
) -> str:
    lines = [_line(name, values) for name, values in fields.items()]
    facts = "<br>".join(map(html_text, (_dates(dates), _symbols(symbols), _universe(universe))))
    return f"<div>{facts}{html_table(_HEADER, lines, left=(0,))}</div>"


def _dates(dates: pd.DatetimeIndex) -> str:
    if dates.empty:
        return "no dates"
    zone = f", {dates.tz}" if dates.tz else ""
    return f"{len(dates):,} dates, {_shown(dates[0])} to {_shown(dates[-1])}{zone}"


def _shown(date: pd.Timestamp) -> str:
    return str(date.date() if date == date.normalize() else date.tz_localize(None))


def _symbols(symbols: pd.Index) -> str:
    names = [str(symbol) for symbol in symbols[:_FEW_SYMBOLS]]
    more = len(symbols) - len(names)
    if not names:
        return "no symbols"
    return f"{len(symbols):,} symbols: {', '.join(names)}" + (f" and {more:,} more" if more else "")


def _universe(universe: Matrix | None) -> str:
    if universe is None or not universe.size:
        return "universe: all cells"
    return f"universe: {universe.mean():.1%} of the cells"


def _line(name: str, values: Matrix) -> list[str]:
    missing = np.count_nonzero(np.isnan(values))
    if missing == values.size:
        return [name, "all", "", ""]
    # NaN gives way to numbers; infinities are told as they are.
    least, largest = np.fmin.reduce(values, axis=None), np.fmax.reduce(values, axis=None)
    return [name, f"{missing / values.size:.2%}", f"{least:,.6g}", f"{largest:,.6g}"]
