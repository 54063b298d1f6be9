"""A panel as a notebook shows it: its labels and what its fields hold, not the matrices."""

from __future__ import annotations

from typing import TYPE_CHECKING

import numpy as np
import pandas as pd
from quernbrook.workbench.html_tables import html_table, html_text

if TYPE_CHECKING:
    from quernbrook.workbench.panels.panel import Matrix, Panel

_HEADER = ("field", "missing", "least", "largest")
_FEW_SYMBOLS = 6


def html(panel: Panel) -> str:
    lines = [_line(name, values) for name, values in panel.fields.items()]
    facts = "<br>".join(map(html_text, (_dates(panel.dates), _symbols(panel), _universe(panel))))
    return f"<div>{facts}{html_table(_HEADER, lines, left=(0,))}</div>"


def _dates(dates: pd.DatetimeIndex) -> str:
    if dates.empty:
        return "no dates"
    zone = f", {dates.tz}" if dates.tz else ""
    return f"{len(dates):,} dates, {_shown(dates[0])} to {_shown(dates[-1])}{zone}"


def _shown(date: pd.Timestamp) -> str:
    return str(date.date() if date == date.normalize() else date.tz_localize(None))


def _symbols(panel: Panel) -> str:
    names = [str(symbol) for symbol in panel.symbols[:_FEW_SYMBOLS]]
    more = len(panel.symbols) - len(names)
    if not names:
        return "no symbols"
    return f"{len(panel.symbols):,} symbols: {', '.join(names)}" + (
        f" and {more:,} more" if more else ""
    )


def _universe(panel: Panel) -> str:
    if panel.universe is None or not panel.universe.size:
        return "universe: all cells"
    return f"universe: {panel.universe.mean():.1%} of the cells"


def _line(name: str, values: Matrix) -> list[str]:
    missing = np.count_nonzero(np.isnan(values))
    if missing == values.size:
        return [name, "all", "", ""]
    # NaN gives way to numbers; infinities are told as they are.
    least, largest = np.fmin.reduce(values, axis=None), np.fmax.reduce(values, axis=None)
    return [name, f"{missing / values.size:.2%}", f"{least:,.6g}", f"{largest:,.6g}"]
