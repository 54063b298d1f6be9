"""Graphs as trees: the nodes by their paths, and a picture in text."""

from __future__ import annotations

from collections.abc import Mapping

from quernbrook.functions._typed_shapes import FunctionGraphNode

FUNCTION_KINDS = frozenset({"rotation", "reduction"})


def nodes_by_path(graph: FunctionGraphNode) -> dict[str, FunctionGraphNode]:
    """Return every node by its path ("root", "root.c0", ...), each before its children."""
    found = {}
    pending = [("root", graph)]
    while pending:
        path, node = pending.pop()
        found[path] = node
        below = [(f"{path}.c{i}", child) for i, child in enumerate(node.children or ())]
        pending += reversed(below)
    return found


def functions_by_path(graph: FunctionGraphNode) -> dict[str, FunctionGraphNode]:
    """Return the function nodes by their paths in the order in which they run, children first."""
    found = []
    pending = [("root", graph)]
    while pending:
        path, node = pending.pop()
        if node.type in FUNCTION_KINDS:
            found.append((path, node))
        pending += [(f"{path}.c{i}", child) for i, child in enumerate(node.children or ())]
    return dict(reversed(found))


def draw_tree(graph: FunctionGraphNode, notes: Mapping[str, str] | None = None) -> str:
    """Return the graph as text, a line for each node: its value, kind and path.

    `notes` maps a path to what else its line is to say.
    """
    notes = {} if notes is None else notes
    lines = []
    pending = [(graph, "root", "", "")]
    while pending:
        node, path, branch, indent = pending.pop()
        lines.append((branch + _label(node), node.type, path, notes.get(path, "")))
        children = list(enumerate(node.children or ()))
        for i, child in reversed(children):
            is_last = i == len(children) - 1
            branch, bar = ("└── ", "    ") if is_last else ("├── ", "│   ")
            pending.append((child, f"{path}.c{i}", indent + branch, indent + bar))
    widths = [max(map(len, column)) for column in zip(*lines, strict=True)]
    return "\n".join(
        "  ".join(cell.ljust(width) for cell, width in zip(line, widths, strict=True)).rstrip()
        for line in lines
    )


def _label(node: FunctionGraphNode) -> str:
    config = ", ".join(f"{name}={value!r}" for name, value in (node.config or {}).items())
    return f"{node.node}({config})" if config else str(node.node)
