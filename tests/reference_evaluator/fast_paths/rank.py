"""Rank of one leaf, and the product of two such ranks, over the whole matrix."""

from typing import Any

import numpy as np

import reference_evaluator as module

from ..expression_evaluator.universe import publish_last_row


def _evaluate_simple_rank_fast(graph: Any, context: Any) -> Any:
    children = module._graph_children(graph)
    feature_name = module._require_graph_node_value(children[0], "root.c0")
    if feature_name not in context.feature_index:
        raise module.EvaluationError(f"Feature '{feature_name}' not in context")
    feature_idx = context.feature_index[feature_name]
    data = np.asarray(context.features[feature_idx], dtype=np.float64)
    if context.universe is None:
        masked = data.copy()
    else:
        masked = module._apply_universe_mask(data, context.universe)

    valid_mask = ~np.isnan(masked)
    counts = np.sum(valid_mask, axis=1)
    filled = np.where(valid_mask, masked, np.inf)
    order = np.argsort(filled, axis=1, kind="mergesort")
    sorted_vals = np.take_along_axis(filled, order, axis=1)
    finite_sorted = np.isfinite(sorted_vals)
    ties = (
        (sorted_vals[:, 1:] == sorted_vals[:, :-1]) & finite_sorted[:, 1:] & finite_sorted[:, :-1]
    )
    if np.any(ties):
        return None

    T, N_alloc = masked.shape
    result = np.empty((T, N_alloc), dtype=np.float64)
    row_idx = np.arange(T)[:, None]
    result[row_idx, order] = np.broadcast_to(np.arange(N_alloc, dtype=np.float64), (T, N_alloc))
    result[~valid_mask] = np.nan

    multi_mask = counts > 1
    if np.any(multi_mask):
        result[multi_mask] = result[multi_mask] / (counts[multi_mask] - 1)[:, None]
    single_mask = counts == 1
    if np.any(single_mask):
        result[single_mask] = np.where(valid_mask[single_mask], 0.5, np.nan)
    zero_mask = counts == 0
    if np.any(zero_mask):
        result[zero_mask] = np.nan
    return np.ascontiguousarray(result, dtype=np.float64)


def _evaluate_rank_multiply_fast(graph: Any, context: Any) -> Any:
    children = module._graph_children(graph)
    left = module._evaluate_simple_rank_fast(children[0], context)
    if left is None:
        return None
    right = module._evaluate_simple_rank_fast(children[1], context)
    if right is None:
        return None
    result = np.ascontiguousarray(left * right, dtype=np.float64)
    publish_last_row(context, result)
    return result
