"""Rolling mean, std and z-score of whole matrices, bit for bit."""

from __future__ import annotations

from types import ModuleType
from typing import Any

import numpy as np
import pytest
from hypothesis import given
from hypothesis import strategies as st
from quernbrook.functions._typed_shapes import SchemaError
from quernbrook.simulator_engine._types import EvaluationError
from support.graphs import aggregation, boolean, feature, integer, node, number, rotation, string
from support.longitudinal_formula import rolling_matrix
from support.matrices import (
    NARROW_DTYPES,
    ODD_CELLS,
    examples,
    layouts,
    matrices,
    narrowed,
    universes,
)
from support.outcomes import outcome
from support.rank_formula import masked_matrix
from support.registries import RecordingRegistry, entry
from support.runs import counting_matrix, fails, lets_through, make_context, same_bits
from support.traps import Trap

MEAN, STD, ZSCORE = "longitudinal_mean", "longitudinal_std", "longitudinal_zscore"
NAMES = [MEAN, STD, ZSCORE]
INF, NAN = np.inf, np.nan


def require_rolling(evaluator: ModuleType, data: Any, window: Any, name: Any) -> None:
    expected = outcome(rolling_matrix, data, window, name)
    actual = outcome(evaluator._rolling_longitudinal_fast, data, window, name)
    assert actual[:3] == expected[:3]
    if len(expected) == 4:
        cells = [np.frombuffer(found[3]).reshape(found[2]) for found in (actual, expected)]
        same_bits(*cells)


def rolled(evaluator: ModuleType, cells: list[float], window: int, name: str) -> list[float]:
    """The results of one column."""
    data = np.array(cells, dtype=np.float64)[:, np.newaxis]
    with np.errstate(all="ignore"):
        result = evaluator._rolling_longitudinal_fast(data, window, name)
    require_rolling(evaluator, data, window, name)
    return result[:, 0].tolist()


def chain(*steps: tuple[str, int], leaf: Any = None) -> Any:
    """The first step is the innermost."""
    graph = feature("a") if leaf is None else leaf
    for name, window in steps:
        graph = rotation(name, graph, integer(window))
    return graph


# --- one column ----------------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("name", "cells", "window", "results"),
    [
        (MEAN, [1.0, 2.0, 6.0, 4.0], 3, [NAN, NAN, 3.0, 4.0]),
        (STD, [1.0, 3.0, 3.0, 7.0], 2, [NAN, 1.0, 0.0, 2.0]),
        (ZSCORE, [1.0, 3.0, 3.0, -7.0], 2, [NAN, 1.0, 0.0, -1.0]),
        (MEAN, [1.0, NAN, 3.0, 5.0, 7.0], 2, [NAN, NAN, NAN, 4.0, 6.0]),
        (ZSCORE, [1.0, NAN, 3.0, 5.0, 7.0], 2, [NAN, NAN, NAN, 1.0, 1.0]),
        (MEAN, [1.0, NAN, -0.0], 1, [1.0, NAN, 0.0]),
        # The totals begin with the first row itself, not with that row added to zero.
        (MEAN, [-0.0, -0.0, -0.0], 1, [-0.0, 0.0, 0.0]),
        (STD, [1.0, NAN, 3.0], 1, [0.0, NAN, 0.0]),
        (ZSCORE, [1.0, NAN, 3.0], 1, [0.0, NAN, 0.0]),
        (MEAN, [1.0, 2.0, 3.0], 3, [NAN, NAN, 2.0]),
        (MEAN, [1.0, 2.0, 3.0], 4, [NAN, NAN, NAN]),
        (MEAN, [NAN, 2.0, NAN, 4.0], 2, [NAN, NAN, NAN, NAN]),
        (ZSCORE, [5.0, 5.0, 5.0], 2, [NAN, 0.0, 0.0]),
        (MEAN, [1.0, INF, 2.0, 3.0, 4.0], 2, [NAN, INF, INF, NAN, NAN]),
        (MEAN, [1.0, -INF, 2.0, INF], 2, [NAN, -INF, -INF, NAN]),
        (STD, [1.0, INF, 2.0, 3.0, 4.0], 2, [NAN, NAN, NAN, NAN, NAN]),
        (ZSCORE, [1.0, 3.0, INF, 3.0, 4.0], 2, [NAN, 1.0, NAN, NAN, NAN]),
    ],
)
def test_one_column(
    evaluator: ModuleType, name: str, cells: list[float], window: int, results: list[float]
) -> None:
    np.testing.assert_array_equal(rolled(evaluator, cells, window, name), results)


