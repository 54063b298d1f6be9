"""The only functions that read a graph node's fields."""

from typing import Any

import reference_evaluator as module


def _require_graph_node_instance(node: Any, path: Any) -> Any:
    if not isinstance(node, module.FunctionGraphNode):
        raise module.SchemaError(
            f"Graph node '{path}' must be FunctionGraphNode; got {type(node).__name__}"
        )
    return node


def _graph_has_field(node: Any, key: str) -> bool:
    module._require_graph_node_instance(node, "field-check")
    return hasattr(node, key)


def _require_graph_field(node: Any, key: str, path: Any) -> Any:
    """Return a required graph-node field or fail before evaluation proceeds."""
    if not module._graph_has_field(node, key):
        raise module.EvaluationError(f"Graph node '{path}' missing required key: {key}")
    return getattr(node, key)


def _require_graph_type_value(node: Any, path: Any) -> Any:
    return module._require_graph_field(node, "type", path)


def _require_graph_node_value(node: Any, path: Any) -> Any:
    return module._require_graph_field(node, "node", path)


def _graph_children(node: Any) -> Any:
    module._require_graph_node_instance(node, "children")
    children = node.children
    return children if children else []


def _graph_config_dict(node: Any) -> dict[Any, Any]:
    module._require_graph_node_instance(node, "config")
    config = node.config
    return dict(config) if config is not None else {}
