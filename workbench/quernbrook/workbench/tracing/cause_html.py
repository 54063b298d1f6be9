"""Why a cell has its value, as a notebook shows it."""

from __future__ import annotations

import math
from collections.abc import Iterator

from quernbrook.workbench.html_tables import SCROLLED, html_table, html_text
from quernbrook.workbench.tracing.cause_text import heading, mark_text, number, window_table
from quernbrook.workbench.tracing.cell_causes import Cause, CellCauses

_HEADER = ("node", "kind", "path", "value", "")


def html(why: CellCauses) -> str:
    """The tree with values and marks, nodes with marks standing out, and the windows, folded."""
    causes = {cause.path: cause for cause in why.root.walk()}
    parts = [f"<p><b>{html_text(heading(why))}</b></p>", _tree(causes)]
    parts += _windows(causes)
    return f'<div style="{SCROLLED}">{"".join(parts)}</div>'


def _tree(causes: dict[str, Cause]) -> str:
    lines = [
        [
            "  " * path.count(".") + str(cause.node.node),
            str(cause.node.type),
            path,
            number(cause.value),
            "\n".join(map(mark_text, cause.marks)),
        ]
        for path, cause in causes.items()
    ]
    marked = [place for place, cause in enumerate(causes.values()) if cause.marks]
    return html_table(_HEADER, lines, left=(0, 1, 2, 4), marked=marked)


def _windows(causes: dict[str, Cause]) -> Iterator[str]:
    for cause in causes.values():
        if cause.window is None:
            continue
        title, (header, *lines) = window_table(cause, cause.window, causes)
        odd = [
            place
            for place in range(len(lines))
            if not all(math.isfinite(values[place]) for values in cause.window.values.values())
        ]
        table = html_table(header, lines, left=(0,), marked=odd)
        yield f"<details><summary>{html_text(title)}</summary>{table}</details>"
