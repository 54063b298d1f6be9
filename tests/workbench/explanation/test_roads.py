"""The roads: the evaluator's verdict, and that the reason told for it stands or falls with it."""

from __future__ import annotations

from collections.abc import Iterator
from types import SimpleNamespace
from typing import Any

import numpy as np
import pytest
from hypothesis import HealthCheck, example, given, settings
from hypothesis import strategies as st
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host import default_registry
from quernbrook.reference_host.graphs import feature, integer, number, rotation, string
from quernbrook.simulator_engine import expression_evaluator
from quernbrook.simulator_engine._types import UsefulSignal
from quernbrook.simulator_engine.expression_evaluator import EvaluationContext, evaluate
from quernbrook.workbench.explanation import Explanation, explain
from quernbrook.workbench.graphs import LITERALS
from support.registries import RecordingRegistry

LEAST = 4
EVALUATORS = {
    "leaf": "_evaluate_leaf_fast",
    "rank": "_evaluate_simple_rank_fast",
    "rank product": "_evaluate_rank_multiply_fast",
    "longitudinal": "_evaluate_longitudinal_fast",
}
STUB: dict[str, Any] = {"stateful": True}


@pytest.fixture(autouse=True)
def _roads_for_few_rows(monkeypatch: pytest.MonkeyPatch) -> None:
    monkeypatch.setattr(expression_evaluator, "_LONGITUDINAL_FAST_MIN_ROWS", LEAST)


ROLLING = ["longitudinal_mean", "longitudinal_std", "longitudinal_zscore"]
RANK, PRODUCT = "latitudinal_rank", "numerical_multiply"
OTHERS = ["longitudinal_delta", "numerical_add"]


def leaf(draw: st.DrawFn) -> Node:
    kind = draw(st.sampled_from(["feature", "aggregation"]))
    return Node(kind, draw(st.sampled_from(["a", "a", "b", "b", "b", "no"])))


def rank(draw: st.DrawFn) -> Node:
    return rotation(RANK, leaf(draw))


def product(draw: st.DrawFn) -> Node:
    return rotation(PRODUCT, rank(draw), rank(draw))


def chain(draw: st.DrawFn) -> Node:
    node = leaf(draw)
    for name in draw(st.lists(st.sampled_from(ROLLING), min_size=1, max_size=2)):
        spare = draw(st.sampled_from([[], [], [string("x")], [Node("bool", True)]]))
        children = [node, integer(2), *spare]
        node = rotation(name, *(reversed(children) if draw(st.booleans()) else children))
    return node


@st.composite
def graphs(draw: st.DrawFn) -> Node:
    """A graph that has a road, and in half of the cases one fault in it."""
    graph = draw(st.sampled_from([leaf, rank, product, product, chain, chain, chain]))(draw)
    if draw(st.booleans()):
        return graph
    nodes = [graph]
    for node in nodes:
        nodes += node.children or ()
    node = draw(st.sampled_from([node for node in nodes if node.type not in LITERALS]))
    children = list(node.children or ())
    change = draw(st.sampled_from(["kind", "name", "more", "fewer", "other"]))
    if change == "kind":
        node.type = draw(st.sampled_from(["rotation", "reduction", "feature", "filtration"]))
    elif change == "name":
        node.node = draw(st.sampled_from([RANK, PRODUCT, *ROLLING, *OTHERS]))
    elif change == "more":
        literals = [number(2.0), integer(3), string("x"), Node("bool", True), feature("a")]
        node.children = [*children, draw(st.sampled_from(literals))]
    elif change == "fewer" and children:
        node.children = draw(st.permutations(children))[1:]
    elif children:
        place = draw(st.integers(0, len(children) - 1))
        children[place] = draw(st.sampled_from([leaf, rank, chain]))(draw)
        node.children = children
    return graph


class Unreadable(RecordingRegistry):
    def get_entry(self, name: str) -> Any:
        raise KeyError(name)


