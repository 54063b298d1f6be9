"""Which graphs the rank roads take, and what the tests of the roads look at, in order."""

from __future__ import annotations

from types import ModuleType
from typing import Any

import pytest
from quernbrook.functions._typed_shapes import SchemaError
from quernbrook.simulator_engine._types import EvaluationError
from support.functions import raising
from support.graphs import aggregation, boolean, feature, integer, node, number, rotation, string
from support.registries import RecordingRegistry
from support.runs import fails, lets_through
from support.traps import Said, Trap, Unsure, permissive

RANK, MULTIPLY = "latitudinal_rank", "numerical_multiply"
SIMPLE, PRODUCT = "_can_use_simple_rank_fast_path", "_can_use_rank_multiply_fast_path"
TESTS = [SIMPLE, PRODUCT]

BLOCKERS = ["useful_signals", "transform_pipeline", "metaparameters"]
NONE_IN_THE_WAY: dict[str, Any] = dict.fromkeys(BLOCKERS, ())
INDEX = {"a": 0, "b": 1}


def rank(leaf: Any = None) -> Any:
    return rotation(RANK, feature("a") if leaf is None else leaf)


def product(*factors: Any) -> Any:
    return rotation(MULTIPLY, *(factors or (rank(), rank(aggregation("b")))))


GRAPHS = {SIMPLE: rank, PRODUCT: product}


def without(built: Any, name: str) -> Any:
    delattr(built, name)
    return built


def ask(evaluator: ModuleType, test: str, graph: Any, context: Any = None, **options: Any) -> Any:
    states = options.pop("function_states", None)
    context = permissive() if context is None else context
    return getattr(evaluator, test)(graph, context, states, **options)


# --- what is looked at, in order -----------------------------------------------------------------


@pytest.mark.parametrize("make_registry", [lambda: None, RecordingRegistry])
def test_simple_rank_looks_at_this_and_no_more(evaluator: ModuleType, make_registry: Any) -> None:
    registry = make_registry()
    context = Trap(**NONE_IN_THE_WAY, registry=registry)
    assert ask(evaluator, SIMPLE, rank(), context) is True
    assert context.reads == [*BLOCKERS, "registry"]
    if registry is not None:
        assert registry.calls == [("has_factory", RANK, None, {})]


@pytest.mark.parametrize("make_registry", [lambda: None, RecordingRegistry])
def test_rank_multiply_looks_at_this_and_no_more(evaluator: ModuleType, make_registry: Any) -> None:
    registry = make_registry()
    context = Trap(**NONE_IN_THE_WAY, registry=registry, feature_index=INDEX)
    assert ask(evaluator, PRODUCT, product(), context) is True
    assert context.reads == [*BLOCKERS, "registry", "feature_index", "feature_index"]
    if registry is not None:
        asked = [(method, name) for method, name, _, _ in registry.calls]
        assert asked == [("has_factory", MULTIPLY), ("has_factory", RANK)]


@pytest.mark.parametrize("test", TESTS)
@pytest.mark.parametrize("blocking", range(3))
@pytest.mark.parametrize("graph", [None, without(rank(), "type")])
def test_the_context_is_asked_before_the_graph(
    evaluator: ModuleType, test: str, blocking: int, graph: Any
) -> None:
    given = dict.fromkeys(BLOCKERS[:blocking], ())
    context = Trap(**given, **{BLOCKERS[blocking]: [None]})
    assert ask(evaluator, test, graph, context) is False
    assert context.reads == BLOCKERS[: blocking + 1]


@pytest.mark.parametrize("test", TESTS)
def test_arguments_are_asked_before_the_context(evaluator: ModuleType, test: str) -> None:
    fault = Unsure(AssertionError("asked too early"))
    context = Trap()
    later: dict[str, Any] = {"function_states": fault}
    if test == PRODUCT:
        later["bound_function_instances"] = fault
    assert ask(evaluator, test, None, context, data_nan_features=["z"], **later) is False
    later["function_states"] = {"root": 1}
    assert ask(evaluator, test, None, context, **later) is False
    if test == PRODUCT:
        assert ask(evaluator, test, None, context, bound_function_instances={"x": 1}) is False
    assert context.reads == []


