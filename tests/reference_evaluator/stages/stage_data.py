"""Arrays of earlier stages as feature leaves."""

from typing import Any

import numpy as np

import reference_evaluator as module


def _attach_stage_data_feature_leaves(graph: Any, context: Any) -> None:
    """Expose 2D stage_data arrays as normal feature leaves for DAG evaluation."""
    stage_data = context.stage_data
    if stage_data.is_empty():
        return
    names = module.extract_feature_leaf_names(graph)
    features = list(context.features)
    # Sorted, so that the new positions do not hang on the order of the walk.
    for name in sorted(names):
        if name in context.feature_index:
            continue
        value = stage_data.value(name, None)
        if isinstance(value, np.ndarray) and value.ndim == 2:
            context.feature_index[name] = len(features)
            features.append(np.ascontiguousarray(value, dtype=np.float64))
    context.features = tuple(features)
