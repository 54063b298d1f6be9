"""Chains of rolling mean, standard deviation and z-score over the whole matrix."""

from typing import Any

import numpy as np

import reference_evaluator as module


def _feature_matrix_for_fast_path(node: Any, context: Any) -> np.ndarray:
    feature_name = module._require_graph_node_value(node, "fast_path.feature")
    if feature_name not in context.feature_index:
        raise module.EvaluationError(f"Feature '{feature_name}' not in context")
    feature_idx = context.feature_index[feature_name]
    data = np.asarray(context.features[feature_idx], dtype=np.float64)
    return np.ascontiguousarray(
        module._apply_universe_mask(data, context.universe), dtype=np.float64
    )


def _rolling_longitudinal_fast(data: Any, window: Any, name: Any) -> np.ndarray:
    data = np.asarray(data, dtype=np.float64)
    T, N_alloc = data.shape
    out = np.full((T, N_alloc), np.nan, dtype=np.float64)
    if T < window:  # noqa: SIM300
        return out
    valid = ~np.isnan(data)
    accum_dtype = np.longdouble
    # Zeros in the holes keep a NaN out of all later totals.
    safe = np.where(valid, data, 0.0).astype(accum_dtype, copy=False)
    csum = np.vstack(
        [np.zeros((1, N_alloc), dtype=accum_dtype), np.cumsum(safe, axis=0, dtype=accum_dtype)]
    )
    invalid_csum = np.vstack(
        [np.zeros((1, N_alloc), dtype=np.int32), np.cumsum((~valid).astype(np.int32), axis=0)]
    )
    window_sum = csum[window:] - csum[:-window]
    invalid_count = invalid_csum[window:] - invalid_csum[:-window]
    latest_valid = valid[window - 1 :]
    no_nan = invalid_count == 0
    computable = latest_valid & no_nan
    if not np.any(computable):
        return out

    if name == "longitudinal_mean":
        values = window_sum / window
        tail = out[window - 1 :]
        tail[computable] = np.asarray(values[computable], dtype=np.float64)
        return out

    csum_sq = np.vstack(
        [
            np.zeros((1, N_alloc), dtype=accum_dtype),
            np.cumsum(safe * safe, axis=0, dtype=accum_dtype),
        ]
    )
    window_sum_sq = csum_sq[window:] - csum_sq[:-window]
    mean = window_sum / window
    variance = np.maximum(0.0, (window_sum_sq / window) - (mean * mean))
    tail = out[window - 1 :]
    std = np.sqrt(variance, dtype=accum_dtype)
    if name == "longitudinal_std":
        tail[computable] = np.asarray(std[computable], dtype=np.float64)
        return out

    latest = data[window - 1 :].astype(accum_dtype, copy=False)
    z = np.zeros_like(std, dtype=accum_dtype)
    nonzero_std = computable & (std != 0.0)
    z[nonzero_std] = (latest[nonzero_std] - mean[nonzero_std]) / std[nonzero_std]
    tail[computable] = np.asarray(z[computable], dtype=np.float64)
    return out


def _evaluate_longitudinal_fast_node(node: Any, context: Any) -> np.ndarray:
    ntype = module._require_graph_type_value(node, "fast_path.eval")
    if ntype in ("feature", "aggregation"):
        return module._feature_matrix_for_fast_path(node, context)
    children = module._graph_children(node)
    data_child = None
    for i, child in enumerate(children):
        child_type = module._require_graph_type_value(child, f"fast_path.eval.c{i}")
        if child_type not in ("int", "string", "bool"):
            data_child = child
            break
    data = module._evaluate_longitudinal_fast_node(data_child, context)
    window = module._get_int_window_child(children)
    name = module._require_graph_node_value(node, "fast_path.eval")
    return module._rolling_longitudinal_fast(data, window, name)


def _evaluate_longitudinal_fast(graph: Any, context: Any) -> np.ndarray:
    result = module._evaluate_longitudinal_fast_node(graph, context)
    return np.ascontiguousarray(result, dtype=np.float64)
