"""An explanation as a terminal, a notebook and other programs take it."""

from __future__ import annotations

from collections.abc import Mapping
from typing import Any

from quernbrook.workbench.explanation.document import document_of
from quernbrook.workbench.explanation.drawing import draw
from quernbrook.workbench.explanation.page_part import html
from quernbrook.workbench.explanation.records import ExplainedRun, RowValue
from quernbrook.workbench.explanation.row_values import row_values
from quernbrook.workbench.explanation.table import table_of
from rich.console import Group


class Explanation(ExplainedRun):
    """What a run of a graph over a context would do, as tables, pictures and plain data."""

    def table(self) -> Group:
        """Return the explanation for a terminal: print it with `rich.print`."""
        return table_of(self)

    def _repr_html_(self) -> str:
        return html(self)

    def to_json(self) -> dict[str, Any]:
        """Return the explanation as plain data, for `json.dumps`."""
        return document_of(self)

    def svg(self, row: int | str | None = None) -> str:
        """Return a drawing of the graph as a document in SVG.

        row: a number from 0, or a date as ISO text where a panel was explained. Then each node's
            values, share of NaN and time stand on the edge to its parent. For that the graph is
            evaluated up to that row, function by function, over copies.

        Raises ExplanationError for a row that isn't there or can't be computed, and what `evaluate`
        raises.
        """
        return draw(self, {} if row is None else self.row_values(row))

    def row_values(self, row: int | str) -> Mapping[str, RowValue]:
        """Return what each node gives for a row, by path; filters give none. See `svg`."""
        return row_values(self.inputs, row)
