"""Formulas to graphs and back."""

from __future__ import annotations

import pytest
from hypothesis import given, settings
from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host import FunctionEntry, FunctionRegistry, Parameter
from quernbrook.workbench import format_formula, parse_formula, same_graph
from quernbrook.workbench.formulas import notation
from quernbrook.workbench.graphs import GraphError
from workbench.graph_strategies import graphs

CLOSE = Node("feature", "close")
OPEN = Node("feature", "open")
VOLUME = Node("feature", "volume")


def rotation(name: str, *children: Node, **config: object) -> Node:
    return Node("rotation", name, list(children), config or None)


def number(value: float) -> Node:
    return Node("float", value)


def window(value: int) -> Node:
    return Node("int", value)


def add(left: Node, right: Node) -> Node:
    return rotation("numerical_add", left, right)


def assert_reads(text: str, graph: Node) -> None:
    found = parse_formula(text)
    assert same_graph(found, graph), f"{text} is read as {format_formula(found)}"


@pytest.mark.parametrize(
    ("text", "graph"),
    [
        ("close", CLOSE),
        ("2", number(2.0)),
        ("-2.", number(-2.0)),
        (".5e1", number(5.0)),
        ("close + 1", add(CLOSE, number(1.0))),
        ("-close", rotation("numerical_negate", CLOSE)),
        ("-(1)", rotation("numerical_negate", number(1.0))),
        ("!close", rotation("numerical_not", CLOSE)),
        ("rank(close)", rotation("latitudinal_relative_rank", CLOSE)),
        ("RANK(Close)", rotation("latitudinal_relative_rank", CLOSE)),
        ("Ts_Rank(close, 9.9)", rotation("longitudinal_rank", CLOSE, window(9))),
        ("min(close, 5.9)", rotation("longitudinal_min", CLOSE, window(5))),
        ("max(close, open)", rotation("numerical_maximum", CLOSE, OPEN)),
        ("max(close, float(5))", rotation("numerical_maximum", CLOSE, number(5.0))),
        ("scale(close)", rotation("latitudinal_scale", CLOSE)),
        ("scale(close, a=2)", rotation("latitudinal_scale", CLOSE, number(2.0))),
        (
            "IndNeutralize(close, indclass.Sector)",
            rotation("latitudinal_demean_within_groups", CLOSE, Node("feature", "sector")),
        ),
        ("adv20", rotation("longitudinal_mean", rotation("numerical_multiply", VOLUME, Node("feature", "vwap")), window(20))),
        ("longitudinal_mean(close, 20)", rotation("longitudinal_mean", CLOSE, window(20))),
        ("longitudinal_mean(close, window=20)", rotation("longitudinal_mean", CLOSE, window(20))),
        ("longitudinal_mean(close; window=20)", rotation("longitudinal_mean", CLOSE, window=20)),
        ("numerical_add(close, 1.0)", add(CLOSE, number(1.0))),
        ("numerical_add(close, 1)", add(CLOSE, window(1))),
        ('rotation("my function", close, true)', rotation("my function", CLOSE, Node("bool", True))),
        ('aggregation("pool")', Node("aggregation", "pool")),
        ('feature("returns")', Node("feature", "returns")),
        ('"text"', Node("string", "text")),
        ("int(-3)", window(-3)),
        ("# a comment\n close # and another", CLOSE),
        ('close @ "shared"', Node("feature", "close", canonical_id="shared")),
    ],
)  # fmt: skip
def test_what_a_formula_means(text: str, graph: Node) -> None:
    settings_of = {function.function: dict(function.settings) for function in NOTATIONS}
    fill_settings(graph, settings_of, text)
    assert_reads(text, graph)


NOTATIONS = (*notation.BINARY, *notation.UNARY, notation.CHOICE, *notation.CALLS)


def fill_settings(graph: Node, settings_of: dict[str, dict[str, object]], text: str) -> None:
    """Give the nodes above the configuration that the notation sets."""
    if graph.type == "rotation" and graph.node not in text and graph.config is None:
        graph.config = settings_of.get(graph.node) or None
    for child in graph.children or ():
        fill_settings(child, settings_of, text)


@pytest.mark.parametrize(
    ("text", "explicit"),
    [
        ("a + b * c ^ d", "(a + (b * (c ^ d)))"),
        ("a - b - c", "((a - b) - c)"),
        ("a ^ b ^ c", "(a ^ (b ^ c))"),
        ("a ^ -b", "(a ^ (-b))"),
        ("-a ^ 2", "(-(a ^ 2))"),
        ("-a * b", "((-a) * b)"),
        ("a < b == c > d", "((a < b) == (c > d))"),
        ("a || b && c == d", "(a || (b && (c == d)))"),
        ("a || b ? c : d ? e : f", "((a || b) ? c : (d ? e : f))"),
        ("!a && b", "((!a) && b)"),
        ("a / b * c", "((a / b) * c)"),
    ],
)
def test_which_sign_binds_tighter(text: str, explicit: str) -> None:
    graph = parse_formula(text)
    assert same_graph(graph, parse_formula(explicit))
    assert format_formula(graph) == text


