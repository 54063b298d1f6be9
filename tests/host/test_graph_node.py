"""Reading graph nodes."""

from __future__ import annotations

from types import MappingProxyType, ModuleType, SimpleNamespace
from typing import Any

import numpy as np
import pytest
from quernbrook.functions._typed_shapes import FunctionGraphNode, SchemaError
from quernbrook.simulator_engine._types import EvaluationError
from support.functions import raising
from support.graphs import feature, node, rotation
from support.runs import fails

FOREIGN: list[tuple[Any, str]] = [
    ({"type": "feature"}, "dict"),
    (None, "NoneType"),
    (FunctionGraphNode, "type"),
    (SimpleNamespace(type="feature", node="x", children=None, config=None), "SimpleNamespace"),
    (np.zeros(1), "ndarray"),
]

READERS: list[tuple[str, tuple[Any, ...], str]] = [
    ("_require_graph_node_instance", ("root.c0",), "root.c0"),
    ("_graph_has_field", ("type",), "field-check"),
    ("_graph_has_field", ("_state_identity",), "field-check"),
    ("_require_graph_field", ("type", "root.c0"), "field-check"),
    ("_require_graph_type_value", ("root.c0",), "field-check"),
    ("_require_graph_node_value", ("root.c0",), "field-check"),
    ("_graph_children", (), "children"),
    ("_graph_config_dict", (), "config"),
]


@pytest.mark.parametrize(("graph", "type_name"), FOREIGN)
@pytest.mark.parametrize(("function", "arguments", "shown"), READERS)
def test_only_nodes_are_read(
    evaluator: ModuleType,
    function: str,
    arguments: tuple[Any, ...],
    shown: str,
    graph: Any,
    type_name: str,
) -> None:
    text = f"Graph node '{shown}' must be FunctionGraphNode; got {type_name}"
    with fails(SchemaError, text):
        getattr(evaluator, function)(graph, *arguments)


def test_a_node_is_its_own_answer(evaluator: ModuleType) -> None:
    class Derived(FunctionGraphNode):
        pass

    for graph in (feature("x"), Derived("feature", "x")):
        assert evaluator._require_graph_node_instance(graph, "root") is graph


@pytest.mark.parametrize("path", [7, None, ("root",)])
def test_path_is_only_shown(evaluator: ModuleType, path: Any) -> None:
    with fails(SchemaError, f"Graph node '{path}' must be FunctionGraphNode; got dict"):
        evaluator._require_graph_node_instance({}, path)
    with fails(EvaluationError, f"Graph node '{path}' missing required key: canonical_id"):
        evaluator._require_graph_field(feature("x"), "canonical_id", path)


def test_path_is_formatted_and_may_fail(evaluator: ModuleType) -> None:
    error = OSError("gone")
    path = type("Path", (), {"__format__": raising(error)})()
    assert evaluator._require_graph_type_value(feature("x"), path) == "feature"
    for call in (
        lambda: evaluator._require_graph_node_instance({}, path),
        lambda: evaluator._require_graph_field(feature("x"), "canonical_id", path),
    ):
        with pytest.raises(OSError) as caught:
            call()
        assert caught.value is error


def test_fields_that_are_there(evaluator: ModuleType) -> None:
    graph = node("feature", None, canonical_id=None, mine=5)
    for name in ("type", "node", "children", "config", "canonical_id", "mine"):
        assert evaluator._graph_has_field(graph, name) is True
    assert evaluator._require_graph_field(graph, "mine", "root") == 5
    assert evaluator._require_graph_field(graph, "canonical_id", "root") is None
    assert evaluator._require_graph_type_value(graph, "root") == "feature"
    assert evaluator._require_graph_node_value(graph, "root") is None


@pytest.mark.parametrize("name", ["_state_identity", "canonical_id", "_node_identities"])
def test_optional_fields(evaluator: ModuleType, name: str) -> None:
    graph = feature("x")
    assert evaluator._graph_has_field(graph, name) is False
    with fails(EvaluationError, f"Graph node 'root' missing required key: {name}"):
        evaluator._require_graph_field(graph, name, "root")
    setattr(graph, name, None)
    assert evaluator._graph_has_field(graph, name) is True
    assert evaluator._require_graph_field(graph, name, "root") is None


@pytest.mark.parametrize("name", ["type", "node"])
def test_required_fields(evaluator: ModuleType, name: str) -> None:
    graph = feature("x")
    delattr(graph, name)
    read = getattr(evaluator, f"_require_graph_{name}_value")
    with fails(EvaluationError, f"Graph node 'root.c1.c0' missing required key: {name}"):
        read(graph, "root.c1.c0")


def test_values_come_back_as_they_are(evaluator: ModuleType) -> None:
    kind, value = object(), ["x"]
    graph = node(kind, value)  # type: ignore[arg-type]
    assert evaluator._require_graph_type_value(graph, "root") is kind
    assert evaluator._require_graph_node_value(graph, "root") is value


def test_names_of_fields_must_be_text(evaluator: ModuleType) -> None:
    for call in (
        lambda: evaluator._graph_has_field(feature("x"), 5),
        lambda: evaluator._require_graph_field(feature("x"), 5, "root"),
    ):
        with pytest.raises(TypeError):
            call()