@pytest.mark.parametrize(
    "graph",
    [
        *(node(kind, RANK, [feature("a")]) for kind in ("reduction", "feature", "Rotation", None)),
        without(node("feature", RANK), "node"),
        rotation("rank", feature("a")),
        rotation("latitudinal_rank ", feature("a")),
        node("rotation", None, [feature("a")]),
        node("rotation", [RANK], [feature("a")]),
        rotation(RANK),
        node("rotation", RANK, None),
        rotation(RANK, feature("a"), feature("b")),
        rotation(RANK, feature("a"), integer(3)),
        *(rotation(RANK, make(1)) for make in (number, integer, string, boolean)),
        rotation(RANK, rank()),
        rotation(RANK, node("filtration", "top")),
    ],
)
def test_other_graphs_than_one_rank_of_a_leaf(evaluator: ModuleType, graph: Any) -> None:
    """They are refused before the registry is asked."""
    context = Trap(**NONE_IN_THE_WAY)
    assert ask(evaluator, SIMPLE, graph, context) is False
    assert context.reads == BLOCKERS


@pytest.mark.parametrize(
    ("graph", "asks_registry", "asked_names"),
    [
        (node("reduction", MULTIPLY, [rank(), rank()]), False, 0),
        (without(node("feature", MULTIPLY), "node"), False, 0),
        (rank(), False, 0),
        (rotation("numerical_add", rank(), rank()), False, 0),
        (rotation(MULTIPLY), True, 0),
        (product(rank()), True, 0),
        (product(rank(), rank(), rank()), True, 0),
        (product(rank(), rank(), integer(1)), True, 0),
        (product(feature("a"), rank()), True, 0),
        (product(node("reduction", RANK, [feature("a")]), rank()), True, 0),
        (product(rotation("latitudinal_demean", feature("a")), rank()), True, 0),
        (product(rotation(RANK), rank()), True, 0),
        (product(rotation(RANK, feature("a"), integer(1)), rank()), True, 0),
        (product(rank(rank()), rank()), True, 0),
        (product(rank(number(1.0)), rank()), True, 0),
        (product(rank(without(number(1.0), "node")), rank()), True, 0),
        (product(rank(feature("z")), without(rank(), "type")), True, 1),
        (product(rank(), feature("b")), True, 1),
        (product(rank(), product()), True, 1),
        (product(rank(), rank(string("a"))), True, 1),
        (product(rank(), rank(aggregation("z"))), True, 2),
    ],
)
def test_other_graphs_than_a_product_of_two_ranks(
    evaluator: ModuleType, graph: Any, asks_registry: bool, asked_names: int
) -> None:
    registry = RecordingRegistry()
    context = Trap(**NONE_IN_THE_WAY, registry=registry, feature_index=INDEX)
    assert ask(evaluator, PRODUCT, graph, context) is False
    reads = [*BLOCKERS, *["registry"] * asks_registry, *["feature_index"] * asked_names]
    assert context.reads == reads
    assert registry.names("has_factory") == ([MULTIPLY, RANK] if asks_registry else [])


@pytest.mark.parametrize("leaf", [feature("z"), aggregation("z"), feature(["unhashable"])])
def test_simple_rank_does_not_look_at_the_name(evaluator: ModuleType, leaf: Any) -> None:
    context = Trap(**NONE_IN_THE_WAY, registry=None)
    assert ask(evaluator, SIMPLE, rank(leaf), context) is True
    assert ask(evaluator, SIMPLE, rank(without(feature("a"), "node")), context) is True


def test_names_are_looked_up_as_the_index_does(evaluator: ModuleType) -> None:
    asked: list[Any] = []

    class Index:
        def __contains__(self, name: Any) -> bool:
            asked.append(name)
            return True

    context = permissive(feature_index=Index())
    assert ask(evaluator, PRODUCT, product(rank(feature("y")), rank()), context) is True
    assert asked == ["y", "a"]
    with pytest.raises(TypeError, match="unhashable"):
        ask(evaluator, PRODUCT, product(rank(feature(["a"])), rank()))


# --- truth ---------------------------------------------------------------------------------------

