"""The two mask rules, which differ on infinities, and the road of a graph that is one leaf."""

from typing import Any

import numpy as np

import reference_evaluator as module

from .run_state import Run


def _apply_universe_mask(data: Any, universe: Any) -> Any:
    if universe is None:
        return data
    inactive = (universe == 0.0) | np.isnan(universe)
    return np.where(inactive, np.nan, data)


def build_universe_mask(run: Run) -> None:
    context = run.context
    if context.universe_mask is not None:
        return
    if context.universe is None:
        context.universe_mask = np.ones((run.T, run.N_alloc), dtype=np.uint8)
    else:
        context.universe_mask = np.ascontiguousarray(
            (np.isfinite(context.universe) & (context.universe != 0.0)).astype(np.uint8)
        )


def _can_use_leaf_fast_path(
    graph: Any, context: Any, function_states: Any, *, data_nan_features: Any = None
) -> bool:
    if data_nan_features:
        return False
    if function_states:
        return False
    if module._require_graph_type_value(graph, "root") not in ("feature", "aggregation"):
        return False
    return module._require_graph_node_value(graph, "root") in context.feature_index


def _evaluate_leaf_fast(graph: Any, context: Any) -> np.ndarray:
    feature_idx = context.feature_index[module._require_graph_node_value(graph, "root")]
    data = np.asarray(context.features[feature_idx], dtype=np.float64)
    data = module._apply_universe_mask(data, context.universe)
    result = np.ascontiguousarray(data, dtype=np.float64)
    publish_last_row(context, result)
    return result


def publish_last_row(context: Any, result: np.ndarray) -> None:
    N_alloc = result.shape[1]
    if result.shape[0] > 0:
        context.registers = np.ascontiguousarray(result[-1:, :], dtype=np.float64)
    else:
        context.registers = np.zeros((1, N_alloc), dtype=np.float64)
