"""Filter subtrees become the trees that the filtration library takes."""

from __future__ import annotations

from typing import Any

import pytest
from quernbrook.functions._typed_shapes import SchemaError
from quernbrook.functions.filtrations_evaluation import FilterNode
from quernbrook.simulator_engine._types import EvaluationError
from support.functions import raising
from support.graphs import boolean, feature, filtration, integer, node, number, string
from support.runs import fails, lets_through

COMPARISONS = ("gt", "lt", "gte", "lte", "eq", "neq")
LOGICAL = ("filtration", "and_", "or_", "not_")
OPERATORS = (
    *LOGICAL,
    *COMPARISONS,
    *("between", "in_", "top_pct", "bottom_pct", "top_n", "bottom_n"),
)
M, N, P = string("m"), string("n"), string("p")


def operator(name: Any, *children: Any) -> Any:
    return node(name, name, list(children))


def params(evaluator, name: Any, *children: Any) -> dict[str, Any]:
    return evaluator._dict_to_filter_node(operator(name, *children)).params


def test_kinds(evaluator):
    assert type(evaluator.FILTRATION_NODE_TYPES) is frozenset
    assert set(OPERATORS) == evaluator.FILTRATION_NODE_TYPES
    assert len(OPERATORS) == 16


# --- parameters ----------------------------------------------------------------------------------


@pytest.mark.parametrize("name", COMPARISONS)
@pytest.mark.parametrize(
    ("children", "expected"),
    [
        ((), {}),
        ((M,), {"field": "m"}),
        ((number(0.5),), {"value": 0.5}),
        ((M, number(0.5)), {"field": "m", "value": 0.5}),
        ((integer(2), M), {"field": "m", "value": 2}),
        ((M, number(0.5), integer(2)), {"field": "m", "value": 0.5}),
        ((integer(2), number(0.5), M), {"field": "m", "value": 0.5}),
        ((M, number(0.5), number(1.5)), {"field": "m", "value": 0.5}),
        ((M, integer(2), integer(3)), {"field": "m", "value": 2}),
        ((M, number(0.0), integer(2)), {"field": "m", "value": 0.0}),
        ((string(""), integer(0)), {"field": "", "value": 0}),
    ],
)
def test_comparisons(evaluator, name, children, expected):
    assert params(evaluator, name, *children) == expected


@pytest.mark.parametrize("name", COMPARISONS)
@pytest.mark.parametrize("numbers", [(), (number(0.5),), (integer(2),)])
def test_a_second_text(evaluator, name, numbers):
    expected = {"field": "m", **({"value": numbers[0].node} if numbers else {})}
    if name in ("eq", "neq"):
        expected["value"] = "n"
    assert params(evaluator, name, M, *numbers, N, P) == expected
    assert params(evaluator, name, *numbers, M, N) == expected


@pytest.mark.parametrize(
    ("name", "children", "expected"),
    [
        ("between", (M,), {"field": "m"}),
        ("between", (M, number(1.0)), {"field": "m"}),
        ("between", (number(2.0), M, number(1.0)), {"field": "m", "low": 2.0, "high": 1.0}),
        ("between", (number(1.0), number(2.0), number(3.0)), {"low": 1.0, "high": 2.0}),
        ("between", (M, integer(1), integer(2)), {"field": "m"}),
        ("between", (M, integer(1), number(2.0)), {"field": "m"}),
        ("in_", (), {}),
        ("in_", (M,), {"field": "m"}),
        ("in_", (M, N), {"field": "m", "values": ["n"]}),
        ("in_", (M, number(1.0), N, integer(1), P), {"field": "m", "values": ["n", "p"]}),
        ("top_pct", (M, number(0.1), number(0.2)), {"field": "m", "pct": 0.1}),
        ("bottom_pct", (number(0.1),), {"pct": 0.1}),
        ("top_pct", (M, integer(1)), {"field": "m"}),
        ("bottom_pct", (integer(1), M), {"field": "m"}),
        ("top_n", (M, N, integer(3), integer(4)), {"field": "m", "n": 3}),
        ("bottom_n", (integer(3),), {"n": 3}),
        ("top_n", (M, number(3.0)), {"field": "m"}),
        ("bottom_n", (number(3.0), M), {"field": "m"}),
    ],
)
def test_other_operators(evaluator, name, children, expected):
    assert params(evaluator, name, *children) == expected


