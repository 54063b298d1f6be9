"""The order in which a run validates, prepares and chooses its road."""

from __future__ import annotations

from types import ModuleType, SimpleNamespace
from typing import Any

import numpy as np
import pytest
from quernbrook.functions._typed_shapes import FunctionGraphNode, StageData
from quernbrook.simulator_engine._types import (
    EvaluationError,
    EvaluationShapeError,
    FunctionExecutionError,
)
from support.contexts import look_alike
from support.functions import RecordingFunction
from support.graphs import feature, node, rotation
from support.registries import RecordingRegistry

DATA = np.arange(6.0).reshape(3, 2)


def make_context(evaluator: ModuleType, **keywords: Any) -> Any:
    return evaluator.EvaluationContext((DATA.copy(),), {"x": 0}, **keywords)


# --- shape validation and dimensions ---------------------------------------------------------


@pytest.mark.parametrize("skip", [None, False, 0, True, "yes"])
def test_shapes_are_validated_unless_skipped(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch, skip: Any
) -> None:
    calls: list[tuple[Any, ...]] = []
    monkeypatch.setattr(evaluator, "_validate_evaluation_shapes", lambda *args: calls.append(args))
    context = look_alike(universe=np.ones_like(DATA), useful_signals={"s": object()})
    if skip is not None:
        context._skip_evaluation_shape_validation = skip
    evaluator.evaluate(feature("x"), context)
    if skip:
        assert calls == []
    else:
        ((features, universe, signals),) = calls
        assert features is context.features
        assert universe is context.universe
        assert signals is context.useful_signals


def test_later_change_of_the_context_is_caught(evaluator: ModuleType) -> None:
    context = make_context(evaluator)
    context.universe = np.ones((1, 2))
    with pytest.raises(EvaluationError) as caught:
        evaluator.evaluate(feature("x"), context)
    assert str(caught.value) == (
        "Feature dimension mismatch: features shape (3, 2) vs universe shape (1, 2)"
    )
    assert context.universe_mask is None


def test_unvalidated_context_is_not_checked_by_the_run(evaluator: ModuleType) -> None:
    context = make_context(evaluator, validate_inputs=False)
    context.universe = np.array([[1.0, 0.0]])
    result = evaluator.evaluate(feature("x"), context)
    np.testing.assert_array_equal(result.weights, np.where([True, False], DATA, np.nan))
    np.testing.assert_array_equal(context.universe_mask, [[1, 0]])


@pytest.mark.parametrize("validate", [True, False])
@pytest.mark.parametrize("features", [(), []])
def test_no_features(evaluator: ModuleType, features: Any, validate: bool) -> None:
    context = evaluator.EvaluationContext(features, {}, validate_inputs=validate)
    with pytest.raises(EvaluationError) as caught:
        evaluator.evaluate(feature("x"), context)
    assert str(caught.value) == "No features provided"
    assert caught.value.__cause__ is None
    assert context.universe_mask is None


def test_feature_without_columns_has_no_width(evaluator: ModuleType) -> None:
    context = evaluator.EvaluationContext((np.ones(3),), {"x": 0})
    with pytest.raises(IndexError):
        evaluator.evaluate(feature("x"), context)


def test_only_the_first_feature_gives_the_dimensions(evaluator: ModuleType) -> None:
    context = evaluator.EvaluationContext(
        (np.ones((4, 3)), np.ones((2, 5))), {"a": 0, "b": 1}, validate_inputs=False
    )
    result = evaluator.evaluate(feature("b"), context)
    assert result.weights.shape == (2, 5)
    assert context.universe_mask.shape == (4, 3)
    assert context.registers.shape == (1, 5)


# --- the order of things ---------------------------------------------------------------------


def bad_config() -> FunctionGraphNode:
    return rotation("f", feature("x"), config={"A": 1})


