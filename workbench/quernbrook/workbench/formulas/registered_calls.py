"""Calls of functions by their registered names."""

from __future__ import annotations

from typing import Any

from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host import FunctionEntry, Parameter
from quernbrook.reference_host.entries import REQUIRED
from quernbrook.workbench.formulas.operands import (
    Built,
    Call,
    Fault,
    Keyword,
    Name,
    Number,
    as_float,
)
from quernbrook.workbench.formulas.scope import BOOLEANS, Scope
from quernbrook.workbench.graphs import LITERALS
from quernbrook.workbench.names import suggestion


def build(call: Call, name: str, scope: Scope) -> Node:
    """Raises Fault.

    An argument with a name becomes a literal child where literal children fill its parameter, and
    configuration otherwise. Windows are among the former: warm-up rows are counted by them.
    """
    entry = scope.registry.get_entry(name)
    children = [scope.argument(operand) for operand in call.operands]
    config = dict(call.config or {})
    given = _given(call, entry.param_schema)
    parameters = entry.param_schema.items()
    filled_by_children = {key: one for key, one in parameters if one.type in LITERALS}
    for key in given.keys() - filled_by_children.keys():
        if key in config:
            raise Fault(f"'{key}' is given twice", given[key].at)
        config[key] = _checked(given[key], entry.param_schema[key])
    children += _literals(call, filled_by_children, given, children)
    return Node(kind_of(entry), name, children, config or None)


def kind_of(entry: FunctionEntry) -> str:
    return "reduction" if entry.family == "reduction" else "rotation"


def _literals(
    call: Call, schema: dict[str, Parameter], given: dict[str, Keyword], children: list[Node]
) -> list[Node]:
    """Children for the arguments with names.

    Literal children fill the parameters in the order of the schema, so that whatever stands before
    the last one given is filled with its default.
    """
    filled = sum(child.type in LITERALS for child in children)
    last = max((place for place, name in enumerate(schema) if name in given), default=-1)
    literals = []
    for place, (name, parameter) in enumerate(schema.items()):
        if place < filled and name in given:
            raise Fault(f"'{name}' is given twice", given[name].at)
        if filled <= place <= last:
            literals.append(_literal(call, name, parameter, given.get(name)))
    return literals


def _given(call: Call, schema: dict[str, Parameter]) -> dict[str, Keyword]:
    given: dict[str, Keyword] = {}
    for keyword in call.keywords:
        if keyword.name not in schema:
            text = f"{call.name} has no parameter '{keyword.name}'"
            raise Fault(text + suggestion(keyword.name, schema), keyword.at)
        if keyword.name in given:
            raise Fault(f"'{keyword.name}' is given twice", keyword.at)
        given[keyword.name] = keyword
    return given


def _literal(call: Call, name: str, parameter: Parameter, keyword: Keyword | None) -> Node:
    if keyword is not None:
        return Node(parameter.type, _checked(keyword, parameter))
    if parameter.default is REQUIRED:
        raise Fault(f"{call.name} needs the parameter '{name}', too", call.at)
    return Node(parameter.type, parameter.default)


def _checked(keyword: Keyword, parameter: Parameter) -> Any:
    value = _value(keyword)
    if not parameter.accepts(value):
        text = f"'{keyword.name}' must be {parameter.type}; got {value!r}"
        raise Fault(text, keyword.operand.at)
    return as_float(value, keyword.operand.at) if parameter.type in ("float", "number") else value


def _value(keyword: Keyword) -> Any:
    operand = keyword.operand
    if isinstance(operand, Number):
        return operand.value
    if isinstance(operand, Name) and operand.text in BOOLEANS:
        return BOOLEANS[operand.text]
    if isinstance(operand, Built) and operand.node.type in LITERALS:
        return operand.node.node
    raise Fault(f"'{keyword.name}' must be a number, a text, true or false", operand.at)
