"""Walk-forward runs: window after window of a panel, with the states handed on."""

from __future__ import annotations

from collections.abc import Iterable, Iterator, Mapping
from dataclasses import dataclass
from typing import Any

import pandas as pd
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host import FunctionRegistry, bind_instances, default_registry
from quernbrook.workbench.live.errors import LiveError
from quernbrook.workbench.panels import Panel
from quernbrook.workbench.panels.labels import Date, as_date


@dataclass(frozen=True)
class Window:
    """A window that has been run.

    panel: its rows. weights: dates by symbols.
    states: of the functions after its last row, for `save_checkpoint` or `evaluate`.
    """

    panel: Panel
    weights: pd.DataFrame
    states: Mapping[str, Any]


def walk_forward(
    graph: Node,
    panel: Panel,
    windows: int | Iterable[Date],
    *,
    registry: FunctionRegistry | None = None,
) -> Iterator[Window]:
    """Run window after window, each when it is asked for, and from the states of the one before.

    windows: how many rows each has, or the last date of each, increasing. The last window takes the
    rows that are left; each row is in one window. No window sees rows of later ones, and together
    the weights are, bit for bit, those of one run over the whole panel, its universe included.

    Raises LiveError for windows that don't increase or have no rows, PanelError for what is no
    date, and what a run raises.
    """
    parts = _parts(panel, windows)
    return _run(graph, parts, default_registry() if registry is None else registry)


def _run(graph: Node, parts: list[Panel], registry: FunctionRegistry) -> Iterator[Window]:
    bound = bind_instances(graph, registry)
    for part in parts:
        context = part.context()
        context._collect_states = False
        weights = bound.evaluate(context).weights
        yield Window(part, part.frame(weights), bound.states())


def _parts(panel: Panel, windows: int | Iterable[Date]) -> list[Panel]:
    dates = panel.dates
    if isinstance(windows, int):
        if windows < 1:
            raise LiveError(f"a window has one row at least; got {windows}")
        ends = list(dates[windows - 1 :: windows])
    else:
        ends = [as_date(date, dates.tz) for date in windows]
    if len(dates) and (not ends or ends[-1] < dates[-1]):
        ends.append(dates[-1])
    parts: list[Panel] = []
    for end in ends:
        part = panel.until(end)
        if parts:
            part = part.after(parts[-1].dates[-1])
        if not len(part.dates):
            raise LiveError(f"the window that ends on {end} has no rows")
        parts.append(part)
    return parts
