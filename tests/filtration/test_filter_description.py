"""The text that stands for a filter subtree in messages."""

from __future__ import annotations

from typing import Any

import pytest
from quernbrook.functions._typed_shapes import SchemaError
from quernbrook.simulator_engine._types import EvaluationError
from support.functions import raising
from support.graphs import boolean, feature, filtration, integer, node, number, string
from support.runs import fails, lets_through


def gt(*children: Any) -> Any:
    return node("gt", "gt", list(children))


def operator(name: Any, *children: Any) -> Any:
    return node(name, name, list(children))


MOMENTUM = gt(string("momentum"), number(0.5))
LOW = operator("lt", string("momentum"), number(0.1))


@pytest.mark.parametrize(
    ("tree", "text"),
    [
        (filtration("filtration"), "filtration()"),
        (filtration("filtration", MOMENTUM), "filtration(gt(momentum, 0.5))"),
        (filtration("filtration", LOW, MOMENTUM), "filtration(lt)"),
        (filtration("filtration", filtration("filtration")), "filtration(filtration())"),
        (filtration("filtration", string("momentum")), "filtration(momentum)"),
        (operator("and_", MOMENTUM, LOW), "and_(gt(momentum, 0.5), lt)"),
        (operator("or_", LOW, LOW, LOW), "or_(lt, lt, lt)"),
        (operator("not_", operator("and_", MOMENTUM)), "not_(and_(gt(momentum, 0.5)))"),
        (operator("and_"), "and_()"),
        (operator("or_", string("x"), integer(3)), "or_(x, 3)"),
        (gt(), "gt()"),
        (gt(integer(3), boolean(True), feature("f"), number(1e-20)), "gt(3, True, f, 1e-20)"),
        (gt(MOMENTUM, operator("lt", string("x"))), "gt(gt, lt)"),
        (gt(string(None), string("a, b")), "gt(None, a, b)"),
        (node("lt", "gt", [string("m")]), "gt(m)"),
        (node("gt", "lt", [string("m")]), "lt"),
        (node("and_", "filtration", [LOW]), "filtration(lt)"),
        (node("gt", None, [LOW]), "None"),
        (node("gt", 5), "5"),
        (node("gt", ("a", 1.5)), "('a', 1.5)"),
    ],
)
def test_descriptions(evaluator, tree, text):
    described = evaluator._describe_dict_filter(tree)
    assert described == text
    assert type(described) is str


@pytest.mark.parametrize(
    "name",
    [
        *("lt", "gte", "lte", "eq", "neq", "between", "in_"),
        *("top_pct", "bottom_pct", "top_n", "bottom_n", "made_up", ""),
    ],
)
def test_the_bare_operator(evaluator, name):
    assert evaluator._describe_dict_filter(operator(name, string("m"), number(0.5))) == name


@pytest.mark.parametrize("children", [None, [], ()])
@pytest.mark.parametrize("name", ["filtration", "gt", "and_"])
def test_no_children(evaluator, children, name):
    assert evaluator._describe_dict_filter(node("filtration", name, children)) == f"{name}()"


def test_kinds_are_not_read(evaluator):
    tree = operator("and_", MOMENTUM, gt(string("x")))
    for one in (tree, tree.children[1], tree.children[1].children[0]):
        del one.type
    assert evaluator._describe_dict_filter(tree) == "and_(gt(momentum, 0.5), gt(x))"


def nameless() -> Any:
    built = string("x")
    del built.node
    return built


@pytest.mark.parametrize(("given", "path"), [((), "filtration"), (("p.c1",), "p.c1")])
@pytest.mark.parametrize(
    ("make", "below"),
    [
        (nameless, ""),
        (lambda: filtration("filtration", nameless()), ".c0"),
        (lambda: gt(string("m"), nameless()), ".c1"),
        (lambda: operator("or_", LOW, operator("not_", nameless())), ".c1.c0"),
        (lambda: operator("and_", nameless(), {}), ".c0"),
    ],
)
def test_missing_values(evaluator, make, below, given, path):
    with fails(EvaluationError, f"Graph node '{path}{below}' missing required key: node"):
        evaluator._describe_dict_filter(make(), *given)


def test_arguments_by_keyword(evaluator):
    assert evaluator._describe_dict_filter(node=gt()) == "gt()"
    with fails(EvaluationError, "Graph node 'p' missing required key: node"):
        evaluator._describe_dict_filter(nameless(), path="p")


def test_what_is_not_described_is_not_read(evaluator):
    assert evaluator._describe_dict_filter(filtration("filtration", LOW, nameless())) == (
        "filtration(lt)"
    )
    assert evaluator._describe_dict_filter(operator("between", nameless(), {})) == "between"


@pytest.mark.parametrize("name", ["filtration", "gt", "not_"])
def test_other_objects(evaluator, name):
    text = "Graph node 'field-check' must be FunctionGraphNode; got dict"
    with fails(SchemaError, text):
        evaluator._describe_dict_filter(operator(name, {}))
    with fails(SchemaError, text):
        evaluator._describe_dict_filter({})


@pytest.mark.parametrize("make", [lambda mute: gt(string(mute)), lambda mute: node("gt", mute)])
@pytest.mark.parametrize("kind", [ValueError, KeyboardInterrupt])
def test_a_value_without_a_text(evaluator, make, kind):
    fault = kind("mute")

    class Mute:
        __str__ = raising(fault)

    with lets_through(fault):
        evaluator._describe_dict_filter(make(Mute()))


class Shown(str):
    """A name with a text of its own, as a member of an enumeration of strings has."""

    def __str__(self) -> str:
        return "shown"

    def __format__(self, _: str) -> str:
        return "shown"


@pytest.mark.parametrize(
    ("tree", "text"),
    [
        (gt(string("m")), "gt(m)"),
        (filtration("filtration", LOW), "filtration(lt)"),
        (operator("not_", LOW), "shown(lt)"),
        (LOW, "shown"),
    ],
)
def test_names_with_a_text_of_their_own(evaluator, tree, text):
    described = node(tree.type, Shown(tree.node), tree.children)
    assert evaluator._describe_dict_filter(described) == text


@pytest.mark.parametrize(
    ("children", "error"), [(iter([LOW]), TypeError), ({LOW.node}, TypeError), ({1: LOW}, KeyError)]
)
def test_the_first_child_is_taken_by_its_place(evaluator, children, error):
    described = filtration("filtration")
    described.children = children
    with pytest.raises(error):
        evaluator._describe_dict_filter(described)
