"""Why a cell has no value: warm-up, universe, missing data, or the functions themselves."""

from __future__ import annotations

from collections.abc import Collection
from enum import IntEnum

import numpy as np
from numpy.typing import NDArray
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host import FunctionRegistry, nodes_by_path
from quernbrook.reference_host.warmup import warmup_rows
from quernbrook.simulator_engine._registry_protocols import RegistryProtocol
from quernbrook.simulator_engine.expression_evaluator import EvaluationContext
from quernbrook.workbench.graphs import LEAVES
from quernbrook.workbench.panels.panel import Matrix, Vector

Causes = NDArray[np.int8]

# These look back a whole window; the others' windows end with the newest row.
_WINDOW_ROWS_AGO = frozenset({"longitudinal_delay", "longitudinal_delta"})


class Cause(IntEnum):
    """What `nan_causes` finds in a cell. A cell with several causes has the first of them."""

    VALUE = 0
    WARM_UP = 1
    UNIVERSE = 2
    MISSING_DATA = 3
    COMPUTED = 4

    @property
    def label(self) -> str:
        return self.name.lower().replace("_", " ").replace("warm up", "warm-up")


def nan_causes(
    values: Matrix,
    graph: Node,
    context: EvaluationContext,
    *,
    data_nan_features: Collection[str] = (),
) -> Causes:
    """Return a `Cause` for each cell, int8 of the values' shape.

    values: what a whole run of the graph over the context gave, its weights or the output of a
        node; `graph` is then that node.
    data_nan_features: as the run got them; they are NaN in every cell.

    A feature's history is the rows of it that a cell depends on: today's, and for every function
    with a window w between feature and root w - 1 rows before it, w for delay and delta.

    1. VALUE: the cell isn't NaN.
    2. WARM_UP: the row is one of the warm-up rows of the graph, or a history begins before the
       first row.
    3. UNIVERSE: the cell is outside the universe, which is 0 or NaN there.
    4. MISSING_DATA: a feature of the graph is NaN in the cell's column, inside the universe, in a
       row of its history.
    5. UNIVERSE, too: the column is outside the universe in a row of a history.
    6. COMPUTED: a function made NaN out of numbers, or out of other columns.

    Raises ValueError for values of another shape than the features', KeyError for a feature that
    the context doesn't have.
    """
    shape = context.features[0].shape
    if values.shape != shape:
        raise ValueError(f"values have the shape {values.shape}, the features {shape}")
    outside = _outside(context)
    # What no registry knows has no window.
    registry = FunctionRegistry() if context.registry is None else context.registry
    histories = history_rows(graph, registry)
    rows = np.arange(len(values))[:, np.newaxis]
    is_missing = np.zeros(values.shape, dtype=bool)
    for name, history in histories.items():
        data = np.asarray(context.features[context.feature_index[name]], dtype=np.float64)
        is_nan = np.isnan(data) if name not in data_nan_features else np.ones(shape, dtype=bool)
        is_missing |= _within(is_nan & ~outside, history)
    longest = max(histories.values(), default=0)
    warm_up = max(longest, warmup_rows(graph, registry))
    found = np.select(
        [~np.isnan(values), rows < warm_up, outside, is_missing, _within(outside, longest)],
        [Cause.VALUE, Cause.WARM_UP, Cause.UNIVERSE, Cause.MISSING_DATA, Cause.UNIVERSE],
        Cause.COMPUTED,
    )
    return found.astype(np.int8)


def history_rows(graph: Node, registry: RegistryProtocol) -> dict[str, int]:
    """Return, by each feature's name, how many rows before today's the root depends on."""
    rows = {"root": 0}
    found: dict[str, int] = {}
    # Parents come before their children.
    for path, node in nodes_by_path(graph).items():
        if node.type in LEAVES:
            found[node.node] = max(found.get(node.node, 0), rows[path])
            continue
        below = rows[path] + _own_history(node, registry)
        for number in range(len(node.children or ())):
            rows[f"{path}.c{number}"] = below
    return found


def causes_by_day(causes: Causes) -> dict[Cause, Vector]:
    """Return, by each cause, the share of each day's cells that have it, from 0 to 1."""
    return {cause: (causes == cause).mean(axis=1) for cause in Cause}


def _own_history(node: Node, registry: RegistryProtocol) -> int:
    childless = [child for child in node.children or () if not child.children]
    bare = Node(node.type, node.node, childless)
    # Without functions below it, these are its window's rows before the newest.
    rows = warmup_rows(bare, registry)
    if node.node in _WINDOW_ROWS_AGO and node.type == "rotation":
        rows += 1
    return rows


def _outside(context: EvaluationContext) -> NDArray[np.bool_]:
    if context.universe is None:
        return np.zeros(context.features[0].shape, dtype=bool)
    universe = np.asarray(context.universe, dtype=np.float64)
    return (universe == 0.0) | np.isnan(universe)


def _within(flags: NDArray[np.bool_], history: int) -> NDArray[np.bool_]:
    """Whether a cell's column has a flag in its row or one of so many before it."""
    rows = np.arange(len(flags))[:, np.newaxis]
    last = np.maximum.accumulate(np.where(flags, rows, -history - 1), axis=0)
    return rows - last <= history