FALSY = [None, {}, [], (), 0, "", Said(False)]
TRUTHY = [{"k": None}, [0], 1, "no", Said(True)]
ARGUMENTS = {
    SIMPLE: ["data_nan_features", "function_states"],
    PRODUCT: ["data_nan_features", "function_states", "bound_function_instances"],
}
CHECKS = [(test, name) for test in TESTS for name in [*ARGUMENTS[test], *BLOCKERS]]


def ask_with(evaluator: ModuleType, test: str, name: str, value: Any) -> Any:
    if name in BLOCKERS:
        return ask(evaluator, test, GRAPHS[test](), permissive(**{name: value}))
    return ask(evaluator, test, GRAPHS[test](), **{name: value})


@pytest.mark.parametrize(("test", "name"), CHECKS)
def test_empty_counts_as_absent(evaluator: ModuleType, test: str, name: str) -> None:
    assert [ask_with(evaluator, test, name, value) for value in FALSY] == [True] * len(FALSY)
    assert [ask_with(evaluator, test, name, value) for value in TRUTHY] == [False] * len(TRUTHY)
    counted = Said(False)
    ask_with(evaluator, test, name, counted)
    assert counted.asked == 1


@pytest.mark.parametrize(("test", "name"), CHECKS)
def test_a_failing_truth_passes(evaluator: ModuleType, test: str, name: str) -> None:
    fault = ArithmeticError(name)
    with lets_through(fault):
        ask_with(evaluator, test, name, Unsure(fault))


@pytest.mark.parametrize("test", TESTS)
@pytest.mark.parametrize("name", [*BLOCKERS, "registry"])
def test_a_failing_context_passes(evaluator: ModuleType, test: str, name: str) -> None:
    fault = LookupError(name)
    given = {**NONE_IN_THE_WAY, "registry": None, "feature_index": INDEX, name: fault}
    with lets_through(fault):
        ask(evaluator, test, GRAPHS[test](), Trap(**given))


@pytest.mark.parametrize("test", TESTS)
@pytest.mark.parametrize("name", [*BLOCKERS, "registry"])
def test_a_context_that_lacks_an_attribute(evaluator: ModuleType, test: str, name: str) -> None:
    context = permissive()
    delattr(context, name)
    with pytest.raises(AttributeError, match=name):
        ask(evaluator, test, GRAPHS[test](), context)


def test_bound_instances_are_no_matter_of_the_simple_rank(evaluator: ModuleType) -> None:
    with pytest.raises(TypeError):
        ask(evaluator, SIMPLE, rank(), bound_function_instances={})


# --- the registry --------------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("test", "real", "asked"),
    [
        (SIMPLE, [RANK], [RANK]),
        (SIMPLE, [MULTIPLY], [RANK]),
        (PRODUCT, [MULTIPLY], [MULTIPLY]),
        (PRODUCT, [RANK], [MULTIPLY, RANK]),
        (PRODUCT, [MULTIPLY, RANK], [MULTIPLY]),
    ],
)
def test_a_real_factory_refuses(
    evaluator: ModuleType, test: str, real: list[str], asked: list[str]
) -> None:
    registry = RecordingRegistry(real_factories=real)
    answer = ask(evaluator, test, GRAPHS[test](), permissive(registry=registry))
    assert answer is (test == SIMPLE and RANK not in real)
    assert [(method, name) for method, name, _, _ in registry.calls] == [
        ("has_factory", name) for name in asked
    ]


@pytest.mark.parametrize("test", TESTS)
@pytest.mark.parametrize(
    ("answer", "is_open"),
    [(None, True), (0, True), ([], True), (1, False), ("no", False), (Said(True), False)],
)
def test_has_factory_is_taken_by_its_truth(
    evaluator: ModuleType, test: str, answer: Any, is_open: bool
) -> None:
    registry = Trap(has_factory=lambda name: answer)
    assert ask(evaluator, test, GRAPHS[test](), permissive(registry=registry)) is is_open


