"""Arrays of earlier stages stand in the graph as features."""

from __future__ import annotations

from types import ModuleType
from typing import Any

import numpy as np
import pytest
from quernbrook.functions._typed_shapes import StageData
from quernbrook.simulator_engine._types import EvaluationError, EvaluationShapeError
from support.functions import RecordingFunction, raising
from support.graphs import aggregation, feature, rotation
from support.runs import bind_all, counting_matrix, fails, lets_through, make_context, same_bits
from support.stages import PIPELINE, replace_merge
from support.traps import Said, Trap

STAGE = counting_matrix(2, start=100)


def stage_context(evaluator: ModuleType, values: Any = None, **options: Any) -> Any:
    return make_context(
        evaluator, {"x": counting_matrix(2)}, stage_data=StageData(values), **options
    )


def attach(evaluator: ModuleType, context: Any, *names: str) -> Any:
    graph = rotation("f", *(feature(name) for name in names))
    assert evaluator._attach_stage_data_feature_leaves(graph, context) is None
    return context


# --- which arrays --------------------------------------------------------------------------------


@pytest.mark.parametrize("as_list", [False, True])
def test_nothing_to_attach(evaluator: ModuleType, as_list: bool) -> None:
    context = stage_context(evaluator, as_list=as_list)
    features = context.features
    attach(evaluator, context, "s")
    assert context.features is features
    context.stage_data = StageData({"other": STAGE})
    attach(evaluator, context, "s")
    assert type(context.features) is tuple
    assert context.features == tuple(features)
    assert context.feature_index == {"x": 0}


def test_new_positions_go_by_name(evaluator: ModuleType) -> None:
    a, b = STAGE + 1, STAGE + 2
    context = stage_context(evaluator, {"b": b, "a": a, "unused": STAGE})
    index = context.feature_index
    attach(evaluator, context, "b", "x", "a", "b")
    assert context.feature_index is index
    assert list(index.items()) == [("x", 0), ("a", 1), ("b", 2)]
    assert len(context.features) == 3
    assert context.features[1] is a and context.features[2] is b


def test_a_feature_wins_over_a_stage_array(evaluator: ModuleType) -> None:
    context = stage_context(evaluator, {"x": STAGE})
    before = context.features[0]
    attach(evaluator, context, "x")
    assert context.features == (before,)
    assert context.feature_index == {"x": 0}


@pytest.mark.parametrize(
    "value",
    [
        None,
        5.0,
        [[1.0]],
        np.float64(1),
        np.ones(3),
        np.ones((1, 1, 1)),
        np.array(1.0),
        memoryview(np.ones((2, 2))),
        Trap(ndim=2),
    ],
    ids=lambda value: type(value).__name__,
)
def test_what_is_no_leaf(evaluator: ModuleType, value: Any) -> None:
    context = attach(evaluator, stage_context(evaluator, {"s": value}), "s")
    assert context.feature_index == {"x": 0}
    graph = rotation("f", feature("s"))
    with fails(EvaluationError, "Feature 's' not in context"):
        evaluator.evaluate(graph, context, bound_function_instances=bind_all(graph))


class Tagged(np.ndarray):
    pass


ARRAYS = {
    "int": STAGE.astype(np.int32),
    "bool": STAGE > 102,
    "float32": STAGE.astype(np.float32),
    "big-endian": STAGE.astype(">f8"),
    "fortran": np.asfortranarray(STAGE),
    "strided": np.tile(STAGE, (1, 2))[:, ::2],
    "text": STAGE.astype("U8"),
    "object": STAGE.astype(object),
    "no rows": np.ones((0, 3), dtype=int),
    "other shape": np.ones((7, 1), dtype=int),
}


@pytest.mark.parametrize("kind", ARRAYS)
def test_arrays_become_contiguous_float64(evaluator: ModuleType, kind: str) -> None:
    value = ARRAYS[kind]
    attached = attach(evaluator, stage_context(evaluator, {"s": value}), "s").features[1]
    assert type(attached) is np.ndarray and attached.flags.c_contiguous
    same_bits(attached, value.astype(np.float64))
    assert not np.shares_memory(attached, value)


