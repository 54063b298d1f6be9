"""Why a cell has its value, as text and as a document for other programs."""

from __future__ import annotations

import math
from collections.abc import Iterator, Mapping
from typing import Any

from quernbrook.reference_host import draw_tree
from quernbrook.workbench.tracing.cell_causes import Cause, CellCauses, Mark, Window
from quernbrook.workbench.tracing.text_table import aligned

# Of a window, the text shows so many rows; the document has all.
_ROWS_SHOWN = 10
_BEGINNINGS = {"nan": "NaN begins here", "infinity": "infinity begins here", "jump": "jumps here"}
_NAMES = {"nan": "NaN", "infinity": "infinity", "jump": "jump"}


def text(why: CellCauses) -> str:
    """The tree with values and marks, and the windows below it."""
    return "\n".join(_lines(why))


def document(why: CellCauses) -> dict[str, Any]:
    """Plain data. What JSON has no number for is a text: "nan", "inf" or "-inf"."""
    return {
        "row": why.row,
        "column": why.column,
        "weight": _plain(why.weight),
        "is_warmup": why.is_warmup,
        "jump_factor": why.jump_factor,
        "root": _node(why.root),
    }


def heading(why: CellCauses) -> str:
    warmup = ", a warm-up row" if why.is_warmup else ""
    return f"{why.column} on {why.row}: weight {number(why.weight)}{warmup}"


def _lines(why: CellCauses) -> Iterator[str]:
    yield heading(why)
    yield ""
    causes = {cause.path: cause for cause in why.root.walk()}
    yield draw_tree(why.root.node, {path: _note(cause) for path, cause in causes.items()})
    for cause in causes.values():
        if cause.window is not None:
            yield ""
            yield from _window_lines(cause, cause.window, causes)


def _note(cause: Cause) -> str:
    return "  ".join([number(cause.value), *map(mark_text, cause.marks)])


def mark_text(mark: Mark) -> str:
    if not mark.sources:
        reason = f": {mark.reason}" if mark.reason else ""
        return f"<- {_BEGINNINGS[mark.kind]}{reason}"
    sources = ", ".join(f"{path} ({row})" for path, row in mark.sources)
    return f"<- {_NAMES[mark.kind]} from {sources}"


def _window_lines(cause: Cause, window: Window, causes: Mapping[str, Cause]) -> Iterator[str]:
    title, (header, *lines) = window_table(cause, window, causes)
    yield title
    hidden = max(len(lines) - _ROWS_SHOWN, 0)
    if hidden:
        yield f"  ... {hidden} rows before these"
    for line in aligned([header, *lines[hidden:]]):
        yield f"  {line}"


def window_table(
    cause: Cause, window: Window, causes: Mapping[str, Cause]
) -> tuple[str, list[list[str]]]:
    """The title of a node's window, and its lines: the inputs' names, then a line for each row."""
    return f"{cause.path} {cause.node.node} holds {len(window.rows)} rows", [
        ["", *(f"{path} {causes[path].node.node}" for path in window.values)],
        *(
            [str(row), *(number(values[place]) for values in window.values.values())]
            for place, row in enumerate(window.rows)
        ),
    ]


def number(value: float) -> str:
    return f"{value:.6g}"


def _plain(value: float) -> float | str:
    return value if math.isfinite(value) else str(value)


def _node(cause: Cause) -> dict[str, Any]:
    # From the leaves up: a deep graph needs no deep stack.
    made: dict[str, dict[str, Any]] = {}
    for below in reversed(list(cause.walk())):
        made[below.path] = {
            "path": below.path,
            "type": below.node.type,
            "node": below.node.node,
            "config": dict(below.node.config or {}),
            "value": _plain(below.value),
            "marks": [
                {
                    "kind": mark.kind,
                    "sources": [{"path": path, "row": row} for path, row in mark.sources],
                    "reason": mark.reason,
                }
                for mark in below.marks
            ],
            "window": None if below.window is None else _window(below.window),
            "inputs": [made[input_.path] for input_ in below.inputs],
        }
    return made[cause.path]


def _window(window: Window) -> dict[str, Any]:
    return {
        "rows": list(window.rows),
        "values": {path: [_plain(one) for one in ones] for path, ones in window.values.items()},
    }
