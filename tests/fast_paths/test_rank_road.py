"""Ranks of whole matrices, and products of two of them, bit for bit."""

from __future__ import annotations

from types import ModuleType
from typing import Any

import numpy as np
import pytest
from hypothesis import given
from hypothesis import strategies as st
from quernbrook.functions._typed_shapes import SchemaError
from quernbrook.simulator_engine._types import EvaluationError
from support.functions import raising
from support.graphs import aggregation, feature, node, rotation
from support.matrices import (
    NARROW_DTYPES,
    PAYLOAD,
    SMALLEST,
    examples,
    layouts,
    matrices,
    narrowed,
    permuted_rows,
    universes,
)
from support.rank_formula import rank_matrix
from support.registries import RecordingRegistry
from support.runs import counting_matrix, fails, lets_through, make_context, same_bits
from support.traps import Trap

RANK, MULTIPLY = "latitudinal_rank", "numerical_multiply"
INF, NAN = np.inf, np.nan


def rank_of(name: str = "a") -> Any:
    return rotation(RANK, feature(name))


def product_of(left: str = "a", right: str = "b") -> Any:
    return rotation(MULTIPLY, rank_of(left), rank_of(right))


def ranked(evaluator: ModuleType, data: Any, universe: Any = None) -> Any:
    context = Trap(feature_index={"a": 0}, features=(data,), universe=universe)
    return evaluator._evaluate_simple_rank_fast(rank_of(), context)


def require_rank(evaluator: ModuleType, data: Any, universe: Any = None) -> None:
    """The road gives what the formula gives, and leaves the matrix alone."""
    before = data.tobytes()
    with np.errstate(all="ignore"):
        actual, expected = ranked(evaluator, data, universe), rank_matrix(data, universe)
    assert data.tobytes() == before
    if expected is None:
        assert actual is None
        return
    assert type(actual) is np.ndarray
    assert actual.flags.c_contiguous and actual.flags.writeable and actual.dtype.isnative
    assert not np.shares_memory(actual, data)
    same_bits(actual, expected)


# --- one row -------------------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("row", "ranks"),
    [
        ([3.0, 1.0, 2.0], [1.0, 0.0, 0.5]),
        ([3.0, NAN, 2.0], [1.0, NAN, 0.0]),
        ([NAN, INF, 1.0], [NAN, 2.0, 0.0]),
        ([INF, NAN, 1.0], [1.0, NAN, 0.0]),
        ([NAN, INF, NAN, INF], [NAN, 1.0, NAN, 3.0]),
        ([INF, INF, 1.0], [0.5, 1.0, 0.0]),
        ([1.0, -INF, -INF], [1.0, 0.0, 0.5]),
        ([-INF, NAN, -INF, INF], [0.0, NAN, 0.5, 1.5]),
        ([NAN, NAN, 7.0], [NAN, NAN, 0.5]),
        ([NAN, NAN, INF], [NAN, NAN, 0.5]),
        ([NAN, -INF, NAN], [NAN, 0.5, NAN]),
        ([NAN, NAN, NAN], [NAN, NAN, NAN]),
        ([*PAYLOAD, 1.0], [NAN, NAN, 0.5]),
        ([SMALLEST, 0.0, -SMALLEST], [1.0, 0.5, 0.0]),
        ([4.0], [0.5]),
        ([NAN], [NAN]),
        ([], []),
        ([1.0, 1.0], None),
        ([0.0, -0.0], None),
        ([-0.0, 5.0, 0.0], None),
        ([SMALLEST, NAN, SMALLEST], None),
        ([1.0, INF, INF, 1.0], None),
    ],
)
def test_one_row(evaluator: ModuleType, row: list[float], ranks: Any) -> None:
    data = np.array([row], dtype=np.float64)
    result = ranked(evaluator, data)
    require_rank(evaluator, data)
    if ranks is None:
        assert result is None
    else:
        same_bits(result, np.array([ranks], dtype=np.float64))


@pytest.mark.parametrize("place", [0, 3, 6])
def test_one_tie_declines_the_whole_matrix(evaluator: ModuleType, place: int) -> None:
    data = np.random.default_rng(1).permuted(counting_matrix(7, 5), axis=1)
    require_rank(evaluator, data)
    data[place, 4] = data[place, 0]
    assert ranked(evaluator, data) is None
    data[place, 4] = NAN
    assert ranked(evaluator, data) is not None