@st.composite
def registries(draw: st.DrawFn) -> Any:
    """Stubs mostly, as the fast roads want them."""
    kind = draw(st.sampled_from(["stubs"] * 4 + ["none", "library", "odd", "odd", "lacking"]))
    if kind == "none":
        return None
    if kind == "library":
        return default_registry()
    names = [RANK, PRODUCT, *ROLLING, *OTHERS]
    odd = draw(st.sampled_from(names)) if kind in ("odd", "lacking") else None
    entries: dict[str, Any] = {name: SimpleNamespace(**STUB) for name in names}
    if kind == "lacking":
        del entries[odd or ""]
    how = draw(
        st.sampled_from(
            ["module_path", "class_name", "factory", "implementation", "real", "unreadable"]
        )
    )
    if odd is None or kind == "lacking":
        return RecordingRegistry(entries)
    if how == "unreadable":
        return Unreadable(entries)
    if how == "real":
        return RecordingRegistry(entries, real_factories=[odd])
    setattr(entries[odd], how, "own")
    return RecordingRegistry(entries)


@st.composite
def runs(draw: st.DrawFn) -> tuple[Node, Any, dict[str, Any]]:
    """Now and then one of what closes roads; more would hide what comes after."""
    rows = draw(st.sampled_from([0, LEAST - 1, LEAST, LEAST, LEAST, LEAST, LEAST + 1]))
    matrices: Any = tuple(np.arange(rows * 2.0).reshape(rows, 2) for _ in "ab")
    ways = ["signals", "metaparameters", "states", "missing", "bound", "no states", "none missing"]
    odd = draw(st.just("") | st.just("") | st.sampled_from(ways))
    context: Any = EvaluationContext(
        matrices,
        {"a": 0, "b": 1},
        registry=draw(registries()),
        useful_signals={"s": UsefulSignal(matrices[0])} if odd == "signals" else None,
        metaparameters={"stage": "on"} if odd == "metaparameters" else None,
    )
    arguments: dict[str, Any] = {}
    if odd in ("states", "no states"):
        arguments["states"] = {"root": {"count": 1}} if odd == "states" else {}
    if odd in ("missing", "none missing"):
        arguments["data_nan_features"] = ["a"] if odd == "missing" else []
    if odd == "bound":
        arguments["bound"] = {"root": lambda *rows: rows[0]}
    return draw(graphs()), context, arguments


def verdicts(graph: Node, context: Any, arguments: dict[str, Any]) -> dict[str, bool]:
    """Asked of the evaluator alone."""
    module: Any = expression_evaluator
    states, missing = arguments.get("states"), arguments.get("data_nan_features")
    bound, rows = arguments.get("bound"), len(context.features[0])
    common = (graph, context, states)
    return {
        "leaf": module._can_use_leaf_fast_path(*common, data_nan_features=missing),
        "rank": module._can_use_simple_rank_fast_path(*common, data_nan_features=missing),
        "rank product": module._can_use_rank_multiply_fast_path(
            *common, bound_function_instances=bound, data_nan_features=missing
        ),
        "longitudinal": module._can_use_longitudinal_fast_path(
            *common, rows, data_nan_features=missing
        ),
    }


CHAIN = rotation("longitudinal_mean", rotation("longitudinal_std", feature("a"), 2), 2)


def stubs() -> Any:
    return RecordingRegistry({name: SimpleNamespace(**STUB) for name in ROLLING})


def context_of(registry: Any, rows: int = LEAST, **options: Any) -> Any:
    matrix = np.arange(rows * 2.0).reshape(rows, 2)
    return EvaluationContext((matrix, matrix), {"a": 0, "b": 1}, registry=registry, **options)


