"""Faults of kinds, literals, leaves and the tree itself; sound graphs have none."""

from __future__ import annotations

import math
from typing import Any

import pytest
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host import Fault, check_graph
from quernbrook.reference_host.graphs import (
    aggregation,
    boolean,
    condition,
    feature,
    filtration,
    integer,
    number,
    reduction,
    rotation,
    signal,
    string,
)
from quernbrook.simulator_engine.expression_evaluator import (
    EvaluationContext,
    evaluate,
)
from support.checks import REGISTRY, X, context, found

SOUND = [
    X,
    number(2),
    integer(3),
    boolean(True),
    feature("risk"),
    rotation("numerical_add", X, 1.0),
    rotation("longitudinal_mean", aggregation("volume"), 30),
    rotation("latitudinal_scale", X, config={"total": 2}),
    rotation("plain", X, 1.5),
    rotation(
        "numerical_add", rotation("longitudinal_mean", X, 20), rotation("latitudinal_rank", X)
    ),
    reduction("reduction_mean"),
    reduction("reduction_mean", filtration("filtration")),
    reduction("weighted_by_vol", filtration("top_n", "sharpe", 1), 5, "downside_vol", "cost", True),
    reduction(
        "weighted_by_pnl",
        filtration("and_", condition("gt", "sharpe", 0.5), condition("eq", "class", "equity")),
        4,
    ),
    reduction("reduction_mean", filtration("filtration", condition("in_", "class", "a", "equity"))),
    reduction("reduction_mean", filtration("between", "sharpe", 0.0, 1.0)),
    reduction("reduction_mean", filtration("bottom_pct", "sharpe", 0.5)),
]


@pytest.mark.parametrize("graph", SOUND)
def test_sound_graphs_have_no_fault_and_run(graph: Node) -> None:
    assert found(graph) == []
    evaluate(graph, context())


KINDS: list[tuple[Any, list[str]]] = [
    (
        Node("rotatoin", "latitudinal_rank", [X]),
        ["root: unknown kind 'rotatoin', which gives zeros; did you mean 'rotation'?"],
    ),
    (
        rotation("latitudinal_rank", Node("Feature", "price")),
        ["root.c0: unknown kind 'Feature', which gives zeros; did you mean 'feature'?"],
    ),
    (Node("zz", 1), ["root: unknown kind 'zz', which gives zeros"]),
    (string("net"), ["root: a text has no row to give; here it gives zeros"]),
    (
        rotation("latitudinal_rank", filtration("top_n", "sharpe", 1)),
        ["root.c0: a filtration belongs below a reduction; here it gives zeros"],
    ),
    (
        rotation("latitudinal_rank", signal()),
        ["root.c0: a 'signal' belongs into the template of a transform stage"],
    ),
    (
        Node("feature", "price", [number(1.0)]),
        ["root: a node of kind 'feature' takes no children; it has 1"],
    ),
    (
        Node("feature", "price", config={"lag": 1}),
        ["root: config is never read in a node of kind 'feature'"],
    ),
]

LITERALS: list[tuple[Any, list[str]]] = [
    (
        rotation("numerical_add", X, number("1")),
        ["root.c1: a literal of kind 'float' can't be '1'"],
    ),
    (number(True), ["root: a literal of kind 'float' can't be True"]),
    (integer(2.0), ["root: a literal of kind 'int' can't be 2.0"]),
    (
        rotation("longitudinal_mean", X, Node("int", math.inf)),
        [
            "root.c1: parameter 'window' of 'longitudinal_mean' must be int; got inf",
            "root.c1: a literal of kind 'int' can't be inf",
        ],
    ),
    (boolean(1), ["root: a literal of kind 'bool' can't be 1"]),
]

