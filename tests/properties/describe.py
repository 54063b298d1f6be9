"""Values in a form that compares by bits and types and can be read in a report."""

from __future__ import annotations

from typing import Any

import numpy as np
from quernbrook.functions._typed_shapes import FunctionGraphNode


def bits(value: Any) -> Any:
    if isinstance(value, np.ndarray):
        if value.dtype == np.float64 and value.dtype.isnative:
            words = np.ascontiguousarray(value).view(np.uint64)
            shown = value.tolist() if not np.isnan(value).any() else [f"{w:x}" for w in words.flat]
            return (str(value.dtype), value.shape, shown, str(np.signbit(value).tolist()))
        return (str(value.dtype), value.shape, repr(value.tolist()))
    return described(value)


def described(value: Any) -> Any:
    """Containers item by item, arrays by their bits, all else as it shows itself."""
    if isinstance(value, np.ndarray):
        return bits(value)
    if isinstance(value, dict):
        return [
            type(value).__name__,
            *((repr(key), described(item)) for key, item in value.items()),
        ]
    if isinstance(value, (list, tuple)):
        return [type(value).__name__, *map(described, value)]
    if isinstance(value, (set, frozenset)):
        return (type(value).__name__, sorted(map(repr, value)))
    if isinstance(value, FunctionGraphNode):
        return f"{type(value).__name__} of {sorted(vars(value))}"
    return (type(value).__name__, repr(value))


def described_graph(node: Any, path: str = "root") -> list[Any]:
    """All that the nodes hold, the record of the root aside."""
    if not isinstance(node, FunctionGraphNode):
        return [(path, described(node))]
    fields = {
        name: described(value)
        for name, value in sorted(vars(node).items())
        if name not in ("children", "_collect_nodes_cache")
    }
    children = getattr(node, "children", None)
    below = [
        found
        for position, child in enumerate(children or ())
        for found in described_graph(child, f"{path}.c{position}")
    ]
    return [(path, type(children).__name__, fields), *below]


def described_record(graph: Any) -> Any:
    """The tables kept on a graph, and which of their parts are one object."""
    record = getattr(graph, "_collect_nodes_cache", None)
    if not isinstance(record, dict):
        return described(record)
    infos, reductions = record.get("node_info"), record.get("reduction_nodes")
    shared = None
    if isinstance(infos, dict) and isinstance(reductions, dict):
        shared = [
            (path, isinstance(info, dict) and info.get("config") is entry.get("config"))
            for path, entry in reductions.items()
            if isinstance(entry, dict) and (info := infos.get(path)) is not None
        ]
    return (described(record), shared)
