"""A history that can be cut at any row and gone on with, and random graphs to run over it."""

from __future__ import annotations

from random import Random
from types import ModuleType
from typing import Any

import numpy as np
from numpy.typing import NDArray
from quernbrook.functions._typed_shapes import FunctionGraphNode
from quernbrook.reference_host import default_registry
from quernbrook.simulator_engine._types import TransformStage, UsefulSignal
from support.graphs import (
    feature,
    filtration,
    integer,
    node,
    number,
    reduction,
    rotation,
    string,
)
from support.runs import make_context

COLUMNS = 4
LONGEST_WINDOW = 6
SHARPES = {"c": 2.0, "a": 0.5, "b": 1.0}
LABELS = ["gross_returns", "net_returns"]
SMOOTH = TransformStage(
    "smooth", "on", {"on": rotation("longitudinal_mean", node("signal", None), integer(3))}
)


class History:
    """Features with gaps and infinities, a universe, and three signals, of so many rows."""

    def __init__(self, rows: int) -> None:
        generator = np.random.default_rng(31)
        shape = rows, COLUMNS
        self.rows = rows
        self.features = {name: generator.normal(size=shape) for name in "ab"}
        self.features["a"][generator.random(shape) < 0.03] = np.nan
        self.features["b"][generator.random(shape) < 0.02] = np.inf
        self.features["b"][generator.random(shape) < 0.05] = -0.0
        self.universe = (generator.random(shape) < 0.97).astype(np.float64)
        self.weights = {sid: generator.normal(size=shape) for sid in SHARPES}
        self.pnl = {sid: generator.normal(0.1, 1.0, (rows, len(LABELS))) for sid in SHARPES}

    def run(
        self,
        evaluator: ModuleType,
        graph: Any,
        start: int,
        stop: int,
        states: Any = None,
        *,
        cold: bool = False,
        staged: bool = False,
    ) -> Any:
        """The result of a run over these rows and no others."""
        rows = slice(start, stop)
        context = make_context(
            evaluator,
            {name: matrix[rows] for name, matrix in self.features.items()},
            universe=self.universe[rows],
            useful_signals={
                sid: UsefulSignal(self.weights[sid][rows], self.pnl[sid][rows], {"sharpe": sharpe})
                for sid, sharpe in SHARPES.items()
            },
            column_labels=LABELS,
            registry=default_registry(),
            transform_pipeline=[SMOOTH] if staged else [],
        )
        return evaluator.evaluate(graph, context, states, cold)


def bits(matrix: NDArray[np.float64]) -> bytes:
    """Every bit of the numbers. NaN is NaN: JSON knows one, and keeps neither sign nor payload."""
    return np.where(np.isnan(matrix), np.nan, matrix).tobytes()


def plain(states: Any) -> str:
    """The states in full, whether a file or a run gave them."""
    return repr([(key, state.name, state.state_data) for key, state in states.items()])


def longest_reduction(graph: Any) -> int:
    """The rows after which the windows of all reductions are full; 0 where there is none."""
    children = graph.children or ()
    own = max((child.node for child in children if child.type == "int"), default=0)
    below = max(map(longest_reduction, children), default=0)
    return max(own if graph.type == "reduction" else 0, below)


# --- graphs --------------------------------------------------------------------------------------

PASSING = filtration("filtration", node("gt", "gt", [string("sharpe"), number(0.7)]))
ROLLING = ("sum", "mean", "std", "zscore", "delay", "delta")
WEIGHTED = ("vol", "sharpe", "turnover", "pnl")
STATELESS = {
    1: ("latitudinal_rank", "latitudinal_zscore", "numerical_negate"),
    2: ("numerical_add", "numerical_multiply", "numerical_divide"),
}


def every_stateful_function() -> FunctionGraphNode:
    rolling = feature("a")
    for name in ROLLING:
        rolling = rotation(
            "numerical_add",
            rotation(f"longitudinal_{name}", rolling, integer(3)),
            rotation("latitudinal_rank", feature("b")),
        )
    for name in WEIGHTED:
        weighted = reduction(f"weighted_by_{name}", PASSING, integer(4))
        rolling = rotation("numerical_subtract", rolling, weighted)
    return rolling


def random_graph(random: Random) -> FunctionGraphNode:
    """A small graph with one stateful function at least."""
    return rotation("numerical_add", _rolling(random, 2), _tree(random, 2))


def _tree(random: Random, depth: int) -> FunctionGraphNode:
    if depth == 0 or random.random() < 0.2:
        return _reduction(random) if random.random() < 0.2 else feature(random.choice("ab"))
    kind = random.random()
    if kind < 0.5:
        return _rolling(random, depth)
    below = [_tree(random, depth - 1) for _ in range(1 if kind < 0.75 else 2)]
    return rotation(random.choice(STATELESS[len(below)]), *below)


def _rolling(random: Random, depth: int) -> FunctionGraphNode:
    function = f"longitudinal_{random.choice(ROLLING)}"
    return rotation(function, _tree(random, depth - 1), _window(random))


def _reduction(random: Random) -> FunctionGraphNode:
    return reduction(
        f"weighted_by_{random.choice(WEIGHTED)}",
        *random.choice([(), (PASSING,)]),
        _window(random),
        config={"pnl_column": random.choice(LABELS), "invert": random.random() < 0.5},
    )


def _window(random: Random) -> FunctionGraphNode:
    return integer(random.randint(1, LONGEST_WINDOW))
