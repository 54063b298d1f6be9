"""The entry: its type test, what it hands on, and what a context must have."""

from __future__ import annotations

from types import ModuleType, SimpleNamespace
from typing import Any

import numpy as np
import pytest
from quernbrook.functions._typed_shapes import FunctionGraphNode, SchemaError
from support.contexts import look_alike
from support.graphs import feature

DATA = np.arange(6.0).reshape(3, 2)


def make_context(evaluator: ModuleType, **keywords: Any) -> Any:
    return evaluator.EvaluationContext((DATA.copy(),), {"x": 0}, **keywords)


# --- the type test ---------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("graph", "type_name"),
    [
        ({"type": "feature", "node": "x"}, "dict"),
        (None, "NoneType"),
        ("x", "str"),
        (FunctionGraphNode, "type"),
        (SimpleNamespace(type="feature", node="x", children=None, config=None), "SimpleNamespace"),
    ],
)
def test_refuses_anything_but_a_node(evaluator: ModuleType, graph: Any, type_name: str) -> None:
    with pytest.raises(SchemaError) as caught:
        evaluator.evaluate(graph, make_context(evaluator))
    assert str(caught.value) == f"evaluate graph must be FunctionGraphNode; got {type_name}"
    assert caught.value.__cause__ is None


def test_graph_is_tested_before_the_context_is_touched(evaluator: ModuleType) -> None:
    class Untouchable:
        def __getattribute__(self, name: str) -> Any:
            raise AssertionError(f"read {name}")

    with pytest.raises(SchemaError):
        evaluator.evaluate({}, Untouchable())


def test_subclass_and_proxy_of_a_node_are_nodes(evaluator: ModuleType) -> None:
    class Derived(FunctionGraphNode):
        pass

    class Proxy:
        type, node, children, config = "feature", "x", None, None

        @property
        def __class__(self) -> Any:  # isinstance() asks for this
            return FunctionGraphNode

    for graph in (Derived("feature", "x"), Proxy()):
        weights, states = evaluator.evaluate(graph, make_context(evaluator))
        np.testing.assert_array_equal(weights, DATA)
        assert states == {}


def test_unlocked_run_leaves_the_type_test_to_the_nodes(evaluator: ModuleType) -> None:
    with pytest.raises(SchemaError) as caught:
        evaluator._evaluate_unlocked({}, make_context(evaluator))
    assert str(caught.value) == "Graph node 'root' must be FunctionGraphNode; got dict"


def test_foreign_context_without_the_attributes_is_an_attribute_error(
    evaluator: ModuleType,
) -> None:
    with pytest.raises(AttributeError):
        evaluator.evaluate(feature("x"), object())


# --- handing over ----------------------------------------------------------------------------


@pytest.mark.parametrize("locked", [True, False])
def test_arguments_reach_the_run_unchanged(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch, locked: bool
) -> None:
    calls: list[tuple[tuple[Any, ...], dict[str, Any]]] = []
    answer = object()

    def run(*args: Any, **kwargs: Any) -> Any:
        calls.append((args, kwargs))
        return answer

    monkeypatch.setattr(evaluator, "_evaluate_unlocked", run)
    graph = feature("x")
    context = make_context(evaluator) if locked else look_alike()
    given = {
        "function_states": object(),
        "is_cold_start": object(),
        "bound_function_instances": object(),
        "data_nan_features": object(),
    }
    assert evaluator.evaluate(graph, context, **given) is answer
    assert evaluator.evaluate(graph, context) is answer
    (args, kwargs), (default_args, default_kwargs) = calls
    assert len(args) == 2 and args[0] is graph and args[1] is context
    assert kwargs == given
    assert len(default_args) == 2
    assert default_kwargs == {
        "function_states": None,
        "is_cold_start": False,
        "bound_function_instances": None,
        "data_nan_features": None,
    }


def test_states_and_cold_start_may_be_positional(evaluator: ModuleType) -> None:
    result = evaluator.evaluate(feature("x"), make_context(evaluator), {}, True)
    np.testing.assert_array_equal(result.weights, DATA)
    result = evaluator._evaluate_unlocked(feature("x"), make_context(evaluator), {}, True)
    np.testing.assert_array_equal(result.weights, DATA)


# --- what a context must have ----------------------------------------------------------------


@pytest.mark.parametrize("attribute", sorted(vars(look_alike())))
def test_each_required_attribute_is_required(evaluator: ModuleType, attribute: str) -> None:
    context = look_alike()
    delattr(context, attribute)
    with pytest.raises(AttributeError) as caught:
        evaluator.evaluate(feature("x"), context)
    assert caught.value.__cause__ is None


@pytest.mark.parametrize("attribute", sorted(vars(look_alike())))
def test_failing_attribute_passes_through(evaluator: ModuleType, attribute: str) -> None:
    error = OSError("gone")

    def fail(self: Any) -> Any:
        raise error

    kind = type("Failing", (), {attribute: property(fail)})
    context = kind()
    for name, value in vars(look_alike()).items():
        if name != attribute:
            setattr(context, name, value)
    with pytest.raises(OSError) as caught:
        evaluator.evaluate(feature("x"), context)
    assert caught.value is error


def test_leaf_needs_no_registry(evaluator: ModuleType) -> None:
    context = look_alike()
    assert not hasattr(context, "registry")
    evaluator.evaluate(feature("x"), context)