@pytest.mark.parametrize("name", [*LOGICAL, "made_up", "", None, 5, ("gt",)])
def test_operators_without_parameters(evaluator, name):
    tree = evaluator._dict_to_filter_node(
        node("gt", name, [M, number(0.5), operator("gt"), integer(1)])
    )
    assert (tree.function_name, tree.params) == (name, {})
    assert tree.children == [FilterNode("gt", {}, [])]


@pytest.mark.parametrize("name", OPERATORS)
@pytest.mark.parametrize("child", [boolean(True), feature("m"), node("odd", 1), node(None, 1)])
def test_other_children_are_passed_over(evaluator, name, child):
    assert evaluator._dict_to_filter_node(operator(name, child)) == FilterNode(name, {}, [])


def test_a_child_that_is_passed_over_is_not_read_further(evaluator):
    without_value = boolean(True)
    del without_value.node
    assert params(evaluator, "gt", without_value, M) == {"field": "m"}


@pytest.mark.parametrize(
    ("name", "key", "children"),
    [
        ("gt", "value", lambda value: (M, number(value))),
        ("lt", "value", lambda value: (M, integer(value))),
        ("eq", "value", lambda value: (M, string(value))),
        ("neq", "field", lambda value: (string(value),)),
        ("between", "high", lambda value: (number(1.0), number(value))),
        ("top_n", "n", lambda value: (integer(value),)),
        ("top_pct", "pct", lambda value: (number(value),)),
    ],
)
def test_values_are_handed_on_as_they_are(evaluator, name, key, children):
    value = object()
    assert params(evaluator, name, *children(value))[key] is value


@pytest.mark.parametrize("name", OPERATORS)
def test_parameters_are_new_for_each_call(evaluator, name):
    tree = operator(name, M, N, number(0.5), number(1.0), integer(1))
    first, second = (evaluator._dict_to_filter_node(tree) for _ in range(2))
    assert first == second
    assert first.params is not second.params
    assert first.children is not second.children
    assert type(first.params) is dict and type(first.children) is list


# --- children ------------------------------------------------------------------------------------


@pytest.mark.parametrize("name", OPERATORS)
@pytest.mark.parametrize("parent", OPERATORS)
def test_filters_below_filters(evaluator, parent, name):
    tree = operator(parent, operator(name), M, operator("or_", operator(name)))
    converted = evaluator._dict_to_filter_node(tree)
    assert converted.children == [
        FilterNode(name, {}, []),
        FilterNode("or_", {}, [FilterNode(name, {}, [])]),
    ]


def test_kind_and_operator_are_read_apart(evaluator):
    """The kind of a child makes it a filter; its value is the operator."""
    tree = operator("and_", node("gt", "lt", [M]), node("string", "gt"), node("odd", "gt", [M]))
    assert evaluator._dict_to_filter_node(tree) == FilterNode(
        "and_", {}, [FilterNode("lt", {"field": "m"}, [])]
    )


def test_the_kind_of_the_first_node_is_not_read(evaluator):
    tree = operator("gt", M)
    del tree.type
    assert evaluator._dict_to_filter_node(tree) == FilterNode("gt", {"field": "m"}, [])


@pytest.mark.parametrize("children", [None, [], ()])
def test_no_children(evaluator, children):
    tree = node("filtration", "filtration", children)
    assert evaluator._dict_to_filter_node(tree) == FilterNode("filtration", {}, [])


def test_children_in_a_tuple_and_shared(evaluator):
    shared = operator("gt", M)
    converted = evaluator._dict_to_filter_node(node("and_", "and_", (shared, shared)))
    one, other = converted.children
    assert one == other and one is not other


def test_keywords_of_the_filter_node(evaluator, monkeypatch):
    calls: list[tuple[tuple[Any, ...], dict[str, Any]]] = []
    monkeypatch.setattr(
        evaluator, "FilterNode", lambda *args, **kwargs: calls.append((args, kwargs)) or len(calls)
    )
    assert evaluator._dict_to_filter_node(filtration("and_", operator("gt", M), operator("lt")))
    empty: dict[str, Any] = {"params": {}, "children": []}
    assert calls == [
        ((), {**empty, "function_name": "gt", "params": {"field": "m"}}),
        ((), {**empty, "function_name": "lt"}),
        ((), {"function_name": "and_", "params": {}, "children": [1, 2]}),
    ]
    assert list(calls[0][1]) == ["function_name", "params", "children"]


