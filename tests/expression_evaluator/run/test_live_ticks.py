"""A history in one run, and the same history cut at a checkpoint and continued tick by tick."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest
from quernbrook.simulator_engine._types import UsefulSignal
from support.graphs import feature, filtration, integer, reduction, rotation, string
from support.pools import LABELS, replace_filters
from support.rolling import RollingRegistry
from support.runs import make_context, same_bits

ROWS = 24
COLUMNS = 5
MEAN_WINDOW, PNL_WINDOW = 4, 6
WARM_UP = max(MEAN_WINDOW, PNL_WINDOW) - 1

generator = np.random.default_rng(8)
FEATURE = generator.normal(size=(ROWS, COLUMNS))
WEIGHTS = {sid: generator.normal(size=(ROWS, COLUMNS)) for sid in "dbca"}
PNL = {sid: generator.normal(size=(ROWS, len(LABELS))) for sid in WEIGHTS}


def graph() -> Any:
    return rotation(
        "sum",
        rotation("rolling_mean", feature("a"), integer(MEAN_WINDOW)),
        reduction(
            "weighted_by_pnl", filtration("filter"), integer(PNL_WINDOW), string("net_returns")
        ),
    )


@pytest.fixture(autouse=True)
def _filters(evaluator, monkeypatch):
    replace_filters(monkeypatch, evaluator, filter=["c", "a", "d"])


def run(evaluator, start: int, stop: int, states: Any = None, *, cold: bool = False) -> Any:
    """The result of a run over these rows of the history."""
    rows = slice(start, stop)
    context = make_context(
        evaluator,
        {"a": FEATURE[rows]},
        useful_signals={sid: UsefulSignal(WEIGHTS[sid][rows], PNL[sid][rows]) for sid in WEIGHTS},
        column_labels=LABELS,
        registry=RollingRegistry(evaluator),
    )
    return evaluator.evaluate(graph(), context, states, cold)


def through_bytes(evaluator, states: dict[str, Any]) -> dict[str, Any]:
    """What a checkpoint gives back."""
    saved = {key: state.to_bytes() for key, state in states.items()}
    return {key: evaluator.FunctionState.from_bytes(data) for key, data in saved.items()}


def continued(evaluator, cut: int, sizes: list[int], *, cold: bool) -> tuple[np.ndarray, Any]:
    """The weights of a run up to `cut` and of ticks of these sizes, and the last states.

    Only the first tick after the checkpoint is a cold start.
    """
    result = run(evaluator, 0, cut)
    weights = [result.weights]
    start = cut
    for tick, size in enumerate(sizes):
        states = through_bytes(evaluator, result.states)
        result = run(evaluator, start, start + size, states, cold=cold and tick == 0)
        weights.append(result.weights)
        start += size
    return np.concatenate(weights), result.states


def test_the_history_has_its_warm_up(evaluator):
    weights = run(evaluator, 0, ROWS).weights
    assert np.isnan(weights[:WARM_UP]).all()
    assert not np.isnan(weights[WARM_UP:]).any()


@pytest.mark.parametrize("cold", [True, False])
@pytest.mark.parametrize("cut", [PNL_WINDOW, PNL_WINDOW + 1, 15, ROWS - 1])
def test_ticks_equal_the_history_to_the_bit(evaluator, cut, cold):
    whole = run(evaluator, 0, ROWS)
    left = ROWS - cut
    for sizes in ([1] * left, [left], [*[2] * (left // 2), *[1] * (left % 2)]):
        weights, states = continued(evaluator, cut, sizes, cold=cold)
        same_bits(weights, whole.weights)
        assert states == whole.states


@pytest.mark.parametrize("cut", range(PNL_WINDOW))
def test_a_cut_in_the_warm_up(evaluator, cut):
    """On any start but a cold one it shows neither in the numbers nor in the blank rows."""
    whole = run(evaluator, 0, ROWS)
    for sizes in ([1] * (ROWS - cut), [ROWS - cut]):
        weights, states = continued(evaluator, cut, sizes, cold=False)
        same_bits(weights, whole.weights)
        assert states == whole.states


def test_states_in_the_middle(evaluator):
    """A checkpoint holds what has been seen, under the paths of the nodes."""
    states = run(evaluator, 0, 9).states
    assert list(states) == ["root.c0", "root.c1"]
    assert states["root.c0"].state_data == {
        "count": 9,
        "window": MEAN_WINDOW,
        "rows": FEATURE[9 - MEAN_WINDOW : 9].tolist(),
    }
    assert states["root.c1"].state_data["rows"] == [
        [PNL[sid][t, 1] for sid in "cad"] for t in range(9 - PNL_WINDOW, 9)
    ]


def rows_of(states: Any) -> list[list[float]]:
    return states["root.c1"].state_data["rows"]


def pnl(*rows: int) -> list[list[float]]:
    return [[PNL[sid][t, 1] for sid in "cad"] for t in rows]


@pytest.mark.parametrize("cut", [1, 2, WARM_UP - 1, WARM_UP])
def test_a_cold_tick_before_the_window_is_full(evaluator, cut):
    """The tick's one row is all the tail there is: it enters the window twice."""
    first = run(evaluator, 0, cut)
    cold = run(evaluator, cut, cut + 1, through_bytes(evaluator, first.states), cold=True)
    assert rows_of(cold.states) == pnl(*range(cut), cut, cut)[-PNL_WINDOW:]
    assert cold.states["root.c1"].state_data["count"] == cut + 2
    assert cold.states["root.c0"].state_data["count"] == cut + 1
    live = run(evaluator, cut, cut + 1, through_bytes(evaluator, first.states))
    assert rows_of(live.states) == pnl(*range(cut), cut)
    # The doubled row counts as seen, so that the warm-up ends a row early.
    assert np.isnan(live.weights).all() == (cut < WARM_UP)
    assert np.isnan(cold.weights).all() == (cut + 1 < WARM_UP)