@pytest.mark.parametrize("name", NAMES)
def test_a_hole_spoils_the_windows_that_hold_it(evaluator: ModuleType, name: str) -> None:
    cells = [float(n * n % 11) for n in range(20)]
    cells[6] = NAN
    results = rolled(evaluator, cells, 4, name)
    assert np.flatnonzero(np.isnan(results)).tolist() == [0, 1, 2, 6, 7, 8, 9]


def test_no_tolerance_around_zero(evaluator: ModuleType) -> None:
    """What cancellation leaves of the variance of equal numbers is used as it stands."""
    cells = [1e17, 3e8 + 0.1, 3e8 + 0.1, 3e8 + 0.1]
    data = np.array(cells)[:, np.newaxis]
    require_rolling(evaluator, data, 2, STD)
    require_rolling(evaluator, data, 2, ZSCORE)
    constant = np.full((400, 3), 0.1)
    for name in NAMES:
        require_rolling(evaluator, constant, 7, name)


# --- windows -------------------------------------------------------------------------------------

ODD_WINDOWS = [
    *(0, -1, -2, -3, -100, 10**30, -(10**30), 2**63, -(2**63), 2**63 - 1, 2**31, 2**64),
    *(True, False, np.int64(2), np.int8(2), np.uint8(2), np.int64(0), np.int32(-1), np.uint64(2)),
    *(np.bool_(True), 2.0, 2.5, INF, NAN, None, "2", [2], np.float64(2)),
]


@pytest.mark.parametrize("name", NAMES)
@pytest.mark.parametrize("rows", [0, 1, 2, 5])
@pytest.mark.parametrize("window", ODD_WINDOWS, ids=repr)
def test_odd_windows(evaluator: ModuleType, name: str, rows: int, window: Any) -> None:
    """No window is refused: what the array operations give or raise is what comes out."""
    data = counting_matrix(rows, 2)
    require_rolling(evaluator, data, window, name)
    require_rolling(evaluator, np.full((rows, 2), NAN), window, name)
    require_rolling(evaluator, np.zeros((rows, 0)), window, name)
    require_rolling(evaluator, data[:, :1], window, name)


@pytest.mark.parametrize("window", [0, -1, -4, -5, -(10**30)])
@pytest.mark.parametrize("name", NAMES)
def test_windows_below_one_in_a_run(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch, window: int, name: str
) -> None:
    data = counting_matrix(4)
    monkeypatch.setattr(evaluator, "_LONGITUDINAL_FAST_MIN_ROWS", 1)
    context = make_context(evaluator, {"a": data}, registry=stubs())
    expected = outcome(rolling_matrix, data, window, name)
    # As many rows back as there are rows, the slices fit each other once more.
    assert issubclass(expected[0], Exception) is (window != -len(data))
    graph = chain((name, window))
    assert outcome(lambda: evaluator.evaluate(graph, context).weights) == expected


@pytest.mark.parametrize("name", ["", "longitudinal_sum", None, 5, [MEAN], b"longitudinal_mean"])
def test_any_other_name_is_a_zscore(evaluator: ModuleType, name: Any) -> None:
    data = counting_matrix(6)
    same_bits(evaluator._rolling_longitudinal_fast(data, 3, name), rolling_matrix(data, 3, ZSCORE))


def test_names_of_a_class_of_their_own(evaluator: ModuleType) -> None:
    class Text(str):
        pass

    data = counting_matrix(6)
    for name in NAMES:
        same_bits(
            evaluator._rolling_longitudinal_fast(data, 3, Text(name)),
            rolling_matrix(data, 3, name),
        )


# --- matrices ------------------------------------------------------------------------------------


@pytest.mark.parametrize("name", NAMES)
@examples
@given(st.data())
def test_random_matrices(evaluator: ModuleType, name: str, data: st.DataObject) -> None:
    cells = st.sampled_from([*ODD_CELLS, 3.0, 0.1, 0.3]) | st.floats(-1e3, 1e3)
    rows, columns = data.draw(st.integers(0, 14)), data.draw(st.integers(0, 4))
    matrix = data.draw(matrices((rows, columns), cells))
    require_rolling(evaluator, matrix, data.draw(st.integers(-3, rows + 2)), name)