def test_copies_are_made_only_where_needed(evaluator: ModuleType) -> None:
    tagged, frozen = STAGE.copy().view(Tagged), STAGE.copy()
    frozen.flags.writeable = False
    context = stage_context(evaluator, {"t": tagged, "z": frozen})
    attach(evaluator, context, "t", "z")
    assert type(context.features[1]) is np.ndarray
    assert np.shares_memory(context.features[1], tagged)
    assert context.features[2] is frozen


# --- what is asked -------------------------------------------------------------------------------


class RecordingStages:
    def __init__(self, values: Any, is_empty: Any = False) -> None:
        self.values, self.answer, self.calls = values, is_empty, []

    def is_empty(self, *args: Any, **kwargs: Any) -> Any:
        self.calls.append(("is_empty", args, kwargs))
        return self.answer

    def value(self, *args: Any, **kwargs: Any) -> Any:
        self.calls.append(("value", args, kwargs))
        return self.values.get(args[0])


@pytest.mark.parametrize("is_empty", [True, 1, "yes", Said(True)])
def test_emptiness_is_a_matter_of_truth(evaluator: ModuleType, is_empty: Any) -> None:
    stages = RecordingStages({"s": STAGE}, is_empty)
    context = Trap(stage_data=stages)
    assert evaluator._attach_stage_data_feature_leaves(None, context) is None
    assert context.reads == ["stage_data"]
    assert stages.calls == [("is_empty", (), {})]


@pytest.mark.parametrize("is_empty", [False, 0, None, Said(False)])
def test_only_missing_names_are_asked_for_in_order(evaluator: ModuleType, is_empty: Any) -> None:
    stages = RecordingStages({"s": STAGE}, is_empty)
    context = stage_context(evaluator)
    context.stage_data = stages
    attach(evaluator, context, "z", "s", "x", "a")
    asked = [("value", (name, None), {}) for name in ("a", "s", "z")]
    assert stages.calls == [("is_empty", (), {}), *asked]
    assert context.feature_index == {"x": 0, "s": 1}


@pytest.mark.parametrize("kind", [set, list, iter, dict.fromkeys])
def test_the_host_says_which_names(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch, kind: Any
) -> None:
    names = kind(["b", "a", "b"])
    monkeypatch.setattr(evaluator, "extract_feature_leaf_names", lambda graph: names)
    context = stage_context(evaluator, {"a": STAGE, "b": STAGE, "s": STAGE})
    attach(evaluator, context, "s")
    assert context.feature_index == {"x": 0, "a": 1, "b": 2}


