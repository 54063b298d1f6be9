"""Which graphs the longitudinal road takes, and what its test looks at, in order."""

from __future__ import annotations

from types import ModuleType, SimpleNamespace
from typing import Any

import numpy as np
import pytest
from quernbrook.functions._typed_shapes import SchemaError
from quernbrook.simulator_engine._types import EvaluationError
from support.functions import raising
from support.graphs import (
    aggregation,
    boolean,
    feature,
    filtration,
    integer,
    node,
    number,
    rotation,
    string,
)
from support.registries import RecordingRegistry, entry
from support.runs import fails, lets_through
from support.traps import Said, Trap, Unsure, permissive

MEAN, STD, ZSCORE = "longitudinal_mean", "longitudinal_std", "longitudinal_zscore"
NAMES = [MEAN, STD, ZSCORE]
BLOCKERS = ["useful_signals", "transform_pipeline", "metaparameters"]
NONE_IN_THE_WAY: dict[str, Any] = dict.fromkeys(BLOCKERS, ())
INDEX = {"a": 0}
ENOUGH = 100_000


def mean(*children: Any) -> Any:
    return rotation(MEAN, *(children or (feature("a"), integer(3))))


def stubs(**entries: Any) -> RecordingRegistry:
    """Holds a bare stub for every name that isn't given."""
    return RecordingRegistry({name: entry() for name in NAMES} | entries)


def ask(
    evaluator: ModuleType,
    graph: Any,
    context: Any = None,
    T: Any = ENOUGH,
    states: Any = None,
    **options: Any,
) -> Any:
    context = permissive(registry=stubs()) if context is None else context
    return evaluator._can_use_longitudinal_fast_path(graph, context, states, T, **options)


def without(built: Any, name: str) -> Any:
    delattr(built, name)
    return built


def asked(registry: RecordingRegistry) -> list[tuple[str, str]]:
    return [(method, name) for method, name, _, _ in registry.calls]


# --- what is looked at, in order -----------------------------------------------------------------


@pytest.mark.parametrize("names", [[MEAN], [STD, ZSCORE], [ZSCORE, MEAN, ZSCORE]])
def test_a_chain_is_looked_at_from_the_top(evaluator: ModuleType, names: list[str]) -> None:
    graph = aggregation("a")
    for name in reversed(names):
        graph = rotation(name, graph, integer(2))
    registry = stubs()
    context = Trap(**NONE_IN_THE_WAY, registry=registry, feature_index=INDEX)
    assert ask(evaluator, graph, context) is True
    assert context.reads == [*BLOCKERS, *["registry"] * len(names), "feature_index"]
    methods = ("has", "has_factory", "get_entry")
    assert asked(registry) == [(method, name) for name in names for method in methods]


@pytest.mark.parametrize(("name", "known"), [("a", True), ("z", False)])
def test_a_leaf_needs_no_registry(evaluator: ModuleType, name: str, known: bool) -> None:
    context = Trap(**NONE_IN_THE_WAY, feature_index=INDEX)
    assert ask(evaluator, feature(name), context) is known
    assert context.reads == [*BLOCKERS, "feature_index"]
    assert ask(evaluator, mean(aggregation(name), integer(1))) is known


def test_arguments_are_asked_before_the_context(evaluator: ModuleType) -> None:
    context, fault = Trap(), AssertionError("asked too early")
    no_number = type("NoNumber", (), {"__lt__": raising(fault)})()
    assert ask(evaluator, None, context, no_number, {}, data_nan_features="z") is False
    assert ask(evaluator, None, context, ENOUGH - 1, Unsure(fault)) is False
    assert ask(evaluator, None, context, states=Unsure(fault)) is False
    assert context.reads == []


@pytest.mark.parametrize("blocking", range(3))
@pytest.mark.parametrize("graph", [None, without(mean(), "type")])
def test_the_context_is_asked_before_the_graph(
    evaluator: ModuleType, blocking: int, graph: Any
) -> None:
    given = dict.fromkeys(BLOCKERS[:blocking], ())
    context = Trap(**given, **{BLOCKERS[blocking]: [None]})
    assert ask(evaluator, graph, context) is False
    assert context.reads == BLOCKERS[: blocking + 1]


