"""A name replaced in the module is what the next call uses."""

from __future__ import annotations

from types import ModuleType, SimpleNamespace
from typing import Any

import numpy as np
import pytest
from quernbrook.functions._typed_shapes import FunctionGraphNode, StageData
from quernbrook.simulator_engine._types import EvaluationError
from support.contexts import look_alike
from support.functions import RecordingFunction
from support.graphs import feature, rotation
from support.registries import RecordingRegistry
from support.runs import fails

DATA = np.arange(6.0).reshape(3, 2)


class Replacement(Exception):
    pass


def make_context(evaluator: ModuleType, **keywords: Any) -> Any:
    return evaluator.EvaluationContext((DATA.copy(),), {"x": 0}, **keywords)


def test_schema_error(evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(evaluator, "SchemaError", Replacement)
    with fails(Replacement, "evaluate graph must be FunctionGraphNode; got dict"):
        evaluator.evaluate({}, make_context(evaluator))
    with fails(Replacement, "EvaluationContext.stage_data must be StageData or None; got int"):
        make_context(evaluator, stage_data=5)


def test_evaluation_error(evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(evaluator, "EvaluationError", Replacement)
    with fails(Replacement, "No features provided"):
        evaluator.evaluate(feature("x"), look_alike(features=()))
    with fails(Replacement, "feature_index['y'] = 3 is out of bounds for 1 features"):
        evaluator.EvaluationContext((DATA,), {"y": 3})
    text = "Feature dimension mismatch: features shape (3, 2) vs universe shape (1,)"
    with fails(Replacement, text):
        evaluator._validate_evaluation_shapes((DATA,), np.ones(1), None)
    with fails(Replacement, "Function state keys do not match graph tree structure"):
        evaluator.evaluate(feature("x"), make_context(evaluator), {"root": 1})


def test_function_execution_error(evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(evaluator, "FunctionExecutionError", Replacement)
    text = "Function 'f' at node 'root' config contains engine-only parameter(s): A"
    with fails(Replacement, text):
        evaluator.evaluate(rotation("f", config={"A": 1}), make_context(evaluator))


def test_graph_node_class(evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    class Other(FunctionGraphNode):
        pass

    class Error(Exception):
        pass

    monkeypatch.setattr(evaluator, "FunctionGraphNode", Other)
    monkeypatch.setattr(evaluator, "SchemaError", Error)
    context = make_context(evaluator)
    with fails(Error, "evaluate graph must be FunctionGraphNode; got FunctionGraphNode"):
        evaluator.evaluate(feature("x"), context)
    result = evaluator.evaluate(Other("feature", "x"), context)
    np.testing.assert_array_equal(result.weights, DATA)


@pytest.mark.parametrize("road", ["leaf", "row loop"])
def test_result_class(evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch, road: str) -> None:
    calls: list[tuple[tuple[Any, ...], dict[str, Any]]] = []

    def build(*args: Any, **kwargs: Any) -> str:
        calls.append((args, kwargs))
        return "built"

    monkeypatch.setattr(evaluator, "EvaluationResult", build)
    registry = RecordingRegistry(factories={"f": RecordingFunction()})
    graph = feature("x") if road == "leaf" else rotation("f", feature("x"))
    assert evaluator.evaluate(graph, make_context(evaluator, registry=registry)) == "built"
    (((weights, states), kwargs),) = calls
    np.testing.assert_array_equal(weights, DATA)
    assert states == {}
    assert kwargs == ({} if road == "leaf" else {"nan_source": {}, "node_outputs": None})


def test_context_class(evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    """A context that is no `EvaluationContext` any more gets no lock."""
    context = make_context(evaluator)
    context._evaluation_lock = None
    foreign = look_alike()
    monkeypatch.setattr(evaluator, "EvaluationContext", SimpleNamespace)
    evaluator.evaluate(feature("x"), context)
    assert context._evaluation_lock is None
    evaluator.evaluate(feature("x"), foreign)
    assert foreign._evaluation_lock is not None


def test_stage_data_class(evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    class Other:
        def is_empty(self) -> bool:
            return True

    monkeypatch.setattr(evaluator, "StageData", Other)
    assert type(make_context(evaluator).stage_data) is Other
    given = Other()
    assert make_context(evaluator, stage_data=given).stage_data is given
    with pytest.raises(evaluator.SchemaError):
        make_context(evaluator, stage_data=StageData())


def test_threading(evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(evaluator, "threading", SimpleNamespace(RLock=lambda: "lock"))
    assert make_context(evaluator)._evaluation_lock == "lock"


@pytest.mark.parametrize("validate", [True, False])
def test_shape_validation_in_the_constructor(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch, validate: bool
) -> None:
    calls: list[tuple[tuple[Any, ...], dict[str, Any]]] = []
    monkeypatch.setattr(
        evaluator, "_validate_evaluation_shapes", lambda *args, **kw: calls.append((args, kw))
    )
    signals: dict[str, Any] = {}
    context = make_context(
        evaluator, useful_signals=signals, universe=DATA, validate_inputs=validate
    )
    if validate:
        (((features, universe, given), keywords),) = calls
        assert features is context.features and universe is DATA and given is signals
        assert keywords == {}
    else:
        assert calls == []


def test_transform_merge(evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    log: list[tuple[str, tuple[Any, ...], dict[str, Any]]] = []
    copied, merged = feature("copied"), feature("x")
    answers = {
        "deepcopy": copied,
        "invalidate_graph_evaluation_caches": None,
        "_annotate_state_identities": None,
        "combine_signal_and_transforms": merged,
        "_attach_stage_data_feature_leaves": None,
    }

    def recorder(name: str) -> Any:
        def call(*args: Any, **kwargs: Any) -> Any:
            log.append((name, args, kwargs))
            return answers[name]

        return call

    for name in answers:
        monkeypatch.setattr(evaluator, name, recorder(name))
    pipeline = [SimpleNamespace(name="s", default=None)]
    context = make_context(evaluator, transform_pipeline=pipeline)
    graph = feature("original")
    np.testing.assert_array_equal(evaluator.evaluate(graph, context).weights, DATA)
    merge = (copied, pipeline, context.metaparameters, context.registry, context)
    expected = [
        ("deepcopy", (graph,)),
        ("invalidate_graph_evaluation_caches", (copied,)),
        ("_annotate_state_identities", (copied,)),
        ("combine_signal_and_transforms", merge),
        ("invalidate_graph_evaluation_caches", (merged,)),
        ("_attach_stage_data_feature_leaves", (merged, context)),
    ]
    assert [name for name, _, _ in log] == [name for name, _ in expected]
    for (_, args, kwargs), (_, wanted) in zip(log, expected, strict=True):
        assert kwargs == {}
        assert len(args) == len(wanted)
        assert all(one is other for one, other in zip(args, wanted, strict=True))


def test_leaf_names_of_the_host(evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    asked: list[Any] = []

    def names(graph: Any) -> set[str]:
        asked.append(graph)
        return {"stage"}

    monkeypatch.setattr(evaluator, "extract_feature_leaf_names", names)
    context = make_context(evaluator, stage_data=StageData({"stage": DATA + 1}))
    graph = feature("x")
    evaluator.evaluate(graph, context)
    assert len(asked) == 1 and asked[0] is graph
    assert context.feature_index == {"x": 0, "stage": 1}


def test_restored_names_are_used_again(evaluator: ModuleType) -> None:
    with pytest.MonkeyPatch.context() as patch:
        patch.setattr(evaluator, "EvaluationError", Replacement)
        with pytest.raises(Replacement):
            evaluator.evaluate(feature("x"), look_alike(features=()))
    with pytest.raises(EvaluationError):
        evaluator.evaluate(feature("x"), look_alike(features=()))
