"""The cache slots of a node, the identities of the nodes of a graph, and dropping both."""

from __future__ import annotations

import copy
import pickle
from types import ModuleType
from typing import Any

import pytest
from quernbrook.functions._typed_shapes import FunctionGraphNode, SchemaError
from quernbrook.simulator_engine._types import EvaluationError
from support.graphs import boolean, feature, filtration, integer, node, number, rotation, string
from support.refusing_nodes import SLOTS, SlottedNode, failing_slot, refusing
from support.runs import fails, lets_through

NOT_CACHEABLE = "Graph node 'cache' must be FunctionGraphNode; got {}"


def without(built: Any, name: str) -> Any:
    delattr(built, name)
    return built


def tree() -> FunctionGraphNode:
    return rotation("f", rotation("g", feature("a"), integer(3)), aggregated())


def aggregated() -> FunctionGraphNode:
    return node("reduction", "mean", [filtration("top", string("pnl"), number(0.5))])


# --- the slots -----------------------------------------------------------------------------------


@pytest.mark.parametrize("key", [*SLOTS, "anything", "", "two words"])
def test_an_absent_slot(evaluator: ModuleType, key: str) -> None:
    assert evaluator._graph_cache_get(feature("a"), key) is None


@pytest.mark.parametrize("value", [None, {}, 0, object()])
def test_a_slot_is_an_attribute(evaluator: ModuleType, value: Any) -> None:
    graph = feature("a")
    assert evaluator._graph_cache_set(graph, "slot", value) is None
    assert graph.slot is value
    assert evaluator._graph_cache_get(graph, "slot") is value
    assert evaluator._graph_cache_get(graph, "node") == "a"
    evaluator._graph_cache_set(graph, "node", "b")
    assert graph.node == "b"


@pytest.mark.parametrize("other", [None, {"type": "feature"}, 5, FunctionGraphNode])
def test_slots_of_what_is_no_node(evaluator: ModuleType, other: Any) -> None:
    text = NOT_CACHEABLE.format(type(other).__name__)
    with fails(SchemaError, text):
        evaluator._graph_cache_get(other, "slot")
    with fails(SchemaError, text):
        evaluator._graph_cache_set(other, "slot", 1)


class Custom(AttributeError):
    pass


@pytest.mark.parametrize("fault", [AttributeError("x"), TypeError("x"), Custom("x")], ids=repr)
def test_a_refused_write_is_dropped(evaluator: ModuleType, fault: BaseException) -> None:
    graph = refusing(fault)("feature", "a")
    assert evaluator._graph_cache_set(graph, "_node_identities", {}) is None
    assert evaluator._graph_cache_get(graph, "_node_identities") is None


@pytest.mark.parametrize("fault", [ValueError("x"), KeyError("x"), KeyboardInterrupt()], ids=repr)
def test_other_faults_of_a_slot_pass(evaluator: ModuleType, fault: BaseException) -> None:
    with lets_through(fault):
        evaluator._graph_cache_set(refusing(fault)("feature", "a"), "_node_identities", {})
    with lets_through(fault):
        evaluator._graph_cache_get(failing_slot(fault)("feature", "a"), "_node_identities")


def test_an_attribute_error_reads_as_absent(evaluator: ModuleType) -> None:
    graph = failing_slot(Custom("x"))("feature", "a")
    assert evaluator._graph_cache_get(graph, "_node_identities") is None


def test_a_key_that_is_no_text(evaluator: ModuleType) -> None:
    """The read fails by its type; the write fails alike, and that is dropped."""
    with pytest.raises(TypeError):
        evaluator._graph_cache_get(feature("a"), 5)
    assert evaluator._graph_cache_set(feature("a"), 5, 1) is None


# --- identities ----------------------------------------------------------------------------------


def test_a_single_leaf(evaluator: ModuleType) -> None:
    assert evaluator.generate_node_identities(feature("a")) == {"root": "a"}


