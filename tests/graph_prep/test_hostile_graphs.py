"""Graphs whose kinds, names, children and depth are not what a run expects."""

from __future__ import annotations

import os
import subprocess
import sys
from collections.abc import Iterator
from pathlib import Path
from typing import Any

import numpy as np
import pytest
from quernbrook.functions._typed_shapes import FunctionGraphNode, SchemaError
from quernbrook.simulator_engine._types import EvaluationError, FunctionExecutionError
from support.functions import RecordingFunction, raising
from support.graphs import feature, integer, node, number, rotation, string
from support.registries import RecordingRegistry, entry
from support.runs import counting_matrix, fails, lets_through, make_context, same_bits


def run(evaluator, graph: Any, *, registry: Any = None, bound: Any = None) -> Any:
    context = make_context(evaluator, {"a": counting_matrix(2)}, registry=registry)
    return evaluator.evaluate(graph, context, bound_function_instances=bound)


def bound_run(evaluator, graph: Any) -> tuple[RecordingFunction, Any]:
    """The instance at the root and the result."""
    instance = RecordingFunction(0.0)
    return instance, run(evaluator, graph, bound={"root": instance})


# --- kinds ---------------------------------------------------------------------------------------


class Equal(str):
    """Compares as any text does."""


class Unequal(str):
    """Equals nothing."""

    __hash__ = str.__hash__

    def __eq__(self, other: object) -> bool:
        return False

    def __ne__(self, other: object) -> bool:
        return True


@pytest.mark.parametrize(("wrap", "seen"), [(Equal, 7.0), (Unequal, 0.0)])
def test_a_kind_is_what_it_equals(evaluator, wrap, seen):
    instance, _ = bound_run(evaluator, rotation("f", node(wrap("float"), 7.0)))
    assert instance.calls[0].values[0].tolist() == [seen] * 3


def test_a_function_of_an_equal_kind(evaluator):
    graph = node(Equal("rotation"), "f", [node(Equal("feature"), Equal("a"))])
    instance, _ = bound_run(evaluator, graph)
    assert len(instance.calls) == 2


def test_a_function_of_an_unequal_kind_is_of_no_kind(evaluator):
    graph = node(Unequal("rotation"), "f", [feature("a")])
    same_bits(run(evaluator, graph, bound={}).weights, np.zeros((2, 3)))


@pytest.mark.parametrize("kind", [None, 5, ("rotation",), b"rotation", 1.5, object(), np.int64(3)])
def test_a_kind_that_is_no_text(evaluator, kind):
    same_bits(run(evaluator, node(kind, "f", [feature("a")])).weights, np.zeros((2, 3)))
    instance, _ = bound_run(evaluator, rotation("f", node(kind, "x")))
    assert instance.calls[0].values[0].tolist() == [0.0] * 3


@pytest.mark.parametrize("kind", [[], {}, bytearray()])
def test_an_unhashable_kind_below_a_function(evaluator, kind):
    with pytest.raises(TypeError, match=f"unhashable type: '{type(kind).__name__}'"):
        bound_run(evaluator, rotation("f", node(kind, "x")))


def test_a_kind_that_fails_to_compare(evaluator):
    fault = RuntimeError("incomparable")
    kind = type("Incomparable", (), {"__eq__": raising(fault), "__hash__": lambda _: 1})()
    with lets_through(fault):
        run(evaluator, node(kind, "x"))


def test_a_kind_whose_comparison_has_no_truth_value(evaluator):
    with pytest.raises(ValueError, match="truth value of an array"):
        run(evaluator, node(np.array(["a", "b"]), "x"))


# --- names and values ----------------------------------------------------------------------------


@pytest.mark.parametrize("name", [7, None, ("f", 1), 2.5, ""])
def test_function_names_of_any_kind(evaluator, name):
    registry = RecordingRegistry(entries={name: entry()})
    run(evaluator, rotation(name, feature("a"), string("s")), registry=registry)
    (creation,) = (call for call in registry.calls if call[0] == "create_instance")
    assert creation[1] is name
    assert creation[3] == {"pnl_column": "s"}


def test_an_unhashable_function_name(evaluator):
    instance, _ = bound_run(evaluator, rotation(["f"], feature("a")))
    assert len(instance.calls) == 2
    text = (
        "Function '['f']' at node 'root' is not bound and cannot be instantiated from the "
        "evaluation registry"
    )
    with fails(FunctionExecutionError, text):
        run(evaluator, rotation(["f"], feature("a")))


