"""How many leading rows a graph of rolling functions blanks."""

from __future__ import annotations

from types import SimpleNamespace
from typing import Any

import numpy as np
import pytest
from quernbrook.functions._typed_shapes import SchemaError
from quernbrook.simulator_engine._types import EvaluationError
from support.functions import RecordingFunction, raising
from support.graphs import (
    aggregation,
    boolean,
    feature,
    filtration,
    integer,
    node,
    number,
    reduction,
    rotation,
    string,
)
from support.pools import make_pool
from support.registries import RecordingRegistry, entry
from support.runs import counting_matrix, fails, lets_through, make_context

A = feature("a")
ENTRIES = {
    "roll": entry(stateful=True),
    "plain": entry(stateful=False),
    "bare": entry(),
    "odd": entry(stateful="yes"),
}


def roll(window: Any, *children: Any) -> Any:
    """A stateful rotation."""
    return rotation("roll", *(children or (A,)), integer(window))


def pool(window: Any, *children: Any) -> Any:
    """A stateful reduction."""
    return reduction("roll", *children, integer(window))


def rows(evaluator, graph: Any, registry: Any = None) -> Any:
    registry = RecordingRegistry(ENTRIES) if registry is None else registry
    return evaluator._compute_graph_warmup_rows(graph, registry)


ROLL50 = roll(50)


@pytest.mark.parametrize(
    ("graph", "expected"),
    [
        (A, 0),
        (aggregation("a"), 0),
        (number(9.0), 0),
        (integer(9), 0),
        (string("9"), 0),
        (boolean(True), 0),
        (roll(10), 9),
        (roll(2), 1),
        (roll(10, roll(5)), 13),
        (roll(10, roll(5, roll(3))), 15),
        (roll(10, roll(5), roll(7), roll(6)), 15),
        (roll(10, pool(50)), 9),
        (pool(10, ROLL50), 9),
        (pool(10, pool(50)), 9),
        (pool(50, pool(10)), 49),
        (roll(10, pool(50), roll(3)), 11),
        (rotation("plain", ROLL50), 49),
        (rotation("plain", pool(50), roll(10)), 49),
        (rotation("plain", roll(10, roll(5)), ROLL50), 49),
        (reduction("plain", ROLL50), 49),
        (rotation("plain", A, integer(30)), 0),
        (roll(10, rotation("plain", roll(5))), 13),
        (roll(10, reduction("plain", roll(50))), 9),
        (roll(10, filtration("f", roll(50))), 9),
        (roll(10, node("made up", "x", [roll(50)])), 9),
        (roll(10, boolean(True)), 9),
        # Without a window of its own a function passes its children's rows through.
        (roll(1), 0),
        (roll(1, ROLL50), 49),
        (roll(0, ROLL50), 49),
        (roll(-30, ROLL50), 49),
        (rotation("roll", ROLL50), 49),
        (reduction("roll", ROLL50), 49),
        (reduction("roll", ROLL50, integer(1)), 49),
        (rotation("roll", pool(50)), 49),
        (rotation("roll", node("made up", "x", [ROLL50])), 49),
        # Any kind passes its children's rows through.
        (filtration("f", ROLL50), 49),
        (filtration("roll", ROLL50, integer(90)), 49),
        (node("made up", "roll", [A, ROLL50, integer(90)]), 49),
        (node("feature", "a", [ROLL50, roll(60)]), 59),
        (node("bool", True, [ROLL50]), 49),
        (node("int", 3, [ROLL50]), 49),
        # Below a literal nothing is looked at.
        (rotation("plain", node("float", 1.0, [ROLL50])), 0),
        (rotation("plain", node("int", 1, [ROLL50])), 0),
        (rotation("plain", node("string", "s", [ROLL50])), 0),
        (rotation("plain", node("bool", True, [ROLL50])), 49),
        # The window is the largest integer among the children.
        (roll(5, integer(20)), 19),
        (roll(20, integer(5)), 19),
        (rotation("roll", integer(20), A, integer(-50)), 19),
        (rotation("roll", A, number(20.0)), 0),
        (rotation("roll", A, boolean(True)), 0),
        (rotation("roll", A, string("20")), 0),
        (rotation("roll", A, config={"window": 20}), 0),
        (rotation("roll", A, integer(5), config={"window": 20}), 4),
        (rotation("roll", A, node("bool", True, [integer(20)])), 0),
        # Values are made integers, and those that cannot be are passed over.
        (roll(10.9), 9),
        (roll("10"), 9),
        (roll(True), 0),
        (roll(np.int64(10)), 9),
        (roll(np.float64(10.9)), 9),
        (roll("x"), 0),
        (roll(None), 0),
        (roll([]), 0),
        (roll("x", integer(7)), 6),
        (roll(7, integer(None), integer("y")), 6),
        (roll(float("nan"), integer(7)), 6),
        (roll("x", ROLL50), 49),
        (roll(2**70), 2**70 - 1),
        # Which functions count.
        (rotation("bare", A, integer(9)), 0),
        (rotation("odd", A, integer(9)), 8),
        (rotation("unknown", A, integer(9)), 0),
        (rotation("unknown", ROLL50, integer(99)), 49),
    ],
)
def test_rows_of_a_graph(evaluator, graph, expected):
    assert rows(evaluator, graph) == expected
    assert type(rows(evaluator, graph)) is int
    assert evaluator._compute_graph_warmup_rows(graph, None) == 0


