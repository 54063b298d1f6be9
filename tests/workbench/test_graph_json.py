"""Graphs to JSON documents and back."""

from __future__ import annotations

import json
from typing import Any

import jsonschema
import pytest
from hypothesis import given, settings
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.workbench import (
    GraphError,
    GraphJsonError,
    graph_from_json,
    graph_to_json,
    parse_formula,
    same_graph,
)
from quernbrook.workbench.graph_json import schema
from quernbrook.workbench.graphs import FILTERS
from workbench.graph_strategies import graphs

VALIDATOR = jsonschema.Draft202012Validator(schema())
GRAPH = parse_formula("rank(longitudinal_mean(close, 20)) * 2")


def test_the_schema_is_one() -> None:
    jsonschema.Draft202012Validator.check_schema(schema())
    assert set(schema()["$defs"]["filter_name"]["enum"]) == FILTERS


def test_a_document() -> None:
    graph = Node("rotation", "latitudinal_rank", [Node("feature", "x")], {"a": 1}, "shared")
    assert graph_to_json(graph) == {
        "version": 1,
        "graph": {
            "type": "rotation",
            "node": "latitudinal_rank",
            "children": [{"type": "feature", "node": "x"}],
            "config": {"a": 1},
            "canonical_id": "shared",
        },
    }


@settings(max_examples=200, deadline=None)
@given(graphs(only_registered=True))
def test_any_graph_of_registered_functions_comes_back(graph: Node) -> None:
    document = json.loads(json.dumps(graph_to_json(graph), allow_nan=False))
    VALIDATOR.validate(document)
    assert same_graph(graph_from_json(document), graph)


@pytest.mark.parametrize("value", [float("nan"), float("inf"), float("-inf")])
def test_floats_that_json_has_no_number_for(value: float) -> None:
    document = graph_to_json(Node("float", value))
    VALIDATOR.validate(document)
    assert same_graph(graph_from_json(document), Node("float", value))


def test_a_whole_float_stays_an_int_literal() -> None:
    graph = graph_from_json({"version": 1, "graph": {"type": "int", "node": 20.0}})
    assert type(graph.node) is int


def changed(**fields: Any) -> dict[str, Any]:
    document = graph_to_json(GRAPH)
    document["graph"]["children"][0] |= fields
    return document


@pytest.mark.parametrize(
    ("document", "message"),
    [
        ([], "the document: expected an object; got []"),
        ({"graph": {}}, "the document: 'version' is missing"),
        ({"version": 2, "graph": {}}, "/version: expected 1; got 2"),
        ({"version": 1, "graph": 3}, "/graph: expected an object; got 3"),
        ({"version": 1, "graph": {"type": "int"}}, "/graph: 'node' is missing"),
        (changed(type="rotatoin"), "/graph/children/0/type: unknown kind 'rotatoin'; the nearest is 'rotation'"),
        (changed(node="latitudinal_rnk"), "/graph/children/0/node: unknown function 'latitudinal_rnk'; the nearest is 'latitudinal_rank'"),
        (changed(node=1), "/graph/children/0/node: expected a text; got 1"),
        (changed(cofnig={}), "/graph/children/0/cofnig: unknown field; the nearest is 'config'"),
        (changed(**{"a/b~": 1}), "/graph/children/0/a~1b~0: unknown field"),
        (changed(children={}), "/graph/children/0/children: expected an array; got {}"),
        (changed(config=[]), "/graph/children/0/config: expected an object; got []"),
        (changed(canonical_id=7), "/graph/children/0/canonical_id: expected a text; got 7"),
        (changed(type="feature", node="close"), "/graph/children/0/children: a feature has no children"),
        (changed(type="feature", node="clsoe", children=[]), "/graph/children/0/node: unknown feature 'clsoe'; the nearest is 'close'"),
        (changed(type="gt", node="gte_"), "/graph/children/0/node: unknown filter 'gte_'; the nearest is 'gte'"),
        (changed(type="int", node=True, children=[]), "/graph/children/0/node: a literal of kind int can't hold True"),
        (changed(type="float", node="1", children=[]), "/graph/children/0/node: a literal of kind float can't hold '1'"),
        (changed(type=["rotation"]), "/graph/children/0/type: unknown kind ['rotation']; the nearest is 'rotation'"),
        (changed(type="bool", node=True, children=[], config={"a": 1}), "/graph/children/0/config: a bool has no configuration"),
    ],
)  # fmt: skip
def test_what_is_no_graph(document: Any, message: str) -> None:
    with pytest.raises(GraphJsonError) as raised:
        graph_from_json(document, features=["open", "close"])
    assert str(raised.value) == message
    is_name = "unknown f" in message and "unknown field" not in message
    # The schema knows neither functions nor features.
    assert VALIDATOR.is_valid(document) == (is_name and "filter" not in message)


def test_a_number_that_no_float_holds() -> None:
    message = "/graph/children/0/node: the number is too large for a float"
    with pytest.raises(GraphJsonError, match=f"^{message}$"):
        graph_from_json(changed(type="float", node=10**400, children=[]))


@pytest.mark.parametrize("value", [object(), float("nan"), {1, 2}])
def test_configuration_that_json_cannot_hold(value: object) -> None:
    with pytest.raises(GraphError, match=r"^root: JSON can't hold the configuration"):
        graph_to_json(Node("rotation", "latitudinal_rank", [], {"a": value}))
