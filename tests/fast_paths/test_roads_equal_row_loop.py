"""A run gives the same on a fast road as in the row loop."""

from __future__ import annotations

from functools import partial
from types import ModuleType
from typing import Any

import numpy as np
import pytest
from hypothesis import given
from hypothesis import strategies as st
from quernbrook.reference_host.registry import default_registry
from support.graphs import aggregation, feature, integer, rotation
from support.matrices import examples, matrices, narrowed, universes
from support.registries import RecordingRegistry, entry
from support.rolling_functions import RollingTotals
from support.runs import make_context, same_bits

pytestmark = pytest.mark.slow

RANK, MULTIPLY = "latitudinal_rank", "numerical_multiply"
LONGITUDINAL = ["longitudinal_mean", "longitudinal_std", "longitudinal_zscore"]
ROW_LOOP = ["unused, but it closes the fast roads"]


def both_roads(evaluator: ModuleType, graph: Any, features: Any, **options: Any) -> Any:
    """The context and the result of the fast road, then those of the row loop."""
    found = []
    for names in (None, ROW_LOOP):
        context = make_context(evaluator, features, **options)
        context._collect_node_outputs = True
        with np.errstate(all="ignore"):
            result = evaluator.evaluate(graph, context, data_nan_features=names)
        # Only the row loop collects what the nodes gave.
        assert bool(result.node_outputs) is (names is ROW_LOOP)
        assert result.nan_source == {}
        found += [context, result]
    return found


# --- leaves --------------------------------------------------------------------------------------


@examples
@given(st.data())
def test_leaves(evaluator: ModuleType, data: st.DataObject) -> None:
    matrix = data.draw(matrices())
    dtype = data.draw(st.sampled_from([np.float64, np.float32, np.int64, bool]))
    if dtype is not np.float64:
        matrix = narrowed(matrix, dtype)
    graph = data.draw(st.sampled_from([feature, aggregation]))("a")
    universe = data.draw(universes(matrix.shape))
    context, fast, slow_context, slow = both_roads(
        evaluator, graph, {"a": matrix}, universe=universe
    )
    same_bits(fast.weights, slow.weights)
    same_bits(context.registers, slow_context.registers)
    assert fast.states == slow.states == {}


# --- ranks ---------------------------------------------------------------------------------------


@st.composite
def rankable(draw: st.DrawFn, shape: tuple[int, int]) -> np.ndarray:
    """Rows whose ranks no reading of ties and of infinities beside holes can change."""
    rows, columns = shape
    finite = st.floats(allow_nan=False, allow_infinity=False)
    cells = np.empty(shape)
    for t in range(rows):
        cells[t] = draw(st.lists(finite, min_size=columns, max_size=columns, unique=True))
        cells[t][draw(st.lists(st.booleans(), min_size=columns, max_size=columns))] = np.nan
        if columns > 1 and draw(st.booleans()):
            cells[t, 0], cells[t, -1] = np.inf, -np.inf
    return cells


SHAPES = st.tuples(st.integers(0, 5), st.integers(0, 6))


@examples
@given(st.data())
def test_ranks(evaluator: ModuleType, data: st.DataObject) -> None:
    shape = data.draw(SHAPES)
    features = {"a": data.draw(rankable(shape)), "b": data.draw(rankable(shape))}
    ranks = [rotation(RANK, feature(name)) for name in "ab"]
    graph = data.draw(st.sampled_from([ranks[0], rotation(MULTIPLY, *ranks)]))
    _, fast, _, slow = both_roads(evaluator, graph, features, registry=default_registry())
    same_bits(fast.weights, slow.weights)


@examples
@given(st.data())
def test_ranks_inside_a_universe(evaluator: ModuleType, data: st.DataObject) -> None:
    shape = data.draw(SHAPES)
    features = {"a": data.draw(rankable(shape)), "b": data.draw(rankable(shape))}
    features["a"][np.isinf(features["a"])] = 1e200
    features["b"][np.isinf(features["b"])] = -1e200
    active = st.sampled_from([1.0, 1.0, 0.0, np.nan])
    graph = rotation(MULTIPLY, *(rotation(RANK, feature(name)) for name in "ab"))
    universe = data.draw(matrices(shape, active))
    registry = default_registry()
    found = []
    for names in (None, ROW_LOOP):
        context = make_context(evaluator, features, registry=registry, universe=universe)
        found.append(evaluator.evaluate(graph, context, data_nan_features=names).weights)
    same_bits(*found)


def test_ties_are_left_to_the_row_loop(evaluator: ModuleType) -> None:
    features = {"a": np.array([[2.0, 1.0, 3.0], [1.0, 1.0, 0.0]])}
    registry = default_registry()
    context = make_context(evaluator, features, registry=registry)
    weights, _ = evaluator.evaluate(rotation(RANK, feature("a")), context)
    same_bits(weights, [[0.5, 0.0, 1.0], [0.75, 0.75, 0.0]])
    assert context.current_day_index == 1


# --- rolling statistics --------------------------------------------------------------------------


def chain(steps: list[tuple[str, int]]) -> Any:
    graph = feature("a")
    for name, window in steps:
        graph = rotation(name, graph, integer(window))
    return graph


@examples
@given(st.data())
def test_rolling_statistics_to_the_last_bit(evaluator: ModuleType, data: st.DataObject) -> None:
    """The stateful functions here round as the road does, whatever they are given."""
    steps = data.draw(
        st.lists(
            st.tuples(st.sampled_from(LONGITUDINAL), st.integers(1, 4)), min_size=1, max_size=3
        )
    )
    matrix = data.draw(matrices((data.draw(st.integers(0, 12)), 3)))
    stub = entry(stateful=data.draw(st.booleans()), param_schema={"window": None})
    registry = RecordingRegistry(
        dict.fromkeys(LONGITUDINAL, stub),
        {name: partial(RollingTotals, name) for name in LONGITUDINAL},
    )
    universe = data.draw(universes(matrix.shape))
    with pytest.MonkeyPatch.context() as patch:
        patch.setattr(evaluator, "_LONGITUDINAL_FAST_MIN_ROWS", 0)
        _, fast, _, slow = both_roads(
            evaluator, chain(steps), {"a": matrix}, universe=universe, registry=registry
        )
    same_bits(fast.weights, slow.weights)
    assert fast.states == {}
    assert len(slow.states) == len(steps)


@pytest.mark.parametrize("names", [[name] for name in LONGITUDINAL] + [LONGITUDINAL[::-1]])
@pytest.mark.parametrize("window", [2, 13])
def test_rolling_statistics_of_the_library(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch, names: list[str], window: int
) -> None:
    """The library works in double precision, so the last bits differ; the empty cells don't."""
    monkeypatch.setattr(evaluator, "_LONGITUDINAL_FAST_MIN_ROWS", 60)
    draw = np.random.default_rng(window)
    data = draw.standard_normal((60, 4))
    data[31, 1], data[40:44, 2] = np.nan, np.nan
    universe = np.ones((60, 4))
    universe[20, 3] = 0.0
    graph = chain([(name, window) for name in names])
    _, fast, _, slow = both_roads(
        evaluator, graph, {"a": data}, universe=universe, registry=default_registry()
    )
    assert np.isnan(fast.weights).tolist() == np.isnan(slow.weights).tolist()
    np.testing.assert_allclose(fast.weights, slow.weights, rtol=1e-9, atol=1e-9)