@pytest.mark.parametrize(
    "text",
    [
        "rank(returns) * -1",
        "--1 + -close",
        "(-2) ^ close",
        "(a ? b : c) ? d : e",
        "a - (b - c)",
        "(a < b) < c",
        "min(close, float(5)) + ts_min(close, 5)",
        "indneutralize(close, IndClass.subindustry) + sector",
        'float("nan") + float("-inf")',
        'open + feature("Close")',
        'scale(close, 2.5) @ "one" + (a + b) @ "two"',
        'rotation("a b", 1, 1.0, "text", true; limit=[1, 1.0, null, {"deep": -inf}], "odd key"=false)',
        'weighted_by_sharpe(filtration(gt(sharpe, 0.5), not_(in_(class, "a b", rates))), 250)',
        "reduction_mean(filtration(top_n(turnover, 2)))",
        "filtration.or_(gt(sharpe, -1))",
        "returns < adv20",
    ],
)
def test_a_canonical_text_stays_as_it_is(text: str) -> None:
    assert format_formula(parse_formula(text)) == text


def test_a_number_in_a_call_by_registered_name_keeps_its_kind() -> None:
    graph = parse_formula("longitudinal_mean(2.0, 2)")
    assert [child.type for child in graph.children or ()] == ["float", "int"]


def test_arguments_with_names_fill_the_parameters_in_the_order_of_the_schema() -> None:
    graph = parse_formula("weighted_by_sharpe(invert=true, window=60)")
    assert [(child.type, child.node) for child in graph.children or ()] == [
        ("int", 60),
        ("string", "sharpe"),
        ("string", "gross_returns"),
        ("bool", True),
    ]


def test_functions_of_another_registry() -> None:
    schema = {"limit": Parameter("float", 3.0), "side": Parameter("string", "both")}
    entry = FunctionEntry("My_Clip", "mine", build=lambda limit, side: None, param_schema=schema)
    registry = FunctionRegistry([entry])
    graph = parse_formula('my_clip(close, side="up")', registry=registry)
    expected = Node("rotation", "My_Clip", [CLOSE, Node("float", 3.0), Node("string", "up")])
    assert same_graph(graph, expected)
    assert format_formula(graph, registry=registry) == 'My_Clip(close, 3.0, "up")'
    assert format_formula(graph) == 'rotation("My_Clip", close, 3.0, "up")'


def test_known_features_are_found_in_any_case_and_before_definitions() -> None:
    features = ["Close", "close", "RETURNS", "returns"]
    for text in features:
        assert same_graph(parse_formula(text, features=features), Node("feature", text))
    assert same_graph(parse_formula("CLOSE", features=["close"]), CLOSE)


@settings(max_examples=300, deadline=None)
@given(graphs())
def test_any_graph_has_a_text(graph: Node) -> None:
    text = format_formula(graph)
    found = parse_formula(text)
    assert same_graph(found, graph), text
    assert format_formula(found) == text


def test_deep_graphs_need_no_deep_stack() -> None:
    text = " + ".join(["close"] * 3000)
    graph = parse_formula(text)
    assert format_formula(graph) == text
    assert same_graph(graph, parse_formula(text))


def test_a_graph_in_a_circle_is_refused() -> None:
    graph = add(CLOSE, OPEN)
    graph.children = [CLOSE, graph]
    with pytest.raises(GraphError, match=r"root.c1: the node is its own ancestor"):
        format_formula(graph)


@pytest.mark.parametrize(
    ("graph", "message"),
    [
        (Node("rotatoin", "x"), "root: unknown kind 'rotatoin'; the nearest is 'rotation'"),
        (Node("gt", "gte_"), "root: unknown filter 'gte_'; the nearest is 'gte'"),
        (Node("feature", 3), "root: the name of a feature must be a text; got 3"),
        (add(CLOSE, number("x")), "root.c1: a literal of kind float can't hold 'x'"),  # type: ignore[arg-type]
        (Node("string", 1), "root: a string literal can't hold 1"),
        (Node("feature", "x", [CLOSE]), "root: a feature has no children; got 1"),
        (Node("int", 1, None, {"a": 1}), "root: a int has no configuration; got {'a': 1}"),
        (rotation("f", odd=object), "root: a value of type type in the configuration has no text"),
        (Node("rotation", "f", [{}]), "root.c0: dict is no FunctionGraphNode"),  # type: ignore[list-item]
    ],
)
def test_graphs_that_have_no_text(graph: Node, message: str) -> None:
    with pytest.raises(GraphError) as raised:
        format_formula(graph)
    assert str(raised.value) == message