@pytest.mark.parametrize(
    "graph",
    [
        *(node(kind, MEAN, [feature("a"), integer(3)]) for kind in ("reduction", "filtration", "")),
        without(node("int", 3), "node"),
        rotation("longitudinal_sum", feature("a"), integer(3)),
        rotation("latitudinal_rank", feature("a")),
        node("rotation", None, 5),
    ],
)
def test_other_kinds_and_names_are_refused_before_the_registry_is_asked(
    evaluator: ModuleType, graph: Any
) -> None:
    context = Trap(**NONE_IN_THE_WAY)
    assert ask(evaluator, graph, context) is False
    assert context.reads == BLOCKERS


# --- rows, states, data-NaN ----------------------------------------------------------------------


@pytest.mark.parametrize(
    ("rows", "enough"),
    [
        (0, False),
        (-1, False),
        (99_999, False),
        (100_000, True),
        (10**30, True),
        (np.int64(99_999), False),
        (np.uint32(100_000), True),
        (99_999.5, False),
        (float("inf"), True),
        (float("nan"), True),
        (True, False),
    ],
)
def test_row_count(evaluator: ModuleType, rows: Any, enough: bool) -> None:
    assert ask(evaluator, mean(), T=rows) is enough


def test_row_count_that_cannot_be_compared(evaluator: ModuleType) -> None:
    with pytest.raises(TypeError, match="'<' not supported"):
        ask(evaluator, mean(), T=None)


def test_constants(evaluator: ModuleType) -> None:
    assert type(evaluator._LONGITUDINAL_FAST_MIN_ROWS) is int
    assert evaluator._LONGITUDINAL_FAST_MIN_ROWS == 100_000
    assert type(evaluator._LONGITUDINAL_FAST_NAMES) is set
    assert set(NAMES) == evaluator._LONGITUDINAL_FAST_NAMES


@pytest.mark.parametrize("limit", [0, 3, 3.5, -1, 10**30, np.int64(4)])
def test_another_limit(evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch, limit: Any) -> None:
    monkeypatch.setattr(evaluator, "_LONGITUDINAL_FAST_MIN_ROWS", limit)
    for rows in (0, 3, 4):
        assert ask(evaluator, mean(), T=rows) is bool(rows >= limit)


def test_other_names(evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch) -> None:
    class Names:
        def __contains__(self, name: object) -> bool:
            return name == "rolling"

    registry = RecordingRegistry({"rolling": entry(), MEAN: entry()})
    context = permissive(registry=registry)
    rolling = rotation("rolling", feature("a"), integer(3))
    assert ask(evaluator, rolling, context) is False
    for names in ({"rolling"}, ["rolling"], Names()):
        monkeypatch.setattr(evaluator, "_LONGITUDINAL_FAST_NAMES", names)
        assert ask(evaluator, rolling, context) is True
        assert ask(evaluator, mean(), context) is False


@pytest.mark.parametrize("states", [{}, (), 0, "", {"root": 1}, Said(False)])
def test_any_states_but_none_refuse(evaluator: ModuleType, states: Any) -> None:
    assert ask(evaluator, mean(), states=states) is False
    assert ask(evaluator, mean(), states=None) is True


CHECKS = ["data_nan_features", *BLOCKERS]


def ask_with(evaluator: ModuleType, name: str, value: Any) -> Any:
    if name in BLOCKERS:
        return ask(evaluator, mean(), permissive(registry=stubs(), **{name: value}))
    return ask(evaluator, mean(), **{name: value})


@pytest.mark.parametrize("name", CHECKS)
def test_empty_counts_as_absent(evaluator: ModuleType, name: str) -> None:
    for value in (None, {}, [], 0, ""):
        assert ask_with(evaluator, name, value) is True
    for value in ({"k": None}, [0], 1, "no", Said(True)):
        assert ask_with(evaluator, name, value) is False
    counted = Said(False)
    ask_with(evaluator, name, counted)
    assert counted.asked == 1


@pytest.mark.parametrize("name", CHECKS)
def test_a_failing_truth_passes(evaluator: ModuleType, name: str) -> None:
    fault = ArithmeticError(name)
    with lets_through(fault):
        ask_with(evaluator, name, Unsure(fault))