@pytest.mark.parametrize("children", [None, [], ()])
def test_no_children(evaluator, children):
    assert rows(evaluator, node("rotation", "roll", children)) == 0


def test_arguments_by_keyword(evaluator):
    registry = RecordingRegistry(ENTRIES)
    assert evaluator._compute_graph_warmup_rows(graph_node=ROLL50, registry=registry) == 49
    child = node("float", 1.0)
    del child.type
    with fails(EvaluationError, "Graph node 'p.q.c1' missing required key: type"):
        evaluator._compute_graph_warmup_rows(rotation("f", A, child), registry, path="p.q")


def test_a_shared_child_counts_at_every_place(evaluator):
    shared = roll(5)
    assert rows(evaluator, roll(3, shared, roll(3, shared))) == 8


def test_what_the_registry_is_asked(evaluator):
    registry = RecordingRegistry(ENTRIES)
    graph = roll(10, rotation("plain", A), rotation("unknown", A), pool(3), filtration("roll"))
    rows(evaluator, graph, registry)
    assert [call[:2] for call in registry.calls] == [
        ("has", "plain"),
        ("get_entry", "plain"),
        ("has", "unknown"),
        ("has", "roll"),
        ("get_entry", "roll"),
        ("has", "roll"),
        ("get_entry", "roll"),
    ]


# --- faults --------------------------------------------------------------------------------------


def without(field: str, built: Any) -> Any:
    delattr(built, field)
    return built


@pytest.mark.parametrize(
    ("make", "path", "key"),
    [
        (lambda: without("type", feature("a")), "root", "type"),
        (lambda: without("node", rotation("roll", A)), "root", "node"),
        (lambda: roll(3, roll(3, A, without("type", feature("b")))), "root.c0.c1", "type"),
        (lambda: rotation("roll", A, without("node", integer(3))), "root.c1", "node"),
        # The children come first, then the node's own kind.
        (
            lambda: without("type", rotation("roll", without("type", feature("a")))),
            "root.c0",
            "type",
        ),
        (lambda: without("node", roll(3, without("node", roll(3)))), "root.c0", "node"),
        (lambda: without("node", rotation("f", without("node", integer(3)))), "root", "node"),
    ],
)
def test_missing_fields(evaluator, make, path, key):
    with fails(EvaluationError, f"Graph node '{path}' missing required key: {key}"):
        rows(evaluator, make())


def test_fields_that_are_not_read(evaluator):
    """The value of a window is of no interest to a function that keeps no state."""
    for name in ("plain", "unknown", "bare"):
        assert rows(evaluator, rotation(name, A, without("node", integer(3)))) == 0
    assert rows(evaluator, without("node", feature("a"))) == 0


@pytest.mark.parametrize("other", [None, {}, "roll"])
def test_other_objects(evaluator, other):
    name = type(other).__name__
    with fails(SchemaError, f"Graph node 'children' must be FunctionGraphNode; got {name}"):
        rows(evaluator, other)
    with fails(SchemaError, f"Graph node 'field-check' must be FunctionGraphNode; got {name}"):
        rows(evaluator, rotation("plain", other))


class Window:
    def __init__(self, fault: BaseException) -> None:
        self.fault = fault

    def __int__(self) -> int:
        raise self.fault


@pytest.mark.parametrize("kind", [TypeError, ValueError, UnicodeError])
def test_windows_that_are_passed_over(evaluator, kind):
    graph = rotation("roll", integer(Window(kind("window"))), integer(5))
    assert rows(evaluator, graph) == 4


