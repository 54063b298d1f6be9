"""Marks of missing data: seeded at leaves and precomputed nodes, climbing to function nodes."""

from typing import Any

import numpy as np

from .run_state import Run


def seed_data_nan(run: Run) -> None:
    run.nan_source = {}
    data_nan_feature_names = set(run.data_nan_features or ())
    if data_nan_feature_names:
        for path in run.feature_refs:
            if run.node_info[path]["node"] in data_nan_feature_names:
                run.nan_source[path] = "data_nan"
    for precomputed_path, precomputed_info in run.node_info.items():
        precomputed_cid = precomputed_info["canonical_id"]
        if (
            precomputed_cid is not None
            and run.precomputed_node_nan_source.get(precomputed_cid) == "data_nan"
        ):
            run.nan_source[precomputed_path] = "data_nan"
    run.track_data_nan = bool(run.nan_source)


def propagate_data_nan(run: Run, path: str, result: Any) -> Any:
    if not run.track_data_nan:
        return result
    child_outputs, has_data_nan = _child_outputs_for_nan_check(run, path)
    all_nan = all(np.all(np.isnan(output)) for output in child_outputs)
    if all_nan and has_data_nan and len(child_outputs) > 0:
        run.nan_source[path] = "data_nan"
        return np.full(run.N_alloc, np.nan, dtype=np.float64)
    return result


def _child_outputs_for_nan_check(run: Run, path: str) -> tuple[list[np.ndarray], bool]:
    child_outputs = []
    has_data_nan = False
    for child_path in run.node_info[path]["children_paths"]:
        if run.node_info[child_path]["type"] == "filtration":
            continue
        child_outputs.append(run.local_registers[run.reg_map[child_path], :].copy())
        if run.nan_source.get(child_path) == "data_nan":
            has_data_nan = True
    return child_outputs, has_data_nan