def test_names_that_cannot_be_sorted(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    monkeypatch.setattr(evaluator, "extract_feature_leaf_names", lambda graph: ["a", 1])
    context = stage_context(evaluator, {"a": STAGE}, as_list=True)
    with pytest.raises(TypeError, match="'<' not supported"):
        attach(evaluator, context)
    assert type(context.features) is list


@pytest.mark.parametrize("method", ["is_empty", "value"])
def test_failing_stage_data_passes(evaluator: ModuleType, method: str) -> None:
    fault = LookupError(method)
    stages = RecordingStages({})
    setattr(stages, method, raising(fault))
    context = stage_context(evaluator, as_list=True)
    context.stage_data = stages
    with lets_through(fault):
        attach(evaluator, context, "s")
    assert type(context.features) is list


def test_failing_names_pass(evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    fault = LookupError("names")
    monkeypatch.setattr(evaluator, "extract_feature_leaf_names", raising(fault))
    evaluator._attach_stage_data_feature_leaves(None, stage_context(evaluator))
    with lets_through(fault):
        attach(evaluator, stage_context(evaluator, {"s": STAGE}), "s")


def test_stage_data_of_none(evaluator: ModuleType) -> None:
    context = stage_context(evaluator)
    context.stage_data = None
    with pytest.raises(AttributeError, match="is_empty"):
        evaluator.evaluate(feature("x"), context)
    assert context.universe_mask is None


@pytest.mark.parametrize("value", [np.full((2, 3), "word"), np.full((2, 3), object())])
def test_an_array_that_is_no_number(evaluator: ModuleType, value: Any) -> None:
    """Its name stays in the index, one past the end, and no array of the call is attached."""
    context = stage_context(evaluator, {"s": STAGE, "t": value, "u": STAGE})
    features = context.features
    with pytest.raises((ValueError, TypeError)) as caught:
        attach(evaluator, context, "s", "t", "u")
    with pytest.raises(type(caught.value)) as expected:
        np.ascontiguousarray(value, dtype=np.float64)
    assert str(caught.value) == str(expected.value)
    assert context.features is features
    assert context.feature_index == {"x": 0, "s": 1, "t": 2}
    # A later call takes these for features and attaches the rest behind the last one.
    attach(evaluator, context, "s", "t", "u")
    assert context.feature_index == {"x": 0, "s": 1, "t": 2, "u": 1}
    assert context.features[1] is STAGE
    with pytest.raises(IndexError):
        evaluator.evaluate(feature("t"), context)


# --- runs ----------------------------------------------------------------------------------------


@pytest.mark.parametrize("make", [feature, aggregation])
def test_a_stage_array_is_a_leaf_of_the_graph(evaluator: ModuleType, make: Any) -> None:
    context = stage_context(evaluator, {"s": STAGE})
    assert evaluator.evaluate(make("s"), context).weights is STAGE
    graph = rotation("f", make("s"), feature("x"))
    bound = bind_all(graph)
    same_bits(evaluator.evaluate(graph, context, bound_function_instances=bound).weights, STAGE)
    ranks, _ = evaluator.evaluate(rotation("latitudinal_rank", make("s")), context)
    same_bits(ranks, [[0.0, 0.5, 1.0]] * 2)


def test_arrays_are_attached_once(evaluator: ModuleType) -> None:
    context = stage_context(evaluator, {"s": STAGE})
    evaluator.evaluate(feature("s"), context)
    features = context.features
    context.stage_data = StageData({"s": STAGE + 1, "t": STAGE + 2})
    assert evaluator.evaluate(feature("s"), context).weights is STAGE
    assert len(context.features) == 2
    assert all(one is other for one, other in zip(context.features, features, strict=True))
    evaluator.evaluate(feature("t"), context)
    assert context.feature_index == {"x": 0, "s": 1, "t": 2}


def test_the_shape_is_checked_where_it_is_met(evaluator: ModuleType) -> None:
    """At first only by the row loop, and then by the validation of every further run."""
    odd = np.ones((3, 5))
    context = stage_context(evaluator, {"s": odd})
    graph = rotation("f", feature("s"))
    with fails(
        EvaluationShapeError, "Function 'f' input feature 's' has shape (3, 5), expected (2, 3)"
    ):
        evaluator.evaluate(graph, context, bound_function_instances=bind_all(graph))
    text = "Feature dimension mismatch: 'feature_0' shape (2, 3) vs 'feature_1' shape (3, 5)"
    with fails(EvaluationError, text):
        evaluator.evaluate(feature("x"), context)
    context = stage_context(evaluator, {"s": odd}, validate_inputs=False)
    for _ in range(2):
        assert evaluator.evaluate(feature("s"), context).weights is odd


def test_the_merged_graph_tells_the_names(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch
) -> None:
    replace_merge(monkeypatch, evaluator, lambda _: feature("s"))
    context = stage_context(
        evaluator, {"s": STAGE, "bare": STAGE}, transform_pipeline=list(PIPELINE)
    )
    assert evaluator.evaluate(feature("bare"), context).weights is STAGE
    assert context.feature_index == {"x": 0, "s": 1}


def test_instances_see_the_attached_features(evaluator: ModuleType) -> None:
    context = stage_context(evaluator, {"s": STAGE}, as_list=True)
    seen: list[int] = []
    act = RecordingFunction(lambda *_: float(seen.append(len(context.features)) or 0))
    graph = rotation("f", feature("s"))
    evaluator.evaluate(graph, context, bound_function_instances={"root": act})
    assert seen == [2, 2]
    assert type(context.features) is tuple