@settings(
    deadline=None, max_examples=300, suppress_health_check=[HealthCheck.function_scoped_fixture]
)
@given(runs())
@example((CHAIN, context_of(stubs()), {}))
@example((CHAIN, context_of(stubs()), {"states": {}}))
@example((CHAIN, context_of(None), {}))
def test_the_reason_is_there_where_the_evaluator_declines(
    run: tuple[Node, Any, dict[str, Any]],
) -> None:
    graph, context, arguments = run
    explanation = explain(graph, context, **arguments)
    expected = verdicts(graph, context, arguments)
    assert {road.name: road.is_open for road in explanation.roads} == expected
    for road in explanation.roads:
        assert (road.refusal is None) == road.is_open, road
    if explanation.road is None:
        # The run looks for the entries of all functions before it tries any road.
        with pytest.raises(KeyError):
            evaluate(graph, context)
        return
    taken = next((name for name, is_open in expected.items() if is_open), "rows")
    assert explanation.road == taken


RANKED = rotation(RANK, feature("a"))


@pytest.mark.parametrize(
    ("graph", "registry"),
    [
        (feature("a"), None),
        (RANKED, default_registry()),
        (rotation(PRODUCT, RANKED, rotation(RANK, feature("b"))), None),
        (CHAIN, stubs()),
        (rotation("longitudinal_mean", RANKED, 2), default_registry()),
    ],
)
def test_a_run_takes_the_road_that_is_told(
    graph: Node, registry: Any, monkeypatch: pytest.MonkeyPatch
) -> None:
    taken = []

    def watched(name: str, evaluator: Any) -> Any:
        def evaluated(*arguments: Any) -> Any:
            weights = evaluator(*arguments)
            taken.append(name)
            return weights

        return evaluated

    for name, function in EVALUATORS.items():
        watching = watched(name, getattr(expression_evaluator, function))
        monkeypatch.setattr(expression_evaluator, function, watching)
    explanation = explain(graph, context_of(registry))
    assert not taken
    evaluate(graph, context_of(registry))
    assert explanation.road == (taken[-1] if taken else "rows")


def refusals(explanation: Explanation) -> Iterator[str]:
    return (f"{road.name}: {road.refusal}" for road in explanation.roads)


def test_the_value_is_told() -> None:
    graph = rotation("longitudinal_mean", rotation("numerical_add", feature("a"), 1.0), 2)
    assert list(refusals(explain(graph, context_of(stubs())))) == [
        "leaf: the root is no leaf: 'rotation'",
        "rank: root is no latitudinal_rank: rotation 'longitudinal_mean'",
        "rank product: root is no numerical_multiply: rotation 'longitudinal_mean'",
        "longitudinal: root.c0 is no rolling mean, deviation or z-score: 'numerical_add'",
    ]
    short = explain(CHAIN, context_of(stubs(), LEAST - 1))
    assert list(refusals(short))[-1] == "longitudinal: fewer than 4 rows: 3"


def test_ties_are_told_of() -> None:
    rank = next(road for road in explain(RANKED, context_of(None)).roads if road.is_open)
    assert rank.condition == "finite values of a row are equal"


def test_transforms_are_laid_around_before_roads_are_tried() -> None:
    from quernbrook.reference_host.graphs import signal
    from quernbrook.simulator_engine._types import TransformStage

    stage = TransformStage("rank", "on", {"on": rotation("latitudinal_rank", signal())})
    context = context_of(None, transform_pipeline=[stage])
    assert explain(feature("a"), context).road == "rank"
    assert len(context.transform_pipeline) == 1


def test_a_registry_that_fails() -> None:
    class Failing(RecordingRegistry):
        def has_factory(self, name: str) -> bool:
            raise KeyError("the registry is gone")

    explanation = explain(RANKED, context_of(Failing()))
    assert explanation.road is None
    assert (
        list(refusals(explanation))[1] == "rank: its test fails: KeyError: 'the registry is gone'"
    )


def registry_with(name: str, **attributes: Any) -> Any:
    registry = stubs()
    registry.entries[name] = SimpleNamespace(**STUB, **attributes)
    return registry


