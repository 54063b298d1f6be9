"""The shortest road: a graph that is a single feature or aggregation."""

from __future__ import annotations

from types import ModuleType, SimpleNamespace
from typing import Any

import numpy as np
import pytest
from quernbrook.functions._typed_shapes import SchemaError
from quernbrook.simulator_engine._types import EvaluationError
from support.functions import raising
from support.graphs import aggregation, feature, node, number, rotation

T, N = 4, 3


class Tagged(np.ndarray):
    pass


def matrix() -> np.ndarray:
    return np.arange(T * N, dtype=np.float64).reshape(T, N)


def read_only() -> np.ndarray:
    data = matrix()
    data.flags.writeable = False
    return data


FEATURES = {
    "float32": lambda: matrix().astype(np.float32),
    "int64": lambda: matrix().astype(np.int64),
    "bool": lambda: matrix() > 4,
    "big-endian": lambda: matrix().astype(">f8"),
    "fortran": lambda: np.asfortranarray(matrix()),
    "sliced": lambda: np.arange(T * N * 4.0).reshape(T * 2, N * 2)[::2, ::2],
    "reversed": lambda: matrix()[::-1],
    "broadcast": lambda: np.broadcast_to(np.arange(float(N)), (T, N)),
    "object": lambda: matrix().astype(object),
    "longdouble": lambda: matrix().astype(np.longdouble),
}


def make_context(evaluator: ModuleType, data: Any, **keywords: Any) -> Any:
    return evaluator.EvaluationContext((data,), {"x": 0}, **keywords)


# --- the test --------------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("graph", "taken"),
    [
        (feature("x"), True),
        (aggregation("x"), True),
        (feature("y"), False),
        (aggregation("y"), False),
        (number("x"), False),
        (rotation("x"), False),
        (node("Feature", "x"), False),
        (node(None, "x"), False),
        (node("feature", "x", [feature("y")]), True),
        (feature("x", canonical_id="id"), True),
    ],
)
@pytest.mark.parametrize("nothing", [None, {}, [], 0])
def test_leaf_test(evaluator: ModuleType, graph: Any, taken: bool, nothing: Any) -> None:
    context = make_context(evaluator, matrix())
    answer = evaluator._can_use_leaf_fast_path(graph, context, nothing, data_nan_features=nothing)
    assert answer is taken
    assert evaluator._can_use_leaf_fast_path(graph, context, nothing) is taken


def test_leaf_test_looks_at_nothing_else_of_the_context(evaluator: ModuleType) -> None:
    context = SimpleNamespace(feature_index={"x": 0})
    assert evaluator._can_use_leaf_fast_path(feature("x"), context, None) is True


def test_leaf_test_stops_at_the_first_no(evaluator: ModuleType) -> None:
    refuse = evaluator._can_use_leaf_fast_path
    assert refuse(None, None, raising(AssertionError()), data_nan_features=["x"]) is False
    assert refuse(None, None, {"root": 1}) is False
    assert refuse(number(1.0), None, None) is False
    untyped = feature("x")
    del untyped.node
    assert refuse(untyped, None, {"root": 1}) is False


@pytest.mark.parametrize("which", ["function_states", "data_nan_features"])
def test_leaf_test_passes_on_a_failing_truth(evaluator: ModuleType, which: str) -> None:
    class Unsure:
        def __bool__(self) -> bool:
            raise ArithmeticError("unsure")

    arguments = {"function_states": None, "data_nan_features": None, which: Unsure()}
    with pytest.raises(ArithmeticError, match="unsure"):
        evaluator._can_use_leaf_fast_path(
            feature("x"), make_context(evaluator, matrix()), **arguments
        )


def test_leaf_test_passes_on_errors_of_the_graph(evaluator: ModuleType) -> None:
    context = make_context(evaluator, matrix())
    with pytest.raises(SchemaError) as refused:
        evaluator._can_use_leaf_fast_path({"type": "feature"}, context, None)
    assert str(refused.value) == "Graph node 'field-check' must be FunctionGraphNode; got dict"
    for missing in ("type", "node"):
        graph = feature("x")
        delattr(graph, missing)
        with pytest.raises(EvaluationError) as caught:
            evaluator._can_use_leaf_fast_path(graph, context, None)
        assert str(caught.value) == f"Graph node 'root' missing required key: {missing}"
    with pytest.raises(TypeError, match="unhashable"):
        evaluator._can_use_leaf_fast_path(feature(["x"]), context, None)