@pytest.mark.parametrize("kind", [OverflowError, KeyError, RuntimeError, KeyboardInterrupt])
def test_windows_that_fail(evaluator, kind):
    fault = kind("window")
    with lets_through(fault):
        rows(evaluator, roll(Window(fault)))


def test_an_infinite_window(evaluator):
    with fails(OverflowError, "cannot convert float infinity to integer"):
        rows(evaluator, roll(float("inf")))


@pytest.mark.parametrize("kind", [RuntimeError, KeyboardInterrupt])
@pytest.mark.parametrize("method", ["has", "get_entry"])
def test_a_registry_that_fails(evaluator, kind, method):
    fault = kind(method)
    registry = RecordingRegistry(ENTRIES)
    setattr(registry, method, raising(fault))
    with lets_through(fault):
        rows(evaluator, ROLL50, registry)
    assert rows(evaluator, A, registry) == 0


@pytest.mark.parametrize("kind", [RuntimeError, KeyboardInterrupt])
def test_an_entry_that_fails(evaluator, kind):
    fault = kind("stateful")
    failing = type("Entry", (), {"stateful": property(raising(fault))})()
    with lets_through(fault):
        rows(evaluator, ROLL50, RecordingRegistry({"roll": failing}))


def test_an_entry_whose_stateful_is_missing(evaluator):
    hidden = type("Entry", (), {"stateful": property(raising(AttributeError("stateful")))})()
    assert rows(evaluator, ROLL50, RecordingRegistry({"roll": hidden})) == 0


def test_depth(evaluator):
    """Depth counts against the interpreter's limit."""
    deep, cycle = A, rotation("plain")
    for _ in range(20_000):
        deep = rotation("plain", deep)
    cycle.children.append(cycle)
    for graph in (deep, cycle):
        with pytest.raises(RecursionError):
            rows(evaluator, graph)


# --- rows that an instance has seen --------------------------------------------------------------


def count(evaluator, state: Any) -> Any:
    return evaluator._get_warmup_count_for_instance(RecordingFunction(state=lambda: state))


@pytest.mark.parametrize(
    ("data", "expected"),
    [
        (None, 0),
        ({}, 0),
        ({"window": 5}, 0),
        ({"count": 7}, 7),
        ({"count": "7"}, 7),
        ({"count": 7.9}, 7),
        ({"count": -7}, -7),
        ({"count": True}, 1),
        ({"count": np.int64(7)}, 7),
        ({"count": 2**70}, 2**70),
        ({"count": "abc"}, 0),
        ({"count": None}, 0),
        ({"count": [7]}, 0),
        ({"count": float("nan")}, 0),
        ({"count": Window(ValueError("count"))}, 0),
        ({"count": Window(TypeError("count"))}, 0),
    ],
)
def test_counts(evaluator, data, expected):
    for state in (data, SimpleNamespace(state_data=data), evaluator.FunctionState("f", data)):
        assert count(evaluator, state) == expected
    assert type(count(evaluator, data)) is int


def test_the_state_is_read_once_and_nothing_else(evaluator):
    instance = RecordingFunction(state={"count": 3}, _count=99, count=99)
    assert evaluator._get_warmup_count_for_instance(instance) == 3
    assert instance.state_reads == 1
    assert evaluator._get_warmup_count_for_instance(instance=instance) == 3


@pytest.mark.parametrize("kind", [ValueError, TypeError, KeyboardInterrupt])
def test_a_state_that_fails(evaluator, kind):
    fault = kind("state")
    instance = RecordingFunction(state=raising(fault))
    with lets_through(fault):
        evaluator._get_warmup_count_for_instance(instance)


@pytest.mark.parametrize("kind", [OverflowError, KeyError, RuntimeError, KeyboardInterrupt])
def test_a_count_that_fails(evaluator, kind):
    fault = kind("count")
    with lets_through(fault):
        count(evaluator, {"count": Window(fault)})


class Data(dict):
    """State data whose methods fail with `fault`."""

    fault: BaseException

    def get(self, *_: Any) -> Any:
        raise self.fault


@pytest.mark.parametrize("kind", [ValueError, TypeError])
def test_data_whose_read_fails_count_nothing(evaluator, kind):
    data = Data(count=3)
    data.fault = kind("get")
    assert count(evaluator, data) == 0
    data.fault = RuntimeError("get")
    with lets_through(data.fault):
        count(evaluator, data)