@pytest.mark.parametrize("name", NAMES)
@examples
@given(st.data())
def test_random_matrices_of_numbers(evaluator: ModuleType, name: str, data: st.DataObject) -> None:
    """Without holes and infinities, so that every window counts."""
    cells = st.floats(allow_nan=False, allow_infinity=False) | st.floats(-9.0, 9.0, width=16)
    matrix = data.draw(matrices((data.draw(st.integers(1, 12)), 3), cells))
    require_rolling(evaluator, matrix, data.draw(st.integers(1, len(matrix))), name)


def long_matrices() -> dict[str, np.ndarray]:
    draw = np.random.default_rng(11)
    shape = (1500, 9)
    prices = 100.0 * np.exp(np.cumsum(0.01 * draw.standard_normal(shape), axis=0))
    holes = np.where(draw.random(shape) < 0.03, NAN, prices)
    holes[:, 3], holes[700:, 4], holes[0, 5], holes[-1, 6] = NAN, NAN, NAN, NAN
    infinite = np.where(draw.random(shape) < 0.002, draw.choice([INF, -INF], shape), holes)
    exponents = draw.integers(-300, 300, shape)
    return {
        "normal": draw.standard_normal(shape),
        "prices": prices,
        "holes": holes,
        "infinities": infinite,
        "whole numbers": draw.integers(-5, 6, shape).astype(np.float64),
        # Quotients that lie half-way between two doubles.
        "large whole numbers": draw.integers(2**52, 2**53, shape).astype(np.float64),
        "constant": np.tile(draw.standard_normal(9), (1500, 1)),
        "constant in part": np.repeat(draw.standard_normal((15, 9)), 100, axis=0),
        "all magnitudes": draw.standard_normal(shape) * 10.0**exponents,
        "huge": draw.standard_normal(shape) * 1e307,
        "denormal": draw.integers(-99, 99, shape) * 5e-324,
        "far from zero": 1e9 + draw.standard_normal(shape),
    }


LONG = long_matrices()


@pytest.mark.parametrize("name", NAMES)
@pytest.mark.parametrize("kind", LONG)
def test_long_matrices(evaluator: ModuleType, kind: str, name: str) -> None:
    for window in (1, 2, 3, 7, 10, 20, 64, 250, 1499, 1500, 1501):
        require_rolling(evaluator, LONG[kind], window, name)


@pytest.mark.parametrize("columns", [1, 2, 3, 8, 31, 64, 130])
@pytest.mark.parametrize("name", NAMES)
def test_wide_matrices(evaluator: ModuleType, columns: int, name: str) -> None:
    data = np.random.default_rng(columns).standard_normal((40, columns))
    data[11, ::3] = NAN
    for window in (1, 6, 40):
        require_rolling(evaluator, data, window, name)


@pytest.mark.parametrize("layout", list(layouts(np.zeros((1, 1)))))
@pytest.mark.parametrize("name", NAMES)
def test_layouts(evaluator: ModuleType, layout: str, name: str) -> None:
    plain = np.random.default_rng(2).standard_normal((12, 5))
    plain[4, 2] = NAN
    data = layouts(plain)[layout]
    before = repr(data.tolist())
    result = evaluator._rolling_longitudinal_fast(data, 3, name)
    same_bits(result, rolling_matrix(plain, 3, name))
    assert repr(data.tolist()) == before
    assert result.flags.writeable and not np.shares_memory(result, data)


@pytest.mark.parametrize("dtype", NARROW_DTYPES)
@pytest.mark.parametrize("name", NAMES)
def test_other_dtypes(evaluator: ModuleType, dtype: Any, name: str) -> None:
    data = narrowed(LONG["prices"][:30], dtype)
    require_rolling(evaluator, data, 4, name)


@pytest.mark.parametrize(
    "data",
    [np.zeros(4), np.zeros((4, 2, 2)), np.zeros(()), np.full((4, 2), "x"), [[1.0], [2.0]], 5.0],
    ids=repr,
)
def test_other_data(evaluator: ModuleType, data: Any) -> None:
    require_rolling(evaluator, data, 2, MEAN)


