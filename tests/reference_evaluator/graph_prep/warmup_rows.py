"""How many leading rows a graph's rolling functions cannot serve."""

from typing import Any

import reference_evaluator as module


def _compute_graph_warmup_rows(graph_node: Any, registry: Any, path: str = "root") -> Any:
    """Return the number of leading output rows that must remain warmup NaNs."""
    children = module._graph_children(graph_node)
    child_warmups = []
    for i, child in enumerate(children):
        child_path = f"{path}.c{i}"
        if module._require_graph_type_value(child, child_path) in ("int", "float", "string"):
            continue
        warmup = module._compute_graph_warmup_rows(child, registry, child_path)
        child_warmups.append((child, child_path, warmup))
    max_child_warmup = max((warmup for _, _, warmup in child_warmups), default=0)

    graph_type = module._require_graph_type_value(graph_node, path)
    if graph_type not in ("rotation", "reduction") or registry is None:
        return max_child_warmup
    func_name = module._require_graph_node_value(graph_node, path)
    if not registry.has(func_name):
        return max_child_warmup
    entry = registry.get_entry(func_name)
    if not getattr(entry, "stateful", False):
        return max_child_warmup

    window_value = 0
    for i, child in enumerate(children):
        child_path = f"{path}.c{i}"
        if module._require_graph_type_value(child, child_path) == "int":
            child_value = module._require_graph_node_value(child, child_path)
            try:
                window_value = max(window_value, int(child_value))
            except (TypeError, ValueError):
                continue
    if window_value <= 1:
        return max_child_warmup
    own_warmup = window_value - 1
    if graph_type == "rotation":
        rotation_child_warmup = 0
        for child, child_path, warmup in child_warmups:
            if module._require_graph_type_value(child, child_path) == "rotation":
                rotation_child_warmup = max(rotation_child_warmup, warmup)
        return own_warmup + rotation_child_warmup
    return own_warmup


def _get_warmup_count_for_instance(instance: Any) -> int:
    """Return the number of rows a stateful instance has already consumed.

    Lets get_state() failures propagate; the call site is responsible for binding instance/node
    identity to the structured error log.
    """
    state = instance.get_state()
    state_data = module._function_state_data(state)
    if not state_data:
        return 0
    try:
        return int(state_data.get("count", 0))
    except (TypeError, ValueError):
        return 0
