"""The two checks of function configuration: explicit before any road, merged in collection."""

from typing import Any

import reference_evaluator as module

from ..expression_evaluator.run_state import Run


def _preflight_param_schema_names(entry: Any) -> set[Any]:
    schema = getattr(entry, "param_schema", None)
    if isinstance(schema, dict):
        return set(schema.keys())
    names = set()
    for item in module._iter_schema_items(schema):
        name = getattr(item, "name", None)
        if name:
            names.add(name)
    return names


_param_schema_names = _preflight_param_schema_names


def preflight_explicit_graph_config(run: Run, node: Any, path: str) -> None:
    module._require_graph_node_instance(node, path)
    ntype = module._require_graph_type_value(node, path)
    nval = module._require_graph_node_value(node, path)
    if ntype in ("rotation", "reduction"):
        config = module._graph_config_dict(node)
        _refuse_engine_only(nval, config, path)
        registry = run.context.registry
        if registry is not None and registry.has(nval):
            entry = registry.get_entry(nval)
            allowed = module._preflight_param_schema_names(entry)
            if getattr(entry, "family", "") == "virtualization" and allowed:
                _refuse_unknown(nval, config, path, allowed)
    for i, child in enumerate(module._graph_children(node)):
        preflight_explicit_graph_config(run, child, f"{path}.c{i}")


def validate_graph_function_config(
    run: Run, function_name: Any, config: dict[Any, Any], path: str
) -> None:
    _refuse_engine_only(function_name, config, path)
    registry = run.context.registry
    if registry is None or not registry.has(function_name):
        return
    entry = registry.get_entry(function_name)
    allowed = module._param_schema_names(entry)
    if getattr(entry, "family", "") != "virtualization":
        return
    # Unlike the preflight, an empty schema allows nothing here.
    _refuse_unknown(function_name, config, path, allowed)


def registry_can_instantiate(run: Run, function_name: Any) -> bool:
    if run.context.registry is None:
        return False
    return bool(run.context.registry.has(function_name))


def _refuse_engine_only(function_name: Any, config: dict[Any, Any], path: str) -> None:
    engine_only = sorted(key for key in config if key in ("N_alloc", "A"))
    if engine_only:
        joined = ", ".join(engine_only)
        raise module.FunctionExecutionError(
            f"Function '{function_name}' at node '{path}' config contains "
            f"engine-only parameter(s): {joined}"
        )


def _refuse_unknown(
    function_name: Any, config: dict[Any, Any], path: str, allowed: set[Any]
) -> None:
    unknown = sorted(key for key in config if key not in allowed)
    if unknown:
        joined = ", ".join(unknown)
        raise module.FunctionExecutionError(
            f"Function '{function_name}' at node '{path}' config contains "
            f"unknown parameter(s): {joined}"
        )
