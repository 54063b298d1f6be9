"""The rows at the beginning of a run that the evaluator blanks, from the graph alone."""

from __future__ import annotations

from typing import Any

from quernbrook.functions._typed_shapes import FunctionGraphNode
from quernbrook.reference_host.trees import FUNCTION_KINDS, nodes_by_path
from quernbrook.simulator_engine._registry_protocols import RegistryProtocol

_PASSED_OVER = frozenset({"int", "float", "string"})


def warmup_rows(graph: FunctionGraphNode, registry: RegistryProtocol) -> int:
    """Return how many leading rows of a whole run are warm-up."""
    return warmup_rows_by_path(graph, registry)["root"]


def warmup_rows_by_path(graph: FunctionGraphNode, registry: RegistryProtocol) -> dict[str, int]:
    """Return each node's warm-up rows, as if it were the root.

    A stateful function with a window above 1, the largest of its int children, adds window - 1.
    A rotation adds them to those of its children of kind "rotation" alone, and a reduction
    forgets those of its children. Any other node has as many as the child that has most.
    """
    found: dict[str, int] = {}
    for path, node in reversed(nodes_by_path(graph).items()):
        below = {
            f"{path}.c{i}": child
            for i, child in enumerate(node.children or ())
            if child.type not in _PASSED_OVER
        }
        window = window_of(node, registry)
        if window <= 1:
            found[path] = max((found[child] for child in below), default=0)
            continue
        counted = (
            found[child] for child, node_below in below.items() if adds_warmup(node, node_below)
        )
        found[path] = window - 1 + max(counted, default=0)
    return found


def adds_warmup(node: FunctionGraphNode, child: FunctionGraphNode) -> bool:
    """Whether a function with a window waits for this child's rows, too."""
    return node.type == child.type == "rotation"


def window_of(node: FunctionGraphNode, registry: RegistryProtocol) -> int:
    """Return the window that a stateful function warms up for; 0 for any other node."""
    if node.type not in FUNCTION_KINDS or not registry.has(node.node):
        return 0
    if not getattr(registry.get_entry(node.node), "stateful", False):
        return 0
    return max(
        (_int(child.node) for child in node.children or () if child.type == "int"), default=0
    )


def _int(value: Any) -> int:
    try:
        return int(value)
    except (TypeError, ValueError, OverflowError):
        return 0