def test_cells_outside_the_universe_are_no_ties(evaluator: ModuleType) -> None:
    data = np.array([[1.0, 1.0, 2.0], [5.0, 5.0, 5.0]])
    universe = np.array([[1.0, 0.0, 1.0], [-0.0, NAN, -1.0]])
    same_bits(ranked(evaluator, data, universe), [[0.0, NAN, 1.0], [NAN, NAN, 0.5]])


def test_an_infinite_universe_is_active(evaluator: ModuleType) -> None:
    assert ranked(evaluator, np.ones((1, 2)), np.array([[INF, -INF]])) is None


# --- matrices ------------------------------------------------------------------------------------


@pytest.mark.parametrize("shape", [(0, 0), (0, 1), (0, 5), (1, 0), (4, 0), (4, 1), (1, 1)])
@pytest.mark.parametrize("masked", [False, True])
def test_narrow_and_empty_matrices(
    evaluator: ModuleType, shape: tuple[int, int], masked: bool
) -> None:
    data = counting_matrix(*shape)
    require_rank(evaluator, data, np.ones(shape) if masked else None)
    if shape[0] and shape[1]:
        data[0, 0] = NAN
        require_rank(evaluator, data)


@examples
@given(st.data())
def test_random_matrices(evaluator: ModuleType, data: st.DataObject) -> None:
    matrix = data.draw(matrices())
    require_rank(evaluator, matrix, data.draw(universes(matrix.shape)))


@examples
@given(permuted_rows())
def test_random_matrices_without_finite_ties(evaluator: ModuleType, matrix: np.ndarray) -> None:
    require_rank(evaluator, matrix)


@pytest.mark.parametrize("columns", [2, 15, 16, 17, 63, 64, 65, 200, 257, 1000, 5000])
@pytest.mark.parametrize("holes", [0.0, 0.3])
def test_wide_matrices(evaluator: ModuleType, columns: int, holes: float) -> None:
    draw = np.random.default_rng(columns)
    data = draw.standard_normal((4, columns))
    data[1] = np.sort(data[1])
    data[2] = np.sort(data[2])[::-1]
    # Neighbours that differ in their last bits only.
    steps = draw.permutation(columns).astype(np.int64)
    data[3] = (np.float64(1.0).view(np.int64) + steps).view(np.float64)
    data[draw.random(data.shape) < holes] = NAN
    data[draw.random(data.shape) < holes / 3] = INF
    data[draw.random(data.shape) < holes / 3] = -INF
    require_rank(evaluator, data)
    data[3, 0] = data[3, -1] = 1.5
    require_rank(evaluator, data)


@pytest.mark.parametrize("columns", [30, 300, 2000, 5000])
def test_infinities_beside_crowded_values(evaluator: ModuleType, columns: int) -> None:
    """They keep their columns' order also where only comparisons can tell the values apart."""
    draw = np.random.default_rng(columns)
    data = 1e9 + draw.standard_normal((6, columns))
    data[:, ::7], data[:, 1::7], data[:, 2::7] = INF, -INF, NAN
    data[:, 3:5] = -1e300, 1e300
    require_rank(evaluator, data)


@pytest.mark.parametrize("layout", list(layouts(np.zeros((1, 1)))))
@pytest.mark.parametrize("masked", [False, True])
def test_layouts(evaluator: ModuleType, layout: str, masked: bool) -> None:
    plain = np.random.default_rng(3).permuted(counting_matrix(6, 4), axis=1)
    plain[2, 1], plain[3, 2], plain[4, 0], plain[5] = NAN, INF, -INF, NAN
    universe = np.tile([1.0, 1.0, 0.0, NAN], (6, 1)) if masked else None
    data = layouts(plain)[layout]
    before = data.tolist()
    same_bits(ranked(evaluator, data, universe), rank_matrix(plain, universe))
    assert repr(data.tolist()) == repr(before)


@pytest.mark.parametrize("dtype", NARROW_DTYPES)
@examples
@given(st.data())
def test_other_dtypes(evaluator: ModuleType, dtype: Any, data: st.DataObject) -> None:
    matrix = narrowed(data.draw(matrices()), dtype)
    require_rank(evaluator, matrix)


