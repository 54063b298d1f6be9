"""One time row after the other: every node once, children first, into its register."""

from typing import Any

import numpy as np

import reference_evaluator as module

from .data_nan import propagate_data_nan
from .reductions import evaluate_reduction, extract_filtration
from .run_state import Run


def run_rows(run: Run) -> None:
    for t in range(run.T):
        run.context.current_day_index = t
        for path in run.topo_order:
            _execute_node(run, path, t)
        root_reg = run.reg_map["root"]
        run.output_weights[t, :] = run.local_registers[root_reg, :].copy()
        if run.node_outputs is not None:
            for output_path in run.node_outputs:
                run.node_outputs[output_path][t, :] = run.local_registers[
                    run.reg_map[output_path], :
                ]


def _execute_node(run: Run, path: str, t: int) -> None:
    info = run.node_info[path]
    ntype = info["type"]
    reg = run.reg_map[path]
    cid = info["canonical_id"]

    if cid is not None and cid in run.precomputed_node_outputs:
        row_data = np.asarray(run.precomputed_node_outputs[cid], dtype=np.float64).reshape(-1)
        if row_data.shape != (run.N_alloc,):
            raise module.EvaluationShapeError(
                f"Precomputed node '{cid}' returned shape {row_data.shape}, "
                f"expected ({run.N_alloc},) at row {t}"
            )
        run.local_registers[reg, :] = row_data
    elif ntype in ("feature", "aggregation"):
        _load_leaf(run, path, t)
    elif ntype == "float":
        run.local_registers[reg, :] = run.float_values[path]
    elif ntype == "int":
        run.local_registers[reg, :] = float(info["node"])
    elif ntype == "string":
        run.local_registers[reg, :] = 0.0
    elif ntype == "bool":
        run.local_registers[reg, :] = 1.0 if info["node"] else 0.0
    elif ntype == "filtration":
        extract_filtration(run, path, t)
    elif ntype == "reduction":
        _store_output(run, path, t, evaluate_reduction(run, path, t))
    elif ntype == "rotation":
        _store_output(run, path, t, _call_rotation(run, path, t))


def _load_leaf(run: Run, path: str, t: int) -> None:
    context, reg = run.context, run.reg_map[path]
    f_idx = run.feature_refs[path]
    if context.universe is None and run.nan_source.get(path) != "data_nan":
        run.local_registers[reg, :] = run.features[f_idx][t, :]
        return
    row_data = run.features[f_idx][t, :].copy()
    if run.nan_source.get(path) == "data_nan":
        row_data = np.full(run.N_alloc, np.nan, dtype=np.float64)
    u = context.universe[t, :] if context.universe is not None else None
    row_data = module._apply_universe_mask(row_data, u)
    run.local_registers[reg, :] = row_data


def _call_rotation(run: Run, path: str, t: int) -> Any:
    info = run.node_info[path]
    data_regs = []
    config_child_paths = info.get("config_child_paths", set())
    instance = run.func_instances[path]
    include_bound_config_literals = path in run.bound_paths and not hasattr(instance, "arity")
    for cp in info["children_paths"]:
        if cp in config_child_paths and not include_bound_config_literals:
            continue
        ci = run.node_info[cp]
        if ci["type"] == "string":
            continue
        if ci["type"] == "int" and not run.bound_instances:
            continue
        if ci["type"] == "bool":
            continue
        data_regs.append(run.reg_map[cp])

    if run.bound_instances:
        args = [run.local_registers[dr, :] for dr in data_regs]
    else:
        args = [run.local_registers[dr, :].copy() for dr in data_regs]

    try:
        if path in run.bound_paths:
            return instance(*args)
        return instance(*args, context=run.context)
    except Exception as error:
        raise module.FunctionExecutionError(
            f"Function '{info['node']}' failed at row {t}: {error}"
        ) from error


def _store_output(run: Run, path: str, t: int, result: Any) -> None:
    function = run.node_info[path]["node"]
    result = propagate_data_nan(run, path, result)
    if isinstance(result, np.ndarray):
        if result.shape != (run.N_alloc,):
            raise module.EvaluationShapeError(
                f"Function '{function}' returned shape {result.shape}, "
                f"expected ({run.N_alloc},) at row {t}"
            )
        if result.dtype != np.float64:
            raise module.EvaluationShapeError(
                f"Function '{function}' returned dtype {result.dtype}, expected float64 at row {t}"
            )
    run.local_registers[run.reg_map[path], :] = result