@pytest.mark.parametrize("name", [[], {}])
def test_an_unhashable_feature_name(evaluator, name):
    with pytest.raises(TypeError, match="unhashable type"):
        run(evaluator, rotation("f", feature(name)))


def test_a_feature_name_that_fails_to_compare(evaluator):
    fault = RuntimeError("incomparable")
    name = type("Name", (), {"__eq__": raising(fault), "__hash__": lambda _: hash("a")})()
    with lets_through(fault):
        run(evaluator, rotation("f", feature(name)))


def test_a_weighting_name_that_equals_everything(evaluator):
    class Anything:
        def __eq__(self, other: object) -> bool:
            return True

        __hash__ = None

    instance = RecordingFunction(0.0)
    graph = node("reduction", Anything(), [string("s")])
    context = make_context(evaluator, {"a": np.zeros((0, 2))})
    evaluator.evaluate(graph, context, bound_function_instances={"root": instance})
    record = graph._collect_nodes_cache["reduction_nodes"]["root"]
    assert record["config"] == {"stat_name": "s"}


# --- configuration -------------------------------------------------------------------------------


class Pairs:
    """Can be iterated as often as need be."""

    def __init__(self, *pairs: Any) -> None:
        self.pairs = pairs

    def __iter__(self) -> Iterator[Any]:
        return iter(self.pairs)


@pytest.mark.parametrize("config", [[("k", 1)], {"k": 1}.items(), Pairs(["k", 1])])
def test_a_configuration_is_whatever_makes_a_dict(evaluator, config):
    registry = RecordingRegistry(entries={"f": entry()})
    run(evaluator, rotation("f", feature("a"), config=config), registry=registry)
    assert [call[3] for call in registry.calls if call[0] == "create_instance"] == [{"k": 1}]


@pytest.mark.parametrize("config", [5, "text", [1], [(1, 2, 3)]])
def test_a_configuration_that_makes_no_dict(evaluator, config):
    with pytest.raises((TypeError, ValueError)) as expected:
        dict(config)
    with fails(expected.type, str(expected.value)):
        run(evaluator, rotation("f", config=config), bound={"root": RecordingFunction(0.0)})


def test_an_engine_only_key_of_any_kind(evaluator):
    class Key:
        def __eq__(self, other: object) -> bool:
            return other == "A"

        def __hash__(self) -> int:
            return 1

    with pytest.raises(TypeError, match="sequence item 0: expected str instance, Key found"):
        run(evaluator, rotation("f", config={Key(): 1}))


def test_a_key_that_fails_to_compare(evaluator):
    fault = RuntimeError("incomparable")
    key = type("Key", (), {"__eq__": raising(fault), "__hash__": lambda _: 1})()
    with lets_through(fault):
        run(evaluator, rotation("f", config={key: 1}))


# --- children ------------------------------------------------------------------------------------


class Children:
    """Children that can be iterated, and no more."""

    def __init__(self, *children: FunctionGraphNode) -> None:
        self.children = children

    def __iter__(self) -> Iterator[FunctionGraphNode]:
        return iter(self.children)


class ByPosition:
    """Children that are reached by position alone."""

    def __init__(self, *children: FunctionGraphNode) -> None:
        self.children = children

    def __getitem__(self, position: int) -> FunctionGraphNode:
        return self.children[position]


class Reversed(list):
    def __iter__(self) -> Iterator[Any]:
        return reversed([self[i] for i in range(len(self))])


class Falsy(list):
    def __bool__(self) -> bool:
        return False


def values(instance: RecordingFunction) -> list[float]:
    return [row[0] for row in instance.calls[0].values]


@pytest.mark.parametrize(
    ("children", "seen"),
    [
        ((number(1.0), number(2.0)), [1.0, 2.0]),
        (Children(number(1.0), number(2.0)), [1.0, 2.0]),
        (ByPosition(number(1.0), number(2.0)), [1.0, 2.0]),
        (Reversed([number(1.0), number(2.0)]), [2.0, 1.0]),
        (Falsy([number(1.0)]), []),
        ({number(1.0): None}, [1.0]),
        (0, []),
        ("", []),
    ],
    ids=["tuple", "iterable", "by position", "reversed", "falsy", "dict", "zero", "no text"],
)
def test_children_of_other_kinds(evaluator, children, seen):
    graph = node("rotation", "f", children)
    instance, result = bound_run(evaluator, graph)
    assert values(instance) == seen
    assert list(result.node_outputs) == [*(f"root.c{i}" for i in range(len(seen))), "root"]