@pytest.mark.parametrize("dtype", [bool, np.int64, np.uint8, np.float32, np.float16, np.longdouble])
def test_universes_of_other_dtypes(evaluator: ModuleType, dtype: Any) -> None:
    universe = np.array([[1, 0, 2], [0, 0, 1], [1, 1, 1]]).astype(dtype)
    data = np.array([[3.0, 2.0, 1.0], [1.0, 1.0, 1.0], [2.0, 3.0, 1.0]])
    require_rank(evaluator, data, universe)
    require_rank(evaluator, data, np.asfortranarray(universe))
    require_rank(evaluator, data, universe[::-1][::-1])


def test_a_universe_that_broadcasts(evaluator: ModuleType) -> None:
    data = counting_matrix(3)
    require_rank(evaluator, data, np.array([[1.0, 0.0, 1.0]]))
    require_rank(evaluator, data, np.array([1.0, NAN, 1.0]))
    # A mask wider than the matrix makes more rows of it.
    require_rank(evaluator, data[:1], np.ones((4, 3)))


def test_an_object_that_converts_itself(evaluator: ModuleType) -> None:
    class Lazy:
        def __array__(self, dtype: Any = None, copy: Any = None) -> np.ndarray:
            return counting_matrix(2).astype(np.float64 if dtype is None else dtype)

    same_bits(ranked(evaluator, Lazy()), rank_matrix(counting_matrix(2)))
    same_bits(ranked(evaluator, [[2, 1]]), [[1.0, 0.0]])


@pytest.mark.parametrize(
    ("data", "universe"),
    [
        (np.zeros(3), None),
        (np.zeros((2, 2, 2)), None),
        (np.arange(8.0).reshape(2, 2, 2), None),
        (np.zeros(()), None),
        (np.full((2, 2), "x"), None),
        (np.zeros((2, 2), dtype=complex), None),
        (np.array([[None, object()]]), None),
        (counting_matrix(2), np.ones((2, 2))),
        (counting_matrix(2), np.full((2, 3), "x")),
        (counting_matrix(2), 5),
        (np.zeros((2, 3)), np.full((2, 3), None)),
    ],
)
def test_what_the_array_library_refuses(evaluator: ModuleType, data: Any, universe: Any) -> None:
    try:
        expected = rank_matrix(data, universe)
    except Exception as error:  # noqa: BLE001 - whatever it raises
        with pytest.raises(type(error)) as caught:
            ranked(evaluator, data, universe)
        assert (type(caught.value), str(caught.value)) == (type(error), str(error))
    else:
        actual = ranked(evaluator, data, universe)
        assert (actual is None) == (expected is None)
        if expected is not None:
            same_bits(actual, expected)


# --- the evaluator's reads -----------------------------------------------------------------------


def test_what_the_evaluator_reads(evaluator: ModuleType) -> None:
    context = Trap(feature_index={"a": 0}, features=[counting_matrix(2)], universe=None)
    evaluator._evaluate_simple_rank_fast(rank_of(), context)
    assert set(context.reads) == {"feature_index", "features", "universe"}
    assert context.reads[0] == "feature_index"


@pytest.mark.parametrize("leaf", [feature("z"), aggregation("z"), node("odd", "z")])
def test_a_name_that_is_not_there(evaluator: ModuleType, leaf: Any) -> None:
    context = Trap(feature_index={"a": 0})
    with fails(EvaluationError, "Feature 'z' not in context"):
        evaluator._evaluate_simple_rank_fast(rotation("any", leaf, feature("a")), context)
    assert context.reads == ["feature_index"]


def test_errors_of_the_graph(evaluator: ModuleType) -> None:
    evaluate, nameless = evaluator._evaluate_simple_rank_fast, feature("a")
    del nameless.node
    text = "Graph node 'root.c0' missing required key: node"
    with fails(EvaluationError, text):
        evaluate(rotation(RANK, nameless), Trap())
    # The label stays, also for the second factor of a product.
    context = make_context(evaluator, {"a": counting_matrix(2)})
    with fails(EvaluationError, text):
        evaluator._evaluate_rank_multiply_fast(
            rotation(MULTIPLY, rank_of(), rotation(RANK, nameless)), context
        )
    with fails(SchemaError, "Graph node 'field-check' must be FunctionGraphNode; got dict"):
        evaluate(rotation(RANK, {}), Trap())
    with fails(SchemaError, "Graph node 'children' must be FunctionGraphNode; got dict"):
        evaluate({}, Trap())
    with pytest.raises(IndexError):
        evaluate(rotation(RANK), Trap())