def test_kinds_are_looked_up_when_used(evaluator, monkeypatch):
    monkeypatch.setattr(evaluator, "FILTRATION_NODE_TYPES", frozenset({"odd", "string"}))
    tree = operator("gt", node("odd", "x"), operator("lt"), M)
    assert evaluator._dict_to_filter_node(tree) == FilterNode(
        "gt", {}, [FilterNode("x", {}, []), FilterNode("m", {}, [])]
    )


# --- faults --------------------------------------------------------------------------------------


def without(field: str, built: Any) -> Any:
    delattr(built, field)
    return built


@pytest.mark.parametrize(("given", "path"), [((), "filtration"), (("root.c2",), "root.c2")])
@pytest.mark.parametrize(
    ("make", "key", "below"),
    [
        (lambda: without("node", operator("gt")), "node", ""),
        (lambda: operator("and_", M, without("type", string("n"))), "type", ".c1"),
        (lambda: operator("gt", without("node", string("n"))), "node", ".c0"),
        (lambda: operator("gt", without("node", number(1.0))), "node", ".c0"),
        (lambda: operator("gt", M, without("node", integer(1))), "node", ".c1"),
        (
            lambda: operator("or_", M, operator("not_", without("type", string("m")))),
            "type",
            ".c1.c0",
        ),
        (lambda: operator("or_", without("node", operator("gt"))), "node", ".c0"),
    ],
)
def test_missing_fields(evaluator, make, key, below, given, path):
    with fails(EvaluationError, f"Graph node '{path}{below}' missing required key: {key}"):
        evaluator._dict_to_filter_node(make(), *given)


def test_arguments_by_keyword(evaluator):
    assert evaluator._dict_to_filter_node(graph_node=operator("gt", M)).params == {"field": "m"}
    with fails(EvaluationError, "Graph node 'p.c0' missing required key: node"):
        evaluator._dict_to_filter_node(operator("gt", without("node", string("m"))), path="p")


@pytest.mark.parametrize("other", [None, {}, "gt", FilterNode("gt")])
def test_other_objects(evaluator, other):
    text = f"Graph node 'field-check' must be FunctionGraphNode; got {type(other).__name__}"
    with fails(SchemaError, text):
        evaluator._dict_to_filter_node(other)
    with fails(SchemaError, text):
        evaluator._dict_to_filter_node(operator("and_", M, other))


def test_the_earlier_of_two_faults(evaluator):
    nameless = operator("and_", {})
    del nameless.node
    with fails(EvaluationError, "Graph node 'filtration' missing required key: node"):
        evaluator._dict_to_filter_node(nameless)
    first, last = without("node", string("m")), without("type", string("m"))
    with fails(EvaluationError, "Graph node 'filtration.c1' missing required key: node"):
        evaluator._dict_to_filter_node(operator("gt", M, first, last))
    neither = without("type", without("node", string("m")))
    with fails(EvaluationError, "Graph node 'filtration.c0.c0' missing required key: type"):
        evaluator._dict_to_filter_node(operator("gt", operator("lt", neither), last))


@pytest.mark.parametrize("kind", [[], {}])
def test_an_unhashable_kind(evaluator, kind):
    with fails(TypeError, f"unhashable type: '{type(kind).__name__}'"):
        evaluator._dict_to_filter_node(operator("gt", M, node(kind, 1)))


def test_children_that_are_no_sequence(evaluator):
    with fails(TypeError, "'int' object is not iterable"):
        evaluator._dict_to_filter_node(node("gt", "gt", 5))


def test_a_library_that_refuses(evaluator, monkeypatch):
    fault = ValueError("no such filter")
    monkeypatch.setattr(evaluator, "FilterNode", raising(fault))
    with lets_through(fault):
        evaluator._dict_to_filter_node(operator("gt"))


def test_a_cycle_and_a_deep_tree(evaluator):
    cycle = operator("not_")
    cycle.children.append(cycle)
    deep = operator("gt")
    for _ in range(20_000):
        deep = operator("not_", deep)
    for endless in (cycle, deep):
        with pytest.raises(RecursionError):
            evaluator._dict_to_filter_node(endless)
        with pytest.raises(RecursionError):
            evaluator._describe_dict_filter(endless)