@pytest.mark.parametrize("name", [*BLOCKERS, "registry", "feature_index"])
def test_a_failing_context_passes(evaluator: ModuleType, name: str) -> None:
    fault = LookupError(name)
    given = {**NONE_IN_THE_WAY, "registry": stubs(), "feature_index": INDEX, name: fault}
    with lets_through(fault):
        ask(evaluator, mean(), Trap(**given))


def test_bound_instances_are_no_matter_of_this_road(evaluator: ModuleType) -> None:
    with pytest.raises(TypeError):
        ask(evaluator, mean(), bound_function_instances={})


# --- children ------------------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("children", "is_open"),
    [
        ((feature("a"), integer(3)), True),
        ((integer(3), feature("a")), True),
        ((integer(3), feature("a"), integer(4), integer("x")), True),
        ((string("s"), feature("a"), boolean(True), integer(3)), True),
        ((feature("a"), integer(0)), True),
        ((feature("a"), integer(-7)), True),
        ((feature("a"), integer("12")), True),
        ((feature("a"), integer(2.9)), True),
        ((feature("a"), integer(True)), True),
        ((feature("z"), integer(3)), False),
        ((integer(3),), False),
        ((integer(3), string("s")), False),
        ((feature("a"),), False),
        ((feature("a"), string("3"), boolean(True)), False),
        ((feature("a"), number(3)), False),
        ((feature("a"), integer(3), number(3.0)), False),
        ((feature("a"), feature("a"), integer(3)), False),
        ((feature("a"), mean(), integer(3)), False),
        ((feature("a"), filtration("top"), integer(3)), False),
        ((feature("a"), node("odd", None), integer(3)), False),
        ((node("odd", None), integer(3)), False),
        ((number(3.0), integer(3)), False),
        ((rotation("latitudinal_rank", feature("a")), integer(3)), False),
        # Two data children refuse before the window is converted.
        ((feature("a"), feature("a"), integer("x")), False),
        ((integer("x"),), False),
    ],
)
def test_one_data_child_and_a_window(evaluator: ModuleType, children: Any, is_open: bool) -> None:
    assert ask(evaluator, mean(*children)) is is_open
    assert ask(evaluator, rotation(STD, mean(*children), integer(1))) is is_open


@pytest.mark.parametrize("children", [None, [], ()])
def test_no_children(evaluator: ModuleType, children: Any) -> None:
    assert ask(evaluator, node("rotation", MEAN, children)) is False


@pytest.mark.parametrize(
    ("value", "error"),
    [("x", ValueError), (None, TypeError), (float("inf"), OverflowError), ([3], TypeError)],
)
def test_a_window_that_is_no_number(evaluator: ModuleType, value: Any, error: Any) -> None:
    """It is converted before the data child is looked at."""
    broken = without(feature("a"), "node")
    with pytest.raises(error) as caught:
        ask(evaluator, mean(broken, integer(value)))
    with pytest.raises(error) as expected:
        int(value)
    assert str(caught.value) == str(expected.value)


def test_a_name_that_no_set_can_hold(evaluator: ModuleType) -> None:
    with pytest.raises(TypeError, match="unhashable type: 'list'"):
        ask(evaluator, rotation([MEAN], feature("a"), integer(3)))
    with pytest.raises(TypeError, match="unhashable type: 'list'"):
        ask(evaluator, mean(feature(["a"]), integer(3)))


def test_an_endless_graph(evaluator: ModuleType) -> None:
    graph = mean()
    graph.children[0] = graph
    # Its methods need no levels: a registry that fails first declines the graph.
    entries, factories = {MEAN: SimpleNamespace()}, set[str]()
    registry = SimpleNamespace(
        has=entries.__contains__,
        has_factory=factories.__contains__,
        get_entry=entries.__getitem__,
    )
    with pytest.raises(RecursionError):
        ask(evaluator, graph, permissive(registry=registry))
    graph.children.clear()