TREES: list[tuple[Any, list[str]]] = [
    ({"type": "feature"}, ["root: a node must be a FunctionGraphNode; got dict"]),
    (
        rotation("numerical_add", X, number(1.0)).__class__("rotation", "numerical_add", [X, None]),
        ["root.c1: a node must be a FunctionGraphNode; got NoneType"],
    ),
    (
        Node("rotation", "latitudinal_rank", X),
        ["root: children must be a sequence of nodes; got FunctionGraphNode"],
    ),
    (
        Node("rotation", "latitudinal_rank", "price"),
        ["root: children must be a sequence of nodes; got str"],
    ),
    (
        Node("rotation", "latitudinal_rank", [X], ["total"]),
        ["root: config must be a mapping or None; got ['total']"],
    ),
    (Node(["feature"], "price"), ["root: the kind of a node must be a text; got ['feature']"]),
    (Node("feature", ["price"]), ["root: the name of a feature must be a text; got ['price']"]),
    (
        Node("rotation", None, [X]),
        ["root: the name of a rotation must be a text; got None"],
    ),
]

FEATURES: list[tuple[Any, list[str]]] = [
    (
        rotation("latitudinal_rank", feature("prise")),
        ["root.c0: the context has no feature 'prise'; did you mean 'price'?"],
    ),
    (aggregation("PRICE"), ["root: the context has no feature 'PRICE'; did you mean 'price'?"]),
    (feature("rsik"), ["root: the context has no feature 'rsik'; did you mean 'risk'?"]),
    (feature("zz"), ["root: the context has no feature 'zz'"]),
    (feature("beta"), ["root: 'beta' of the stage data is no array of two dimensions"]),
]


@pytest.mark.parametrize(("graph", "faults"), KINDS + LITERALS + TREES + FEATURES)
def test_each_fault_alone(graph: Any, faults: list[str]) -> None:
    assert found(graph) == faults


def test_all_faults_at_once_in_the_order_of_the_nodes() -> None:
    graph = rotation(
        "numerical_addd",
        Node("rotatoin", "latitudinal_rank", [feature("prise")]),
        rotation("longitudinal_mean", feature("volum"), config={"windw": 3}),
        reduction("weighted_by_sharp", condition("top_n", "sharpe", 3), 300),
        config={"N_alloc": 4},
    )
    assert found(graph, {"data_nan_features": ["pricee"]}) == [
        "root: the registry has no function 'numerical_addd'; did you mean 'numerical_add'?",
        "root.c0: unknown kind 'rotatoin', which gives zeros; did you mean 'rotation'?",
        "root.c0.c0: the context has no feature 'prise'; did you mean 'price'?",
        "root.c1: 'longitudinal_mean' has no parameter 'windw'; did you mean 'window'?",
        "root.c1.c0: the context has no feature 'volum'; did you mean 'volume'?",
        "root.c2: the registry has no function 'weighted_by_sharp'; "
        "did you mean 'weighted_by_sharpe'?",
        "root.c2.c0: filter 'top_n' stands outside a filtration and filters nothing; "
        "did you mean 'filtration'?",
        "data_nan_features: the graph reads no feature 'pricee'; did you mean 'prise'?",
    ]


def test_faults_can_be_told_apart() -> None:
    (fault,) = check_graph(feature("prise"), REGISTRY, context())
    assert fault == Fault("root", "the context has no feature 'prise'", "price")


def test_a_context_without_features() -> None:
    empty = EvaluationContext((), {}, registry=REGISTRY)
    assert [str(fault) for fault in check_graph(number(1.0), REGISTRY, empty)] == [
        "features: the context has no features"
    ]


def test_a_graph_that_contains_itself() -> None:
    graph = rotation("numerical_add", X, X)
    graph.children = [X, rotation("latitudinal_rank", graph)]
    assert found(graph) == ["root.c1.c0: the node stands below itself: it is also 'root'"]


def test_a_node_that_lost_an_attribute() -> None:
    node = feature("price")
    del node.children, node.config
    assert found(rotation("latitudinal_rank", node)) == [
        "root.c0: the node has no attribute children, config"
    ]