def test_a_required_field_is_tested_and_then_read(evaluator: ModuleType) -> None:
    reads: list[str] = []

    class Counting(FunctionGraphNode):
        @property
        def stamp(self) -> int:
            reads.append("stamp")
            return len(reads)

    graph = Counting("feature", "x")
    assert evaluator._graph_has_field(graph, "stamp") is True
    assert evaluator._require_graph_field(graph, "stamp", "root") == 3


@pytest.mark.parametrize("error", [OSError("gone"), KeyboardInterrupt()], ids=["error", "stop"])
def test_failing_fields_pass_through(evaluator: ModuleType, error: BaseException) -> None:
    fail = property(raising(error))
    kind = type("Failing", (FunctionGraphNode,), {"__init__": lambda self: None})
    for name in ("type", "node", "children", "config", "_state_identity"):
        setattr(kind, name, fail)
    graph = kind()
    for function, arguments, _ in READERS[1:]:
        with pytest.raises(type(error)) as caught:
            getattr(evaluator, function)(graph, *arguments)
        assert caught.value is error


def test_attribute_error_of_a_property_counts_as_missing(evaluator: ModuleType) -> None:
    class Hiding(FunctionGraphNode):
        @property
        def stamp(self) -> int:
            raise AttributeError("hidden")

    graph = Hiding("feature", "x")
    assert evaluator._graph_has_field(graph, "stamp") is False
    with fails(EvaluationError, "Graph node 'root' missing required key: stamp"):
        evaluator._require_graph_field(graph, "stamp", "root")


# --- children --------------------------------------------------------------------------------


@pytest.mark.parametrize("empty", [None, [], (), "", 0, {}])
def test_no_children(evaluator: ModuleType, empty: Any) -> None:
    graph = node("rotation", "f", empty)
    children = evaluator._graph_children(graph)
    assert type(children) is list and children == []
    assert children is not empty
    assert evaluator._graph_children(graph) is not children
    assert graph.children is empty


@pytest.mark.parametrize(
    "children", [[feature("x")], (feature("x"), feature("y")), "text", 5, [{"not": "a node"}]]
)
def test_children_are_the_very_object(evaluator: ModuleType, children: Any) -> None:
    assert evaluator._graph_children(node("rotation", "f", children)) is children


def test_truth_of_children_decides(evaluator: ModuleType) -> None:
    class Quiet(list):  # type: ignore[type-arg]
        def __bool__(self) -> bool:
            return False

    assert type(evaluator._graph_children(node("rotation", "f", Quiet([feature("x")])))) is list
    assert evaluator._graph_children(node("rotation", "f", Quiet([feature("x")]))) == []
    with pytest.raises(ValueError):
        evaluator._graph_children(node("rotation", "f", np.zeros(2)))  # type: ignore[arg-type]


@pytest.mark.parametrize(
    ("name", "function"), [("children", "_graph_children"), ("config", "_graph_config_dict")]
)
def test_node_without_children_or_config(evaluator: ModuleType, name: str, function: str) -> None:
    graph = feature("x")
    delattr(graph, name)
    with pytest.raises(AttributeError):
        getattr(evaluator, function)(graph)


# --- configuration ---------------------------------------------------------------------------


def test_configuration_is_a_new_shallow_copy(evaluator: ModuleType) -> None:
    inner: list[Any] = []
    graph = rotation("f", config={"a": inner})
    config = evaluator._graph_config_dict(graph)
    assert config == {"a": inner} and config["a"] is inner
    assert evaluator._graph_config_dict(graph) is not config
    config["b"] = 1
    assert graph.config == {"a": inner}


def test_no_configuration(evaluator: ModuleType) -> None:
    for config in (None, {}):
        graph = rotation("f", config=config)
        read = evaluator._graph_config_dict(graph)
        assert type(read) is dict and read == {}
        assert read is not config
        assert evaluator._graph_config_dict(graph) is not read


class Settings(dict):  # type: ignore[type-arg]
    pass


def iter_items(settings: dict[str, Any]) -> Any:
    return iter(settings.items())


@pytest.mark.parametrize("make", [Settings, MappingProxyType, lambda d: [*d.items()], iter_items])
def test_what_a_dict_can_be_made_of(evaluator: ModuleType, make: Any) -> None:
    read = evaluator._graph_config_dict(rotation("f", config=make({"a": 1})))
    assert type(read) is dict and read == {"a": 1}


@pytest.mark.parametrize(
    ("config", "error"), [(5, TypeError), (False, TypeError), ("ab", ValueError)]
)
def test_what_a_dict_cannot_be_made_of(
    evaluator: ModuleType, config: Any, error: type[Exception]
) -> None:
    with pytest.raises(error):
        evaluator._graph_config_dict(rotation("f", config=config))


def test_nothing_is_written_to_the_node(evaluator: ModuleType) -> None:
    graph = rotation("f", feature("x"), config={"a": 1})
    before = dict(vars(graph))
    for function, arguments, _ in READERS:
        getattr(evaluator, function)(graph, *arguments)
    assert vars(graph) == before