MEAN = rotation("longitudinal_mean", feature("a"), 2)
PAIR = rotation(PRODUCT, RANKED, rotation(RANK, feature("b")))


@pytest.mark.parametrize(
    ("road", "graph", "registry", "told"),
    [
        ("leaf", feature("no"), None, "the context lacks the feature of root: 'no'"),
        ("rank", rotation(RANK, feature("a"), feature("b")), None, "root ranks more or less than one leaf: 2"),
        ("rank", RANKED, RecordingRegistry(real_factories=[RANK]), f"the registry has a function of its own: '{RANK}'"),
        ("rank product", rotation(PRODUCT, RANKED), None, "the product is not of two factors: 1"),
        ("rank product", rotation(PRODUCT, RANKED, rotation(RANK, feature("no"))), None, "the context lacks the feature of root.c1.c0: 'no'"),
        ("rank product", PAIR, RecordingRegistry(real_factories=[RANK]), f"the registry has a function of its own: '{RANK}'"),
        ("rank product", PAIR, RecordingRegistry(real_factories=[PRODUCT]), f"the registry has a function of its own: '{PRODUCT}'"),
        ("longitudinal", MEAN, None, "there is no registry: None"),
        ("longitudinal", MEAN, RecordingRegistry(), "the registry lacks the function: 'longitudinal_mean'"),
        ("longitudinal", MEAN, RecordingRegistry(stubs().entries, real_factories=["longitudinal_mean"]), "the registry has a function of its own: 'longitudinal_mean'"),
        *(
            ("longitudinal", MEAN, registry_with("longitudinal_mean", **{name: "own"}), f"the entry of longitudinal_mean has a {name}: 'own'")
            for name in ("module_path", "class_name", "factory", "implementation")
        ),
        ("longitudinal", MEAN, Unreadable(stubs().entries), "the registry's entry of longitudinal_mean can't be had: KeyError('longitudinal_mean')"),
        ("longitudinal", rotation("longitudinal_mean", feature("a"), 2, 2.0), stubs(), "root has not just one data child: 2"),
        ("longitudinal", rotation("longitudinal_mean", feature("a"), "x"), stubs(), "root has no int window among its children: ['feature', 'string']"),
        ("longitudinal", rotation("longitudinal_mean", feature("no"), 2), stubs(), "the context lacks the feature of root.c0: 'no'"),
        ("longitudinal", rotation("longitudinal_mean", number(1.0), 2), stubs(), "root.c0 is neither a rotation nor a leaf: 'float'"),
    ],
)  # fmt: skip
def test_each_test_declines(road: str, graph: Node, registry: Any, told: str) -> None:
    context = context_of(registry)
    found = {one.name: one for one in explain(graph, context).roads}[road]
    assert str(found.refusal) == told
    assert not found.is_open and not verdicts(graph, context, {})[road]


@pytest.mark.parametrize(
    ("arguments", "told"),
    [
        ({"data_nan_features": ["a"]}, ["features are marked as missing data: ['a']"] * 4),
        ({"states": {"root": {}}}, ["there are function states to restore: 1: ['root']"] * 3),
        ({"states": {}}, ["", "", "", "function states are given, if none: 0: []"]),
        ({"bound": {"root": len}}, ["", "", "the caller bound instances: 1: ['root']", ""]),
    ],
)
def test_arguments_that_close_roads(arguments: dict[str, Any], told: list[str]) -> None:
    graphs_of = [feature("a"), RANKED, PAIR, MEAN]
    for place, (graph, text) in enumerate(zip(graphs_of, told, strict=False)):
        context = context_of(stubs())
        found = explain(graph, context, **arguments).roads[place]
        assert (str(found.refusal) if found.refusal else "") == text
        assert found.is_open == verdicts(graph, context, arguments)[found.name] == (not text)