@pytest.mark.parametrize("test", TESTS)
def test_a_falsy_registry_is_a_registry(evaluator: ModuleType, test: str) -> None:
    class Empty(RecordingRegistry):
        def __len__(self) -> int:
            return 0

    registry = Empty(real_factories=[RANK, MULTIPLY])
    assert ask(evaluator, test, GRAPHS[test](), permissive(registry=registry)) is False


@pytest.mark.parametrize("test", TESTS)
@pytest.mark.parametrize("kind", [ValueError, KeyError, KeyboardInterrupt])
def test_a_failing_registry_passes(evaluator: ModuleType, test: str, kind: Any) -> None:
    fault = kind("has_factory")
    registry = Trap(has_factory=raising(fault))
    with lets_through(fault):
        ask(evaluator, test, GRAPHS[test](), permissive(registry=registry))
    truth = ArithmeticError("truth")
    registry = Trap(has_factory=lambda _: Unsure(truth))
    with lets_through(truth):
        ask(evaluator, test, GRAPHS[test](), permissive(registry=registry))


@pytest.mark.parametrize("test", TESTS)
def test_a_registry_without_has_factory(evaluator: ModuleType, test: str) -> None:
    with pytest.raises(AttributeError, match="has_factory"):
        ask(evaluator, test, GRAPHS[test](), permissive(registry=object()))


# --- malformed graphs ----------------------------------------------------------------------------


@pytest.mark.parametrize(
    ("test", "graph", "path", "key"),
    [
        (SIMPLE, without(rank(), "type"), "root", "type"),
        (SIMPLE, without(rank(), "node"), "root", "node"),
        (SIMPLE, rank(without(feature("a"), "type")), "root.c0", "type"),
        (PRODUCT, without(product(), "type"), "root", "type"),
        (PRODUCT, without(product(), "node"), "root", "node"),
        (PRODUCT, product(without(rank(), "type"), rank()), "root.c0", "type"),
        (PRODUCT, product(rank(), without(rank(), "type")), "root.c1", "type"),
        (PRODUCT, product(rank(), without(rank(), "node")), "root.c1", "node"),
        (PRODUCT, product(rank(without(feature("a"), "type")), rank()), "root.c0.c0", "type"),
        (PRODUCT, product(rank(), rank(without(feature("a"), "node"))), "root.c1.c0", "node"),
    ],
)
def test_missing_fields(evaluator: ModuleType, test: str, graph: Any, path: str, key: str) -> None:
    with fails(EvaluationError, f"Graph node '{path}' missing required key: {key}"):
        ask(evaluator, test, graph)


@pytest.mark.parametrize(
    ("test", "graph"),
    [
        (SIMPLE, {"type": "rotation"}),
        (SIMPLE, rank({"type": "feature"})),
        (PRODUCT, {"type": "rotation"}),
        (PRODUCT, product({}, rank())),
        (PRODUCT, product(rank(), {})),
        (PRODUCT, product(rank(), rank({"type": "feature"}))),
    ],
)
def test_what_is_no_node(evaluator: ModuleType, test: str, graph: Any) -> None:
    with fails(SchemaError, "Graph node 'field-check' must be FunctionGraphNode; got dict"):
        ask(evaluator, test, graph)


@pytest.mark.parametrize(("test", "value"), [(SIMPLE, RANK), (PRODUCT, MULTIPLY)])
def test_children_that_are_no_sequence(evaluator: ModuleType, test: str, value: str) -> None:
    with pytest.raises(TypeError):
        ask(evaluator, test, node("rotation", value, 5))
    with pytest.raises(AttributeError, match="children"):
        ask(evaluator, test, without(node("rotation", value), "children"))


@pytest.mark.parametrize("test", TESTS)
def test_children_of_any_sequence_and_texts_of_any_class(evaluator: ModuleType, test: str) -> None:
    class Text(str):
        pass

    class Children:
        def __init__(self, children: Any) -> None:
            self.children = children

        def __len__(self) -> int:
            return len(self.children)

        def __getitem__(self, place: int) -> Any:
            return self.children[place]

    graph = GRAPHS[test]()
    for built in (graph, *graph.children):
        built.type, built.node = Text(built.type), Text(built.node)
        if built.children:
            built.children = Children(built.children)
    assert ask(evaluator, test, graph) is True
