"""Where in a graph and in which row an evaluation failed, as far as the error tells."""

from __future__ import annotations

import re

from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.workbench.graphs import FUNCTIONS, children_first, path_of

_PATH = re.compile(r"\broot(?:\.c\d+)*\b")
_ROW = re.compile(r"\bat row (\d+)")
_FUNCTION = re.compile(r"Function '([^']+)'")


def path_in(message: str, graph: Node) -> str | None:
    """The path that a message names, or that of the function that it names, if the graph has that
    function in one place alone."""
    found = _PATH.search(message)
    if found is not None:
        return found[0]
    function = _FUNCTION.search(message)
    if function is None:
        return None
    paths = [
        path_of(visit.place)
        for visit in children_first(graph)
        if visit.node.type in FUNCTIONS and visit.node.node == function[1]
    ]
    return paths[0] if len(paths) == 1 else None


def row_in(message: str) -> int | None:
    """The row that a message names, counted in the run's slice."""
    found = _ROW.search(message)
    return None if found is None else int(found[1])
