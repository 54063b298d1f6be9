"""The node builders, the paths of a graph and its picture."""

from __future__ import annotations

from typing import Any

import numpy as np
import pytest
from quernbrook.functions._typed_shapes import FunctionGraphNode
from quernbrook.reference_host import draw_tree, functions_by_path, graphs, nodes_by_path
from quernbrook.simulator_engine.expression_evaluator import generate_node_identities


def plain(node: FunctionGraphNode) -> Any:
    return node.type, node.node, [plain(child) for child in node.children or ()], node.config


def test_leaves() -> None:
    assert plain(graphs.feature("price")) == ("feature", "price", [], None)
    assert plain(graphs.aggregation("sector")) == ("aggregation", "sector", [], None)
    assert plain(graphs.number(2)) == ("float", 2, [], None)
    assert plain(graphs.integer(2)) == ("int", 2, [], None)
    assert plain(graphs.string("net")) == ("string", "net", [], None)
    assert plain(graphs.boolean(False)) == ("bool", False, [], None)
    assert plain(graphs.signal()) == ("signal", "signal", [], None)


def test_plain_values_become_literals_of_their_kinds() -> None:
    built = graphs.rotation("f", graphs.feature("x"), 3, 0.5, "net", True, config={"a": 1})
    assert [(child.type, child.node) for child in built.children or ()] == [
        ("feature", "x"),
        ("int", 3),
        ("float", 0.5),
        ("string", "net"),
        ("bool", True),
    ]
    assert (built.type, built.node, built.config) == ("rotation", "f", {"a": 1})


def test_reductions_and_filters() -> None:
    best = graphs.filtration(
        "and_", graphs.condition("gt", "sharpe", 0.5), graphs.condition("top_n", "sharpe", 3)
    )
    built = graphs.reduction("weighted_by_pnl", best, 20)
    assert plain(built)[:2] == ("reduction", "weighted_by_pnl")
    assert plain(best)[:2] == ("filtration", "and_")
    assert [plain(child)[:2] for child in best.children or ()] == [("gt", "gt"), ("top_n", "top_n")]


def test_an_identity_is_an_attribute_only_where_given() -> None:
    assert graphs.feature("x", canonical_id="c").canonical_id == "c"
    assert graphs.rotation("f", canonical_id="c").canonical_id == "c"
    assert graphs.reduction("f", canonical_id="c").canonical_id == "c"
    assert not hasattr(graphs.rotation("f"), "canonical_id")


@pytest.mark.parametrize("operand", [None, {"type": "feature"}, np.int64(3), [graphs.feature("x")]])
def test_anything_else_is_no_operand(operand: Any) -> None:
    for build in (graphs.rotation, graphs.reduction, graphs.filtration, graphs.condition):
        with pytest.raises(TypeError) as caught:
            build("f", operand)
        assert str(caught.value) == (
            f"an operand is a node, an int, a float, a text or a bool; got {operand!r} "
            f"({type(operand).__name__})"
        )


STRATEGY = graphs.rotation(
    "numerical_multiply",
    graphs.rotation("longitudinal_mean", graphs.feature("price"), 20),
    graphs.rotation("latitudinal_scale", graphs.aggregation("sector"), config={"total": 2.0}),
)


def test_paths_are_those_of_the_evaluator() -> None:
    nodes = nodes_by_path(STRATEGY)
    assert {path: node.node for path, node in nodes.items()} == generate_node_identities(STRATEGY)
    assert list(nodes) == list(generate_node_identities(STRATEGY))


def test_functions_in_the_order_in_which_they_run() -> None:
    assert [(path, node.node) for path, node in functions_by_path(STRATEGY).items()] == [
        ("root.c0", "longitudinal_mean"),
        ("root.c1", "latitudinal_scale"),
        ("root", "numerical_multiply"),
    ]


def test_picture() -> None:
    assert draw_tree(STRATEGY, {"root.c0": "state 1", "root.c1.c0": "by sector"}) == (
        """\
numerical_multiply                rotation     root
├── longitudinal_mean             rotation     root.c0     state 1
│   ├── price                     feature      root.c0.c0
│   └── 20                        int          root.c0.c1
└── latitudinal_scale(total=2.0)  rotation     root.c1
    └── sector                    aggregation  root.c1.c0  by sector"""
    )


def test_picture_of_a_leaf() -> None:
    assert draw_tree(graphs.feature("price")) == "price  feature  root"


def test_deep_graphs() -> None:
    graph = graphs.feature("x")
    for _ in range(2_000):
        graph = graphs.rotation("f", graph)
    assert len(nodes_by_path(graph)) == 2_001
    assert len(functions_by_path(graph)) == 2_000
    assert draw_tree(graph).count("\n") == 2_000
    # Taken apart from the top, for nested destruction counts against the C stack.
    while graph.children:
        graph = graph.children.pop()  # type: ignore[attr-defined]