@pytest.mark.parametrize("name", ["feature_index", "features", "universe"])
def test_a_failing_context_passes(evaluator: ModuleType, name: str) -> None:
    fault = LookupError(name)
    given: dict[str, Any] = {"feature_index": {"a": 0}, "features": (counting_matrix(2),)}
    given["universe"] = None
    with lets_through(fault):
        evaluator._evaluate_simple_rank_fast(rank_of(), Trap(**{**given, name: fault}))


def test_positions_are_the_sequence_s_own_business(evaluator: ModuleType) -> None:
    def at(position: Any) -> Any:
        features = (counting_matrix(1), counting_matrix(1)[:, ::-1])
        context = Trap(feature_index={"a": position}, features=features, universe=None)
        return evaluator._evaluate_simple_rank_fast(rank_of(), context)

    same_bits(at(-1), [[1.0, 0.5, 0.0]])
    same_bits(at(True), [[1.0, 0.5, 0.0]])
    with pytest.raises(IndexError):
        at(2)
    with pytest.raises(TypeError):
        at("0")


# --- products ------------------------------------------------------------------------------------


def multiplied(evaluator: ModuleType, left: Any, right: Any, universe: Any = None) -> Any:
    features = {"a": left, "b": right}
    context = make_context(evaluator, features, universe=universe, validate_inputs=False)
    context.registers = marker = np.zeros((9, 9))
    result = evaluator._evaluate_rank_multiply_fast(product_of(), context)
    if result is None:
        assert context.registers is marker
    return context, result


@examples
@given(st.data())
def test_random_products(evaluator: ModuleType, data: st.DataObject) -> None:
    left = data.draw(permuted_rows())
    right = data.draw(matrices(left.shape) | st.just(left))
    universe = data.draw(universes(left.shape))
    with np.errstate(all="ignore"):
        context, actual = multiplied(evaluator, left, right, universe)
        factors = [rank_matrix(factor, universe) for factor in (left, right)]
        if factors[0] is None or factors[1] is None:
            assert actual is None
            return
        expected = factors[0] * factors[1]
    same_bits(actual, expected)
    assert actual.flags.c_contiguous
    last = expected[-1:] if len(expected) else np.zeros((1, expected.shape[1]))
    same_bits(context.registers, last)
    assert np.shares_memory(context.registers, actual) is (actual.size > 0)


def test_no_rows(evaluator: ModuleType) -> None:
    context, result = multiplied(evaluator, np.zeros((0, 3)), np.zeros((0, 3)))
    assert result.shape == (0, 3)
    same_bits(context.registers, np.zeros((1, 3)))


def test_a_tie_in_the_first_factor_ends_it(evaluator: ModuleType) -> None:
    tied = np.ones((1, 2))
    context = Trap(feature_index={"a": 0, "b": 1}, features=(tied, None), universe=None)
    broken = rotation(MULTIPLY, rank_of(), {})
    assert evaluator._evaluate_rank_multiply_fast(broken, context) is None
    assert multiplied(evaluator, counting_matrix(1, 2), tied)[1] is None


def test_factors_of_other_shapes(evaluator: ModuleType) -> None:
    context, result = multiplied(evaluator, counting_matrix(1), counting_matrix(4))
    same_bits(result, rank_matrix(counting_matrix(1)) * rank_matrix(counting_matrix(4)))
    assert context.registers.shape == (1, 3)
    with pytest.raises(ValueError, match="broadcast"):
        multiplied(evaluator, counting_matrix(2), counting_matrix(3))


def test_only_two_children_are_looked_at(evaluator: ModuleType) -> None:
    context = make_context(evaluator, {"a": counting_matrix(2), "b": counting_matrix(2)})
    graph = rotation("any", rank_of(), rank_of("b"), {})
    same_bits(evaluator._evaluate_rank_multiply_fast(graph, context)[:, 1], [0.25, 0.25])
    with pytest.raises(IndexError):
        evaluator._evaluate_rank_multiply_fast(rotation(MULTIPLY, rank_of()), context)


def test_a_name_missing_from_a_product(evaluator: ModuleType) -> None:
    context = make_context(evaluator, {"a": counting_matrix(2)})
    for graph in (product_of("a", "z"), product_of("z", "a")):
        with fails(EvaluationError, "Feature 'z' not in context"):
            evaluator._evaluate_rank_multiply_fast(graph, context)
    assert context.registers is None


