"""Filter subtrees: converted for the filtration library, and described for messages."""

from typing import Any

import reference_evaluator as module

FILTRATION_NODE_TYPES = frozenset(
    {
        "filtration",
        "gt",
        "lt",
        "gte",
        "lte",
        "eq",
        "neq",
        "between",
        "in_",
        "and_",
        "or_",
        "not_",
        "top_pct",
        "bottom_pct",
        "top_n",
        "bottom_n",
    }
)


def _dict_to_filter_node(graph_node: Any, path: str = "filtration") -> Any:
    nval = module._require_graph_node_value(graph_node, path)
    raw_children = module._graph_children(graph_node)
    child_nodes = []
    string_vals = []
    float_vals = []
    int_vals = []
    for i, child in enumerate(raw_children):
        child_path = f"{path}.c{i}"
        ctype = module._require_graph_type_value(child, child_path)
        if ctype in module.FILTRATION_NODE_TYPES:
            child_nodes.append(module._dict_to_filter_node(child, child_path))
        elif ctype == "string":
            string_vals.append(module._require_graph_node_value(child, child_path))
        elif ctype == "float":
            float_vals.append(module._require_graph_node_value(child, child_path))
        elif ctype == "int":
            int_vals.append(module._require_graph_node_value(child, child_path))
    params = _operator_params(nval, string_vals, float_vals, int_vals)
    return module.FilterNode(function_name=nval, params=params, children=child_nodes)


def _operator_params(
    nval: Any, string_vals: list[Any], float_vals: list[Any], int_vals: list[Any]
) -> dict[str, Any]:
    params: dict[str, Any] = {}
    if nval in ("gt", "lt", "gte", "lte", "eq", "neq"):
        if string_vals:
            params["field"] = string_vals[0]
        if float_vals:
            params["value"] = float_vals[0]
        elif int_vals:
            params["value"] = int_vals[0]
        if nval in ("eq", "neq") and len(string_vals) >= 2:
            params["value"] = string_vals[1]
    elif nval == "between":
        if string_vals:
            params["field"] = string_vals[0]
        if len(float_vals) >= 2:
            params["low"] = float_vals[0]
            params["high"] = float_vals[1]
    elif nval == "in_":
        if string_vals:
            params["field"] = string_vals[0]
        if len(string_vals) >= 2:
            params["values"] = string_vals[1:]
    elif nval in ("top_pct", "bottom_pct"):
        if string_vals:
            params["field"] = string_vals[0]
        if float_vals:
            params["pct"] = float_vals[0]
    elif nval in ("top_n", "bottom_n"):
        if string_vals:
            params["field"] = string_vals[0]
        if int_vals:
            params["n"] = int_vals[0]
    return params


def _describe_dict_filter(node: Any, path: str = "filtration") -> str:
    """Build a human-readable description of a dict-format filter tree."""
    nval = module._require_graph_node_value(node, path)
    children = module._graph_children(node)
    if nval == "filtration":
        if not children:
            return "filtration()"
        desc = module._describe_dict_filter(children[0], f"{path}.c0")
        return f"filtration({desc})"
    if nval == "gt":
        parts = [
            str(module._require_graph_node_value(c, f"{path}.c{i}")) for i, c in enumerate(children)
        ]
        return f"gt({', '.join(parts)})"
    if nval in ("and_", "or_", "not_"):
        child_descs = [
            module._describe_dict_filter(c, f"{path}.c{i}") for i, c in enumerate(children)
        ]
        return f"{nval}({', '.join(child_descs)})"
    return str(nval)