def test_children_that_can_be_iterated_once(evaluator):
    """The first walk uses them up; the node has none after that."""
    graph = node("rotation", "f", iter([number(1.0)]))
    instance, _ = bound_run(evaluator, graph)
    assert values(instance) == []
    assert list(graph._collect_nodes_cache["node_info"]) == ["root"]


@pytest.mark.parametrize("children", [5, object(), True])
def test_children_that_cannot_be_iterated(evaluator, children):
    with fails(TypeError, f"'{type(children).__name__}' object is not iterable"):
        bound_run(evaluator, node("rotation", "f", children))


@pytest.mark.parametrize("method", ["__bool__", "__iter__"])
@pytest.mark.parametrize("kind", [RuntimeError, KeyboardInterrupt])
def test_children_that_fail(evaluator, method, kind):
    fault = kind("children")
    children = type("Failing", (list,), {method: raising(fault)})([number(1.0)])
    with lets_through(fault):
        bound_run(evaluator, node("rotation", "f", children))


def test_children_without_a_truth_value(evaluator):
    with pytest.raises(ValueError, match="truth value of an array"):
        bound_run(evaluator, node("rotation", "f", np.array([number(1.0), number(2.0)])))


@pytest.mark.parametrize("child", [None, 5, "feature", {"type": "feature", "node": "a"}])
def test_a_child_that_is_no_node(evaluator, child):
    text = f"Graph node 'root.c0.c1' must be FunctionGraphNode; got {type(child).__name__}"
    graph = rotation("f", node("odd", None, [number(1.0), child]))
    with fails(SchemaError, text):
        bound_run(evaluator, graph)


@pytest.mark.parametrize("field", ["type", "node"])
def test_a_child_without_a_field(evaluator, field):
    child = number(1.0)
    delattr(child, field)
    text = f"Graph node 'root.c1' missing required key: {field}"
    with fails(EvaluationError, text):
        bound_run(evaluator, rotation("f", number(1.0), child))


@pytest.mark.parametrize("field", ["children", "config"])
def test_a_function_without_a_field_that_is_read_directly(evaluator, field):
    graph = rotation("f")
    delattr(graph, field)
    with pytest.raises(AttributeError, match=f"no attribute '{field}'"):
        bound_run(evaluator, graph)


@pytest.mark.parametrize("field", ["type", "node", "children", "canonical_id", "config"])
def test_a_field_that_cannot_be_read(evaluator, field):
    fault = RuntimeError(field)
    kind = type("Hiding", (FunctionGraphNode,), {field: property(raising(fault), lambda *_: None)})
    with lets_through(fault):
        bound_run(evaluator, kind("rotation", "f"))


def test_a_subclass_of_the_node(evaluator):
    class Node(FunctionGraphNode):
        pass

    instance, _ = bound_run(evaluator, Node("rotation", "f", [Node("float", 3.0)]))
    assert values(instance) == [3.0]


# --- graphs that change while they are walked ----------------------------------------------------


def test_what_a_factory_changes_further_on_is_walked_as_changed(evaluator):
    graph = rotation("f", rotation("g"), number(1.0))

    def make(**_: Any) -> RecordingFunction:
        graph.children[1] = number(2.0)
        graph.children.append(integer(4))
        graph.node = "renamed"
        return RecordingFunction(0.0)

    instance = RecordingFunction(0.0)
    registry = RecordingRegistry(factories={"g": make, "f": instance})
    run(evaluator, graph, registry=registry)
    assert values(instance) == [0.0, 2.0]
    assert ("create_instance", "f", None, {"window": 4}) in registry.calls


# --- depth ---------------------------------------------------------------------------------------


def chain(length: int) -> FunctionGraphNode:
    graph = number(1.0)
    for _ in range(length):
        graph = node("odd", None, [graph])
    return graph


def test_a_graph_of_moderate_depth(evaluator):
    result = run(evaluator, chain(150))
    same_bits(result.weights, np.zeros((2, 3)))


