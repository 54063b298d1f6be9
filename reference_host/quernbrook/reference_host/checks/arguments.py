"""Whether the other arguments of a run fit the graph, and its windows the history."""

from __future__ import annotations

from collections.abc import Iterable, Iterator, Mapping
from typing import Any

from quernbrook.functions._typed_shapes import FunctionGraphNode
from quernbrook.reference_host.checks.faults import Fault, nearest
from quernbrook.reference_host.registry import FunctionRegistry
from quernbrook.reference_host.trees import functions_by_path, nodes_by_path
from quernbrook.reference_host.warmup import warmup_rows_by_path
from quernbrook.simulator_engine._graph_helpers import extract_feature_leaf_names


def check_bound(merged: FunctionGraphNode, bound: Mapping[str, Any]) -> Iterator[Fault]:
    nodes, functions = nodes_by_path(merged), functions_by_path(merged)
    for path in bound:
        if path not in functions:
            found = f"a {nodes[path].type}" if path in nodes else "nothing"
            text = f"bound, but {found} stands at '{path}' of the merged graph, no function"
            yield Fault("bound_function_instances", text, nearest(path, functions))
    for path, node in functions.items():
        if path not in bound:
            text = f"no instance for '{path}' of the merged graph ({node.node})"
            yield Fault("bound_function_instances", text)
        elif bound[path] is None:
            text = f"the instance for '{path}' of the merged graph ({node.node}) is None"
            yield Fault("bound_function_instances", text)


def check_states(
    merged: FunctionGraphNode, registry: FunctionRegistry, states: Mapping[str, Any]
) -> Iterator[Fault]:
    keys = {
        getattr(node, "_state_identity", path): node
        for path, node in functions_by_path(merged).items()
    }
    for key in states:
        if key not in keys:
            yield Fault(
                "function_states",
                f"no function of the graph has the key '{key}'",
                nearest(key, keys),
            )
    for key, node in keys.items():
        if key not in states and _is_stateful(node, registry):
            yield Fault("function_states", f"no state for '{key}' ({node.node})")


def check_missing_features(merged: FunctionGraphNode, names: Iterable[str]) -> Iterator[Fault]:
    read = extract_feature_leaf_names(merged)
    for name in names:
        if name not in read:
            yield Fault(
                "data_nan_features", f"the graph reads no feature {name!r}", nearest(name, read)
            )


def check_windows(
    merged: FunctionGraphNode, registry: FunctionRegistry, rows: int
) -> Iterator[Fault]:
    """Find where the warm-up first takes all rows, and windows in config, which don't count."""
    warmup = warmup_rows_by_path(merged, registry)
    for path, node in functions_by_path(merged).items():
        below = [warmup[f"{path}.c{i}"] for i, _ in enumerate(node.children or ())]
        needed = warmup[path]
        if _is_stateful(node, registry) and needed == max(below, default=0):
            window = (node.config or {}).get("window")
            needed = max(needed, window - 1 if isinstance(window, int) else 0)
        if needed >= rows > max(below, default=0):
            yield Fault(
                getattr(node, "_state_identity", path),
                f"'{node.node}' is full after {needed + 1} rows; the history has {rows}",
            )


def _is_stateful(node: FunctionGraphNode, registry: FunctionRegistry) -> bool:
    return registry.has(node.node) and registry.get_entry(node.node).stateful
