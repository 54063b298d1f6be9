"""A profile as a table in text, and as a document for other programs."""

from __future__ import annotations

from typing import Any

from quernbrook.workbench.html_tables import encodable, html_table
from quernbrook.workbench.tracing import flame
from quernbrook.workbench.tracing.measured_run import MeasuredRun, NodeTime
from quernbrook.workbench.tracing.text_table import aligned

_WAYS = {
    "kernel": "row kernel",
    "blocks": "blocks of rows in Python",
    "calls": "row by row in Python",
    "none": "not called",
}


_HEADER = ("node", "function", "how", "calls", "rows", "ms", "share", "a kernel would save")
_LEFT = (0, 1, 2)


def text(profile: MeasuredRun) -> str:
    """A line for each function, the costliest first, and one for the evaluator itself."""
    return "\n".join(aligned([_HEADER, *_lines(profile)], left=_LEFT))


def html(profile: MeasuredRun) -> str:
    """The flame view above the same table."""
    drawing = encodable(flame.svg(profile))
    return f"<div>{drawing}{html_table(_HEADER, _lines(profile), left=_LEFT)}</div>"


def _lines(profile: MeasuredRun) -> list[list[str]]:
    lines = []
    for node in sorted(profile.nodes, key=lambda node: -node.seconds):
        shared = f" (one instance at {node.sharing} nodes)" if node.sharing > 1 else ""
        lines.append(
            [
                node.path,
                node.name,
                _WAYS[node.way] + shared,
                f"{node.calls:,}",
                f"{node.rows:,}",
                f"{node.seconds * 1e3:.3f}",
                _share(node.seconds, profile),
                _gain(node, profile),
            ]
        )
    own = profile.evaluator_seconds
    lines.append(
        ["", "the evaluator itself", "", "", "", f"{own * 1e3:.3f}", _share(own, profile), ""]
    )
    lines.append(["", "all", "", "", "", f"{profile.seconds * 1e3:.3f}", "100.0%", ""])
    return lines


def document(profile: MeasuredRun) -> dict[str, Any]:
    return {
        "seconds": profile.seconds,
        "evaluator_seconds": profile.evaluator_seconds,
        "nodes": [
            {
                "path": node.path,
                "function": node.name,
                "way": node.way,
                "calls": node.calls,
                "rows": node.rows,
                "seconds": node.seconds,
                "sharing": node.sharing,
                "gain": node.gain,
            }
            for node in profile.nodes
        ],
    }


def _share(seconds: float, profile: MeasuredRun) -> str:
    return f"{seconds / profile.seconds:.1%}"


def _gain(node: NodeTime, profile: MeasuredRun) -> str:
    if node.way not in ("calls", "blocks"):
        return ""
    if node.gain is None:
        return "unknown"
    return f"{node.gain * 1e3:.3f} ms, {_share(node.gain, profile)}"
