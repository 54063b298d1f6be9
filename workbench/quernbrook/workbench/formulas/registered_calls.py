"""Calls of functions by their registered names."""

from __future__ import annotations

from quernbrook.functions._typed_shapes import FunctionGraphNode as Node
from quernbrook.reference_host import FunctionEntry, Parameter
from quernbrook.reference_host.entries import REQUIRED
from quernbrook.workbench.formulas.operands import Built, Call, Fault, Keyword, Name, Number
from quernbrook.workbench.formulas.scope import BOOLEANS, Scope
from quernbrook.workbench.graphs import LITERALS
from quernbrook.workbench.names import suggestion


def build(call: Call, name: str, scope: Scope) -> Node:
    """Raises Fault."""
    entry = scope.registry.get_entry(name)
    children = [scope.argument(operand) for operand in call.operands]
    if call.keywords:
        children += _literals(call, entry.param_schema, children)
    return Node(kind_of(entry), name, children, call.config)


def kind_of(entry: FunctionEntry) -> str:
    return "reduction" if entry.family == "reduction" else "rotation"


def _literals(call: Call, schema: dict[str, Parameter], children: list[Node]) -> list[Node]:
    """Children for the arguments with names.

    Literal children fill the parameters in the order of the schema, so that whatever stands before
    the last one given is filled with its default.
    """
    given = _given(call, schema)
    filled = sum(child.type in LITERALS for child in children)
    names = list(schema)
    last = max(names.index(name) for name in given)
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
    if keyword is None:
        if parameter.default is REQUIRED:
            raise Fault(f"{call.name} needs the parameter '{name}', too", call.at)
        return Node(parameter.type, parameter.default)
    value = _value(keyword)
    if not parameter.accepts(value):
        raise Fault(f"'{name}' must be {parameter.type}; got {value!r}", keyword.operand.at)
    return Node(parameter.type, float(value) if parameter.type == "float" else value)


def _value(keyword: Keyword) -> object:
    operand = keyword.operand
    if isinstance(operand, Number):
        return operand.value
    if isinstance(operand, Name) and operand.text in BOOLEANS:
        return BOOLEANS[operand.text]
    if isinstance(operand, Built) and operand.node.type in LITERALS:
        return operand.node.node
    raise Fault(f"'{keyword.name}' must be a number, a text, true or false", operand.at)