def test_data_that_are_no_mapping(evaluator):
    with fails(AttributeError, "'list' object has no attribute 'get'"):
        count(evaluator, [3])
    with pytest.raises(ValueError, match="truth value of an array"):
        count(evaluator, np.zeros(2))


def test_an_instance_without_a_state(evaluator):
    with fails(AttributeError, "'object' object has no attribute 'get_state'"):
        evaluator._get_warmup_count_for_instance(object())


# --- in a run ------------------------------------------------------------------------------------


def run(evaluator, graph: Any, *, length: int = 6, bound: Any = None, **options: Any) -> Any:
    context = make_context(
        evaluator,
        {"a": counting_matrix(length)},
        registry=RecordingRegistry(ENTRIES),
        useful_signals=make_pool(rows=length),
        **options,
    )
    return evaluator.evaluate(graph, context, bound_function_instances=bound)


def blank_rows(weights: np.ndarray) -> int:
    """The number of leading rows that are NaN; the others must hold numbers."""
    blank = np.isnan(weights).all(axis=1)
    leading = int(blank.sum())
    assert blank[:leading].all()
    assert not np.isnan(weights[leading:]).any()
    return leading


@pytest.mark.parametrize(
    ("graph", "expected"),
    [
        (roll(4), 3),
        (roll(3, roll(2)), 3),
        (roll(2, reduction("plain", integer(4))), 1),
        (reduction("plain", roll(4)), 3),
        (roll(50), 6),
        (roll(2**70), 6),
        (roll(1), 0),
    ],
)
def test_leading_rows_are_blank(evaluator, graph, expected):
    assert blank_rows(run(evaluator, graph).weights) == expected


def test_node_outputs_keep_their_rows(evaluator):
    context = make_context(
        evaluator, {"a": counting_matrix(4)}, registry=RecordingRegistry(ENTRIES)
    )
    context._collect_node_outputs = True
    result = evaluator.evaluate(roll(3), context)
    assert blank_rows(result.weights) == 2
    assert result.node_outputs["root"].tolist() == counting_matrix(4).tolist()


def test_no_rows(evaluator):
    assert run(evaluator, roll(5), length=0).weights.shape == (0, 3)


def test_bound_runs_have_no_warm_up(evaluator, monkeypatch):
    monkeypatch.setattr(evaluator, "_compute_graph_warmup_rows", raising(AssertionError("asked")))
    result = run(evaluator, roll(4), bound={"root": RecordingFunction(stateful=True)})
    assert blank_rows(result.weights) == 0


def test_an_empty_binding_binds_nothing(evaluator):
    """Warm-up goes by the mapping's truth: an empty one leaves the graph its warm-up."""
    graph = node("made up", "x", [feature("a")])
    calls: list[Any] = []
    with pytest.MonkeyPatch.context() as patch:
        patch.setattr(
            evaluator, "_compute_graph_warmup_rows", lambda *args: calls.append(args) or 2
        )
        result = run(evaluator, graph, bound={})
    assert len(calls) == 1
    assert blank_rows(result.weights) == 2


@pytest.mark.parametrize(("figure", "blank"), [(0, 0), (2, 2), (6, 6), (99, 6), (True, 1)])
def test_the_figure_is_asked_of_the_module(evaluator, monkeypatch, figure, blank):
    calls: list[tuple[tuple[Any, ...], dict[str, Any]]] = []

    def compute(*args: Any, **kwargs: Any) -> int:
        calls.append((args, kwargs))
        return figure

    monkeypatch.setattr(evaluator, "_compute_graph_warmup_rows", compute)
    graph = rotation("plain", A)
    registry = RecordingRegistry(ENTRIES)
    context = make_context(evaluator, {"a": counting_matrix(6)}, registry=registry)
    assert blank_rows(evaluator.evaluate(graph, context).weights) == blank
    ((args, kwargs),) = calls
    assert len(args) == 2
    assert args[0] is graph
    assert args[1] is registry
    assert kwargs == {}


@pytest.mark.parametrize("kind", [RuntimeError, KeyboardInterrupt])
def test_a_figure_that_fails(evaluator, monkeypatch, kind):
    fault = kind("figure")
    monkeypatch.setattr(evaluator, "_compute_graph_warmup_rows", raising(fault))
    with lets_through(fault):
        run(evaluator, rotation("plain", A))