# --- whole runs ----------------------------------------------------------------------------------

GRAPHS = {"simple": rank_of, "product": product_of}


def two_features(evaluator: ModuleType, **options: Any) -> Any:
    data = np.random.default_rng(5).permuted(counting_matrix(4), axis=1)
    return make_context(evaluator, {"a": data, "b": -data[:, ::-1]}, **options)


@pytest.mark.parametrize("road", GRAPHS)
@pytest.mark.parametrize("states", [None, {}])
def test_a_run(evaluator: ModuleType, road: str, states: Any) -> None:
    registry = RecordingRegistry()
    context = two_features(evaluator, registry=registry, current_day_index=17)
    context.registers = registers = np.zeros((9, 9))
    context.extraction_buffer = buffer = np.ones((1, 1))
    result = evaluator.evaluate(GRAPHS[road](), context, states, True)
    a, b = context.features
    expected = rank_matrix(a) if road == "simple" else rank_matrix(a) * rank_matrix(b)
    same_bits(result.weights, expected)
    assert (result.states, result.nan_source, result.node_outputs) == ({}, {}, {})
    assert context.extraction_buffer is buffer
    assert context.current_day_index == 17
    assert (context.registers is registers) is (road == "simple")
    asked = [RANK] if road == "simple" else [MULTIPLY, RANK]
    assert registry.names("has_factory") == [*asked[:1] * (road == "product"), RANK]
    assert registry.names("create_instance") == []


def test_the_simple_rank_of_a_bound_run(evaluator: ModuleType) -> None:
    """What is bound refuses the product alone."""
    bound = {"elsewhere": None}
    weights, _ = evaluator.evaluate(
        rank_of(), two_features(evaluator), bound_function_instances=bound
    )
    assert weights.max() == 1.0


def test_the_simple_rank_of_an_unknown_name(evaluator: ModuleType) -> None:
    with fails(EvaluationError, "Feature 'z' not in context"):
        evaluator.evaluate(rank_of("z"), two_features(evaluator))


def test_declined_runs_go_down_the_row_loop(evaluator: ModuleType) -> None:
    registry = RecordingRegistry(factories={RANK: raising(LookupError("row loop"))})
    for graph in (rank_of(), product_of()):
        context = make_context(
            evaluator, {"a": np.ones((1, 2)), "b": np.ones((1, 2))}, registry=registry
        )
        with pytest.raises(LookupError, match="row loop"):
            evaluator.evaluate(graph, context)
        assert context.registers is None


@pytest.mark.parametrize("road", GRAPHS)
def test_replaced_names_take_effect(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch, road: str
) -> None:
    """The product, too, takes the evaluator of a single rank from the module."""
    graph, context, calls = GRAPHS[road](), two_features(evaluator), []

    def rank(*arguments: Any) -> np.ndarray:
        calls.append(arguments)
        return np.full((1, 2), 3.0)

    monkeypatch.setattr(evaluator, "_evaluate_simple_rank_fast", rank)
    weights, _ = evaluator.evaluate(graph, context)
    same_bits(weights, np.full((1, 2), 3.0 if road == "simple" else 9.0))
    ranks = [graph] if road == "simple" else graph.children
    assert [call[0] for call in calls] == ranks
    assert all(call[1] is context and len(call) == 2 for call in calls)


def test_a_replaced_error(evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(evaluator, "EvaluationError", OverflowError)
    with fails(OverflowError, "Feature 'z' not in context"):
        evaluator.evaluate(rank_of("z"), two_features(evaluator))


def test_an_error_class_that_makes_something_else(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(evaluator, "EvaluationError", lambda *_, **__: "no error")
    with fails(TypeError, "exceptions must derive from BaseException"):
        evaluator.evaluate(rank_of("z"), two_features(evaluator))


def test_a_replaced_mask_rule_is_used(evaluator, monkeypatch):
    monkeypatch.setattr(evaluator, "_apply_universe_mask", lambda data, universe: -data)
    data = np.array([[1.0, 2.0, 3.0], [3.0, 1.0, 2.0]])
    context = evaluator.EvaluationContext((data,), {"a": 0}, universe=np.ones((2, 3)))
    graph = rotation("latitudinal_rank", feature("a"))
    ranks = evaluator._evaluate_simple_rank_fast(graph, context)
    np.testing.assert_array_equal(ranks, [[1.0, 0.5, 0.0], [0.0, 1.0, 0.5]])