class Doubled(int):
    """A number of a class that computes in its own way."""

    def __sub__(self, other: int) -> int:
        return 2 * int(self) - other


@pytest.mark.parametrize("name", NAMES)
def test_a_window_that_computes_in_its_own_way(evaluator: ModuleType, name: str) -> None:
    require_rolling(evaluator, counting_matrix(5, 2), Doubled(2), name)


# --- the leaf ------------------------------------------------------------------------------------


@pytest.mark.parametrize("make", [feature, aggregation, lambda name: node("odd", name)])
def test_a_leaf_is_not_copied_where_it_need_not(evaluator: ModuleType, make: Any) -> None:
    data = counting_matrix(3)
    context = Trap(feature_index={"a": 0}, features=(data,), universe=None)
    assert evaluator._feature_matrix_for_fast_path(make("a"), context) is data
    assert set(context.reads) == {"feature_index", "features", "universe"}


@examples
@given(st.data())
def test_a_masked_leaf(evaluator: ModuleType, data: st.DataObject) -> None:
    matrix = data.draw(matrices())
    universe = data.draw(universes(matrix.shape))
    laid_out = data.draw(st.sampled_from(sorted(layouts(matrix).items())))[1]
    context = Trap(feature_index={"a": 0}, features=(laid_out,), universe=universe)
    result = evaluator._feature_matrix_for_fast_path(feature("a"), context)
    same_bits(result, masked_matrix(laid_out, universe))
    assert result.flags.c_contiguous and result.dtype.isnative


def test_errors_of_the_leaf(evaluator: ModuleType) -> None:
    leaf, read = feature("z"), evaluator._feature_matrix_for_fast_path
    with fails(EvaluationError, "Feature 'z' not in context"):
        read(leaf, Trap(feature_index={}))
    del leaf.node
    with fails(EvaluationError, "Graph node 'fast_path.feature' missing required key: node"):
        read(leaf, Trap())
    with fails(SchemaError, "Graph node 'field-check' must be FunctionGraphNode; got dict"):
        read({}, Trap())
    with pytest.raises(TypeError, match="unhashable"):
        read(feature(["a"]), Trap(feature_index={}))
    with pytest.raises(IndexError):
        read(feature("a"), Trap(feature_index={"a": 1}, features=(counting_matrix(1),)))


@pytest.mark.parametrize("name", ["feature_index", "features", "universe"])
def test_a_failing_context_passes(evaluator: ModuleType, name: str) -> None:
    fault = LookupError(name)
    given: dict[str, Any] = {"feature_index": {"a": 0}, "features": (counting_matrix(2),)}
    given["universe"] = None
    with lets_through(fault):
        evaluator._evaluate_longitudinal_fast(chain((MEAN, 1)), Trap(**{**given, name: fault}))


# --- the chain -----------------------------------------------------------------------------------


def evaluated(evaluator: ModuleType, graph: Any, data: Any = None, universe: Any = None) -> Any:
    data = counting_matrix(9) if data is None else data
    context = Trap(feature_index={"a": 0}, features=(data,), universe=universe)
    with np.errstate(all="ignore"):
        node_result = evaluator._evaluate_longitudinal_fast_node(graph, context)
        result = evaluator._evaluate_longitudinal_fast(graph, context)
    same_bits(result, node_result)
    assert result.flags.c_contiguous
    return result


def test_a_lone_leaf(evaluator: ModuleType) -> None:
    data = counting_matrix(2)
    assert evaluated(evaluator, feature("a"), data) is data
    assert evaluated(evaluator, aggregation("a"), data) is data


@examples
@given(st.data())
def test_random_chains(evaluator: ModuleType, data: st.DataObject) -> None:
    steps = data.draw(
        st.lists(st.tuples(st.sampled_from(NAMES), st.integers(1, 5)), min_size=1, max_size=3)
    )
    matrix = data.draw(matrices((data.draw(st.integers(0, 16)), 3)))
    universe = data.draw(universes(matrix.shape))
    expected = masked_matrix(matrix, universe)
    with np.errstate(all="ignore"):
        for name, window in steps:
            expected = rolling_matrix(expected, window, name)
    same_bits(evaluated(evaluator, chain(*steps), matrix, universe), expected)