def test_every_node_before_its_children(evaluator: ModuleType) -> None:
    identities = evaluator.generate_node_identities(tree())
    assert type(identities) is dict
    assert list(identities.items()) == [
        ("root", "f"),
        ("root.c0", "g"),
        ("root.c0.c0", "a"),
        ("root.c0.c1", 3),
        ("root.c1", "mean"),
        ("root.c1.c0", "top"),
        ("root.c1.c0.c0", "pnl"),
        ("root.c1.c0.c1", 0.5),
    ]


def test_places_of_two_digits(evaluator: ModuleType) -> None:
    graph = rotation("f", *(integer(i) for i in range(12)))
    identities = evaluator.generate_node_identities(graph)
    assert identities == {"root": "f"} | {f"root.c{i}": i for i in range(12)}


@pytest.mark.parametrize("value", [None, {}, [1], object(), boolean(True)])
def test_values_are_the_very_objects(evaluator: ModuleType, value: Any) -> None:
    graph = node("odd", "top", (node("odd", value), node("odd", value, ())))
    identities = evaluator.generate_node_identities(graph)
    assert list(identities) == ["root", "root.c0", "root.c1"]
    assert identities["root.c0"] is value and identities["root.c1"] is value


def test_a_shared_node_has_two_identities(evaluator: ModuleType) -> None:
    shared = rotation("g", feature("a"))
    identities = evaluator.generate_node_identities(rotation("f", shared, shared))
    assert list(identities) == ["root", "root.c0", "root.c0.c0", "root.c1", "root.c1.c0"]
    assert list(evaluator.generate_node_identities(shared)) == ["root", "root.c0"]


def test_the_dict_is_kept_at_the_root_alone(evaluator: ModuleType) -> None:
    graph = tree()
    identities = evaluator.generate_node_identities(graph)
    assert evaluator.generate_node_identities(graph) is identities
    assert graph._node_identities is identities
    assert not hasattr(graph, "_collect_nodes_cache")
    for child in graph.children:
        assert not hasattr(child, "_node_identities")
    graph.children.clear()
    identities["root"] = "changed"
    assert evaluator.generate_node_identities(graph)["root"] == "changed"


@pytest.mark.parametrize("kept", [{}, 0, "kept", []])
def test_whatever_the_slot_holds_is_a_hit(evaluator: ModuleType, kept: Any) -> None:
    graph = without(feature("a", _node_identities=kept), "node")
    assert evaluator.generate_node_identities(graph) is kept


def test_a_slot_of_none_is_a_miss(evaluator: ModuleType) -> None:
    graph = feature("a", _node_identities=None)
    assert evaluator.generate_node_identities(graph) == {"root": "a"}
    assert graph._node_identities == {"root": "a"}


@pytest.mark.parametrize("fault", [AttributeError("x"), TypeError("x")], ids=repr)
def test_a_graph_that_keeps_nothing(evaluator: ModuleType, fault: BaseException) -> None:
    graph = refusing(fault)("rotation", "f", [feature("a")])
    first, second = (evaluator.generate_node_identities(graph) for _ in range(2))
    assert first == second == {"root": "f", "root.c0": "a"}
    assert first is not second


