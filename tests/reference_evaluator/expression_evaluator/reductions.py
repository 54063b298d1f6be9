"""Where pools of signals come into a row: the extraction buffer and the reductions over it."""

from typing import Any

import numpy as np

import reference_evaluator as module

from ..filtration.resolution import resolve_filt
from .run_state import Run


def extract_filtration(run: Run, path: str, t: int) -> None:
    filt_result = resolve_filt(run, path)
    if filt_result is None:
        return
    passing_ids = filt_result.passing_ids
    _fill_extraction(run, passing_ids, len(passing_ids), t)


def evaluate_reduction(run: Run, path: str, t: int) -> Any:
    context = run.context
    red_info = run.reduction_nodes[path]
    filt_result = None
    if red_info["filtration_path"]:
        filt_result = resolve_filt(run, red_info["filtration_path"])
    if filt_result is None:
        passing_ids = sorted(context.useful_signals.keys())
        A = len(passing_ids)
        if A > 0:
            _fill_extraction(run, passing_ids, A, t)
    else:
        # The filtration child has filled the buffer earlier in this row.
        passing_ids = filt_result.passing_ids
        A = len(passing_ids)
    reduction_input = run.local_extraction_buffer[:A, :]

    instance = run.func_instances[path]
    config = red_info["config"]
    pnl_column = config.get("pnl_column")
    if instance.stateful and not pnl_column:
        pnl_column = "gross_returns"
    kwargs = {}
    if instance.stateful and pnl_column:
        kwargs["signal_pnl"] = _signal_pnl_of_row(run, passing_ids, A, pnl_column, t)

    try:
        if instance.stateful:
            return instance(reduction_input, **kwargs)
        return np.mean(reduction_input, axis=0)
    except Exception as error:
        raise module.FunctionExecutionError(
            f"Function '{run.node_info[path]['node']}' failed at row {t}: {error}"
        ) from error


def _fill_extraction(run: Run, passing_ids: Any, A: int, t: int) -> None:
    if run.local_extraction_buffer is None or run.local_extraction_buffer.shape[0] != A:
        run.local_extraction_buffer = np.zeros((A, run.N_alloc), dtype=np.float64)
    for k, sid in enumerate(passing_ids):
        run.local_extraction_buffer[k, :] = run.context.useful_signals[sid].weights[t, :]


def _signal_pnl_of_row(run: Run, passing_ids: Any, A: int, pnl_column: Any, t: int) -> np.ndarray:
    context = run.context
    signal_pnl = np.zeros(A, dtype=np.float64)
    if context.signal_pnl_vectors is not None:
        for k, sid in enumerate(passing_ids):
            if sid in context.signal_pnl_vectors:
                pnl_values = context.signal_pnl_vectors[sid]
                if pnl_column in pnl_values:
                    signal_pnl[k] = pnl_values[pnl_column]
    elif pnl_column and context.column_labels:
        try:
            col_idx = context.column_labels.index(pnl_column)
        except ValueError:
            raise module.EvaluationError(  # noqa: B904 - it names no cause
                f"PnL column '{pnl_column}' not found in column_labels: {context.column_labels}"
            )
        for k, sid in enumerate(passing_ids):
            sig = context.useful_signals.get(sid)
            if sig is not None and sig.pnl is not None:
                signal_pnl[k] = sig.pnl[t, col_idx]
    return signal_pnl
