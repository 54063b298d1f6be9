"""From the dates and symbols of a run to rows and columns of the panel."""

from __future__ import annotations

import pandas as pd
from quernbrook.workbench.names import suggestion
from quernbrook.workbench.panels import Panel, PanelError
from quernbrook.workbench.panels.labels import as_date
from quernbrook.workbench.sweeps.errors import SweepError
from quernbrook.workbench.sweeps.runs import Run
from quernbrook.workbench.sweeps.work import Slice


def slice_of(run: Run, panel: Panel) -> Slice:
    """Raises SweepError for what the panel hasn't, and for a slice without dates or symbols."""
    if not len(panel.symbols):
        raise SweepError(f"the run '{run.name}': the panel has no symbols")
    start, stop = 0, len(panel.dates)
    try:
        if run.first_date is not None:
            first = as_date(run.first_date, panel.dates.tz)
            start = int(panel.dates.searchsorted(first, side="left"))
        if run.last_date is not None:
            last = as_date(run.last_date, panel.dates.tz)
            stop = int(panel.dates.searchsorted(last, side="right"))
    except PanelError as error:
        raise SweepError(f"the run '{run.name}': {error}") from error
    if stop <= start:
        raise SweepError(
            f"the run '{run.name}': the panel has no dates from {run.first_date} to {run.last_date}"
        )
    if run.universe is not None and run.universe not in panel.fields:
        near = suggestion(run.universe, panel.fields)
        raise SweepError(f"the run '{run.name}': there is no field '{run.universe}'{near}")
    return Slice((start, stop), _columns(run, panel), run.universe)


def _columns(run: Run, panel: Panel) -> tuple[int, ...] | None:
    if run.symbols is None:
        return None
    symbols = list(run.symbols)
    if not symbols or len(set(symbols)) < len(symbols):
        raise SweepError(f"the run '{run.name}': name one symbol at least, and none twice")
    places = panel.symbols.get_indexer(pd.Index(symbols))
    for symbol, place in zip(symbols, places, strict=True):
        if place < 0:
            near = suggestion(str(symbol), map(str, panel.symbols))
            raise SweepError(f"the run '{run.name}': the panel has no symbol {symbol!r}{near}")
    return tuple(int(place) for place in places)