@pytest.mark.parametrize(
    ("graph", "path", "key"),
    [
        (without(mean(), "type"), "fast_path", "type"),
        (without(mean(), "node"), "fast_path", "node"),
        (without(feature("a"), "node"), "fast_path", "node"),
        (mean(without(feature("a"), "node"), integer(1)), "fast_path", "node"),
        (mean(without(mean(), "type"), integer(1)), "fast_path.child", "type"),
        (mean(feature("a"), integer(1), without(string("s"), "type")), "fast_path.child", "type"),
        (mean(feature("a"), without(integer(1), "node")), "window.c1", "node"),
        (mean(without(integer(1), "node"), feature("a")), "window.c0", "node"),
        (
            rotation(STD, mean(feature("a"), without(integer(1), "node")), integer(1)),
            "window.c1",
            "node",
        ),
    ],
)
def test_missing_fields(evaluator: ModuleType, graph: Any, path: str, key: str) -> None:
    with fails(EvaluationError, f"Graph node '{path}' missing required key: {key}"):
        ask(evaluator, graph)


@pytest.mark.parametrize("graph", [{}, mean({}, integer(1)), mean(feature("a"), {})])
def test_what_is_no_node(evaluator: ModuleType, graph: Any) -> None:
    with fails(SchemaError, "Graph node 'field-check' must be FunctionGraphNode; got dict"):
        ask(evaluator, graph)


# --- the stub in the registry --------------------------------------------------------------------


def ask_entry(evaluator: ModuleType, found: Any) -> tuple[Any, RecordingRegistry]:
    registry = stubs(**{MEAN: found})
    return ask(evaluator, mean(), permissive(registry=registry)), registry


def test_without_a_registry(evaluator: ModuleType) -> None:
    broken = node("rotation", MEAN, 5)
    assert ask(evaluator, broken, permissive(registry=None)) is False


def test_a_name_that_the_registry_does_not_know(evaluator: ModuleType) -> None:
    registry = RecordingRegistry()
    assert ask(evaluator, node("rotation", MEAN, 5), permissive(registry=registry)) is False
    assert asked(registry) == [("has", MEAN)]


def test_a_real_factory_refuses(evaluator: ModuleType) -> None:
    registry = RecordingRegistry({MEAN: entry()}, real_factories=[MEAN])
    assert ask(evaluator, node("rotation", MEAN, 5), permissive(registry=registry)) is False
    assert asked(registry) == [("has", MEAN), ("has_factory", MEAN)]


def test_every_rotation_needs_a_stub(evaluator: ModuleType) -> None:
    registry = stubs()
    del registry.entries[STD]
    graph = mean(rotation(STD, feature("a"), integer(1)), integer(1))
    assert ask(evaluator, graph, permissive(registry=registry)) is False
    assert asked(registry)[-1] == ("has", STD)


NOTHING = {"module_path": None, "class_name": None, "factory": None, "implementation": None}


@pytest.mark.parametrize(
    ("attributes", "is_open", "reads"),
    [
        ({}, True, 4),
        ({"module_path": "", "class_name": 0}, True, 4),
        ({"module_path": [], "class_name": Said(False)}, True, 4),
        ({"module_path": "m"}, False, 1),
        ({"module_path": Said(True)}, False, 1),
        ({"class_name": "C"}, False, 2),
        ({"factory": len}, False, 3),
        ({"factory": 0}, False, 3),
        ({"factory": Unsure(AssertionError())}, False, 3),
        ({"implementation": len}, False, 4),
        ({"implementation": ""}, False, 4),
        ({"implementation": False}, False, 4),
    ],
)
def test_a_stub_has_nothing_runnable_behind_it(
    evaluator: ModuleType, attributes: Any, is_open: bool, reads: int
) -> None:
    found = Trap(**{**NOTHING, **attributes})
    assert ask_entry(evaluator, found)[0] is is_open
    assert found.reads == list(NOTHING)[:reads]
    assert ask_entry(evaluator, SimpleNamespace(**attributes))[0] is is_open


@pytest.mark.parametrize("found", [None, 5, object(), entry(window=3)])
def test_what_an_entry_lacks_counts_as_absent(evaluator: ModuleType, found: Any) -> None:
    answer, registry = ask_entry(evaluator, found)
    assert answer is True
    assert asked(registry) == [("has", MEAN), ("has_factory", MEAN), ("get_entry", MEAN)]