@pytest.mark.parametrize(("inner", "outer"), [(1, 1), (3, 4), (5, 2)])
def test_leading_rows_add_up(evaluator: ModuleType, inner: int, outer: int) -> None:
    data = np.random.default_rng(8).standard_normal((20, 2))
    result = evaluated(evaluator, chain((MEAN, inner), (ZSCORE, outer)), data)
    assert np.isnan(result).sum(axis=0).tolist() == [inner + outer - 2] * 2
    assert np.isnan(result[: inner + outer - 2]).all()


def test_a_column_outside_the_universe(evaluator: ModuleType) -> None:
    result = evaluated(evaluator, chain((MEAN, 2)), universe=np.tile([1.0, 0.0, NAN], (9, 1)))
    assert np.isnan(result).sum(axis=0).tolist() == [1, 9, 9]


def test_the_first_child_that_is_no_literal_holds_the_data(evaluator: ModuleType) -> None:
    children = [string("s"), boolean(True), integer(2), feature("a"), {}, integer("x")]
    same_bits(
        evaluated(evaluator, rotation(MEAN, *children)),
        rolling_matrix(counting_matrix(9), 2, MEAN),
    )
    # A float is no literal here, and has no data below it.
    with fails(SchemaError, "Graph node 'field-check' must be FunctionGraphNode; got NoneType"):
        context = evaluator.EvaluationContext((counting_matrix(9),), {"a": 0})
        graph = rotation(MEAN, number(0.5), integer(2), feature("a"))
        evaluator._evaluate_longitudinal_fast_node(graph, context)
    # Anything that is no leaf counts as a rotation.
    odd = node("odd", MEAN, [feature("a"), integer(2)])
    same_bits(evaluated(evaluator, odd), rolling_matrix(counting_matrix(9), 2, MEAN))


def without(built: Any, name: str) -> Any:
    delattr(built, name)
    return built


@pytest.mark.parametrize(
    ("graph", "path", "key"),
    [
        (without(chain((MEAN, 2)), "type"), "fast_path.eval", "type"),
        (without(chain((MEAN, 2)), "node"), "fast_path.eval", "node"),
        (chain((MEAN, 2), leaf=without(feature("a"), "type")), "fast_path.eval.c0", "type"),
        (rotation(MEAN, integer(2), without(feature("a"), "type")), "fast_path.eval.c1", "type"),
        (chain((MEAN, 2), leaf=without(feature("a"), "node")), "fast_path.feature", "node"),
        (rotation(MEAN, feature("a"), without(integer(2), "node")), "window.c1", "node"),
        (rotation(MEAN, feature("a"), without(integer(2), "type")), "window.c1", "type"),
        (
            without(rotation(MEAN, feature("a"), without(integer(2), "node")), "node"),
            "window.c1",
            "node",
        ),
    ],
)
def test_missing_fields(evaluator: ModuleType, graph: Any, path: str, key: str) -> None:
    with fails(EvaluationError, f"Graph node '{path}' missing required key: {key}"):
        evaluated(evaluator, graph)


@pytest.mark.parametrize(
    ("graph", "error", "text"),
    [
        ({}, SchemaError, "Graph node 'field-check' must be FunctionGraphNode; got dict"),
        (
            rotation(MEAN),
            SchemaError,
            "Graph node 'field-check' must be FunctionGraphNode; got NoneType",
        ),
        (
            rotation(MEAN, integer(2)),
            SchemaError,
            "Graph node 'field-check' must be FunctionGraphNode; got NoneType",
        ),
        (rotation(MEAN, feature("z"), integer("x")), EvaluationError, "Feature 'z' not in context"),
        (
            rotation(MEAN, feature("a"), integer("x")),
            ValueError,
            "invalid literal for int() with base 10: 'x'",
        ),
        (
            rotation(MEAN, feature("a")),
            TypeError,
            "'<' not supported between instances of 'int' and 'NoneType'",
        ),
    ],
)
def test_faults_of_the_graph(evaluator: ModuleType, graph: Any, error: Any, text: str) -> None:
    with pytest.raises(error) as caught:
        evaluated(evaluator, graph)
    assert str(caught.value) == text


# --- whole runs ----------------------------------------------------------------------------------


