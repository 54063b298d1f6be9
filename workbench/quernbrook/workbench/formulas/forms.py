"""Calls that say which kind of node they are: literals, features, functions and filters."""

from __future__ import annotations

from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.workbench.formulas.operands import (
    Built,
    Call,
    Fault,
    Name,
    Number,
    Operand,
    as_float,
    refuse_config,
    refuse_keywords,
)
from quernbrook.workbench.formulas.scope import BOOLEANS, Scope

LITERALS = ("float", "int", "string", "bool")
FEATURES = ("feature", "aggregation")
FUNCTIONS = ("rotation", "reduction")
NAMES = (*LITERALS, *FEATURES, *FUNCTIONS)

# Floats that have no digits.
NOT_FINITE = {"nan": float("nan"), "inf": float("inf"), "-inf": float("-inf")}


def literal(call: Call) -> Node:
    """float(2), float("nan"), int(2), string("text"), bool(true). Raises Fault."""
    operand = _only_operand(call)
    value = operand.value if isinstance(operand, Number) else _text(operand)
    if call.name == "float" and value in NOT_FINITE and isinstance(value, str):
        return Node("float", NOT_FINITE[value])
    if call.name == "float" and isinstance(operand, Number):
        return Node("float", as_float(operand.value, operand.at))
    if call.name == "int" and isinstance(value, int):
        return Node("int", value)
    if call.name == "bool" and value in BOOLEANS:
        return Node("bool", BOOLEANS[str(value)])
    if call.name == "string" and isinstance(value, str):
        return Node("string", value)
    raise Fault(f"{call.name}(...) can't hold {value!r}", operand.at)


def feature(call: Call) -> Node:
    """feature("close"), aggregation("close"): any name, known or not. Raises Fault."""
    operand = _only_operand(call)
    name = _text(operand)
    if not isinstance(name, str):
        raise Fault(f"{call.name}(...) takes a name", operand.at)
    return Node(call.name, name)


def function(call: Call, scope: Scope) -> Node:
    """rotation("name", ...), reduction("name", ...): any function, known or not. Raises Fault."""
    refuse_keywords(call)
    name = _text(call.operands[0]) if call.operands else None
    if not isinstance(name, str):
        raise Fault(f"expected {call.name}(name, ...)", call.at)
    children = [scope.argument(operand) for operand in call.operands[1:]]
    return Node(call.name, name, children, call.config)


def filter_node(call: Call, kind: str, operator: str) -> Node:
    """gt(sharpe, 0.5): names are texts here. Raises Fault."""
    refuse_keywords(call)
    refuse_config(call)
    return Node(kind, operator, [_filter_operand(operand) for operand in call.operands])


def _filter_operand(operand: Operand) -> Node:
    if isinstance(operand, Built):
        return operand.node
    if isinstance(operand, Number):
        return Node("int" if isinstance(operand.value, int) else "float", operand.value)
    if operand.text in BOOLEANS:
        return Node("bool", BOOLEANS[operand.text])
    return Node("string", operand.text)


def _only_operand(call: Call) -> Operand:
    refuse_keywords(call)
    refuse_config(call)
    if len(call.operands) != 1:
        raise Fault(f"{call.name}(...) takes one operand", call.at)
    return call.operands[0]


def _text(operand: Operand) -> str | None:
    """A name, or a text in quotes."""
    if isinstance(operand, Name):
        return operand.text
    if isinstance(operand, Built) and operand.node.type == "string":
        return str(operand.node.node)
    return None