@pytest.mark.parametrize("name", NOTHING)
def test_an_entry_that_fails(evaluator: ModuleType, name: str) -> None:
    """Only an attribute that is not there is tolerated."""
    assert ask_entry(evaluator, Trap(**{**NOTHING, name: AttributeError(name)}))[0] is True
    fault = LookupError(name)
    with lets_through(fault):
        ask_entry(evaluator, Trap(**{**NOTHING, name: fault}))


@pytest.mark.parametrize("name", ["module_path", "class_name"])
def test_an_entry_of_failing_truth(evaluator: ModuleType, name: str) -> None:
    fault = ArithmeticError(name)
    with lets_through(fault):
        ask_entry(evaluator, Trap(**{**NOTHING, name: Unsure(fault)}))


def failing(method: str, fault: BaseException) -> Any:
    registry = stubs()
    setattr(registry, method, raising(fault))
    return permissive(registry=registry)


@pytest.mark.parametrize("kind", [KeyError, ValueError, EvaluationError, AttributeError])
def test_a_failing_get_entry_refuses_and_nothing_is_reported(
    evaluator: ModuleType, monkeypatch: pytest.MonkeyPatch, kind: Any
) -> None:
    monkeypatch.setattr(evaluator, "_logger", Trap())
    assert ask(evaluator, mean(), failing("get_entry", kind("entry"))) is False


@pytest.mark.parametrize("kind", [KeyboardInterrupt, SystemExit, GeneratorExit])
def test_what_is_no_exception_passes_get_entry(evaluator: ModuleType, kind: Any) -> None:
    fault = kind("entry")
    with lets_through(fault):
        ask(evaluator, mean(), failing("get_entry", fault))


@pytest.mark.parametrize("method", ["has", "has_factory"])
@pytest.mark.parametrize("kind", [KeyError, KeyboardInterrupt])
def test_other_failures_of_the_registry_pass(evaluator: ModuleType, method: str, kind: Any) -> None:
    fault = kind(method)
    with lets_through(fault):
        ask(evaluator, mean(), failing(method, fault))


@pytest.mark.parametrize("method", ["has", "has_factory"])
def test_answers_of_the_registry_are_taken_by_their_truth(
    evaluator: ModuleType, method: str
) -> None:
    for said in (True, False):
        registry = stubs()
        setattr(registry, method, lambda name, said=said: Said(said))
        assert ask(evaluator, mean(), permissive(registry=registry)) is (said is (method == "has"))
    fault = ArithmeticError(method)
    registry = stubs()
    setattr(registry, method, lambda name: Unsure(fault))
    with lets_through(fault):
        ask(evaluator, mean(), permissive(registry=registry))


# --- the window ----------------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("children", "window"),
    [
        ([], None),
        ((), None),
        ([feature("a"), number(3.0), string("3"), boolean(True)], None),
        ([integer(3), integer(4)], 3),
        ([feature("a"), integer("7"), integer("x")], 7),
        ([integer(True)], 1),
        ([integer(np.int32(5))], 5),
        ([integer(np.float64(5.9))], 5),
        ([integer(10**30)], 10**30),
        ([integer(-(10**30))], -(10**30)),
    ],
)
def test_the_first_int_child_is_the_window(
    evaluator: ModuleType, children: Any, window: Any
) -> None:
    found = evaluator._get_int_window_child(children)
    assert found == window
    assert type(found) is type(window)


def test_nothing_behind_the_window_is_looked_at(evaluator: ModuleType) -> None:
    assert evaluator._get_int_window_child([integer(3), {}, None]) == 3


def test_errors_of_the_window(evaluator: ModuleType) -> None:
    window = evaluator._get_int_window_child
    for key in ("type", "node"):
        with fails(EvaluationError, f"Graph node 'window.c2' missing required key: {key}"):
            window([feature("a"), string("s"), without(integer(3), key)])
    with fails(SchemaError, "Graph node 'field-check' must be FunctionGraphNode; got dict"):
        window([feature("a"), {}])
    with pytest.raises(TypeError):
        window(5)
