"""The public entry: the type test and the context's lock."""

from typing import Any

import reference_evaluator as module


def evaluate(
    graph: Any,
    context: Any,
    function_states: Any = None,
    is_cold_start: Any = False,
    *,
    bound_function_instances: Any = None,
    data_nan_features: Any = None,
) -> Any:
    if not isinstance(graph, module.FunctionGraphNode):
        raise module.SchemaError(
            f"evaluate graph must be FunctionGraphNode; got {type(graph).__name__}"
        )
    lock = getattr(context, "_evaluation_lock", None)
    if lock is None and isinstance(context, module.EvaluationContext):
        lock = module.threading.RLock()
        context._evaluation_lock = lock
    arguments = {
        "function_states": function_states,
        "is_cold_start": is_cold_start,
        "bound_function_instances": bound_function_instances,
        "data_nan_features": data_nan_features,
    }
    if lock is None:
        return module._evaluate_unlocked(graph, context, **arguments)
    with lock:
        return module._evaluate_unlocked(graph, context, **arguments)