def stubs() -> RecordingRegistry:
    return RecordingRegistry({name: entry() for name in NAMES})


@pytest.mark.parametrize("limit", [4, 5, 6])
def test_a_run(evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch, limit: int) -> None:
    """Below the limit the stateful instances serve the run."""
    monkeypatch.setattr(evaluator, "_LONGITUDINAL_FAST_MIN_ROWS", limit)
    data, registry = counting_matrix(5), stubs()
    context = make_context(evaluator, {"a": data}, registry=registry, current_day_index=17)
    context.registers = registers = np.zeros((9, 9))
    context.extraction_buffer = buffer = np.ones((1, 1))
    result = evaluator.evaluate(chain((MEAN, 2), (STD, 2)), context, None, True)
    assert (result.nan_source, result.states) == ({}, {})
    if limit > 5:
        assert registry.names("create_instance") == [MEAN, STD]
        return
    assert registry.names("create_instance") == []
    assert registry.names("get_entry") == [STD, MEAN, STD, MEAN]
    same_bits(result.weights, rolling_matrix(rolling_matrix(data, 2, MEAN), 2, STD))
    assert result.node_outputs == {}
    assert context.registers is registers
    assert context.extraction_buffer is buffer
    assert context.current_day_index == 17


@pytest.mark.parametrize("window", [6, 10**30, "12", 5.9, True])
def test_windows_as_a_graph_holds_them(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch, window: Any
) -> None:
    monkeypatch.setattr(evaluator, "_LONGITUDINAL_FAST_MIN_ROWS", 5)
    context = make_context(evaluator, {"a": counting_matrix(5)}, registry=stubs())
    weights, _ = evaluator.evaluate(chain((MEAN, window)), context)
    same_bits(weights, rolling_matrix(counting_matrix(5), int(window), MEAN))


def test_bound_instances_do_not_refuse(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(evaluator, "_LONGITUDINAL_FAST_MIN_ROWS", 0)
    context = make_context(evaluator, {"a": counting_matrix(3)}, registry=stubs())
    graph = chain((MEAN, 2))
    weights, _ = evaluator.evaluate(graph, context, bound_function_instances={"root": None})
    same_bits(weights, rolling_matrix(counting_matrix(3), 2, MEAN))
    assert not hasattr(graph, "_collect_nodes_cache")


def test_a_replaced_evaluator(evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    graph, calls = rotation("rolling", feature("a"), integer(2)), []

    def evaluate(*arguments: Any) -> str:
        calls.append(arguments)
        return "weights"

    monkeypatch.setattr(evaluator, "_LONGITUDINAL_FAST_MIN_ROWS", 3)
    monkeypatch.setattr(evaluator, "_LONGITUDINAL_FAST_NAMES", frozenset({"rolling"}))
    monkeypatch.setattr(evaluator, "_evaluate_longitudinal_fast", evaluate)
    registry = RecordingRegistry({"rolling": entry()})
    context = make_context(evaluator, {"a": counting_matrix(3)}, registry=registry)
    assert evaluator.evaluate(graph, context).weights == "weights"
    assert calls == [(graph, context)]


def test_a_name_that_was_added_is_a_zscore(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(evaluator, "_LONGITUDINAL_FAST_MIN_ROWS", 0)
    monkeypatch.setattr(evaluator, "_LONGITUDINAL_FAST_NAMES", {"rolling"})
    registry = RecordingRegistry({"rolling": entry()})
    context = make_context(evaluator, {"a": counting_matrix(5)}, registry=registry)
    weights, _ = evaluator.evaluate(rotation("rolling", feature("a"), integer(2)), context)
    same_bits(weights, rolling_matrix(counting_matrix(5), 2, ZSCORE))


def test_a_replaced_mask_rule(evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(evaluator, "_apply_universe_mask", lambda data, universe: data + universe)
    context = Trap(feature_index={"a": 0}, features=(counting_matrix(2),), universe=1.0)
    result = evaluator._feature_matrix_for_fast_path(feature("a"), context)
    same_bits(result, counting_matrix(2) + 1.0)


def test_a_replaced_error(evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(evaluator, "EvaluationError", OverflowError)
    with fails(OverflowError, "Feature 'z' not in context"):
        evaluator._evaluate_longitudinal_fast(feature("z"), Trap(feature_index={}))