@pytest.mark.parametrize("field", ["type", "node"])
def test_field_that_cannot_be_compared(evaluator: ModuleType, field: str) -> None:
    error = OSError("gone")
    fail = raising(error)
    graph = feature("x")
    setattr(graph, field, type("Odd", (), {"__eq__": fail, "__hash__": fail})())
    for run in (evaluator.evaluate, lambda *a: evaluator._can_use_leaf_fast_path(*a, None)):
        with pytest.raises(OSError) as caught:
            run(graph, make_context(evaluator, matrix()))
        assert caught.value is error


def test_leaf_test_asks_the_index_for_membership(evaluator: ModuleType) -> None:
    class Index:
        def __contains__(self, name: str) -> bool:
            return name == "x"

    context = SimpleNamespace(feature_index=Index())
    assert evaluator._can_use_leaf_fast_path(feature("x"), context, None) is True
    assert evaluator._can_use_leaf_fast_path(feature("y"), context, None) is False


# --- the evaluator ---------------------------------------------------------------------------


def test_nothing_is_copied_where_nothing_needs_it(evaluator: ModuleType) -> None:
    data = matrix()
    context = make_context(evaluator, data)
    result = evaluator._evaluate_leaf_fast(feature("x"), context)
    assert result is data
    assert context.registers.shape == (1, N)
    assert np.shares_memory(context.registers, data)
    np.testing.assert_array_equal(context.registers, data[-1:])


def test_read_only_feature_comes_back_read_only(evaluator: ModuleType) -> None:
    data = read_only()
    context = make_context(evaluator, data)
    assert evaluator._evaluate_leaf_fast(feature("x"), context) is data
    assert not context.registers.flags.writeable


def test_subclass_becomes_a_plain_view(evaluator: ModuleType) -> None:
    data = matrix().view(Tagged)
    result = evaluator._evaluate_leaf_fast(feature("x"), make_context(evaluator, data))
    assert type(result) is np.ndarray
    assert np.shares_memory(result, data)


@pytest.mark.parametrize("masked", [False, True])
@pytest.mark.parametrize("kind", FEATURES)
def test_other_layouts_and_dtypes(evaluator: ModuleType, kind: str, masked: bool) -> None:
    data = FEATURES[kind]()
    before = data.copy()
    universe = np.tile([1.0, 0.0, np.nan], (T, 1)) if masked else None
    context = make_context(evaluator, data, universe=universe)
    result = evaluator._evaluate_leaf_fast(feature("x"), context)
    expected = np.asarray(before, dtype=np.float64)
    if masked:
        expected = np.where([True, False, False], expected, np.nan)
    assert type(result) is np.ndarray
    assert result.dtype == np.float64 and result.dtype.isnative
    assert result.flags.c_contiguous
    assert not np.shares_memory(result, data)
    np.testing.assert_array_equal(result, expected)
    np.testing.assert_array_equal(data, before)
    assert np.shares_memory(context.registers, result)
    np.testing.assert_array_equal(context.registers, expected[-1:])


def test_mask_makes_a_new_matrix(evaluator: ModuleType) -> None:
    data = matrix()
    context = make_context(evaluator, data, universe=np.ones((T, N)))
    result = evaluator._evaluate_leaf_fast(feature("x"), context)
    assert not np.shares_memory(result, data)
    np.testing.assert_array_equal(result, data)
    np.testing.assert_array_equal(data, matrix())


@pytest.mark.parametrize("universe", [None, np.ones((0, N))])
def test_no_rows(evaluator: ModuleType, universe: Any) -> None:
    context = make_context(evaluator, np.empty((0, N)), universe=universe)
    result = evaluator.evaluate(feature("x"), context)
    assert result.weights.shape == (0, N)
    assert context.registers.dtype == np.float64
    np.testing.assert_array_equal(context.registers, np.zeros((1, N)))


def test_no_columns(evaluator: ModuleType) -> None:
    context = make_context(evaluator, np.empty((T, 0)))
    assert evaluator.evaluate(feature("x"), context).weights.shape == (T, 0)
    assert context.registers.shape == (1, 0)


def test_one_column_and_one_row(evaluator: ModuleType) -> None:
    context = make_context(evaluator, np.array([[7.0]]))
    assert evaluator.evaluate(feature("x"), context).weights[0, 0] == 7.0
    np.testing.assert_array_equal(context.registers, [[7.0]])


def test_unknown_name_is_the_index_s_own_error(evaluator: ModuleType) -> None:
    with pytest.raises(KeyError) as caught:
        evaluator._evaluate_leaf_fast(feature("y"), make_context(evaluator, matrix()))
    assert caught.value.args == ("y",)


