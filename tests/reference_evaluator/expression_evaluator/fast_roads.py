"""The whole-matrix roads in the order in which a run tries them."""

from typing import Any

import reference_evaluator as module

from .run_state import Run


def try_fast_roads(run: Run) -> Any:
    """The result of the first road that takes the graph, or None."""
    graph, context, function_states = run.graph, run.context, run.function_states
    data_nan_features = run.data_nan_features

    if module._can_use_leaf_fast_path(
        graph, context, function_states, data_nan_features=data_nan_features
    ):
        return module.EvaluationResult(module._evaluate_leaf_fast(graph, context), {})

    if module._can_use_simple_rank_fast_path(
        graph, context, function_states, data_nan_features=data_nan_features
    ):
        weights = module._evaluate_simple_rank_fast(graph, context)
        if weights is not None:
            return module.EvaluationResult(weights, {})

    if module._can_use_rank_multiply_fast_path(
        graph,
        context,
        function_states,
        bound_function_instances=run.bound_function_instances,
        data_nan_features=data_nan_features,
    ):
        weights = module._evaluate_rank_multiply_fast(graph, context)
        if weights is not None:
            return module.EvaluationResult(weights, {})

    if module._can_use_longitudinal_fast_path(
        graph, context, function_states, run.T, data_nan_features=data_nan_features
    ):
        return module.EvaluationResult(module._evaluate_longitudinal_fast(graph, context), {})
    return None
