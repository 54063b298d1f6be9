"""Why a cell has its value, as text and as a document for other programs."""

from __future__ import annotations

import math
from collections.abc import Iterator
from typing import Any

from quernbrook.reference_host import draw_tree
from quernbrook.workbench.tracing.causes import Cause, Mark, Why, Window
from quernbrook.workbench.tracing.text_table import aligned

# Of a window, the text shows so many rows; the document has all.
_ROWS_SHOWN = 10
_BEGINNINGS = {"nan": "NaN begins here", "infinity": "infinity begins here", "jump": "jumps here"}
_NAMES = {"nan": "NaN", "infinity": "infinity", "jump": "jump"}


def text(why: Why) -> str:
    """The tree with values and marks, and the windows below it."""
    return "\n".join(_lines(why))


def document(why: Why) -> dict[str, Any]:
    """Plain data. What JSON has no number for is a text: "nan", "inf" or "-inf"."""
    return {
        "row": why.row,
        "column": why.column,
        "weight": _plain(why.weight),
        "is_warmup": why.is_warmup,
        "jump_factor": why.jump_factor,
        "root": _node(why.root),
    }


def _lines(why: Why) -> Iterator[str]:
    warmup = ", a warm-up row" if why.is_warmup else ""
    yield f"{why.column} on {why.row}: weight {_number(why.weight)}{warmup}"
    yield ""
    causes = {cause.path: cause for cause in why.root.walk()}
    yield draw_tree(why.root.node, {path: _note(cause) for path, cause in causes.items()})
    for path, cause in causes.items():
        if cause.window is not None:
            yield ""
            yield f"{path} {cause.node.node} holds {len(cause.window.rows)} rows"
            yield from _window_lines(cause.window, causes)


def _note(cause: Cause) -> str:
    return "  ".join([_number(cause.value), *map(_mark_text, cause.marks)])


def _mark_text(mark: Mark) -> str:
    if not mark.sources:
        reason = f": {mark.reason}" if mark.reason else ""
        return f"<- {_BEGINNINGS[mark.kind]}{reason}"
    sources = ", ".join(f"{path} ({row})" for path, row in mark.sources)
    return f"<- {_NAMES[mark.kind]} from {sources}"


def _window_lines(window: Window, causes: dict[str, Cause]) -> Iterator[str]:
    hidden = max(len(window.rows) - _ROWS_SHOWN, 0)
    if hidden:
        yield f"  ... {hidden} rows before these"
    table = [
        ["", *(f"{path} {causes[path].node.node}" for path in window.values)],
        *(
            [str(row), *(_number(values[place]) for values in window.values.values())]
            for place, row in enumerate(window.rows)
            if place >= hidden
        ),
    ]
    for line in aligned(table):
        yield f"  {line}"


def _number(value: float) -> str:
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
