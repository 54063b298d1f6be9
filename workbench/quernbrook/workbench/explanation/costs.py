"""What a run takes: memory of the evaluator's, and calls into Python."""

from __future__ import annotations

import numpy as np
from quernbrook.workbench.explanation.functions import Function
from quernbrook.workbench.explanation.inputs import Inputs
from quernbrook.workbench.explanation.records import Memory, Step

_CELL = np.dtype(np.float64).itemsize


def find_memory(run: Inputs, road: str | None) -> Memory:
    rows, columns = run.shape
    context = run.context
    weights = rows * columns * _CELL
    mask = rows * columns if context.universe_mask is None else 0
    if road == "leaf" and _is_handed_out(run):
        weights = 0
    if road != "rows":
        return Memory(weights, mask, 0, 0, 0)
    # The context's own and those that the rows run on.
    registers = 2 * len(run.nodes) * columns * _CELL
    outputs = len(run.nodes) * weights if _collects_outputs(run) else 0
    signals = len(context.useful_signals or ())
    return Memory(weights, mask, registers, outputs, signals * columns * _CELL)


def calls_of(run: Inputs, function: Function | None, step: Step, path: str) -> int | None:
    """None for blocks in strips: one call a strip."""
    rows = run.shape[0]
    if function is None or function.instance is None or step == "road" or run.is_precomputed(path):
        return 0
    if function.kind == "reduction" and not function.is_stateful:
        return 0  # the mean: its instance is never called
    if function.offer is None:
        return rows
    if function.offer.kind == "kernel":
        return 0
    return None if step == "strip" else rows


def _is_handed_out(run: Inputs) -> bool:
    """Whether the weights are the very matrix of the feature."""
    feature = run.context.features[run.context.feature_index[run.graph.node]]
    return run.context.universe is None and bool(
        feature.dtype == np.float64 and feature.flags.c_contiguous
    )


def _collects_outputs(run: Inputs) -> bool:
    outputs = getattr(run.context, "_precomputed_node_outputs", None)
    return bool(getattr(run.context, "_collect_node_outputs", bool(run.bound) or bool(outputs)))