def test_a_cold_start_over_a_longer_tail(evaluator):
    """A short window is filled from the end, and then sees all rows of the run."""
    cut, stop = 2, 12
    first = run(evaluator, 0, cut)
    cold = run(evaluator, cut, stop, through_bytes(evaluator, first.states), cold=True)
    assert cold.states["root.c1"].state_data["count"] == cut + (PNL_WINDOW - cut) + (stop - cut)
    assert rows_of(cold.states) == pnl(*range(stop - PNL_WINDOW, stop))
    # The window is full before the first row, so none is blank.
    assert not np.isnan(cold.weights).any()
    window = [*range(cut), *range(stop - PNL_WINDOW + cut, stop), cut][-PNL_WINDOW:]
    shares = np.add.reduce(np.array(pnl(*window)), axis=0) / PNL_WINDOW
    signals = np.array([WEIGHTS[sid][cut] for sid in "cad"])
    mean = np.add.reduce(FEATURE[: cut + 1], axis=0) / (cut + 1)
    same_bits(cold.weights[0], mean + np.add.reduce(signals * shares[:, np.newaxis], axis=0))


def test_bound_instances_go_on_without_states(evaluator):
    """The same instances, bound for every tick, give the history's numbers without a warm-up."""
    registry = RollingRegistry(evaluator)
    mean = registry.create_instance("rolling_mean", window=MEAN_WINDOW)
    weighted = registry.create_instance("weighted_by_pnl", window=PNL_WINDOW)
    mean.arity = 1
    bound = {"root.c0": mean, "root.c1": weighted, "root": registry.create_instance("sum")}
    whole = run(evaluator, 0, ROWS).weights
    tree = graph()
    for t in range(ROWS):
        context = make_context(
            evaluator,
            {"a": FEATURE[t : t + 1]},
            useful_signals={
                sid: UsefulSignal(WEIGHTS[sid][t : t + 1], PNL[sid][t : t + 1]) for sid in WEIGHTS
            },
            column_labels=LABELS,
        )
        weights = evaluator.evaluate(tree, context, bound_function_instances=bound).weights
        assert not np.isnan(weights).any()
        if t >= WARM_UP:
            same_bits(weights, whole[t : t + 1])
