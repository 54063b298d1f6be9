"""Instances between their creation and their states: pre-fill, warm-up deduction, collection."""

from typing import Any

import numpy as np

import reference_evaluator as module

from ..filtration.resolution import resolve_filt
from .run_state import Run


def prefill_cold_start(run: Run) -> None:
    if run.function_states is None or not run.is_cold_start:
        return
    for path, instance in run.func_instances.items():
        if not instance.stateful or run.node_info[path]["type"] != "reduction":
            continue
        state_key = run.state_keys.get(path, path)
        if state_key not in run.function_states:
            continue
        state_data = module._function_state_data(run.function_states[state_key])
        if not state_data:
            continue
        count = state_data.get("count", 0)
        window = state_data.get("window", instance.window)
        if count >= window:
            continue
        _prefill_instance(run, path, instance, window - count)


def _prefill_instance(run: Run, path: str, instance: Any, rows_needed: Any) -> None:
    context = run.context
    red_info = run.reduction_nodes[path]
    config = red_info["config"]
    pnl_column = config.get("pnl_column", "gross_returns")
    filt_result = None
    if red_info["filtration_path"]:
        filt_result = resolve_filt(run, red_info["filtration_path"])
    if filt_result is None:
        passing_ids = sorted(context.useful_signals.keys())
    else:
        passing_ids = filt_result.passing_ids
    A = len(passing_ids)

    col_idx = 0
    if pnl_column and context.column_labels:
        try:
            col_idx = context.column_labels.index(pnl_column)
        except ValueError:
            col_idx = 0

    tail_start = max(run.T - rows_needed, 0)
    for t_pf in range(tail_start, run.T):
        signal_pnl = np.zeros(A, dtype=np.float64)
        for k, sid in enumerate(passing_ids):
            sig = context.useful_signals.get(sid)
            if sig is not None and sig.pnl is not None:
                signal_pnl[k] = sig.pnl[t_pf, col_idx]
        extraction = np.zeros((A, run.N_alloc), dtype=np.float64)
        for k, sid in enumerate(passing_ids):
            extraction[k, :] = context.useful_signals[sid].weights[t_pf, :]
        instance(extraction, signal_pnl=signal_pnl)


def deduct_warmup(run: Run) -> None:
    if not run.total_root_warmup_rows > 0:
        return
    rows_seen = 0
    for inst_path, instance in run.func_instances.items():
        if not instance.stateful:
            continue
        try:
            rows_seen = max(rows_seen, module._get_warmup_count_for_instance(instance))
        except Exception:
            _log_get_state_failed(run, inst_path, instance)
            raise
    run.root_warmup_rows = max(run.total_root_warmup_rows - rows_seen, 0)


def collect_states(run: Run) -> None:
    if not getattr(run.context, "_collect_states", True):
        return
    for path, inst in run.func_instances.items():
        if not inst.stateful:
            continue
        try:
            run.states_dict[run.state_keys.get(path, path)] = inst.get_state()
        except Exception:
            _log_get_state_failed(run, path, inst)
            raise


def _log_get_state_failed(run: Run, path: str, instance: Any) -> None:
    module._logger.error(
        "expression_evaluator.get_state_failed",
        instance_id=id(instance),
        node_id=path,
        function_name=run.node_info[path]["node"] if path in run.node_info else None,
    )
