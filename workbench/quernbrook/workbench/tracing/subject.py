"""What is traced: a graph over data, whose rows and columns may have labels."""

from __future__ import annotations

from bisect import bisect_left
from collections.abc import Iterable, Sequence
from copy import copy
from dataclasses import dataclass
from typing import Any

import pandas as pd
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host import default_registry
from quernbrook.reference_host.binding import merge_transforms
from quernbrook.reference_host.trees import nodes_by_path
from quernbrook.simulator_engine.expression_evaluator import EvaluationContext
from quernbrook.workbench.graphs import children_first, path_of
from quernbrook.workbench.names import suggestion
from quernbrook.workbench.panels import Panel
from quernbrook.workbench.tracing.errors import TraceError

Label = str | int
# Rows and columns of a context have numbers; those of a panel dates and symbols.
Data = Panel | EvaluationContext


@dataclass(frozen=True)
class Subject:
    """A graph and a context of its own to run it in.

    graph: with the transforms of the context's pipeline laid around it.
    rows, columns: their labels, dates as texts; numbers where there are none.
    """

    graph: Node
    context: EvaluationContext
    rows: tuple[Label, ...]
    columns: tuple[Label, ...]

    @classmethod
    def of(cls, graph: Node, data: Data, universe: str | None = None) -> Subject:
        """Neither graph nor data are changed by what is done to the subject.

        universe: a field of the panel. Outside it, where it is 0 or NaN, fields are NaN.

        Raises TraceError for data without a matrix, and for a universe that is no field of a panel.
        """
        context = _context(data, universe)
        if not len(context.features):
            raise TraceError("the data have no feature, and so no rows")
        merged = merge_transforms(graph, context.registry, context)  # type: ignore[arg-type]
        context.transforms_already_combined = True
        # A run adds the arrays of stage data that it finds.
        context.feature_index = dict(context.feature_index)
        if isinstance(data, Panel):
            return cls(merged, context, row_labels(data.dates), column_labels(data.symbols))
        rows, columns = context.features[0].shape
        return cls(merged, context, tuple(range(rows)), tuple(range(columns)))

    @property
    def nodes(self) -> dict[str, Node]:
        """The nodes by path, each before its children."""
        return nodes_by_path(self.graph)

    @property
    def nodes_as_run(self) -> dict[str, Node]:
        """The nodes by path in the order in which a row runs them, each after its children."""
        return {path_of(visit.place): visit.node for visit in children_first(self.graph)}

    def row(self, date: Any) -> int:
        """The number of a date's row. Raises TraceError for a date that isn't there."""
        return row_number(self.rows, date)

    def column(self, symbol: Any) -> int:
        """The number of a symbol's column. Raises TraceError for one that isn't there."""
        return column_number(self.columns, symbol)

    def require_path(self, path: str) -> str:
        """Return `path`. Raises TraceError unless a node of the graph has it."""
        known = self.nodes
        if path not in known:
            raise TraceError(f"the graph has no node '{path}'{suggestion(path, known)}")
        return path


def _context(data: Data, universe: str | None) -> EvaluationContext:
    if not isinstance(data, Panel):
        if universe is not None:
            raise TraceError("a context has a universe of its own: set its attribute universe")
        return copy(data)
    context = data.context(default_registry())
    if universe is not None:
        if universe not in data.fields:
            raise TraceError(f"unknown field '{universe}'{suggestion(universe, data.fields)}")
        context.universe = data.fields[universe]
    return context


def row_labels(dates: Iterable[Any]) -> tuple[str, ...]:
    """Dates as texts, without a time of day where there is none."""
    return tuple(_date_text(pd.Timestamp(date)) for date in dates)


def column_labels(symbols: Iterable[Any]) -> tuple[str, ...]:
    return tuple(map(str, symbols))


def row_number(labels: Sequence[Label], date: Any) -> int:
    if labels and isinstance(labels[0], str):
        try:
            label = _date_text(pd.Timestamp(date))
        except (TypeError, ValueError):
            raise TraceError(f"{date!r} is no date; write it as {labels[0]}") from None
        if label in labels:
            return labels.index(label)
        raise TraceError(f"there is no row of {label}; {_around(labels, label)}")
    return _place(labels, date, "row")


def column_number(labels: Sequence[Label], symbol: Any) -> int:
    if labels and isinstance(labels[0], str):
        if str(symbol) in labels:
            return labels.index(str(symbol))
        known = [str(label) for label in labels]
        raise TraceError(f"there is no symbol '{symbol}'{suggestion(str(symbol), known)}")
    return _place(labels, symbol, "column")


def _date_text(date: pd.Timestamp) -> str:
    if pd.isna(date):
        raise ValueError("no date")
    # Without its zone: where clocks go forward at midnight, a day has none.
    clock = date.tz_localize(None)
    return date.date().isoformat() if clock == clock.normalize() else date.isoformat(sep=" ")


def _around(labels: Sequence[Label], label: str) -> str:
    after = bisect_left([str(one) for one in labels], label)
    near = [str(one) for one in labels[max(after - 1, 0) : after + 1]]
    return f"the nearest: {' and '.join(near)}"


def _place(labels: Sequence[Label], number: Any, what: str) -> int:
    if not labels:
        raise TraceError(f"the data have no {what}s")
    try:
        place = int(number)
    except (TypeError, ValueError):
        raise TraceError(
            f"{number!r} is no number of a {what}; a context has numbers from 0 to "
            f"{len(labels) - 1}, a panel dates and symbols"
        ) from None
    if not 0 <= place < len(labels):
        raise TraceError(f"there is no {what} {place}; they go from 0 to {len(labels) - 1}")
    return place