def test_positions_are_the_sequence_s_own_business(evaluator: ModuleType) -> None:
    features = [matrix(), matrix() + 1]
    context = evaluator.EvaluationContext(features, {"x": -1, "y": 9}, validate_inputs=False)
    assert evaluator.evaluate(feature("x"), context).weights is features[1]
    with pytest.raises(IndexError):
        evaluator.evaluate(feature("y"), context)


def test_feature_of_another_rank(evaluator: ModuleType) -> None:
    cube = np.ones((2, 3, 4))
    context = make_context(evaluator, cube)
    assert evaluator.evaluate(feature("x"), context).weights is cube
    assert context.registers.shape == (1, 3, 4)
    with pytest.raises(IndexError):
        evaluator._evaluate_leaf_fast(feature("x"), make_context(evaluator, np.ones(3)))


def test_object_that_converts_itself(evaluator: ModuleType) -> None:
    class Lazy:
        shape = (T, N)

        def __array__(self, dtype: Any = None, copy: Any = None) -> np.ndarray:
            return matrix() if dtype is None else matrix().astype(dtype)

    context = make_context(evaluator, Lazy())
    np.testing.assert_array_equal(evaluator.evaluate(feature("x"), context).weights, matrix())


def test_feature_that_is_no_number(evaluator: ModuleType) -> None:
    context = make_context(evaluator, np.full((T, N), "a"))
    with pytest.raises(ValueError):
        evaluator.evaluate(feature("x"), context)
    assert context.registers is None


def test_mask_of_another_shape_fails_in_the_array_library(evaluator: ModuleType) -> None:
    context = make_context(evaluator, matrix(), universe=np.ones((T, 2)), validate_inputs=False)
    with pytest.raises(ValueError):
        evaluator.evaluate(feature("x"), context)


# --- the whole run ---------------------------------------------------------------------------


def test_result_has_no_states_and_empty_tables(evaluator: ModuleType) -> None:
    result = evaluator.evaluate(aggregation("x"), make_context(evaluator, matrix()), {})
    assert type(result) is evaluator.EvaluationResult
    assert (result.states, result.nan_source, result.node_outputs) == ({}, {}, {})


def test_run_returns_the_feature_itself(evaluator: ModuleType) -> None:
    data = matrix()
    weights, _ = evaluator.evaluate(feature("x"), make_context(evaluator, data))
    assert weights is data


def test_only_the_mask_and_the_registers_are_written(evaluator: ModuleType) -> None:
    context = make_context(evaluator, matrix(), current_day_index=17, useful_signals={})
    context.extraction_buffer = buffer = np.ones((1, 1))
    before = dict(vars(context))
    evaluator.evaluate(feature("x"), context)
    after = vars(context)
    assert list(after) == list(before)
    changed = {name for name in before if after[name] is not before[name]}
    assert changed == {"universe_mask", "registers"}
    assert context.extraction_buffer is buffer
    assert context.current_day_index == 17


def test_leaf_road_asks_neither_signals_nor_metaparameters(evaluator: ModuleType) -> None:
    signals = {"s": SimpleNamespace(weights=None, pnl=None)}
    data = matrix()
    context = make_context(evaluator, data, useful_signals=signals, metaparameters={"m": "1"})
    bound = {"nowhere": object()}
    result = evaluator.evaluate(feature("x"), context, None, True, bound_function_instances=bound)
    assert result.weights is data


@pytest.mark.parametrize(
    "arguments",
    [{"data_nan_features": ["y"]}, {"bound_function_instances": {}, "data_nan_features": ("y",)}],
)
def test_refused_leaf_takes_the_row_loop(evaluator: ModuleType, arguments: dict[str, Any]) -> None:
    data = matrix()
    context = make_context(evaluator, data, universe=np.tile([1.0, 0.0, np.inf], (T, 1)))
    result = evaluator.evaluate(feature("x"), context, **arguments)
    assert not np.shares_memory(result.weights, data)
    np.testing.assert_array_equal(result.weights, np.where([True, False, True], data, np.nan))
    assert context.current_day_index == T - 1


def test_states_send_a_leaf_to_the_key_check(evaluator: ModuleType) -> None:
    with pytest.raises(EvaluationError) as caught:
        evaluator.evaluate(feature("x"), make_context(evaluator, matrix()), {"root": {}})
    assert str(caught.value) == "Function state keys do not match graph tree structure"


def test_unknown_leaf_is_reported_by_collection(evaluator: ModuleType) -> None:
    with pytest.raises(EvaluationError) as caught:
        evaluator.evaluate(feature("y"), make_context(evaluator, matrix()))
    assert str(caught.value) == "Feature 'y' not in context"
