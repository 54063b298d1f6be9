"""Any graph, any pipeline, any cuts: ticks on bound instances are the rows of one whole run."""

from __future__ import annotations

from typing import Any

import numpy as np
from hypothesis import given, settings
from hypothesis import strategies as st
from quernbrook.functions._typed_shapes import FunctionGraphNode
from quernbrook.reference_host import (
    FunctionEntry,
    Parameter,
    SavedState,
    bind_instances,
    default_registry,
)
from quernbrook.reference_host.graphs import feature, filtration, reduction, rotation, signal
from quernbrook.simulator_engine._types import TransformStage, UsefulSignal
from quernbrook.simulator_engine.expression_evaluator import (
    EvaluationContext,
    FunctionState,
    evaluate,
)
from support.runs import same_bits

T, N = 24, 3
RANDOM = np.random.default_rng(31)
PRICE, VOLUME = RANDOM.normal(size=(2, T, N))
PRICE[RANDOM.random((T, N)) < 0.1] = np.nan
UNIVERSE = (RANDOM.random((T, N)) < 0.9).astype(np.float64)
SIGNALS = {
    sid: UsefulSignal(RANDOM.normal(size=(T, N)), RANDOM.normal(size=(T, 1)), {"sharpe": sharpe})
    for sid, sharpe in (("carry", 0.9), ("momentum", 1.2), ("value", 0.4))
}


class Total:
    """A sum of all rows: no NaN before its window is full, so that blanked rows tell."""

    name = "total"
    stateful = True

    def __init__(self, window: int) -> None:
        self.window = window
        self.count = 0
        self.total = np.zeros(N)

    def __call__(self, row: np.ndarray, *, context: Any = None) -> np.ndarray:
        self.count += 1
        self.total = self.total + np.nan_to_num(row)
        return self.total

    def get_state(self) -> SavedState:
        return SavedState(self.name, {"count": self.count, "total": self.total.tolist()})

    def restore(self, state_data: dict[str, Any]) -> None:
        self.count = state_data["count"]
        self.total = np.array(state_data["total"])


REGISTRY = default_registry()
REGISTRY.register(
    FunctionEntry("total", "mine", Total, {"window": Parameter("int")}, stateful=True)
)

ROLLING = ("total", "longitudinal_mean", "longitudinal_zscore", "longitudinal_delta")
windows = st.sampled_from([1, 2, 3, 5, 9])
leaves = st.sampled_from(["price", "volume"]).map(feature)
reductions = st.builds(
    lambda name, sharpe, window: reduction(name, filtration("gt", "sharpe", sharpe), window),
    st.sampled_from(["weighted_by_pnl", "weighted_by_turnover"]),
    st.sampled_from([0.0, 0.5]),
    windows,
)


def larger(below: st.SearchStrategy[FunctionGraphNode]) -> st.SearchStrategy[FunctionGraphNode]:
    return st.one_of(
        st.builds(rotation, st.sampled_from(ROLLING), below, windows),
        st.builds(rotation, st.just("latitudinal_rank"), below),
        st.builds(rotation, st.just("latitudinal_scale"), below, st.just(2.0)),
        st.builds(rotation, st.just("numerical_add"), below, st.one_of(below, st.just(0.5))),
        below.map(lambda node: rotation("numerical_subtract", node, rotation("total", node, 2))),
    )


graphs = st.recursive(st.one_of(leaves, reductions), larger, max_leaves=6)
templates = st.one_of(st.none(), st.recursive(st.builds(signal), larger, max_leaves=3))


@st.composite
def pipelines(draw: st.DrawFn) -> list[TransformStage]:
    names = draw(st.sampled_from([(), ("slow",), ("slow", "hedge")]))
    return [TransformStage(name, "on", {"on": draw(templates)}) for name in names]


def context(start: int, stop: int, pipeline: list[TransformStage]) -> EvaluationContext:
    rows = slice(start, stop)
    pool = {sid: UsefulSignal(s.weights[rows], s.pnl[rows], s.fields) for sid, s in SIGNALS.items()}
    return EvaluationContext(
        (PRICE[rows], VOLUME[rows]),
        {"price": 0, "volume": 1},
        pool,
        registry=REGISTRY,
        universe=UNIVERSE[rows],
        column_labels=["gross_returns"],
        transform_pipeline=list(pipeline),
    )


def through_bytes(states: dict[str, Any]) -> dict[str, Any]:
    return {
        key: FunctionState.from_bytes(FunctionState(state.name, state.state_data).to_bytes())
        for key, state in states.items()
    }


# Each number of rows is evaluated by the run or the binding that went before; True binds anew.
cuts = st.lists(st.tuples(st.integers(0, 6), st.booleans()), max_size=8)


@settings(max_examples=150, deadline=None)
@given(graph=graphs, pipeline=pipelines(), begin=st.integers(0, 12), cuts=cuts)
def test_ticks_are_rows_of_the_whole_run(
    graph: FunctionGraphNode,
    pipeline: list[TransformStage],
    begin: int,
    cuts: list[tuple[int, bool]],
) -> None:
    whole = evaluate(graph, context(0, T, pipeline))
    first = evaluate(graph, context(0, begin, pipeline))
    weights, day = [first.weights], begin
    live = bind_instances(graph, REGISTRY, first.states, context(0, 1, pipeline))
    for rows, anew in [*cuts, (T, False)]:
        if anew:
            states = through_bytes(live.states())
            live = bind_instances(graph, REGISTRY, states, context(0, 1, pipeline))
        stop = min(day + rows, T)
        # Contexts of ticks may hold the pipeline or not.
        weights.append(live.evaluate(context(day, stop, pipeline if anew else [])).weights)
        day = stop
    same_bits(np.vstack(weights), whole.weights)
    assert repr(live.states()) == repr(whole.states)