IN_A_PROCESS_OF_ITS_OWN = """
import importlib, os, resource, sys
import numpy as np
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node

if "ASAN_OPTIONS" not in os.environ:
    resource.setrlimit(resource.RLIMIT_AS, (2 << 30, resource.RLIM_INFINITY))
evaluator = importlib.import_module(sys.argv[1])


class Identity:
    stateful = False

    def __call__(self, row):
        return row


class EveryPath(dict):
    def __contains__(self, path):
        return True

    def __getitem__(self, path):
        return Identity()


def outcome(graph, bound):
    context = evaluator.EvaluationContext((np.zeros((1, 2)),), {"a": 0})
    context._collect_node_outputs = False
    try:
        return str(evaluator.evaluate(graph, context, bound_function_instances=bound).weights[0, 0])
    except RecursionError:
        return "RecursionError"
"""

CYCLES = """
itself = Node("rotation", "f", [Node("float", 2.0)])
itself.children.append(itself)
lower = Node("odd", None, [])
lower.children.append(Node("odd", None, (lower,)))
graphs = [itself, Node("rotation", "f", [lower]), Node("odd", None, [lower]), lower]
for graph in graphs:
    for bound in (None, EveryPath(root=None)):
        assert outcome(graph, bound) == "RecursionError"
        assert getattr(graph, "_collect_nodes_cache", None) is None
        assert outcome(Node("float", 2.0), None) == "2.0"
"""

DEPTHS = """
for kind, length, limit, expected in [
    ("odd", 100, 1000, {"0.0"}),
    ("odd", 3000, 1000, {"0.0", "RecursionError"}),
    ("odd", 3000, 100_000, {"0.0"}),
    ("rotation", 100, 1000, {"2.0"}),
    ("rotation", 3000, 1000, {"2.0", "RecursionError"}),
]:
    graph = Node("float", 2.0)
    nodes = [graph]
    for _ in range(length):
        graph = Node(kind, "f", [graph])
        nodes.append(graph)
    sys.setrecursionlimit(limit)
    found = outcome(graph, EveryPath(root=None))
    sys.setrecursionlimit(1000)
    for node in nodes:
        node.children = None
    assert found in expected, (kind, length, limit, found)
"""


@pytest.mark.parametrize("script", [CYCLES, DEPTHS], ids=["cycles", "depths"])
def test_endless_and_deep_graphs_end_in_an_error_and_never_in_a_crash(evaluator, script):
    completed = subprocess.run(
        [sys.executable, "-c", IN_A_PROCESS_OF_ITS_OWN + script, evaluator.__name__],
        env={**os.environ, "PYTHONPATH": str(Path(__file__).parents[1])},
        capture_output=True,
        check=False,
        text=True,
    )
    assert completed.returncode == 0, completed.stderr


# --- values that act while they are read ---------------------------------------------------------


class Acting(float):
    """A number that does something when it is converted."""

    act: Any = None

    def __float__(self) -> float:
        self.act()
        return 1.0


class ActingKind(str):
    """A kind that does something when it is compared, and equals nothing."""

    act: Any = None
    __hash__ = str.__hash__

    def __eq__(self, other: object) -> bool:
        self.act()
        return False


class OtherNode(FunctionGraphNode):  # type: ignore[misc]
    pass


def acting(kind: Any, act: Any) -> Any:
    value = kind("1.0")
    value.act = act
    return value


def test_a_node_is_read_anew_after_a_literal_has_acted(evaluator, monkeypatch):
    unreadable = property(raising(LookupError("node read")), lambda self, value: None)

    def act() -> None:
        monkeypatch.setattr(FunctionGraphNode, "node", unreadable, raising=False)

    graph = node("bool", "f", [number(acting(Acting, act)), integer(1)])
    with pytest.raises(LookupError, match="node read"):
        run(evaluator, graph)


@pytest.mark.parametrize(
    ("make", "field"),
    [
        (
            lambda act: node("bool", "f", [number(acting(Acting, act)), integer(1)]),
            "field-check",
        ),
        (lambda act: node("bool", "f", [node(acting(ActingKind, act), "x", [])]), "children"),
    ],
)
def test_the_class_of_nodes_is_asked_anew_after_a_value_has_acted(
    evaluator, monkeypatch, make, field
):
    graph = make(lambda: monkeypatch.setattr(evaluator, "FunctionGraphNode", OtherNode))
    text = f"Graph node '{field}' must be FunctionGraphNode; got FunctionGraphNode"
    with fails(SchemaError, text):
        run(evaluator, graph)
