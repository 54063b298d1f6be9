"""What a graph keeps of itself between runs."""

from typing import Any

import reference_evaluator as module

from ..graph_prep.node_collection import collect_nodes
from .run_state import Run


def _graph_cache_get(graph: Any, key: str) -> Any:
    """Read a per-graph evaluator cache slot."""
    module._require_graph_node_instance(graph, "cache")
    return getattr(graph, key, None)


def _graph_cache_set(graph: Any, key: str, value: Any) -> None:
    """Write a per-graph evaluator cache slot."""
    module._require_graph_node_instance(graph, "cache")
    try:  # noqa: SIM105
        setattr(graph, key, value)
    except (AttributeError, TypeError):
        pass


def generate_node_identities(graph: Any) -> dict[str, Any]:
    """Generate tree node identity strings for all nodes in the graph.

    Returns Dict[str, Any] mapping tree node identity strings to node names/values.
    """
    cached = module._graph_cache_get(graph, "_node_identities")
    if cached is not None:
        return cached
    result: dict[str, Any] = {}

    def _walk(node: Any, path: str) -> None:
        node_val = module._require_graph_node_value(node, path)
        result[path] = node_val
        for i, child in enumerate(module._graph_children(node)):
            _walk(child, f"{path}.c{i}")

    _walk(graph, "root")
    module._graph_cache_set(graph, "_node_identities", result)
    return result


def invalidate_graph_evaluation_caches(graph: Any) -> None:
    """Clear graph-local evaluator caches after structural graph mutation."""
    if not isinstance(graph, module.FunctionGraphNode):
        return
    graph._collect_nodes_cache = None  # type: ignore[attr-defined]
    graph._node_identities = None  # type: ignore[attr-defined]
    for child in module._graph_children(graph):
        module.invalidate_graph_evaluation_caches(child)


def decide_collection_cache(run: Run) -> None:
    context = run.context
    run.can_use_collect_nodes_cache = (
        isinstance(run.graph, module.FunctionGraphNode)
        and run.bound_function_instances is not None
        and (
            not context.transform_pipeline or getattr(context, "transforms_already_combined", False)
        )
    )
    if run.can_use_collect_nodes_cache:
        run.cached_collect_nodes = module._graph_cache_get(run.graph, "_collect_nodes_cache")


def fill_node_tables(run: Run) -> None:
    if run.cached_collect_nodes is not None:
        _take_cached_tables(run, run.cached_collect_nodes)
        return
    collect_nodes(run, run.graph, "root")
    if run.can_use_collect_nodes_cache:
        record = {
            "node_info": run.node_info,
            "feature_ref_names": {path: run.node_info[path]["node"] for path in run.feature_refs},
            "float_values": run.float_values,
            "state_keys": run.state_keys,
            "filtration_nodes": run.filtration_nodes,
            "reduction_nodes": run.reduction_nodes,
        }
        module._graph_cache_set(run.graph, "_collect_nodes_cache", record)


def _take_cached_tables(run: Run, record: Any) -> None:
    run.node_info = record["node_info"]
    run.float_values = record["float_values"]
    run.state_keys = record["state_keys"]
    run.filtration_nodes = record["filtration_nodes"]
    run.reduction_nodes = record["reduction_nodes"]

    # Column indices and instances belong to this run's context and caller.
    feature_index = run.context.feature_index
    for feature_path, feature_name in record["feature_ref_names"].items():
        if feature_name not in feature_index:
            raise module.EvaluationError(f"Feature '{feature_name}' not in context")
        run.feature_refs[feature_path] = feature_index[feature_name]

    for path in run.state_keys:
        nval = run.node_info[path]["node"]
        if path not in run.bound_instances:
            raise module.FunctionExecutionError(
                f"Bound function instance missing for path '{path}' (function '{nval}')"
            )
        instance = run.bound_instances[path]
        if instance is None:
            raise module.FunctionExecutionError(
                f"Bound function instance is None for node '{path}' (function '{nval}')"
            )
        run.bound_paths.add(path)
        run.func_instances[path] = instance
