"""Readers of expression graphs."""

from __future__ import annotations

from quernbrook.functions._typed_shapes import FunctionGraphNode

_FEATURE_KINDS = frozenset({"feature", "aggregation"})


def extract_feature_leaf_names(graph: FunctionGraphNode) -> set[str]:
    """Return the names of all features and aggregations that `graph` reads."""
    names = set()
    pending = [graph]
    while pending:
        node = pending.pop()
        if node.type in _FEATURE_KINDS:
            names.add(node.node)
        pending.extend(node.children or ())
    return names
