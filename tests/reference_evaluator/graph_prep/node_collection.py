"""The walk that flattens a graph into the run's path-keyed tables."""

from typing import Any

import reference_evaluator as module

from ..expression_evaluator.run_state import Run
from .config_preflight import registry_can_instantiate, validate_graph_function_config

# For these functions a string child names a statistic, for all others a PnL column.
_STATISTIC_FUNCTIONS = ("weighted_by_vol", "weighted_by_sharpe", "weighted_by_turnover")


def collect_nodes(run: Run, node: Any, path: str) -> None:
    ntype = module._require_graph_type_value(node, path)
    nval = module._require_graph_node_value(node, path)
    children = module._graph_children(node)

    child_paths = []
    for i, child in enumerate(children):
        child_path = f"{path}.c{i}"
        collect_nodes(run, child, child_path)
        child_paths.append(child_path)

    canonical_id = None
    if module._graph_has_field(node, "canonical_id"):
        canonical_id = module._require_graph_field(node, "canonical_id", path)
    run.node_info[path] = {
        "type": ntype,
        "node": nval,
        "canonical_id": canonical_id,
        "children_paths": child_paths,
        "children": children,
    }

    if ntype in ("feature", "aggregation"):
        if nval not in run.context.feature_index:
            raise module.EvaluationError(f"Feature '{nval}' not in context")
        run.feature_refs[path] = run.context.feature_index[nval]
    elif ntype == "float":
        run.float_values[path] = float(nval)
    elif ntype == "filtration":
        run.filtration_nodes[path] = node
    elif ntype in ("rotation", "reduction"):
        _collect_function(run, node, path, ntype, nval, children)


def _collect_function(run: Run, node: Any, path: str, ntype: Any, nval: Any, children: Any) -> None:
    state_key: Any = path
    if module._graph_has_field(node, "_state_identity"):
        state_key = module._require_graph_field(node, "_state_identity", path)
    run.state_keys[path] = state_key

    config = module._graph_config_dict(node)
    config_child_paths = _merge_config_children(run, path, nval, children, config)
    validate_graph_function_config(run, nval, config, path)
    run.node_info[path]["config"] = config
    run.node_info[path]["config_child_paths"] = config_child_paths

    run.func_instances[path] = _choose_instance(run, path, nval, state_key, config)

    if ntype == "reduction":
        filt_path = None
        for i, child in enumerate(children):
            child_path = f"{path}.c{i}"
            if module._require_graph_type_value(child, child_path) == "filtration":
                filt_path = child_path
                break
        run.reduction_nodes[path] = {"filtration_path": filt_path, "config": config}


def _merge_config_children(
    run: Run, path: str, nval: Any, children: Any, config: dict[Any, Any]
) -> set[str]:
    """Fold the literal children into `config`; the paths of those that were taken."""
    config_child_paths: set[str] = set()
    config_param_names: list[str] = []
    registry = run.context.registry
    if registry is not None and registry.has(nval):
        try:
            config_param_names = module._config_param_names(registry.get_entry(nval))
        except Exception:  # noqa: BLE001
            config_param_names = []

    config_param_idx = 0
    string_values = []
    for i, child in enumerate(children):
        child_path = f"{path}.c{i}"
        ctype = module._require_graph_type_value(child, child_path)
        if ctype not in module._CONFIG_CHILD_TYPES:
            continue
        child_value = module._require_graph_node_value(child, child_path)
        if config_param_idx < len(config_param_names):
            config_child_paths.add(child_path)
            config[config_param_names[config_param_idx]] = child_value
            config_param_idx += 1
        elif ctype == "int":
            config_child_paths.add(child_path)
            config["window"] = child_value
        elif ctype == "string":
            config_child_paths.add(child_path)
            string_values.append(child_value)
        elif ctype == "bool":
            config_child_paths.add(child_path)
            config["invert"] = child_value

    if string_values:
        if nval in _STATISTIC_FUNCTIONS:
            config["stat_name"] = string_values[0]
        else:
            config["pnl_column"] = string_values[0]
    return config_child_paths


def _choose_instance(run: Run, path: str, nval: Any, state_key: Any, config: dict[Any, Any]) -> Any:
    context, function_states = run.context, run.function_states
    if path in run.bound_instances:
        instance = run.bound_instances[path]
        if instance is None:
            raise module.FunctionExecutionError(
                f"Bound function instance is None for node '{path}' (function '{nval}')"
            )
        run.bound_paths.add(path)
        return instance
    if run.bound_function_instances is not None:
        raise module.FunctionExecutionError(
            f"Bound function instance missing for path '{path}' (function '{nval}')"
        )
    if not registry_can_instantiate(run, nval):
        raise module.FunctionExecutionError(
            f"Function '{nval}' at node '{path}' is not bound and cannot be instantiated "
            "from the evaluation registry"
        )
    if function_states is not None and state_key in function_states:
        state = function_states[state_key]
        if module._function_state_data(state):
            restore_state = module._state_for_registry_restore(context.registry, nval, state)
            return context.registry.create_instance_from_state(nval, restore_state, **config)
    return context.registry.create_instance(nval, **config)