def test_a_class_without_room(evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(evaluator, "FunctionGraphNode", SlottedNode)
    graph = SlottedNode("rotation", "f", [SlottedNode("feature", "a")])
    for _ in range(2):
        assert evaluator.generate_node_identities(graph) == {"root": "f", "root.c0": "a"}
    with pytest.raises(AttributeError):
        evaluator.invalidate_graph_evaluation_caches(graph)


@pytest.mark.parametrize(
    ("graph", "error", "text"),
    [
        ({"type": "feature"}, SchemaError, NOT_CACHEABLE.format("dict")),
        (None, SchemaError, NOT_CACHEABLE.format("NoneType")),
        (
            rotation("f", {}),
            SchemaError,
            "Graph node 'field-check' must be FunctionGraphNode; got dict",
        ),
        (
            rotation("f", feature("a"), rotation("g", without(feature("a"), "node"))),
            EvaluationError,
            "Graph node 'root.c1.c0' missing required key: node",
        ),
        (
            without(feature("a"), "node"),
            EvaluationError,
            "Graph node 'root' missing required key: node",
        ),
    ],
)
def test_graphs_without_identities(
    evaluator: ModuleType, graph: Any, error: Any, text: str
) -> None:
    with fails(error, text):
        evaluator.generate_node_identities(graph)
    assert not hasattr(graph, "_node_identities")


def test_the_kind_is_not_looked_at(evaluator: ModuleType) -> None:
    assert evaluator.generate_node_identities(without(feature("a"), "type")) == {"root": "a"}
    with pytest.raises(AttributeError, match="children"):
        evaluator.generate_node_identities(without(feature("a"), "children"))


def test_an_endless_graph(evaluator: ModuleType) -> None:
    graph = rotation("f")
    graph.children.append(graph)
    with pytest.raises(RecursionError):
        evaluator.generate_node_identities(graph)
    with pytest.raises(RecursionError):
        evaluator.invalidate_graph_evaluation_caches(graph)
    graph.children.clear()


# --- invalidation --------------------------------------------------------------------------------


def nodes_of(graph: Any) -> list[Any]:
    return [graph, *(found for child in graph.children or () for found in nodes_of(child))]


def test_all_nodes_are_cleared(evaluator: ModuleType) -> None:
    graph = tree()
    for found in nodes_of(graph):
        found._state_identity = "kept"
    for found in nodes_of(graph)[::2]:
        found._collect_nodes_cache = {"stale": True}
        evaluator.generate_node_identities(found)
    before = evaluator.generate_node_identities(graph)
    assert evaluator.invalidate_graph_evaluation_caches(graph) is None
    for found in nodes_of(graph):
        assert vars(found)["_collect_nodes_cache"] is None
        assert vars(found)["_node_identities"] is None
        assert found._state_identity == "kept"
    after = evaluator.generate_node_identities(graph)
    assert after == before and after is not before


@pytest.mark.parametrize("other", [{"type": "feature"}, None, 5, FunctionGraphNode])
def test_what_is_no_node_is_passed_over(evaluator: ModuleType, other: Any) -> None:
    assert evaluator.invalidate_graph_evaluation_caches(other) is None
    last = feature("a")
    evaluator.invalidate_graph_evaluation_caches(rotation("f", other, last))
    assert last._collect_nodes_cache is None


@pytest.mark.parametrize("fault", [AttributeError("x"), TypeError("x"), OSError("x")], ids=repr)
@pytest.mark.parametrize("refused", ["_collect_nodes_cache", "_node_identities"])
def test_a_refused_write_raises(evaluator: ModuleType, fault: BaseException, refused: str) -> None:
    """The tables are dropped first, then the identities, then those of the children in order."""
    first, last = feature("a"), feature("b")
    refusal = refusing(fault, refused)("rotation", "g", [feature("c")])
    graph = rotation("f", first, refusal, last)
    with lets_through(fault):
        evaluator.invalidate_graph_evaluation_caches(graph)
    both = {"_collect_nodes_cache": None, "_node_identities": None}
    assert both.items() <= vars(graph).items()
    assert both.items() <= vars(first).items()
    assert ("_collect_nodes_cache" in vars(refusal)) is (refused == "_node_identities")
    assert "_node_identities" not in vars(refusal)
    assert not both.keys() & vars(refusal.children[0]).keys()
    assert not both.keys() & vars(last).keys()


def test_a_node_without_fields_can_be_cleared(evaluator: ModuleType) -> None:
    bare = without(without(feature("a"), "type"), "node")
    evaluator.invalidate_graph_evaluation_caches(bare)
    assert bare._node_identities is None
    with pytest.raises(AttributeError, match="children"):
        evaluator.invalidate_graph_evaluation_caches(without(bare, "children"))


@pytest.mark.parametrize("again", [copy.deepcopy, lambda graph: pickle.loads(pickle.dumps(graph))])
def test_slots_are_copied_with_the_graph(evaluator: ModuleType, again: Any) -> None:
    graph = tree()
    identities = evaluator.generate_node_identities(graph)
    copied = again(graph)
    assert copied._node_identities == identities
    assert copied._node_identities is not identities
    evaluator.invalidate_graph_evaluation_caches(copied)
    assert graph._node_identities is identities
