"""Which graphs may skip the row loop, and the window of a longitudinal rotation."""

from typing import Any

import reference_evaluator as module

_LONGITUDINAL_FAST_MIN_ROWS = 100000
_LONGITUDINAL_FAST_NAMES = {"longitudinal_mean", "longitudinal_std", "longitudinal_zscore"}


def _can_use_simple_rank_fast_path(
    graph: Any, context: Any, function_states: Any, *, data_nan_features: Any = None
) -> bool:
    if data_nan_features:
        return False
    if function_states:
        return False
    if context.useful_signals:
        return False
    if context.transform_pipeline:
        return False
    if context.metaparameters:
        return False
    if module._require_graph_type_value(graph, "root") != "rotation":
        return False
    if module._require_graph_node_value(graph, "root") != "latitudinal_rank":
        return False
    children = module._graph_children(graph)
    if len(children) != 1:
        return False
    if module._require_graph_type_value(children[0], "root.c0") not in ("feature", "aggregation"):
        return False
    registry = context.registry
    return registry is None or not registry.has_factory("latitudinal_rank")


def _can_use_rank_multiply_fast_path(
    graph: Any,
    context: Any,
    function_states: Any,
    *,
    bound_function_instances: Any = None,
    data_nan_features: Any = None,
) -> bool:
    if data_nan_features:
        return False
    if function_states:
        return False
    if bound_function_instances:
        return False
    if context.useful_signals:
        return False
    if context.transform_pipeline:
        return False
    if context.metaparameters:
        return False
    if module._require_graph_type_value(graph, "root") != "rotation":
        return False
    if module._require_graph_node_value(graph, "root") != "numerical_multiply":
        return False
    registry = context.registry
    if registry is not None:
        if registry.has_factory("numerical_multiply"):
            return False
        if registry.has_factory("latitudinal_rank"):
            return False
    children = module._graph_children(graph)
    if len(children) != 2:
        return False
    for i, child in enumerate(children):
        child_path = f"root.c{i}"
        if module._require_graph_type_value(child, child_path) != "rotation":
            return False
        if module._require_graph_node_value(child, child_path) != "latitudinal_rank":
            return False
        rank_children = module._graph_children(child)
        if len(rank_children) != 1:
            return False
        leaf, leaf_path = rank_children[0], f"{child_path}.c0"
        if module._require_graph_type_value(leaf, leaf_path) not in ("feature", "aggregation"):
            return False
        if module._require_graph_node_value(leaf, leaf_path) not in context.feature_index:
            return False
    return True


def _can_use_longitudinal_fast_path(
    graph: Any, context: Any, function_states: Any, T: Any, *, data_nan_features: Any = None
) -> bool:
    def _registry_allows_stub_fast_path(registry: Any, name: Any) -> bool:
        if registry is None:
            return False
        if not registry.has(name):
            return False
        if registry.has_factory(name):
            return False
        try:
            entry = registry.get_entry(name)
        except Exception:  # noqa: BLE001
            return False
        if getattr(entry, "module_path", None) or getattr(entry, "class_name", None):
            return False
        if getattr(entry, "factory", None) is not None:
            return False
        return getattr(entry, "implementation", None) is None

    def _supported(node: Any) -> bool:
        ntype = module._require_graph_type_value(node, "fast_path")
        if ntype in ("feature", "aggregation"):
            return module._require_graph_node_value(node, "fast_path") in context.feature_index
        if ntype != "rotation":
            return False
        name = module._require_graph_node_value(node, "fast_path")
        if name not in module._LONGITUDINAL_FAST_NAMES:
            return False
        if not _registry_allows_stub_fast_path(context.registry, name):
            return False
        children = module._graph_children(node)
        data_children = [
            child
            for child in children
            if module._require_graph_type_value(child, "fast_path.child")
            not in ("int", "string", "bool")
        ]
        if len(data_children) != 1:
            return False
        if module._get_int_window_child(children) is None:
            return False
        return _supported(data_children[0])

    if data_nan_features:
        return False
    if T < module._LONGITUDINAL_FAST_MIN_ROWS:
        return False
    if function_states is not None:
        return False
    if context.useful_signals:
        return False
    if context.transform_pipeline:
        return False
    if context.metaparameters:
        return False
    return _supported(graph)


def _get_int_window_child(children: Any) -> Any:
    for i, child in enumerate(children):
        child_path = f"window.c{i}"
        if module._require_graph_type_value(child, child_path) == "int":
            return int(module._require_graph_node_value(child, child_path))
    return None