def test_merge_comes_before_shapes(evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    merged: list[Any] = []

    def combine(graph: Any, *_: Any) -> Any:
        merged.append(graph)
        return graph

    monkeypatch.setattr(evaluator, "combine_signal_and_transforms", combine)
    context = make_context(evaluator, transform_pipeline=[SimpleNamespace(name="s", default=None)])
    context.universe = np.ones((1, 1))
    with pytest.raises(EvaluationError):
        evaluator.evaluate(feature("x"), context)
    assert len(merged) == 1
    assert context.transform_pipeline == []


def test_shapes_come_before_stage_data(evaluator: ModuleType) -> None:
    context = make_context(evaluator, stage_data=StageData({"y": DATA}))
    context.universe = np.ones((1, 1))
    with pytest.raises(EvaluationError):
        evaluator.evaluate(feature("y"), context)
    assert context.feature_index == {"x": 0}


def test_stage_data_comes_before_dimensions(evaluator: ModuleType) -> None:
    context = evaluator.EvaluationContext((), {}, stage_data=StageData({"y": DATA}))
    np.testing.assert_array_equal(evaluator.evaluate(feature("y"), context).weights, DATA)


def test_shapes_come_before_configuration(evaluator: ModuleType) -> None:
    context = make_context(evaluator)
    context.universe = np.ones((1, 1))
    with pytest.raises(EvaluationError, match="dimension mismatch"):
        evaluator.evaluate(bad_config(), context)


def test_dimensions_come_before_configuration(evaluator: ModuleType) -> None:
    context = evaluator.EvaluationContext((), {})
    with pytest.raises(EvaluationError, match="No features provided"):
        evaluator.evaluate(bad_config(), context)


def test_mask_is_left_behind_by_a_failing_configuration(evaluator: ModuleType) -> None:
    context = make_context(evaluator)
    with pytest.raises(FunctionExecutionError, match="engine-only"):
        evaluator.evaluate(bad_config(), context)
    np.testing.assert_array_equal(context.universe_mask, np.ones((3, 2)))
    assert context.registers is None


def test_configuration_comes_before_the_fast_roads(evaluator: ModuleType) -> None:
    leaf = node("feature", "x", [bad_config()])
    context = make_context(evaluator)
    with pytest.raises(FunctionExecutionError) as caught:
        evaluator.evaluate(leaf, context)
    assert str(caught.value) == (
        "Function 'f' at node 'root.c0' config contains engine-only parameter(s): A"
    )
    assert context.registers is None


def test_fast_roads_come_before_feature_shapes(evaluator: ModuleType) -> None:
    features = (np.ones((4, 3)), np.ones((2, 5)))
    index = {"a": 0, "b": 1}
    registry = RecordingRegistry(factories={"f": RecordingFunction()})
    context = evaluator.EvaluationContext(features, index, registry=registry, validate_inputs=False)
    assert evaluator.evaluate(feature("b"), context).weights.shape == (2, 5)
    with pytest.raises(EvaluationShapeError) as caught:
        evaluator.evaluate(rotation("f", feature("b")), context)
    assert str(caught.value) == ("Function 'f' input feature 'b' has shape (2, 5), expected (4, 3)")


ROADS = [
    ("_can_use_leaf_fast_path", "_evaluate_leaf_fast"),
    ("_can_use_simple_rank_fast_path", "_evaluate_simple_rank_fast"),
    ("_can_use_rank_multiply_fast_path", "_evaluate_rank_multiply_fast"),
    ("_can_use_longitudinal_fast_path", "_evaluate_longitudinal_fast"),
]


def record_roads(
    evaluator: ModuleType,
    monkeypatch: pytest.MonkeyPatch,
    accept: dict[str, Any],
    values: dict[str, Any],
) -> list[tuple[str, tuple[Any, ...], dict[str, Any]]]:
    """Put recorders in the place of all tests and evaluators."""
    calls: list[tuple[str, tuple[Any, ...], dict[str, Any]]] = []

    def recorder(name: str, answer: Any) -> Any:
        def call(*args: Any, **kwargs: Any) -> Any:
            calls.append((name, args, kwargs))
            return answer

        return call

    for test, road in ROADS:
        monkeypatch.setattr(evaluator, test, recorder(test, accept.get(test, False)))
        monkeypatch.setattr(evaluator, road, recorder(road, values.get(road)))
    return calls


def test_roads_are_tried_in_order(evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    calls = record_roads(evaluator, monkeypatch, {}, {})
    registry = RecordingRegistry(factories={"f": RecordingFunction()})
    context = make_context(evaluator, registry=registry)
    graph, states, bound, names = rotation("f", feature("x")), {}, None, ["z"]
    result = evaluator.evaluate(
        graph, context, states, True, bound_function_instances=bound, data_nan_features=names
    )
    np.testing.assert_array_equal(result.weights, DATA)
    assert [name for name, _, _ in calls] == [test for test, _ in ROADS]
    for name, args, kwargs in calls:
        expected: dict[str, Any] = {"data_nan_features": names}
        if name == "_can_use_rank_multiply_fast_path":
            expected["bound_function_instances"] = bound
        assert kwargs == expected
        assert args[0] is graph and args[1] is context and args[2] is states
        assert args[3:] == ((3,) if name == "_can_use_longitudinal_fast_path" else ())


@pytest.mark.parametrize("chosen", range(4))
@pytest.mark.parametrize("yes", [True, "yes"])
def test_first_road_that_takes_the_graph_ends_the_run(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch, chosen: int, yes: Any
) -> None:
    answer = np.ones((1, 1))
    test, road = ROADS[chosen]
    calls = record_roads(evaluator, monkeypatch, {test: yes}, {road: answer})
    context = make_context(evaluator)
    graph = rotation("f", feature("x"))
    result = evaluator.evaluate(graph, context, {"root": {}})
    assert type(result) is evaluator.EvaluationResult
    assert result.weights is answer
    assert (result.states, result.nan_source, result.node_outputs) == ({}, {}, {})
    name, args, kwargs = calls[-1]
    assert name == road
    assert len(args) == 2 and args[0] is graph and args[1] is context
    assert kwargs == {}
    assert len(calls) == chosen + 2


@pytest.mark.parametrize("chosen", [0, 3])
def test_leaf_and_longitudinal_values_are_unconditional(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch, chosen: int
) -> None:
    record_roads(evaluator, monkeypatch, {ROADS[chosen][0]: True}, {})
    assert evaluator.evaluate(feature("x"), make_context(evaluator)).weights is None


def test_declining_rank_roads_go_on(evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    ranks = {ROADS[1][0]: True, ROADS[2][0]: True}
    calls = record_roads(evaluator, monkeypatch, ranks, {})
    registry = RecordingRegistry(factories={"f": RecordingFunction()})
    graph = rotation("f", feature("x"))
    result = evaluator.evaluate(graph, make_context(evaluator, registry=registry))
    np.testing.assert_array_equal(result.weights, DATA)
    names = [name for name, _, _ in calls]
    assert names == [ROADS[0][0], *ROADS[1], *ROADS[2], ROADS[3][0]]


def test_a_declining_rank_value_is_told_by_identity(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    test, road = ROADS[1]
    empty: list[Any] = []
    record_roads(evaluator, monkeypatch, {test: True}, {road: empty})
    assert evaluator.evaluate(feature("x"), make_context(evaluator)).weights is empty


def test_deep_graph_ends_in_a_result_or_a_recursion_error(evaluator: ModuleType) -> None:
    graph = feature("x")
    for _ in range(20_000):
        graph = rotation("f", graph)
    registry = RecordingRegistry(factories={"f": RecordingFunction(0.0)})
    features = (np.ones((1, 1)),)
    context = evaluator.EvaluationContext(features, {"x": 0}, registry=registry)
    try:
        result = evaluator.evaluate(graph, context)
    except RecursionError:
        assert evaluator.evaluate(feature("x"), context).weights[0, 0] == 1.0
    else:
        np.testing.assert_array_equal(result.weights, [[0.0]])
    finally:
        while graph.children:  # a chain this long is better taken apart link by link
            graph = graph.children[0]
